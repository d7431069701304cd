#include "protocol/message_types.h"
#include "relay_log.h"
#include "relay_server.h"

#include <QTimer>
#include <QUuid>

// The relay's part in clients' tasks: it makes each task, gives it to the agent when the
// agent is free and keeps it waiting (TaskQueue) while the agent runs another.
namespace brinmoor::relay {

void RelayServer::run(RelayConnection& client, const CreateTask& command)
{
    const QJsonValue& requestId = command.requestId;
    const QString& agentId = command.agentId;
    Agent* agent = connectedAgent(client, agentId, requestId);
    if (!agent)
        return;
    const WaitingTask task{QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(), command.payload};
    // A task for an agent that runs one waits its turn at the relay.
    const bool waits = agentRuns(*agent) || m_queue.holdsBack(agentId);
    if (waits && m_queue.isFull(agentId)) {
        replyError(client, QStringLiteral("QUEUE_FULL"), TaskQueue::fullMessage(agentId), requestId);
        return;
    }
    if (!waits && !agentTakes(client, *agent, RelayMessages::taskAssign(task.taskId, task.payload).size(), requestId))
        return;
    m_taskAgents.insert(task.taskId, agentId);
    logEvent("task.create", {{"taskId", task.taskId}, {"agentId", agentId}});
    if (!waits)
        assignTask(*agent, task);
    client.sendText(RelayMessages::taskCreated(task.taskId, agentId, requestId));
    if (waits)
        m_queue.add(agentId, task);
}

bool RelayServer::agentRuns(const Agent& agent) const
{
    return !agent.currentTaskId.isEmpty() || !agent.history->snapshot.runningTaskIds().isEmpty();
}

void RelayServer::assignTask(Agent& agent, const WaitingTask& task)
{
    if (agent.currentTaskId.isEmpty())
        agent.currentTaskId = task.taskId;
    agent.history->snapshot.taskCreated(task.taskId, task.payload);
    m_queue.sent(agent.agentId, task);
    agent.connection->sendText(RelayMessages::taskAssign(task.taskId, task.payload));
    startTaskPace(agent.agentId, task.taskId);
}

void RelayServer::startWaitingTaskSoon(const QString& agentId)
{
    QTimer::singleShot(0, this, [this, agentId] {
        const auto agent = m_agents.find(agentId);
        if (agent == m_agents.end() || !agent->restated || agentRuns(*agent))
            return;
        if (const std::optional<WaitingTask> next = m_queue.takeNext(agentId))
            assignTask(*agent, *next);
    });
}

bool RelayServer::refusedAsBusy(Agent& agent, const QJsonObject& message)
{
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    if (message.value(QStringLiteral("type")).toString() != MessageTypes::TaskFailed ||
        message.value(QStringLiteral("errorCode")).toString() != QLatin1String("AGENT_BUSY") ||
        !m_queue.refused(agent.agentId, taskId))
        return false;
    if (agent.currentTaskId == taskId)
        agent.currentTaskId.clear();
    agent.history->snapshot.taskWithdrawn(taskId);
    return true;
}

void RelayServer::endWaitingTask(const QString& agentId, const WaitingTask& task, const QString& end)
{
    m_taskAgents.remove(task.taskId);
    AgentHistory* history = m_replay.find(agentId);
    if (!history)
        return;
    history->snapshot.taskCreated(task.taskId, task.payload);
    history->snapshot.observe(QJsonObject{{QStringLiteral("type"), end}, {QStringLiteral("taskId"), task.taskId}});
}

QJsonObject RelayServer::presentOf(const QString& agentId, const AgentSnapshot& snapshot) const
{
    QJsonObject present = snapshot.toJson();
    present.insert(QStringLiteral("queue"), m_queue.toJson(agentId));
    return present;
}

} // namespace brinmoor::relay
