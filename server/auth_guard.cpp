#include "auth_guard.h"

#include <QHostAddress>

#include <algorithm>

namespace brinmoor::relay {

namespace {

// Records of addresses that no longer count are let go this many at a time as new ones
// come, so that memory follows the attack and not the longest one ever seen.
constexpr int kStaleRecordsDroppedPerFailure = 2;

} // namespace

bool constantTimeEquals(QByteArrayView presented, QByteArrayView secret)
{
    // Every byte of the secret is looked at whatever was presented; only the length of
    // the secret shows in the timing.
    unsigned int difference = presented.size() == secret.size() ? 0U : 1U;
    for (qsizetype i = 0; i < secret.size(); ++i) {
        const unsigned char mine = static_cast<unsigned char>(secret[i]);
        const unsigned char theirs =
            i < presented.size() ? static_cast<unsigned char>(presented[i]) : static_cast<unsigned char>(~mine);
        difference |= static_cast<unsigned int>(mine ^ theirs);
    }
    return difference == 0 && !secret.isEmpty();
}

AuthGuard::AuthGuard(QByteArray token, GuessLimits limits) : m_token(std::move(token)), m_limits(limits) {}

QString AuthGuard::keyOf(const QString& address)
{
    const QHostAddress parsed(address);
    if (parsed.protocol() != QAbstractSocket::IPv6Protocol)
        return address;
    Q_IPV6ADDR bytes = parsed.toIPv6Address();
    std::fill(bytes.c + 8, bytes.c + 16, quint8(0));
    return QHostAddress(bytes).toString() + QStringLiteral("/64");
}

bool AuthGuard::tokenMatches(QByteArrayView presented) const
{
    return constantTimeEquals(presented, m_token);
}

bool AuthGuard::failedRecently(const Record& record, qint64 nowMs) const
{
    return record.lastFailure > nowMs - m_limits.windowMs || record.blockedUntil > nowMs;
}

qint64 AuthGuard::turnOf(const QString& key, qint64 nowMs) const
{
    const auto it = m_records.constFind(key);
    if (it == m_records.constEnd() || !failedRecently(*it, nowMs))
        return nowMs;
    // The shared slot in whole milliseconds, rounded up: never earlier than it is.
    const qint64 slot = (m_nextFailureSlotUs + 999) / 1000;
    return std::max(it->nextTurn, slot);
}

int AuthGuard::recentFailures(const QString& key, qint64 nowMs) const
{
    const auto it = m_records.constFind(key);
    if (it == m_records.constEnd())
        return 0;
    if (it->blockedUntil > nowMs)
        return m_limits.maxFailures;
    return int(std::count_if(it->failures.cbegin(), it->failures.cend(),
                             [&](qint64 at) { return at > nowMs - m_limits.windowMs; }));
}

bool AuthGuard::isBlocked(const QString& key, qint64 nowMs) const
{
    const auto it = m_records.constFind(key);
    return it != m_records.constEnd() && it->blockedUntil > nowMs;
}

AuthGuard::Record& AuthGuard::recordFor(const QString& key, qint64 nowMs)
{
    const auto found = m_records.find(key);
    if (found != m_records.end()) {
        // The one that failed last goes to the end of the order.
        m_order.splice(m_order.end(), m_order, found->order);
        return *found;
    }
    for (int i = 0; i < kStaleRecordsDroppedPerFailure && !m_order.empty(); ++i) {
        const auto oldest = m_records.constFind(m_order.front());
        if (failedRecently(*oldest, nowMs))
            break;
        m_records.erase(oldest);
        m_order.pop_front();
    }
    if (m_records.size() >= m_limits.maxAddresses && !m_order.empty()) {
        // Full of addresses that all failed recently: the one that failed longest ago is
        // forgotten (its next guess is judged at once, as any new address's is).
        m_records.remove(m_order.front());
        m_order.pop_front();
    }
    Record& record = m_records[key];
    record.order = m_order.insert(m_order.end(), key);
    return record;
}

bool AuthGuard::recordFailure(const QString& key, qint64 nowMs)
{
    const auto existing = m_records.constFind(key);
    const bool wasFailing = existing != m_records.constEnd() && failedRecently(*existing, nowMs);
    Record& record = recordFor(key, nowMs);
    record.lastFailure = nowMs;
    record.nextTurn = nowMs + m_limits.spacingMs;
    if (wasFailing) {
        const qint64 interval = 1'000'000 / std::max(1, m_limits.failuresPerSecond);
        m_nextFailureSlotUs = std::max(m_nextFailureSlotUs, nowMs * 1000) + interval;
    }
    if (record.blockedUntil > nowMs)
        return false;
    record.failures.removeIf([&](qint64 at) { return at <= nowMs - m_limits.windowMs; });
    record.failures.append(nowMs);
    if (record.failures.size() < m_limits.maxFailures)
        return false;
    record.failures.clear();
    record.blockedUntil = nowMs + m_limits.blockMs;
    return true;
}

} // namespace brinmoor::relay
