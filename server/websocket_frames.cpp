#include "websocket_frames.h"

#include "base/utf8_stream_decoder.h"

#include <QCryptographicHash>

#include <cstring>

namespace brinmoor::relay::ws {

void unmask(char* data, qsizetype size, const unsigned char mask[4])
{
    unsigned char pattern[8];
    for (int i = 0; i < 8; ++i)
        pattern[i] = mask[i % 4];
    quint64 wide;
    std::memcpy(&wide, pattern, 8);
    qsizetype i = 0;
    for (; i + 8 <= size; i += 8) {
        quint64 word;
        std::memcpy(&word, data + i, 8);
        word ^= wide;
        std::memcpy(data + i, &word, 8);
    }
    for (; i < size; ++i)
        data[i] = static_cast<char>(data[i] ^ mask[i % 4]);
}

bool isSendableCloseCode(quint16 code)
{
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) || (code >= 3000 && code <= 4999);
}

QByteArray acceptKey(QByteArrayView key)
{
    QByteArray text = key.toByteArray();
    text.append("258EAFA5-E914-47DA-95CA-C5AB0DC85B11");
    return QCryptographicHash::hash(text, QCryptographicHash::Sha1).toBase64();
}

qsizetype writeFrameHeader(char* out, Opcode opcode, quint64 payloadSize)
{
    out[0] = static_cast<char>(0x80 | opcode);
    if (payloadSize < 126) {
        out[1] = static_cast<char>(payloadSize);
        return 2;
    }
    if (payloadSize <= 0xFFFF) {
        out[1] = 126;
        out[2] = static_cast<char>(payloadSize >> 8);
        out[3] = static_cast<char>(payloadSize);
        return 4;
    }
    out[1] = 127;
    for (int i = 0; i < 8; ++i)
        out[2 + i] = static_cast<char>(payloadSize >> (56 - 8 * i));
    return 10;
}

QByteArray frame(Opcode opcode, QByteArrayView payload)
{
    char header[10];
    const qsizetype headerSize = writeFrameHeader(header, opcode, quint64(payload.size()));
    QByteArray out;
    out.reserve(headerSize + payload.size());
    out.append(header, headerSize);
    out.append(payload);
    return out;
}

QByteArray closeFrame(quint16 code, QByteArrayView reason)
{
    QByteArray payload;
    payload.append(char(code >> 8));
    payload.append(char(code & 0xFF));
    payload.append(reason.first(qMin<qsizetype>(reason.size(), 123)));
    return frame(Close, payload);
}

FrameReader::FrameReader(qsizetype maxMessageSize, bool requireMasked)
    : m_maxMessageSize(maxMessageSize), m_requireMasked(requireMasked)
{
}

FrameReader::Result FrameReader::fail(quint16 code, const char* reason)
{
    m_failureCode = code;
    m_failureReason = reason;
    return Result::Failed;
}

FrameReader::Result FrameReader::next(QByteArray& buffer, qsizetype& offset, Message& message)
{
    if (!m_inFragments && !m_fragments.isNull())
        m_fragments = QByteArray(); // the last joined message has been handled
    while (true) {
        const qsizetype available = buffer.size() - offset;
        if (available < 2)
            return Result::NeedMore;
        auto* head = reinterpret_cast<unsigned char*>(buffer.data() + offset);
        const bool final = head[0] & 0x80;
        if (head[0] & 0x70)
            return fail(ProtocolError, "reserved bits set");
        const int opcode = head[0] & 0x0F;
        const bool masked = head[1] & 0x80;
        if (m_requireMasked && !masked)
            return fail(ProtocolError, "frames from a client must be masked");
        quint64 length = head[1] & 0x7F;
        qsizetype headerSize = 2;
        if (length == 126) {
            if (available < 4)
                return Result::NeedMore;
            length = (quint64(head[2]) << 8) | head[3];
            headerSize = 4;
        } else if (length == 127) {
            if (available < 10)
                return Result::NeedMore;
            length = 0;
            for (int i = 0; i < 8; ++i)
                length = (length << 8) | head[2 + i];
            headerSize = 10;
        }
        const bool control = opcode & 0x8;
        if (control) {
            if (opcode != Close && opcode != Ping && opcode != Pong)
                return fail(ProtocolError, "unknown opcode");
            if (!final || length > 125)
                return fail(ProtocolError, "invalid control frame");
        } else if (opcode != Continuation && opcode != Text && opcode != Binary) {
            return fail(ProtocolError, "unknown opcode");
        }
        // The size is checked from the header alone, so a huge frame is never buffered.
        const quint64 joined = (control ? 0 : quint64(m_fragments.size())) + length;
        if (joined > quint64(m_maxMessageSize))
            return fail(MessageTooBig, "message too big");
        const qsizetype maskSize = masked ? 4 : 0;
        const qsizetype total = headerSize + maskSize + qsizetype(length);
        if (available < total)
            return Result::NeedMore;
        char* payload = buffer.data() + offset + headerSize + maskSize;
        if (masked)
            unmask(payload, qsizetype(length), head + headerSize);
        offset += total;
        const QByteArrayView data(payload, qsizetype(length));

        if (control) {
            message.opcode = Opcode(opcode);
            message.payload = data;
            return Result::Message;
        }
        if (opcode == Continuation) {
            if (!m_inFragments)
                return fail(ProtocolError, "continuation without a message");
            m_fragments.append(data);
            if (!final)
                continue;
            m_inFragments = false;
            message.opcode = m_fragmentOpcode;
            message.payload = m_fragments;
        } else {
            if (m_inFragments)
                return fail(ProtocolError, "new message inside a fragmented one");
            if (!final) {
                m_inFragments = true;
                m_fragmentOpcode = Opcode(opcode);
                m_fragments = data.toByteArray();
                continue;
            }
            message.opcode = Opcode(opcode);
            message.payload = data;
        }
        if (message.opcode == Text && !isValidUtf8(message.payload))
            return fail(InvalidData, "invalid UTF-8 in a text message");
        return Result::Message;
    }
}

} // namespace brinmoor::relay::ws
