#include "waiting_turns.h"

#include "auth_guard.h"

#include <algorithm>
#include <limits>

namespace brinmoor::relay {

void WaitingTurns::add(const QString& key, RelayConnection* connection, const HttpRequest& request)
{
    if (m_keys.contains(connection))
        return;
    m_keys.insert(connection, key);
    m_lines[key].push_back(Entry{Waiting{connection, request}, m_arrivals++});
}

std::optional<WaitingTurns::Waiting> WaitingTurns::remove(const RelayConnection* connection)
{
    const auto key = m_keys.find(connection);
    if (key == m_keys.end())
        return std::nullopt;
    const auto line = m_lines.find(*key);
    m_keys.erase(key);
    std::optional<Waiting> removed;
    if (line == m_lines.end())
        return removed;
    const auto entry =
        std::find_if(line->begin(), line->end(), [&](const Entry& e) { return e.waiting.connection == connection; });
    if (entry != line->end()) {
        removed = std::move(entry->waiting);
        line->erase(entry);
    }
    if (line->empty())
        m_lines.erase(line);
    return removed;
}

std::optional<WaitingTurns::Waiting> WaitingTurns::takeNext(const AuthGuard& guard, qint64 nowMs)
{
    auto best = m_lines.end();
    int bestFailures = std::numeric_limits<int>::max();
    quint64 bestArrival = std::numeric_limits<quint64>::max();
    for (auto line = m_lines.begin(); line != m_lines.end(); ++line) {
        if (guard.turnOf(line.key(), nowMs) > nowMs)
            continue;
        const int failures = guard.recentFailures(line.key(), nowMs);
        const quint64 arrival = line->front().arrival;
        if (failures < bestFailures || (failures == bestFailures && arrival < bestArrival)) {
            best = line;
            bestFailures = failures;
            bestArrival = arrival;
        }
    }
    if (best == m_lines.end())
        return std::nullopt;
    Waiting next = std::move(best->front().waiting);
    best->pop_front();
    if (best->empty())
        m_lines.erase(best);
    m_keys.remove(next.connection);
    return next;
}

qint64 WaitingTurns::nextTurn(const AuthGuard& guard, qint64 nowMs) const
{
    qint64 soonest = -1;
    for (auto line = m_lines.cbegin(); line != m_lines.cend(); ++line) {
        const qint64 turn = guard.turnOf(line.key(), nowMs);
        if (soonest < 0 || turn < soonest)
            soonest = turn;
    }
    return soonest;
}

} // namespace brinmoor::relay
