#pragma once

#include "chat_answers.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

namespace brinmoor::relay {

// The present of one agent as the relay knows it, for clients that were not there
// when it happened: its tasks running or ended lately (a running chat with its answer
// so far), the proposal waiting for approval, and its open terminal sessions. Learnt
// from the agent's messages (an "agent.state" restates it all after a reconnect) and
// from the clients' commands.
class AgentSnapshot {
public:
    static constexpr int kEndedTasksKept = 20;

    // A client created a task with this "task.assign" payload.
    void taskCreated(const QString& taskId, const QJsonObject& payload);
    // The agent refused the task as busy before it began: it waits at the relay again.
    void taskWithdrawn(const QString& taskId);
    // A message of the agent.
    void observe(const QJsonObject& message);
    // A client's decision on the task's proposal went to the agent.
    void approvalSent(const QString& taskId);
    // A client asked the agent to close a terminal session.
    void terminalClosing(const QString& sessionId);

    // The tasks the agent runs (status "running" or "awaiting_approval").
    QStringList runningTaskIds() const;
    // Whether the terminal session is open, as far as the relay knows.
    bool hasTerminal(const QString& sessionId) const;
    // {"tasks":[…],"proposal":{…}|null,"terminals":[…]}
    QJsonObject toJson() const;

    struct Task {
        QString taskId;
        QString kind;
        QString projectPath;
        QString conversationId;
        QString status;
        std::optional<qint64> exitCode;
    };
    // The task of that id among those kept; none when it is not.
    const Task* find(const QString& taskId) const;

private:
    struct Terminal {
        QString sessionId;
        QString projectPath;
        QString mode;
    };

    Task& task(const QString& taskId);
    bool runs(const QString& taskId) const;
    void endTask(const QString& taskId, const QString& status, std::optional<qint64> exitCode);
    void restate(const QJsonObject& state);
    void openTerminal(const QString& sessionId, const QString& projectPath, const QString& mode);
    void closeTerminal(const QString& sessionId);
    void forgetOldEndedTasks();

    QList<Task> m_tasks; // in the order the relay learnt of them
    std::optional<QJsonObject> m_proposal;
    QList<Terminal> m_terminals;
    ChatAnswers m_answers;
};

} // namespace brinmoor::relay
