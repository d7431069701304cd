#include "protocol/task_assignment.h"

#include "protocol/agent_command.h"

namespace brinmoor {

std::optional<TaskAssignment> TaskAssignment::from(const AgentCommand& command)
{
    if (!command.taskId)
        return std::nullopt;
    TaskAssignment task;
    task.taskId = *command.taskId;
    task.action = command.stringMember(QStringLiteral("action")).value_or(QStringLiteral("build_ios"));
    task.projectPath = command.stringMember(QStringLiteral("projectPath")).value_or(QString());
    task.timeoutSec = command.intMember(QStringLiteral("timeoutSec")).value_or(kDefaultTimeoutSec);
    task.system = command.stringMember(QStringLiteral("system"));
    task.mode = command.stringMember(QStringLiteral("mode"));
    task.approvalMode = command.stringMember(QStringLiteral("approvalMode"));
    task.prompt = command.stringMember(QStringLiteral("prompt")).value_or(QString());
    task.conversationId = command.stringMember(QStringLiteral("conversationId")).value_or(QString());
    task.forkOf = command.stringMember(QStringLiteral("forkOf")).value_or(QString()).trimmed();
    task.command = command.stringMember(QStringLiteral("command")).value_or(QString());
    return task;
}

bool terminalReplaceFlag(const AgentCommand& command)
{
    const JSONValue* replace = command.member(QStringLiteral("replace"));
    if (!replace)
        return false;
    if (const std::optional<bool> flag = replace->boolValue())
        return *flag;
    if (const std::optional<QString> text = replace->stringValue()) {
        const QString lowered = text->toLower();
        return lowered == QLatin1String("true") || lowered == QLatin1String("yes");
    }
    return false;
}

} // namespace brinmoor
