#pragma once

#include "config/machine.h"

#include <QJsonObject>
#include <QString>
#include <QStringView>

namespace brinmoor {

class ApprovalSlot;
class OutgoingFlow;
class SettingsStore;

// What a running task needs of the agent that runs it: sending messages to the phone,
// the status line, the connection's back-pressure, the approval slot and the settings.
// The agent runtime is the program's one host; tests bring their own.
class TaskHost {
public:
    virtual void sendJSON(const QJsonObject& message) = 0;
    // A line of what the task's child printed: the same as sending Messages::taskLog,
    // without building the object (the agent keeps it, and numbers it for a server that
    // reads numbered lines).
    virtual void sendTaskLog(const QString& taskId, QStringView line) = 0;
    // Whether output lines are numbered: a read that ends with a newline then gives no
    // empty last line (without numbers, the empty piece after it is sent too).
    virtual bool numbersOutputLines() const { return false; }
    virtual void reportStatus(const QString& text) = 0;
    // The agent id the status line names ("Ready: " + id).
    virtual QString agentId() const = 0;
    // Producers of output stop reading while the connection is too far behind; none
    // when nothing limits them.
    virtual OutgoingFlow* outgoingFlow() = 0;
    // Producers of a task's output also stop reading while its slowest reader is too far
    // behind; none when no reader paces tasks.
    virtual OutgoingFlow* taskOutputFlow() { return nullptr; }
    virtual ApprovalSlot& approvals() = 0;
    virtual SettingsStore& defaults() = 0;
    virtual const Environment& environment() const = 0;
    // Announces the agent again, so that a project a task created is listed at once.
    virtual void sendRegisterMessage() = 0;
    // Where tasks put their temporary files (proposal copies, patches).
    virtual QString temporaryFolder() const = 0;
    // Whether the server takes exactly one end per task: a cancelled task then ends with
    // "task.cancelled" alone, once its process has exited. Otherwise a cancellation is
    // said at once, and the stopped process's own end follows.
    virtual bool oneEndPerTask() const { return false; }
    // Whether the server's clients may approve some of a proposal's files and not others.
    virtual bool offersFileChoice() const { return false; }

protected:
    ~TaskHost() = default;
};

} // namespace brinmoor
