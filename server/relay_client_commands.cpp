// The clients' commands, once ClientCommands has decoded them: what goes to an agent,
// what a client that comes back asks for, the pace of terminals, the decisions on tool
// uses; and what the relay forgets of a client that goes.
#include "protocol/message_types.h"
#include "relay_log.h"
#include "relay_server.h"

namespace brinmoor::relay {

void RelayServer::clientMessage(RelayConnection& client, QByteArrayView payload)
{
    std::variant<ClientCommand, CommandRefusal> decoded = ClientCommands::decode(payload);
    if (const CommandRefusal* refusal = std::get_if<CommandRefusal>(&decoded)) {
        replyError(client, refusal->code, refusal->message, refusal->requestId);
        return;
    }
    std::visit([&](const auto& command) { run(client, command); }, std::get<ClientCommand>(decoded));
}

void RelayServer::run(RelayConnection& client, const ForwardToAgent& command)
{
    const QString& agentId = command.agentId;
    // A waiting task is cancelled at the relay, whether its agent is connected or not.
    if (command.type == MessageTypes::TaskCancel && m_queue.cancel(agentId, command.taskId.toString()))
        return;
    const Agent* agent = connectedAgent(client, agentId, command.requestId);
    if (!agent)
        return;
    const QByteArray text = RelayMessages::agentCommand(command.type, command.taskId, command.payload);
    if (!agentTakes(client, *agent, text.size(), command.requestId))
        return;
    agent->connection->sendText(text);
    if (command.type == MessageTypes::TaskApproval) {
        m_replay.historyOf(agentId).snapshot.approvalSent(command.taskId.toString());
    } else if (command.type == MessageTypes::TerminalClose) {
        // An interactive session ends without a word of the agent.
        const QString sessionId = command.payload.toObject().value(QStringLiteral("sessionId")).toString();
        m_replay.historyOf(agentId).snapshot.terminalClosing(sessionId);
        m_terminalFlow.removeSession(agentId, sessionId);
    }
}

void RelayServer::run(RelayConnection& client, const ResumeFrom& command)
{
    for (const auto& [agentId, seq] : command.since)
        m_replay.resume(client, agentId, seq);
}

void RelayServer::run(RelayConnection& client, const AcknowledgeTerminal& command)
{
    const QString& agentId = command.agentId;
    if (command.offset) {
        // Only sessions the agent has open are paced; an acknowledgement of any other (one
        // that closed a moment ago, or never was) changes nothing.
        const AgentHistory* history = m_replay.find(agentId);
        if (!history || !history->snapshot.hasTerminal(command.sessionId))
            return;
        if (!m_terminalFlow.canPace(&client, agentId, command.sessionId)) {
            replyError(
                client, QStringLiteral("TOO_MANY_SESSIONS"),
                QStringLiteral("a client paces at most %1 terminal sessions").arg(m_terminalFlow.maxSessionsPerClient()),
                command.requestId);
            return;
        }
    }
    const std::optional<TerminalFlow::Window> window =
        m_terminalFlow.acknowledge(&client, agentId, command.sessionId, command.offset);
    if (window)
        tellAgentWindow(*window);
    watchPace();
}

void RelayServer::run(RelayConnection& client, const DecidePermission& command)
{
    const QString requestId = command.requestId.toString();
    if (!m_permissions.contains(requestId)) {
        replyError(client, QStringLiteral("UNKNOWN_REQUEST"),
                   QStringLiteral("no pending permission request: ") + requestId, command.requestId);
        return;
    }
    m_permissions.decide(requestId, command.allow, command.message, command.updatedInput);
}

void RelayServer::clientClosed(RelayConnection& connection)
{
    m_clients.remove(&connection);
    m_push.forgetClient(&connection);
    m_replay.removeClient(&connection);
    for (const TerminalFlow::Window& window : m_terminalFlow.removeClient(&connection))
        tellAgentWindow(window);
    for (const TerminalFlow::Window& window : m_taskFlow.removeClient(&connection))
        tellAgentTaskWindow(window);
    m_reads.removeClient(&connection);
    for (QSet<RelayConnection*>& pacers : m_taskPacers)
        pacers.remove(&connection);
    if (connection.closeReason().isEmpty()) {
        logEvent("client.disconnected", {{"address", connection.address()}});
    } else {
        logEvent("client.dropped",
                 {{"address", connection.address()}, {"reason", QString::fromUtf8(connection.closeReason())}});
    }
}

RelayServer::Agent* RelayServer::connectedAgent(RelayConnection& client, const QString& agentId,
                                                const QJsonValue& requestId)
{
    const auto agent = m_agents.find(agentId);
    if (agent != m_agents.end())
        return &*agent;
    replyError(client, QStringLiteral("AGENT_OFFLINE"), QStringLiteral("agent is not connected: ") + agentId,
               requestId);
    return nullptr;
}

bool RelayServer::agentTakes(RelayConnection& client, const Agent& agent, qsizetype size, const QJsonValue& requestId)
{
    const RelayConnection& connection = *agent.connection;
    if (connection.writesAtOnce() || connection.backlog() + size <= m_config.limits.maxBacklog / 2)
        return true;
    replyError(client, QStringLiteral("AGENT_BEHIND"),
               QStringLiteral("agent has not read what it was sent yet: ") + agent.agentId, requestId);
    return false;
}

void RelayServer::replyError(RelayConnection& client, const QString& code, const QString& message,
                             const QJsonValue& requestId)
{
    client.sendText(RelayMessages::error(code, message, requestId));
}

} // namespace brinmoor::relay
