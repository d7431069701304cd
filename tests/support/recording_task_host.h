#pragma once

#include "config/settings_store.h"
#include "execution/approval_slot.h"
#include "execution/task_host.h"
#include "protocol/messages.h"

#include <QDir>
#include <QJsonObject>
#include <QList>
#include <QStringList>

namespace brinmoor::test {

// A task host that records what a task sends and reports, for testing the runner and
// the proposal task without an agent connection.
class RecordingTaskHost : public TaskHost {
public:
    QList<QJsonObject> sent;
    QStringList statuses;
    int registrations = 0;
    MemorySettingsStore settings;
    Environment env;
    ApprovalSlot slot;

    void sendJSON(const QJsonObject& message) override { sent.append(message); }
    void sendTaskLog(const QString& taskId, QStringView line) override
    {
        sent.append(Messages::taskLog(taskId, line.toString()));
    }
    void reportStatus(const QString& text) override { statuses.append(text); }
    QString agentId() const override { return QStringLiteral("test-agent"); }
    OutgoingFlow* outgoingFlow() override { return nullptr; }
    ApprovalSlot& approvals() override { return slot; }
    SettingsStore& defaults() override { return settings; }
    const Environment& environment() const override { return env; }
    void sendRegisterMessage() override { ++registrations; }
    QString temporaryFolder() const override { return QDir::tempPath(); }

    // The types of what was sent, in order.
    QStringList types() const
    {
        QStringList result;
        for (const QJsonObject& message : sent)
            result.append(message.value(QStringLiteral("type")).toString());
        return result;
    }
};

} // namespace brinmoor::test
