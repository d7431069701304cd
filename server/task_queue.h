#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>
#include <optional>

class QTimer;

namespace brinmoor::relay {

// A task a client created that has not gone to the agent yet.
struct WaitingTask {
    QString taskId;
    QJsonObject payload;
};

// The tasks clients create for an agent that runs one already. The agent runs one task at
// a time and refuses another as busy; the relay keeps it here instead and gives it to the
// agent once the agent is free, in the order they came. Every client is told when a task
// joins the queue and when it leaves it, with the order of those still waiting.
//
// A task the relay sent may still be refused as busy (the agent runs something the relay
// had not learnt of): it goes back to the head, and nothing more goes to the agent until
// the relay hears of what the agent runs. Tasks wait through a lost connection of their
// agent for a while; beyond that they fail.
class TaskQueue : public QObject {
    Q_OBJECT

public:
    static constexpr int kMaxWaiting = 20;

    explicit TaskQueue(int offlineWaitMs, QObject* parent = nullptr);
    ~TaskQueue() override;

    // What every client is told of the queue.
    std::function<void(const QByteArray& text)> onBroadcast;
    // A waiting task ended without going to the agent: "task.cancelled" or "task.failed".
    std::function<void(const QString& agentId, const WaitingTask& task, const QString& end)> onEnded;

    // Whether a new task for the agent waits even though the relay knows of nothing it
    // runs: others wait already, or the agent refused one as busy.
    bool holdsBack(const QString& agentId) const;
    bool isFull(const QString& agentId) const;
    // What a client that creates one more task is told when the queue is full.
    static QString fullMessage(const QString& agentId);
    // The task waits at the end of the queue.
    void add(const QString& agentId, const WaitingTask& task);
    // The relay sent the agent this task; until the agent reports on it, it may still be
    // refused as busy.
    void sent(const QString& agentId, const WaitingTask& task);
    // The agent refused a task as busy: true when the relay sent it, which then waits
    // again at the head of the queue.
    bool refused(const QString& agentId, const QString& taskId);
    // The agent reported on a task (its start, a heartbeat, its end) or, without a task
    // id, restated what it runs: the relay knows again what the agent runs.
    void agentReported(const QString& agentId, const QString& taskId);
    // A client cancels a task: true when it was waiting, and has ended here.
    bool cancel(const QString& agentId, const QString& taskId);
    // The agent is free: the first waiting task, taken out of the queue, to be sent to it.
    std::optional<WaitingTask> takeNext(const QString& agentId);
    void agentOnline(const QString& agentId);
    // Its waiting tasks fail once it has been gone for the time they may wait.
    void agentOffline(const QString& agentId);
    // [{"taskId","payload"},…], first to go first.
    QJsonArray toJson(const QString& agentId) const;

private:
    struct Queue {
        QList<WaitingTask> waiting;
        std::optional<WaitingTask> sent; // sent to the agent, not reported on yet
        bool held = false;               // refused as busy: wait until the agent reports
        std::unique_ptr<QTimer> offline;
    };

    QStringList order(const Queue& queue) const;
    void announce(const QString& agentId, const Queue& queue, const WaitingTask& task, int place);
    // The task has left the queue; "assigned", "cancelled" or "failed" (with an error).
    void leave(const QString& agentId, const Queue& queue, const QString& taskId, const QString& reason,
               const QString& error = {});
    void expire(const QString& agentId);
    // Forgets an agent's queue that holds nothing.
    void tidy(const QString& agentId);

    int m_offlineWaitMs;
    std::map<QString, Queue> m_queues;
};

} // namespace brinmoor::relay
