// The relay's part in tasks' kept output: clients pace a running task's output
// ("task.ack"), and read what the agent keeps ("task.output.read", "tasks.list"), the
// answers going to the client that asked alone.
#include "relay_log.h"
#include "relay_server.h"

namespace brinmoor::relay {

void RelayServer::acknowledgeTask(RelayConnection& client, const QJsonObject& message)
{
    const QJsonValue requestId = message.value(QStringLiteral("requestId"));
    const QString agentId = message.value(QStringLiteral("agentId")).toString();
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    const QJsonValue lineValue = message.value(QStringLiteral("line"));
    const qint64 line = wholeNumber(lineValue);
    QString problem;
    if (agentId.isEmpty())
        problem = QStringLiteral("task.ack needs a string \"agentId\"");
    else if (taskId.isEmpty())
        problem = QStringLiteral("task.ack needs a string \"taskId\"");
    else if (!lineValue.isUndefined() && !lineValue.isNull() && line < 0)
        problem = QStringLiteral("task.ack needs \"line\" as a whole number");
    if (!problem.isEmpty()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), problem, requestId);
        return;
    }
    // A client that takes a task's lines paces the agent's later tasks from their first
    // line; only a task the relay knows as running on that agent is paced now.
    if (line >= 0)
        m_taskPacers[agentId].insert(&client);
    if (line >= 0 && m_taskAgents.value(taskId) != agentId)
        return;
    const std::optional<TerminalFlow::Window> window =
        m_taskFlow.acknowledge(&client, agentId, taskId, line < 0 ? std::nullopt : std::optional<qint64>(line));
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

void RelayServer::readTaskOutput(RelayConnection& client, const QString& type, const QJsonObject& message)
{
    const QJsonValue requestId = message.value(QStringLiteral("requestId"));
    const QString agentId = message.value(QStringLiteral("agentId")).toString();
    const bool list = type == QLatin1String("tasks.list");
    const QJsonValue taskId = message.value(QStringLiteral("taskId"));
    const QJsonValue from = message.value(QStringLiteral("from"));
    const QJsonValue count = message.value(QStringLiteral("count"));
    const QJsonValue match = message.value(QStringLiteral("match"));
    QString problem;
    if (agentId.isEmpty())
        problem = type + QStringLiteral(" needs a string \"agentId\"");
    else if (!list && !taskId.isString())
        problem = type + QStringLiteral(" needs a string \"taskId\"");
    else if (!list && wholeNumber(count) < 0)
        problem = QStringLiteral("task.output.read needs \"count\" as a whole number");
    else if (!list && !from.isUndefined() && wholeNumber(from) < 1)
        problem = QStringLiteral("task.output.read needs \"from\" as a whole number from 1");
    else if (!list && !match.isUndefined() && !match.isString())
        problem = QStringLiteral("task.output.read needs \"match\" as a string");
    if (!problem.isEmpty()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), problem, requestId);
        return;
    }
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
        payload.insert(QStringLiteral("count"), count);
        if (!from.isUndefined())
            payload.insert(QStringLiteral("from"), from);
        if (!match.isUndefined())
            payload.insert(QStringLiteral("match"), match);
    }
    // The id is made only once the agent takes the read: one it does not take is not waited for.
    const QByteArray probe =
        RelayMessages::agentCommand(type, list ? QJsonValue(QJsonValue::Undefined) : taskId, payload);
    if (!agentTakes(client, *agent, probe.size() + 32, requestId))
        return;
    payload.insert(QStringLiteral("readId"), m_taskReads.add(&client, agentId, requestId));
    agent->connection->sendText(
        RelayMessages::agentCommand(type, list ? QJsonValue(QJsonValue::Undefined) : taskId, payload));
}

bool RelayServer::answerTaskRead(const QString& agentId, const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    if (type != QLatin1String("task.output") && type != QLatin1String("tasks.kept"))
        return false;
    const std::optional<TaskReads::Reader> reader =
        m_taskReads.take(agentId, message.value(QStringLiteral("readId")).toString());
    if (reader)
        reader->client->sendText(TaskReads::answer(message, *reader));
    return true;
}

} // namespace brinmoor::relay
