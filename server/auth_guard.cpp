#include "auth_guard.h"

namespace brinmoor::relay {

namespace {

// Beyond this many remembered addresses, those with nothing recent are forgotten.
constexpr qsizetype kRecordsBeforeCleanup = 4096;

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

AuthGuard::AuthGuard(QByteArray token, int maxFailures, qint64 windowMs, qint64 blockMs)
    : m_token(std::move(token)), m_maxFailures(maxFailures), m_windowMs(windowMs), m_blockMs(blockMs)
{
}

bool AuthGuard::tokenMatches(QByteArrayView presented) const
{
    return constantTimeEquals(presented, m_token);
}

bool AuthGuard::isBlocked(const QString& address, qint64 nowMs)
{
    const auto it = m_records.find(address);
    return it != m_records.end() && it->blockedUntil > nowMs;
}

bool AuthGuard::recordFailure(const QString& address, qint64 nowMs)
{
    if (m_records.size() >= kRecordsBeforeCleanup)
        forgetStale(nowMs);
    Record& record = m_records[address];
    record.failures.push_back(nowMs);
    while (!record.failures.empty() && record.failures.front() <= nowMs - m_windowMs)
        record.failures.pop_front();
    if (qsizetype(record.failures.size()) < m_maxFailures)
        return false;
    record.failures.clear();
    record.blockedUntil = nowMs + m_blockMs;
    return true;
}

void AuthGuard::forgetStale(qint64 nowMs)
{
    for (auto it = m_records.begin(); it != m_records.end();) {
        const bool recent = !it->failures.empty() && it->failures.back() > nowMs - m_windowMs;
        if (!recent && it->blockedUntil <= nowMs)
            it = m_records.erase(it);
        else
            ++it;
    }
}

} // namespace brinmoor::relay
