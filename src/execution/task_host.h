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
    // The same as sending Messages::taskLog, without building the object.
    virtual void sendTaskLog(const QString& taskId, QStringView line) = 0;
    virtual void reportStatus(const QString& text) = 0;
    // The agent id the status line names ("Ready: " + id).
    virtual QString agentId() const = 0;
    // Producers of output stop reading while the connection is too far behind; none
    // when nothing limits them.
    virtual OutgoingFlow* outgoingFlow() = 0;
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
