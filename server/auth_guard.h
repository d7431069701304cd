#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>
#include <QList>
#include <QString>

#include <list>

namespace brinmoor::relay {

// Compares a presented secret with the real one in time that does not depend on where
// they differ.
bool constantTimeEquals(QByteArrayView presented, QByteArrayView secret);

// How fast wrong tokens are judged. A guess is only worth something once the relay has
// judged it, so what is bounded is how often a request whose address failed recently
// is judged, not how soon its answer goes out: whoever guesses on many connections at
// once learns nothing from answers that are held back.
struct GuessLimits {
    int maxFailures = 10;            // within windowMs: the address is blocked (its wrong tokens get 429)
    qint64 windowMs = 60'000;        // how long a failure makes its address one that failed recently
    qint64 blockMs = 60'000;         // how long a block lasts
    qint64 spacingMs = 250;          // from an address's failure to its next judgment
    int failuresPerSecond = 100;     // of all addresses that failed recently, together
    qsizetype maxAddresses = 16'384; // remembered at most; the one that failed longest ago goes first
};

// Checks the shared token and says when a request from an address may be judged. An
// address with no failure in the window is judged at once, whatever other addresses do.
// One that failed recently is judged no sooner than spacingMs after its last failure,
// and such addresses together fail at most failuresPerSecond times a second. A right
// token costs nothing: only failures move the turns. Times are milliseconds on a
// monotonic clock, given by the caller. Addresses are the keys of keyOf().
class AuthGuard {
public:
    explicit AuthGuard(QByteArray token, GuessLimits limits = {});

    // The key an address's failures count under: the address itself, or for IPv6 its
    // /64 network ("2001:db8:1:2::/64"), which one site's devices share and from which
    // one machine may take any number of addresses.
    static QString keyOf(const QString& address);

    bool tokenMatches(QByteArrayView presented) const;
    // When a request from that address may be judged: now (or earlier) when at once.
    qint64 turnOf(const QString& key, qint64 nowMs) const;
    bool mayJudge(const QString& key, qint64 nowMs) const { return turnOf(key, nowMs) <= nowMs; }
    // Failures within the window (maxFailures while blocked): of the addresses whose turn
    // has come, the one with the fewest goes first.
    int recentFailures(const QString& key, qint64 nowMs) const;
    bool isBlocked(const QString& key, qint64 nowMs) const;
    // Counts one failed judgment; true when it is the one that blocks the address.
    bool recordFailure(const QString& key, qint64 nowMs);

    const GuessLimits& limits() const { return m_limits; }
    qsizetype rememberedAddresses() const { return m_records.size(); }

private:
    struct Record {
        QList<qint64> failures; // within the window, oldest first, fewer than maxFailures
        qint64 lastFailure = 0;
        qint64 blockedUntil = 0;
        qint64 nextTurn = 0;
        std::list<QString>::iterator order;
    };
    bool failedRecently(const Record& record, qint64 nowMs) const;
    Record& recordFor(const QString& key, qint64 nowMs);

    QByteArray m_token;
    GuessLimits m_limits;
    QHash<QString, Record> m_records;
    std::list<QString> m_order;     // keys, the one that failed longest ago first
    qint64 m_nextFailureSlotUs = 0; // when an address that failed recently may fail again
};

} // namespace brinmoor::relay
