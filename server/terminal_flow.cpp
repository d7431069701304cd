#include "terminal_flow.h"

#include <algorithm>

namespace brinmoor::relay {

std::optional<TerminalFlow::Window> TerminalFlow::acknowledge(const RelayConnection* client, const QString& agentId,
                                                              const QString& sessionId, std::optional<qint64> offset)
{
    const Key key{agentId, sessionId};
    if (offset) {
        Session& session = m_sessions[key];
        if (!session.offsets.contains(client))
            ++m_paced[client];
        session.offsets.insert(client, *offset);
        session.owedSince.remove(client);
    } else {
        const auto session = m_sessions.find(key);
        if (session == m_sessions.end() || !session->offsets.remove(client))
            return std::nullopt;
        session->owedSince.remove(client);
        if (--m_paced[client] == 0)
            m_paced.remove(client);
    }
    return update(key);
}

bool TerminalFlow::canPace(const RelayConnection* client, const QString& agentId, const QString& sessionId) const
{
    const auto session = m_sessions.constFind(Key{agentId, sessionId});
    if (session != m_sessions.constEnd() && session->offsets.contains(client))
        return true;
    return m_paced.value(client) < m_maxSessionsPerClient;
}

QList<TerminalFlow::Window> TerminalFlow::removeClient(const RelayConnection* client)
{
    if (!m_paced.remove(client))
        return {};
    QList<Key> paced;
    for (auto it = m_sessions.begin(); it != m_sessions.end(); ++it) {
        it->owedSince.remove(client);
        if (it->offsets.remove(client))
            paced.append(it.key());
    }
    QList<Window> changed;
    for (const Key& key : paced) {
        if (const std::optional<Window> window = update(key))
            changed.append(*window);
    }
    return changed;
}

void TerminalFlow::removeSession(const QString& agentId, const QString& sessionId)
{
    const auto session = m_sessions.find(Key{agentId, sessionId});
    if (session == m_sessions.end())
        return;
    forgetClientsOf(*session);
    m_sessions.erase(session);
}

void TerminalFlow::keepSessions(const QString& agentId, const std::function<bool(const QString& sessionId)>& isOpen)
{
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        if (it.key().first != agentId || isOpen(it.key().second)) {
            ++it;
            continue;
        }
        forgetClientsOf(*it);
        it = m_sessions.erase(it);
    }
}

void TerminalFlow::forgetClientsOf(const Session& session)
{
    for (auto client = session.offsets.keyBegin(); client != session.offsets.keyEnd(); ++client) {
        if (--m_paced[*client] == 0)
            m_paced.remove(*client);
    }
}

QList<TerminalFlow::Window> TerminalFlow::windowsOf(const QString& agentId) const
{
    QList<Window> windows;
    for (auto it = m_sessions.cbegin(); it != m_sessions.cend(); ++it) {
        if (it.key().first == agentId && it->told)
            windows.append(Window{agentId, it.key().second, it->told});
    }
    return windows;
}

void TerminalFlow::sent(const QString& agentId, const QString& sessionId, qint64 nowMs)
{
    const auto session = m_sessions.find(Key{agentId, sessionId});
    if (session == m_sessions.end() || session->owedSince.size() == session->offsets.size())
        return;
    for (auto client = session->offsets.keyBegin(); client != session->offsets.keyEnd(); ++client) {
        if (!session->owedSince.contains(*client))
            session->owedSince.insert(*client, nowMs);
    }
}

QList<TerminalFlow::Window> TerminalFlow::dropStalled(qint64 nowMs, qint64 limitMs, QList<Stall>& stalls)
{
    QList<Stall> found;
    for (auto it = m_sessions.cbegin(); it != m_sessions.cend(); ++it) {
        for (auto owed = it->owedSince.cbegin(); owed != it->owedSince.cend(); ++owed) {
            if (nowMs - owed.value() >= limitMs)
                found.append(Stall{owed.key(), it.key().first, it.key().second});
        }
    }
    QList<Window> changed;
    for (const Stall& stall : std::as_const(found)) {
        if (const std::optional<Window> window =
                acknowledge(stall.client, stall.agentId, stall.sessionId, std::nullopt))
            changed.append(*window);
    }
    stalls.append(found);
    return changed;
}

std::optional<TerminalFlow::Window> TerminalFlow::update(const Key& key)
{
    const auto session = m_sessions.find(key);
    if (session == m_sessions.end())
        return std::nullopt;
    std::optional<qint64> lowest;
    for (const qint64 offset : std::as_const(session->offsets))
        lowest = lowest ? std::min(*lowest, offset) : offset;
    const bool changed = lowest != session->told;
    session->told = lowest;
    if (session->offsets.isEmpty())
        m_sessions.erase(session);
    if (!changed)
        return std::nullopt;
    return Window{key.first, key.second, lowest};
}

} // namespace brinmoor::relay
