#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>
#include <QString>

#include <deque>

namespace brinmoor::relay {

// Compares a presented secret with the real one in time that does not depend on where
// they differ.
bool constantTimeEquals(QByteArrayView presented, QByteArrayView secret);

// Checks the shared token and refuses, for a while, an address that keeps presenting
// wrong ones. Times are milliseconds on a monotonic clock, given by the caller.
class AuthGuard {
public:
    explicit AuthGuard(QByteArray token, int maxFailures = 10, qint64 windowMs = 60'000, qint64 blockMs = 60'000);

    bool tokenMatches(QByteArrayView presented) const;
    bool isBlocked(const QString& address, qint64 nowMs);
    // Counts one failed attempt; true when it is the one that blocks the address.
    bool recordFailure(const QString& address, qint64 nowMs);

    int maxFailures() const { return m_maxFailures; }
    qint64 blockMs() const { return m_blockMs; }

private:
    struct Record {
        std::deque<qint64> failures;
        qint64 blockedUntil = 0;
    };
    void forgetStale(qint64 nowMs);

    QByteArray m_token;
    int m_maxFailures;
    qint64 m_windowMs;
    qint64 m_blockMs;
    QHash<QString, Record> m_records;
};

} // namespace brinmoor::relay
