#include "websocket_client.h"

#include <QList>

namespace brinmoor::relay::ws {

void appendMaskedFrame(QByteArray& out, Opcode opcode, QByteArrayView payload, const char (&mask)[4], bool final)
{
    const qsizetype size = payload.size();
    out.append(char((final ? 0x80 : 0) | opcode));
    if (size < 126) {
        out.append(char(0x80 | size));
    } else if (size <= 0xFFFF) {
        out.append(char(0x80 | 126));
        out.append(char(size >> 8));
        out.append(char(size & 0xFF));
    } else {
        out.append(char(0x80 | 127));
        for (int i = 7; i >= 0; --i)
            out.append(char((quint64(size) >> (8 * i)) & 0xFF));
    }
    out.append(mask, 4);
    const qsizetype start = out.size();
    out.append(payload.data(), size);
    char* data = out.data() + start;
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char(data[i] ^ mask[i % 4]);
}

QByteArray maskedFrame(Opcode opcode, QByteArrayView payload, bool final)
{
    QByteArray frame;
    appendMaskedFrame(frame, opcode, payload, kTestMask, final);
    return frame;
}

QByteArray upgradeRequest(QByteArrayView path, QByteArrayView extraHeaders)
{
    return QByteArray("GET ") + path.toByteArray() +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" +
           extraHeaders.toByteArray() + "\r\n";
}

QByteArray upgradeResponse(QByteArrayView requestHead)
{
    QByteArray key;
    for (const QByteArray& line : requestHead.toByteArray().split('\n')) {
        if (line.toLower().startsWith("sec-websocket-key:"))
            key = line.mid(18).trimmed();
    }
    return QByteArray("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                      "Sec-WebSocket-Accept: ") +
           acceptKey(key) + "\r\n\r\n";
}

} // namespace brinmoor::relay::ws
