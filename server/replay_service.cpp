#include "replay_service.h"

#include "client_broadcast.h"
#include "relay_connection.h"
#include "relay_messages.h"

#include <algorithm>

namespace brinmoor::relay {

namespace {

// A client that catches up is sent the log while less than this waits for it (and
// less than a quarter of what would get it dropped): what is replayed is a copy of the
// client's own.
constexpr qsizetype kReplayBacklog = 64 * 1024;

} // namespace

ReplayService::ReplayService(EventLogLimits limits, qsizetype maxBacklog, ClientBroadcast& clients, PresentOf presentOf)
    : m_limits(limits), m_maxBacklog(maxBacklog), m_clients(clients), m_presentOf(std::move(presentOf))
{
}

AgentHistory& ReplayService::historyOf(const QString& agentId)
{
    const auto found = m_histories.find(agentId);
    if (found != m_histories.end())
        return found->second;
    return m_histories.emplace(agentId, AgentHistory{EventLog(m_limits), AgentSnapshot(), std::nullopt, false})
        .first->second;
}

AgentHistory* ReplayService::find(const QString& agentId)
{
    const auto found = m_histories.find(agentId);
    return found == m_histories.end() ? nullptr : &found->second;
}

void ReplayService::forgetUnnumbered(const QString& agentId)
{
    const auto history = m_histories.find(agentId);
    if (history != m_histories.end() && !history->second.numbered)
        m_histories.erase(history);
}

void ReplayService::record(const QString& agentId, AgentHistory& history, qint64 nowMs, qint64 seq,
                           const QByteArray& frame, QByteArrayView terminalSession)
{
    const qint64 memoryBefore = history.log.memory();
    history.log.append(nowMs, seq, frame, terminalSession);
    m_logMemory += history.log.memory() - memoryBefore;
    history.numbered = true;
    if (m_logMemory > m_limits.maxTotalBytes)
        trimToTotal();
    if (m_clients.empty())
        return;
    if (!m_cursors.anyOn(agentId)) {
        m_clients.send(frame);
        return;
    }
    m_clients.send(frame, [&](RelayConnection& client) {
        qint64 had = 0;
        switch (m_cursors.live(&client, agentId, seq, history.log.lostThrough(), &had)) {
        case ResumeCursors::Live::Send: return true;
        case ResumeCursors::Live::Gap: sendGap(client, agentId, had); return false;
        case ResumeCursors::Live::Hold: break;
        }
        return false;
    });
}

void ReplayService::resume(RelayConnection& client, const QString& agentId, qint64 since)
{
    m_cursors.erase(&client, agentId);
    const auto found = m_histories.find(agentId);
    if (found == m_histories.end() || !found->second.numbered) {
        // Nothing of this agent yet (the server started since): its messages after
        // `since` go to the client as they come.
        client.sendText(RelayMessages::resumeOk(agentId, since));
        m_cursors.waitAfter(&client, agentId, since);
        return;
    }
    const EventLog& log = found->second.log;
    if (since < log.lostThrough()) {
        sendGap(client, agentId, since);
        return;
    }
    client.sendText(RelayMessages::resumeOk(agentId, since));
    if (since >= log.headSeq()) {
        if (since > log.headSeq())
            m_cursors.waitAfter(&client, agentId, since);
        return;
    }
    m_cursors.replayFrom(&client, agentId, since);
    pump(client);
}

void ReplayService::sendGap(RelayConnection& client, const QString& agentId, qint64 since)
{
    AgentHistory& history = historyOf(agentId);
    client.sendText(
        RelayMessages::resumeGap(agentId, since, history.log.headSeq(), m_presentOf(agentId, history.snapshot)));
}

void ReplayService::pump(RelayConnection& client)
{
    const qsizetype window = std::min(kReplayBacklog, m_maxBacklog / 4);
    const ResumeCursors::Replayed replayed = m_cursors.replay(
        client,
        [this](const QString& agentId) -> const EventLog* {
            const auto history = m_histories.find(agentId);
            return history == m_histories.end() ? nullptr : &history->second.log;
        },
        window);
    for (const auto& [agentId, had] : replayed.gaps)
        sendGap(client, agentId, had);
    if (replayed.behind && client.isOpen())
        client.notifyWhenDrained();
}

void ReplayService::removeClient(const RelayConnection* client)
{
    m_cursors.eraseClient(client);
}

void ReplayService::trimByAge(qint64 nowMs, const std::function<bool(const QString& agentId)>& connected,
                              const std::function<void(const QString& agentId, const AgentHistory& history)>& forgotten)
{
    m_logMemory = 0;
    for (auto it = m_histories.begin(); it != m_histories.end();) {
        it->second.log.trimByAge(nowMs);
        if (connected(it->first) || it->second.log.size() > 0) {
            m_logMemory += it->second.log.memory();
            ++it;
            continue;
        }
        // An agent gone for longer than its log reaches back is forgotten.
        forgotten(it->first, it->second);
        it = m_histories.erase(it);
    }
    m_clients.releaseSharedFrames();
}

void ReplayService::trimToTotal()
{
    // Trimmed a little below the limit, so that the logs are not searched again at every
    // message that comes while they are full.
    const qint64 target = m_limits.maxTotalBytes - m_limits.maxTotalBytes / 64;
    while (m_logMemory > target) {
        // The largest log gives way until it is no larger than the next one.
        EventLog* largest = nullptr;
        qint64 next = 0;
        for (auto& [agentId, history] : m_histories) {
            const qint64 memory = history.log.memory();
            if (history.log.size() == 0)
                continue;
            if (!largest || memory > largest->memory()) {
                next = largest ? largest->memory() : 0;
                largest = &history.log;
            } else {
                next = std::max(next, memory);
            }
        }
        if (!largest)
            return;
        do {
            const qint64 before = largest->memory();
            largest->dropOldest();
            m_logMemory += largest->memory() - before;
        } while (m_logMemory > target && largest->size() > 0 && largest->memory() > next);
    }
}

} // namespace brinmoor::relay
