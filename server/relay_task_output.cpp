// The relay's part in tasks' kept output: clients pace a running task's output
// ("task.ack"), and read what the agent keeps ("task.output.read", "tasks.list"), the
// answers going to the client that asked alone.
#include "protocol/message_types.h"
#include "relay_log.h"
#include "relay_server.h"

namespace brinmoor::relay {

void RelayServer::run(RelayConnection& client, const AcknowledgeTask& command)
{
    const QString& agentId = command.agentId;
    const QString& taskId = command.taskId;
    // A client that takes a task's lines paces the agent's later tasks from their first
    // line; only a task the relay knows as running on that agent is paced now.
    if (command.line)
        m_taskPacers[agentId].insert(&client);
    if (command.line && m_taskAgents.value(taskId) != agentId)
        return;
    const std::optional<TerminalFlow::Window> window = m_taskFlow.acknowledge(&client, agentId, taskId, command.line);
    if (window)
        tellAgentTaskWindow(*window);
    watchPace();
}

void RelayServer::tellAgentTaskWindow(const TerminalFlow::Window& window)
{
    const auto agent = m_agents.constFind(window.agentId);
    if (agent == m_agents.constEnd())
        return;
    agent->connection->sendText(RelayMessages::taskWindow(window.sessionId, window.offset));
}

void RelayServer::startTaskPace(const QString& agentId, const QString& taskId)
{
    // The clients that paced the agent's earlier tasks have taken nothing of this one yet:
    // said right after the task itself, the agent hears it before the task's first output.
    for (RelayConnection* client : m_taskPacers.value(agentId)) {
        if (const std::optional<TerminalFlow::Window> window = m_taskFlow.acknowledge(client, agentId, taskId, 0))
            tellAgentTaskWindow(*window);
    }
    watchPace();
}

void RelayServer::run(RelayConnection& client, const ReadTaskOutput& command)
{
    const QJsonValue& requestId = command.requestId;
    const QString& agentId = command.agentId;
    const QString& type = command.type;
    const bool list = command.isList();
    const Agent* agent = connectedAgent(client, agentId, requestId);
    if (!agent)
        return;
    if (!m_taskReads.canRead(&client)) {
        replyError(client, QStringLiteral("TOO_MANY_READS"),
                   QStringLiteral("a client waits for at most %1 reads at once").arg(TaskReads::kMaxPerClient),
                   requestId);
        return;
    }
    QJsonObject payload;
    if (!list) {
        payload.insert(QStringLiteral("count"), command.count);
        if (!command.from.isUndefined())
            payload.insert(QStringLiteral("from"), command.from);
        if (!command.match.isUndefined())
            payload.insert(QStringLiteral("match"), command.match);
    }
    // The id is made only once the agent takes the read: one it does not take is not waited for.
    const QByteArray probe = RelayMessages::agentCommand(type, command.taskId, payload);
    if (!agentTakes(client, *agent, probe.size() + 32, requestId))
        return;
    payload.insert(QStringLiteral("readId"), m_taskReads.add(&client, agentId, requestId));
    agent->connection->sendText(RelayMessages::agentCommand(type, command.taskId, payload));
}

bool RelayServer::answerTaskRead(const QString& agentId, const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    if (type != MessageTypes::TaskOutput && type != MessageTypes::TasksKept)
        return false;
    const std::optional<TaskReads::Reader> reader =
        m_taskReads.take(agentId, message.value(QStringLiteral("readId")).toString());
    if (reader)
        reader->client->sendText(TaskReads::answer(message, *reader));
    return true;
}

} // namespace brinmoor::relay
