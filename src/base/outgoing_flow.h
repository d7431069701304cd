#pragma once

#include <QObject>

namespace brinmoor {

// Back-pressure between the producers of output (task pipes, terminal masters) and
// the socket. When the bytes the socket has not written yet pass the high-water mark,
// producers stop reading; the children then block on their own writes. Reading
// resumes once the socket has drained below the low-water mark. Nothing is dropped.
class OutgoingFlow : public QObject {
    Q_OBJECT

public:
    static constexpr qint64 kHighWaterBytes = 4 * 1024 * 1024;
    static constexpr qint64 kLowWaterBytes = 1 * 1024 * 1024;

    explicit OutgoingFlow(QObject* parent = nullptr) : QObject(parent) {}
    // A flow with marks of its own.
    OutgoingFlow(qint64 highWaterBytes, qint64 lowWaterBytes, QObject* parent = nullptr)
        : QObject(parent), m_high(highWaterBytes), m_low(lowWaterBytes)
    {
    }

    bool isBlocked() const { return m_blocked; }
    // Called with the socket's unsent byte count after every send and write.
    void update(qint64 pendingBytes);

Q_SIGNALS:
    // The socket drained below the low-water mark: producers may read again.
    void resumed();

private:
    qint64 m_high = kHighWaterBytes;
    qint64 m_low = kLowWaterBytes;
    bool m_blocked = false;
};

} // namespace brinmoor
