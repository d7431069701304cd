#include "execution/approval_slot.h"

#include <limits>

namespace brinmoor {

ApprovalSlot::ApprovalSlot(QObject* parent) : QObject(parent)
{
    m_timeout.setSingleShot(true);
    // A time-out counts as a rejection.
    connect(&m_timeout, &QTimer::timeout, this, [this] { resolvePendingApproval(false); });
}

void ApprovalSlot::waitForApproval(const QString& taskId, qint64 timeoutSec, std::function<void(bool)> done)
{
    waitForDecision(taskId, timeoutSec,
                    [done = std::move(done)](bool approved, const std::optional<QStringList>&) { done(approved); });
}

void ApprovalSlot::waitForDecision(const QString& taskId, qint64 timeoutSec, Decision done)
{
    m_taskId = taskId;
    m_continuation = std::move(done);
    const qint64 limit = std::numeric_limits<int>::max();
    m_timeout.start(timeoutSec <= 0 ? 0 : int(qMin(timeoutSec, limit / 1000) * 1000));
}

void ApprovalSlot::resolvePendingApproval(bool approved, const std::optional<QStringList>& files)
{
    if (!m_continuation)
        return;
    m_timeout.stop();
    Decision continuation = std::move(m_continuation);
    m_continuation = nullptr;
    m_taskId.reset();
    continuation(approved, files);
}

} // namespace brinmoor
