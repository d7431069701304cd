// The relay's part in tasks' kept output: clients pace a running task's output
// ("task.ack"). Reads of what the agent keeps are in relay_agent_reads.cpp.
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

} // namespace brinmoor::relay
