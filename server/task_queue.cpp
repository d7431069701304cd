#include "task_queue.h"

#include "relay_log.h"
#include "relay_messages.h"

#include <QTimer>

namespace brinmoor::relay {

TaskQueue::TaskQueue(int offlineWaitMs, QObject* parent) : QObject(parent), m_offlineWaitMs(offlineWaitMs) {}

TaskQueue::~TaskQueue() = default;

bool TaskQueue::holdsBack(const QString& agentId) const
{
    const auto found = m_queues.find(agentId);
    return found != m_queues.end() && (!found->second.waiting.isEmpty() || found->second.held);
}

bool TaskQueue::isFull(const QString& agentId) const
{
    const auto found = m_queues.find(agentId);
    return found != m_queues.end() && found->second.waiting.size() >= kMaxWaiting;
}

QString TaskQueue::fullMessage(const QString& agentId)
{
    return QStringLiteral("%1 tasks already wait for agent %2; cancel one or try again once one has started")
        .arg(kMaxWaiting)
        .arg(agentId);
}

void TaskQueue::add(const QString& agentId, const WaitingTask& task)
{
    Queue& queue = m_queues[agentId];
    queue.waiting.append(task);
    const int place = int(queue.waiting.size());
    logEvent("task.queued", {{"taskId", task.taskId}, {"agentId", agentId}, {"place", QString::number(place)}});
    announce(agentId, queue, task, place);
}

void TaskQueue::sent(const QString& agentId, const WaitingTask& task)
{
    m_queues[agentId].sent = task;
}

bool TaskQueue::refused(const QString& agentId, const QString& taskId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end() || !found->second.sent || found->second.sent->taskId != taskId)
        return false;
    Queue& queue = found->second;
    const WaitingTask task = *std::exchange(queue.sent, std::nullopt);
    queue.waiting.prepend(task);
    queue.held = true;
    logEvent("task.requeued", {{"taskId", taskId}, {"agentId", agentId}});
    announce(agentId, queue, task, 1);
    return true;
}

void TaskQueue::agentReported(const QString& agentId, const QString& taskId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end())
        return;
    Queue& queue = found->second;
    queue.held = false;
    // A restatement names the task if the agent runs it, and ends it if not.
    if (queue.sent && (taskId.isEmpty() || queue.sent->taskId == taskId))
        queue.sent.reset();
    tidy(agentId);
}

bool TaskQueue::cancel(const QString& agentId, const QString& taskId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end())
        return false;
    Queue& queue = found->second;
    for (qsizetype i = 0; i < queue.waiting.size(); ++i) {
        if (queue.waiting[i].taskId != taskId)
            continue;
        const WaitingTask task = queue.waiting.takeAt(i);
        leave(agentId, queue, taskId, QStringLiteral("cancelled"));
        if (onEnded)
            onEnded(agentId, task, QStringLiteral("task.cancelled"));
        tidy(agentId);
        return true;
    }
    return false;
}

std::optional<WaitingTask> TaskQueue::takeNext(const QString& agentId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end() || found->second.held || found->second.waiting.isEmpty())
        return std::nullopt;
    Queue& queue = found->second;
    const WaitingTask task = queue.waiting.takeFirst();
    leave(agentId, queue, task.taskId, QStringLiteral("assigned"));
    return task;
}

void TaskQueue::agentOnline(const QString& agentId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end())
        return;
    found->second.offline.reset();
    tidy(agentId);
}

void TaskQueue::agentOffline(const QString& agentId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end() || found->second.waiting.isEmpty())
        return;
    auto timer = std::make_unique<QTimer>();
    timer->setSingleShot(true);
    connect(timer.get(), &QTimer::timeout, this, [this, agentId] { expire(agentId); });
    timer->start(m_offlineWaitMs);
    found->second.offline = std::move(timer);
}

QJsonArray TaskQueue::toJson(const QString& agentId) const
{
    QJsonArray list;
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end())
        return list;
    for (const WaitingTask& task : found->second.waiting)
        list.append(QJsonObject{{QStringLiteral("taskId"), task.taskId}, {QStringLiteral("payload"), task.payload}});
    return list;
}

QStringList TaskQueue::order(const Queue& queue) const
{
    QStringList ids;
    for (const WaitingTask& task : queue.waiting)
        ids.append(task.taskId);
    return ids;
}

void TaskQueue::announce(const QString& agentId, const Queue& queue, const WaitingTask& task, int place)
{
    if (onBroadcast)
        onBroadcast(RelayMessages::taskQueued(agentId, task.taskId, place, task.payload, order(queue)));
}

void TaskQueue::leave(const QString& agentId, const Queue& queue, const QString& taskId, const QString& reason,
                      const QString& error)
{
    logEvent("task.unqueued", {{"taskId", taskId}, {"agentId", agentId}, {"reason", reason}});
    if (onBroadcast)
        onBroadcast(RelayMessages::taskUnqueued(agentId, taskId, reason, order(queue), error));
}

void TaskQueue::expire(const QString& agentId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end())
        return;
    Queue& queue = found->second;
    const QString error =
        QStringLiteral("the agent stayed offline for %1 s; the task never started").arg(m_offlineWaitMs / 1000);
    while (!queue.waiting.isEmpty()) {
        const WaitingTask task = queue.waiting.takeFirst();
        leave(agentId, queue, task.taskId, QStringLiteral("failed"), error);
        if (onEnded)
            onEnded(agentId, task, QStringLiteral("task.failed"));
    }
    // The timer that called this goes once its signal has returned.
    queue.offline.release()->deleteLater();
    tidy(agentId);
}

void TaskQueue::tidy(const QString& agentId)
{
    const auto found = m_queues.find(agentId);
    if (found == m_queues.end())
        return;
    const Queue& queue = found->second;
    if (queue.waiting.isEmpty() && !queue.sent && !queue.held && !queue.offline)
        m_queues.erase(found);
}

} // namespace brinmoor::relay
