#pragma once

#include <QString>

#include <optional>

namespace brinmoor {

struct AgentCommand;

// What a "task.assign" frame asks for, with the protocol's defaults applied.
struct TaskAssignment {
    static constexpr qint64 kDefaultTimeoutSec = 1200;

    QString taskId;
    QString action;      // "build_ios" when absent
    QString projectPath; // empty when absent
    qint64 timeoutSec = kDefaultTimeoutSec;
    std::optional<QString> system;
    std::optional<QString> mode;
    std::optional<QString> approvalMode;
    QString prompt;
    QString conversationId;
    // A chat that starts a new conversation from this session of its tool (our relay's
    // clients, with "sessions").
    QString forkOf;
    QString command;

    // Absent when the frame has no top-level "taskId"; such a frame is ignored.
    static std::optional<TaskAssignment> from(const AgentCommand& command);
};

// "replace" of "terminal.open": the boolean true, or "true"/"yes" in any letter case.
bool terminalReplaceFlag(const AgentCommand& command);

} // namespace brinmoor
