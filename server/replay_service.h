#pragma once

#include "agent_snapshot.h"
#include "event_log.h"
#include "resume_cursors.h"

#include <QJsonObject>
#include <QString>

#include <functional>
#include <map>
#include <optional>

namespace brinmoor::relay {

class ClientBroadcast;
class RelayConnection;

// What outlives an agent's connections: its recent messages, its present and its
// registration.
struct AgentHistory {
    EventLog log;
    AgentSnapshot snapshot;
    std::optional<QJsonObject> registration; // the latest "agent.register" without its "type"
    bool numbered = false;                   // a message of it has had a seq
};

// The agents' histories and the clients that come back for them: a message an agent
// sends is kept in its log and given to the clients, except to those still being
// replayed what came before it; a client that resumes is replayed the log as its
// backlog drains, or told of the gap when the log no longer reaches back.
class ReplayService {
public:
    // The snapshot "resume.gap" carries: the agent's present as the relay tells it.
    using PresentOf = std::function<QJsonObject(const QString& agentId, const AgentSnapshot& snapshot)>;

    ReplayService(EventLogLimits limits, qsizetype maxBacklog, ClientBroadcast& clients, PresentOf presentOf);

    AgentHistory& historyOf(const QString& agentId);
    // None when the relay keeps nothing of the agent.
    AgentHistory* find(const QString& agentId);
    const std::map<QString, AgentHistory>& histories() const { return m_histories; }
    // An agent that never numbered a message leaves no history behind.
    void forgetUnnumbered(const QString& agentId);

    // Keeps the agent's message `seq` (its whole frame) at `nowMs` and gives it to the
    // clients. `terminalSession` names the session of a "terminal.output".
    void record(const QString& agentId, AgentHistory& history, qint64 nowMs, qint64 seq, const QByteArray& frame,
                QByteArrayView terminalSession);
    // Starts giving the client the agent's messages after `since`.
    void resume(RelayConnection& client, const QString& agentId, qint64 since);
    // Sends a replaying client the log, as far as its backlog allows.
    void pump(RelayConnection& client);
    void removeClient(const RelayConnection* client);
    // Ages the logs; the history of an agent that is not `connected` and whose log is
    // empty is forgotten, after `forgotten` is told of it.
    void trimByAge(qint64 nowMs, const std::function<bool(const QString& agentId)>& connected,
                   const std::function<void(const QString& agentId, const AgentHistory& history)>& forgotten);

private:
    void sendGap(RelayConnection& client, const QString& agentId, qint64 since);
    // Lets go of the oldest messages of the largest logs while all of them hold more
    // than they may together.
    void trimToTotal();

    EventLogLimits m_limits;
    qsizetype m_maxBacklog;
    ClientBroadcast& m_clients;
    PresentOf m_presentOf;
    std::map<QString, AgentHistory> m_histories;
    qint64 m_logMemory = 0; // of every history's log
    ResumeCursors m_cursors;
};

} // namespace brinmoor::relay
