// Pacers that stop acknowledging. A page the browser froze (a phone's page in the
// background) keeps its connection, but takes nothing: as a pacer it would hold the
// computer's process for as long as it stays frozen. A client that owes an acknowledgement
// longer than the relay's limit no longer paces; its next acknowledgement makes it a
// pacer again, and what it was sent meanwhile it has, or reads back.
#include "relay_log.h"
#include "relay_server.h"

namespace brinmoor::relay {

void RelayServer::watchPace()
{
    if (!m_paceTimer.isActive() && !(m_terminalFlow.isEmpty() && m_taskFlow.isEmpty()))
        m_paceTimer.start();
}

void RelayServer::dropStalledPacers()
{
    const qint64 now = m_clock.elapsed();
    const QString waited = QString::number(m_config.paceStallMs / 1000.0, 'g', 6) + QLatin1Char('s');
    QList<TerminalFlow::Stall> terminals;
    for (const TerminalFlow::Window& window : m_terminalFlow.dropStalled(now, m_config.paceStallMs, terminals))
        tellAgentWindow(window);
    for (const TerminalFlow::Stall& stall : std::as_const(terminals)) {
        logEvent("client.unpaced", {{"address", stall.client->address()},
                                    {"agentId", stall.agentId},
                                    {"sessionId", stall.sessionId},
                                    {"waited", waited}});
    }
    QList<TerminalFlow::Stall> tasks;
    for (const TerminalFlow::Window& window : m_taskFlow.dropStalled(now, m_config.paceStallMs, tasks))
        tellAgentTaskWindow(window);
    for (const TerminalFlow::Stall& stall : std::as_const(tasks)) {
        // Nor does it pace the agent's next tasks from their first line.
        const auto pacers = m_taskPacers.find(stall.agentId);
        if (pacers != m_taskPacers.end())
            pacers->remove(const_cast<RelayConnection*>(stall.client));
        logEvent("client.unpaced", {{"address", stall.client->address()},
                                    {"agentId", stall.agentId},
                                    {"taskId", stall.sessionId},
                                    {"waited", waited}});
    }
    if (m_terminalFlow.isEmpty() && m_taskFlow.isEmpty())
        m_paceTimer.stop();
}

} // namespace brinmoor::relay
