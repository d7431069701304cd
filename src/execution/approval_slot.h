#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <optional>

namespace brinmoor {

// The agent's one pending approval: the task that waits for the phone's "task.approval"
// and the waiter to resume. Whichever comes first, the phone's answer or the time-out,
// clears the slot before it resumes the waiter, so each waiter runs exactly once.
class ApprovalSlot : public QObject {
    Q_OBJECT

public:
    explicit ApprovalSlot(QObject* parent = nullptr);

    // Waits for the phone's decision on the task, or `timeoutSec`; `done` gets true only
    // for an approval in time. A wait stored earlier is replaced without being resumed.
    void waitForApproval(const QString& taskId, qint64 timeoutSec, std::function<void(bool)> done);
    // The same, and `done` also gets the files the approval names: absent when it names
    // none, so that everything is approved.
    using Decision = std::function<void(bool, const std::optional<QStringList>&)>;
    void waitForDecision(const QString& taskId, qint64 timeoutSec, Decision done);
    // Resumes the pending waiter, whatever task it waits for; nothing when none waits.
    void resolvePendingApproval(bool approved, const std::optional<QStringList>& files = std::nullopt);

    bool hasPendingApproval() const { return static_cast<bool>(m_continuation); }
    const std::optional<QString>& pendingApprovalTaskId() const { return m_taskId; }

private:
    std::optional<QString> m_taskId;
    Decision m_continuation;
    QTimer m_timeout;
};

} // namespace brinmoor
