#pragma once

#include <QByteArray>
#include <QByteArrayView>

namespace brinmoor::relay::ws {

enum Opcode { Continuation = 0x0, Text = 0x1, Binary = 0x2, Close = 0x8, Ping = 0x9, Pong = 0xA };

// Close codes the relay uses.
enum CloseCode : quint16 {
    NormalClosure = 1000,
    GoingAway = 1001,
    ProtocolError = 1002,
    InvalidData = 1007,
    PolicyViolation = 1008,
    MessageTooBig = 1009,
};

// A code a close frame may carry on the wire (1005, 1006 and 1015 only stand for
// "none" inside an endpoint; 1004 and codes below 1000 are not used).
bool isSendableCloseCode(quint16 code);

// The Sec-WebSocket-Accept value for a client's Sec-WebSocket-Key.
QByteArray acceptKey(QByteArrayView key);

// Server frames are never masked.
QByteArray frame(Opcode opcode, QByteArrayView payload);
// Writes just the header of an unmasked final frame into `out` (at most 10 bytes).
qsizetype writeFrameHeader(char* out, Opcode opcode, quint64 payloadSize);
QByteArray closeFrame(quint16 code, QByteArrayView reason);

// Undoes a client's masking in place.
void unmask(char* data, qsizetype size, const unsigned char mask[4]);

// One complete message (fragments joined) or control frame.
struct Message {
    Opcode opcode = Text;
    QByteArrayView payload; // valid until the next call to `next`
};

// Reads frames from a peer's byte stream, unmasking them in place and joining fragments,
// with a bound on the size of one message.
class FrameReader {
public:
    enum class Result { NeedMore, Message, Failed };

    FrameReader(qsizetype maxMessageSize, bool requireMasked);

    // Looks at `buffer` from `offset`; on Message, `offset` has moved past the frame.
    Result next(QByteArray& buffer, qsizetype& offset, Message& message);

    quint16 failureCode() const { return m_failureCode; }
    QByteArray failureReason() const { return m_failureReason; }

private:
    Result fail(quint16 code, const char* reason);

    qsizetype m_maxMessageSize;
    bool m_requireMasked;
    QByteArray m_fragments;
    Opcode m_fragmentOpcode = Text;
    bool m_inFragments = false;
    quint16 m_failureCode = 0;
    QByteArray m_failureReason;
};

} // namespace brinmoor::relay::ws
