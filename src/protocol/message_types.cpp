#include "protocol/message_types.h"

namespace brinmoor::MessageTypes {

const QStringList& terminalCommands()
{
    static const QStringList types{
        TerminalOpen, TerminalAttach, TerminalInput, TerminalComplete, TerminalResize, TerminalSignal, TerminalClose,
    };
    return types;
}

const QStringList& taskOutputCommands()
{
    static const QStringList types{TaskAck, TaskOutputRead, TasksList};
    return types;
}

const QStringList& sessionsCommands()
{
    static const QStringList types{SessionsList, SessionsRead};
    return types;
}

const QStringList& agentCommands()
{
    static const QStringList types =
        QStringList{TaskCancel, TaskApproval, ProjectsList, SessionsWatch, SessionsUnwatch} + terminalCommands();
    return types;
}

} // namespace brinmoor::MessageTypes
