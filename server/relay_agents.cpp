// The relay's side of the agents' connections: an agent comes and goes, what it says is
// numbered (AgentStream), observed for what the relay must know (its registration, its
// present, its tasks' ends) and relayed to the clients (ReplayService).
#include "protocol/message_types.h"
#include "relay_log.h"
#include "relay_server.h"

#include <QTimer>

namespace brinmoor::relay {

namespace {

constexpr quint16 kReplacedCloseCode = 4000;
// The ping after an agent's hello, whose pong ends the agent's prelude.
const QByteArray kLearnPing = QByteArrayLiteral("brinmoor.learn");
// While less than this waits for an agent, a window goes to it at once.
constexpr qsizetype kAgentQuietBacklog = 64 * 1024;
constexpr quint16 kPolicyViolationCloseCode = 1008;
constexpr const char* kSeqRangeReason = "seqs must stay below 2^53";

} // namespace

void RelayServer::acceptAgent(RelayConnection& connection, const HttpRequest& request)
{
    const QString agentId = QString::fromUtf8(request.queryItem("agentId")).trimmed();
    if (agentId.isEmpty()) {
        connection.respond(RelayMessages::httpErrorResponse(400, QStringLiteral("agentId is missing")));
        return;
    }
    const auto existing = m_agents.find(agentId);
    if (existing != m_agents.end()) {
        // The same agent again (a reconnect racing the old socket's end): the newer wins.
        RelayConnection* old = existing->connection;
        m_agentIds.remove(old);
        dropAgent(*existing);
        logEvent("agent.replaced", {{"agentId", agentId}});
        old->close(kReplacedCloseCode, "replaced by a newer connection");
    }
    // An agent's WebSocket is no client's: no cap on clients ever lets it go.
    m_clientConnections.remove(&connection);
    Agent agent;
    agent.agentId = agentId;
    agent.connection = &connection;
    agent.stream = AgentStream(agentId);
    agent.history = &m_replay.historyOf(agentId);
    m_agents.insert(agentId, agent);
    m_agentIds.insert(&connection, agentId);
    m_queue.agentOnline(agentId);
    connection.upgrade(RelayConnection::Role::Agent, request.header("sec-websocket-key"), {});
    connection.sendText(RelayMessages::agentHello(agent.history->log.headSeq()));
    // The agent's first message (its register) crosses the hello. An agent that takes up
    // the announcement says "agent.stream" in answer, before its pong of this ping; one
    // that does not has its messages numbered here, from its pong on.
    connection.sendFrame(ws::frame(ws::Ping, kLearnPing));
    // The readers that pace its terminals hold them back again.
    for (const TerminalFlow::Window& window : m_terminalFlow.windowsOf(agentId))
        tellAgentWindow(window);
    for (const TerminalFlow::Window& window : m_taskFlow.windowsOf(agentId))
        tellAgentTaskWindow(window);
    logEvent("agent.connected", {{"agentId", agentId}, {"address", connection.address()}});
    m_clients.sendText(RelayMessages::agentOnline(agentId));
}

void RelayServer::pongReceived(RelayConnection& connection, QByteArrayView payload)
{
    if (connection.role() != RelayConnection::Role::Agent || payload != kLearnPing)
        return;
    const auto id = m_agentIds.constFind(&connection);
    if (id == m_agentIds.constEnd())
        return;
    const auto agent = m_agents.find(*id);
    if (agent != m_agents.end() && agent->stream.learning())
        endPrelude(*agent);
}

void RelayServer::endPrelude(Agent& agent)
{
    const QList<QByteArray> prelude = agent.stream.endPrelude();
    const QString agentId = agent.agentId;
    for (const QByteArray& message : prelude) {
        // A message may drop the agent (it may not, today); look it up again each time.
        const auto found = m_agents.find(agentId);
        if (found == m_agents.end())
            return;
        agentMessage(*found, message);
    }
}

void RelayServer::agentMessage(Agent& agent, QByteArrayView payload)
{
    AgentStream::Reading reading = AgentStream::read(payload);
    // An agent says one message (its register) before its pong; one that says many and
    // never answers the ping does not number them either.
    if (agent.stream.preludeFull(reading))
        endPrelude(agent);
    if (agent.stream.hold(reading, payload))
        return;
    if (reading.announces) {
        announce(agent, *reading.message);
        return;
    }
    AgentHistory& history = *agent.history;
    if (!agent.stream.numbering()) {
        agent.stream.numberHere(history.log, history.numbered);
        // Nor does it restate what it runs.
        agent.restated = true;
    }
    const qint64 seq = agent.stream.take();
    scheduleAck(agent);
    if (agent.stream.repeats(seq))
        return; // sent again after a reconnect; the server has it
    if (!reading.isObject || (reading.parsed && !reading.message)) {
        logEvent("agent.message.invalid", {{"agentId", agent.agentId}});
        return;
    }
    QByteArray rewritten;
    QByteArrayView relayed = reading.body;
    if (std::optional<QJsonObject>& message = reading.message) {
        if (answerRead(agent.agentId, *message))
            return; // for one client alone, not logged
        if (refusedAsBusy(agent, *message))
            return;
        observeAgentMessage(agent, history, *message);
        pushFor(agent.agentId, history, *message);
        if (message->contains(QStringLiteral("agentId"))) {
            // The relay names the sender; an agent does not get to name another.
            message->remove(QStringLiteral("agentId"));
            rewritten = RelayMessages::json(*message);
            relayed = rewritten;
        }
    }
    const QByteArray frame = agent.stream.frame(seq, relayed);
    const QByteArrayView terminal =
        reading.bulk == AgentStream::Bulk::TerminalOutput ? AgentStream::sessionOf(relayed) : QByteArrayView();
    m_replay.record(agent.agentId, history, m_batchTime, seq, frame, terminal);
    // Those that pace what was sent owe an acknowledgement for it.
    if (reading.bulk == AgentStream::Bulk::TerminalOutput && !m_terminalFlow.isEmpty())
        m_terminalFlow.sent(agent.agentId, QString::fromUtf8(terminal), m_clock.elapsed());
    else if (reading.bulk == AgentStream::Bulk::TaskLog && !m_taskFlow.isEmpty())
        m_taskFlow.sent(agent.agentId, QString::fromUtf8(AgentStream::taskOf(relayed)), m_clock.elapsed());
}

void RelayServer::announce(Agent& agent, const QJsonObject& message)
{
    switch (agent.stream.announce(message, agent.history->log, agent.history->numbered)) {
    case AgentStream::Announcement::Started: break;
    case AgentStream::Announcement::Ignored: logEvent("agent.stream.ignored", {{"agentId", agent.agentId}}); break;
    case AgentStream::Announcement::OutOfRange:
        // The agent is let go.
        logEvent("agent.dropped", {{"agentId", agent.agentId}, {"reason", QLatin1String(kSeqRangeReason)}});
        agent.connection->close(kPolicyViolationCloseCode, kSeqRangeReason);
        break;
    case AgentStream::Announcement::Invalid: logEvent("agent.message.invalid", {{"agentId", agent.agentId}}); break;
    }
}

void RelayServer::scheduleAck(Agent& agent)
{
    // One confirmation for all the messages read at once; they are logged at one time.
    if (!agent.stream.scheduleConfirm())
        return;
    m_batchTime = m_clock.elapsed();
    QTimer::singleShot(0, this, [this, agentId = agent.agentId, connection = agent.connection] {
        const auto found = m_agents.find(agentId);
        if (found == m_agents.end() || found->connection != connection)
            return;
        if (const std::optional<qint64> received = found->stream.confirm())
            connection->sendText(RelayMessages::agentAck(*received));
    });
}
void RelayServer::observeAgentMessage(Agent& agent, AgentHistory& history, const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    if (type == MessageTypes::AgentRegister) {
        QJsonObject registration = message;
        registration.remove(QStringLiteral("type"));
        registration.remove(QStringLiteral("agentId"));
        history.registration = registration;
        logEvent("agent.register", {{"agentId", agent.agentId}});
    } else if (type == MessageTypes::TaskHeartbeat || type == MessageTypes::TaskStarted) {
        if (agent.currentTaskId.isEmpty())
            agent.currentTaskId = taskId;
        m_queue.agentReported(agent.agentId, taskId);
    } else if (type == MessageTypes::TaskFinished || type == MessageTypes::TaskFailed ||
               type == MessageTypes::TaskCancelled) {
        endTask(agent, taskId);
    } else if (type == MessageTypes::TerminalClosed) {
        m_terminalFlow.removeSession(agent.agentId, message.value(QStringLiteral("sessionId")).toString());
    } else if (type == MessageTypes::TerminalOpened) {
        // A session that opens for a project replaces the project's old one.
        history.snapshot.observe(message);
        m_terminalFlow.keepSessions(agent.agentId,
                                    [&](const QString& sessionId) { return history.snapshot.hasTerminal(sessionId); });
        return;
    } else if (type == MessageTypes::AgentState) {
        // The agent restates what it runs: tasks the server thought running and the agent
        // does not know ended with the agent's earlier life.
        const QStringList before = history.snapshot.runningTaskIds();
        history.snapshot.observe(message);
        const QStringList running = history.snapshot.runningTaskIds();
        for (const QString& gone : before) {
            if (!running.contains(gone))
                endTask(agent, gone);
        }
        for (const QString& kept : running)
            m_taskAgents.insert(kept, agent.agentId);
        agent.currentTaskId = running.value(0);
        agent.restated = true;
        m_queue.agentReported(agent.agentId, QString());
        startWaitingTaskSoon(agent.agentId);
        // The sessions it no longer has are paced no more.
        m_terminalFlow.keepSessions(agent.agentId,
                                    [&](const QString& sessionId) { return history.snapshot.hasTerminal(sessionId); });
        return;
    }
    history.snapshot.observe(message);
}

void RelayServer::endTask(Agent& agent, const QString& taskId)
{
    if (taskId.isEmpty())
        return;
    if (agent.currentTaskId == taskId)
        agent.currentTaskId.clear();
    m_taskAgents.remove(taskId);
    m_taskFlow.removeSession(agent.agentId, taskId);
    m_permissions.endTask(taskId);
    m_queue.agentReported(agent.agentId, taskId);
    startWaitingTaskSoon(agent.agentId);
}

void RelayServer::dropAgent(Agent& agent)
{
    // Its tasks go on without the connection: they end when the agent says so.
    const QString agentId = agent.agentId;
    m_agents.remove(agentId);
    m_pendingWindows.remove(agentId);
    m_queue.agentOffline(agentId);
    m_replay.forgetUnnumbered(agentId);
}

void RelayServer::tellAgentWindow(const TerminalFlow::Window& window)
{
    const auto agent = m_agents.constFind(window.agentId);
    if (agent == m_agents.constEnd())
        return;
    const auto pending = m_pendingWindows.find(window.agentId);
    if (pending == m_pendingWindows.end() && agent->connection->backlog() < kAgentQuietBacklog) {
        agent->connection->sendText(RelayMessages::terminalWindow(window.sessionId, window.offset));
        return;
    }
    m_pendingWindows[window.agentId].insert(window.sessionId, window.offset);
    agent->connection->notifyWhenDrained();
}

void RelayServer::tellPendingWindows(RelayConnection& agentConnection)
{
    const auto id = m_agentIds.constFind(&agentConnection);
    if (id == m_agentIds.constEnd())
        return;
    const QHash<QString, std::optional<qint64>> windows = m_pendingWindows.take(*id);
    for (auto it = windows.cbegin(); it != windows.cend(); ++it)
        agentConnection.sendText(RelayMessages::terminalWindow(it.key(), it.value()));
}

void RelayServer::agentClosed(RelayConnection& connection)
{
    const auto id = m_agentIds.find(&connection);
    if (id == m_agentIds.end())
        return; // replaced by a newer connection
    const QString agentId = *id;
    m_agentIds.erase(id);
    const auto agent = m_agents.find(agentId);
    if (agent != m_agents.end())
        dropAgent(*agent);
    logEvent("agent.disconnected", {{"agentId", agentId}});
    m_clients.sendText(RelayMessages::agentOffline(agentId));
}

} // namespace brinmoor::relay
