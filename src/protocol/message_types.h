#pragma once

#include <QLatin1String>
#include <QStringList>

namespace brinmoor::MessageTypes {

// What a client sends: to the relay itself, or through it to an agent.
inline constexpr QLatin1String TaskCreate("task.create");
inline constexpr QLatin1String TaskCancel("task.cancel");
inline constexpr QLatin1String TaskApproval("task.approval");
inline constexpr QLatin1String TaskAck("task.ack");
inline constexpr QLatin1String TaskOutputRead("task.output.read");
inline constexpr QLatin1String TasksList("tasks.list");
inline constexpr QLatin1String ProjectsList("projects.list");
inline constexpr QLatin1String SessionsList("sessions.list");
inline constexpr QLatin1String SessionsRead("sessions.read");
inline constexpr QLatin1String SessionsWatch("sessions.watch");
inline constexpr QLatin1String SessionsUnwatch("sessions.unwatch");
inline constexpr QLatin1String ClientResume("client.resume");
inline constexpr QLatin1String PermissionDecision("permission.decision");
inline constexpr QLatin1String ClientViewing("client.viewing");
inline constexpr QLatin1String TerminalOpen("terminal.open");
inline constexpr QLatin1String TerminalAttach("terminal.attach");
inline constexpr QLatin1String TerminalInput("terminal.input");
inline constexpr QLatin1String TerminalComplete("terminal.complete");
inline constexpr QLatin1String TerminalResize("terminal.resize");
inline constexpr QLatin1String TerminalSignal("terminal.signal");
inline constexpr QLatin1String TerminalClose("terminal.close");
inline constexpr QLatin1String TerminalAck("terminal.ack");

// What an agent says that the relay reads.
inline constexpr QLatin1String AgentRegister("agent.register");
inline constexpr QLatin1String AgentState("agent.state");
inline constexpr QLatin1String AgentStream("agent.stream");
inline constexpr QLatin1String TaskStarted("task.started");
inline constexpr QLatin1String TaskHeartbeat("task.heartbeat");
inline constexpr QLatin1String TaskFinished("task.finished");
inline constexpr QLatin1String TaskFailed("task.failed");
inline constexpr QLatin1String TaskAwaitingApproval("task.awaiting_approval");
inline constexpr QLatin1String TaskCancelled("task.cancelled");
inline constexpr QLatin1String TaskOutput("task.output");
inline constexpr QLatin1String TasksKept("tasks.kept");
inline constexpr QLatin1String SessionsListed("sessions.listed");
inline constexpr QLatin1String SessionsHistory("sessions.history");
inline constexpr QLatin1String SessionsGrew("sessions.grew");
inline constexpr QLatin1String TerminalOpened("terminal.opened");
inline constexpr QLatin1String TerminalClosed("terminal.closed");

// The terminal commands an agent reads ("terminal.open" … "terminal.close").
const QStringList& terminalCommands();

// What a relay that reads numbered task output sends an agent about it: the pace of a
// task's readers, and reads of what the agent keeps.
const QStringList& taskOutputCommands();

// What a relay that offers the coding assistants' sessions sends an agent: the reads of
// a project's sessions and of one session's history, each with the relay's "readId".
const QStringList& sessionsCommands();

// What a client may send an agent through the relay as it is, besides "task.create": the
// cancellation and approval of a task, the request for the projects under the
// repository root, and the terminal commands. Reads of what the agent keeps or finds
// (taskOutputCommands(), sessionsCommands()) are not among them: the relay gives each
// its own id.
const QStringList& agentCommands();

} // namespace brinmoor::MessageTypes
