#pragma once

#include <QStringList>

namespace brinmoor::MessageTypes {

// The terminal commands an agent reads ("terminal.open" … "terminal.close").
const QStringList& terminalCommands();

// What a relay that reads numbered task output sends an agent about it: the pace of a
// task's readers, and reads of what the agent keeps.
const QStringList& taskOutputCommands();

// What a client may send an agent through the relay, besides "task.create": the
// cancellation and approval of a task, the request for the projects under the
// repository root, and the terminal commands.
const QStringList& agentCommands();

} // namespace brinmoor::MessageTypes
