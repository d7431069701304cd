#include "protocol/message_types.h"

namespace brinmoor::MessageTypes {

const QStringList& terminalCommands()
{
    static const QStringList types{
        QStringLiteral("terminal.open"),     QStringLiteral("terminal.attach"), QStringLiteral("terminal.input"),
        QStringLiteral("terminal.complete"), QStringLiteral("terminal.resize"), QStringLiteral("terminal.signal"),
        QStringLiteral("terminal.close"),
    };
    return types;
}

const QStringList& taskOutputCommands()
{
    static const QStringList types{QStringLiteral("task.ack"), QStringLiteral("task.output.read"),
                                   QStringLiteral("tasks.list")};
    return types;
}

const QStringList& agentCommands()
{
    static const QStringList types =
        QStringList{QStringLiteral("task.cancel"), QStringLiteral("task.approval"), QStringLiteral("projects.list")} +
        terminalCommands();
    return types;
}

} // namespace brinmoor::MessageTypes
