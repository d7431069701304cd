#pragma once

#include "execution/shell_execution_result.h"
#include "execution/tool_compatibility.h"

#include <QHash>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QTimer;

namespace brinmoor {

class ChildProcess;
class SettingsStore;
class TaskHost;

// What a task makes of its child's output beyond the task log: a chat turns standard
// output into chunks and ends with its final text or an error. The runner keeps it
// from the launch to the task's clean-up, which is when it goes.
class TaskOutputHandler {
public:
    virtual ~TaskOutputHandler() = default;
    // Each decoded read of standard output, in place of the runner's task log lines.
    virtual void standardOutput(const QString& text) = 0;
    // Each decoded read of standard error, after the runner sent it as task log lines.
    virtual void standardError(const QString& text) = 0;
    // The child exited and what was left in its pipes was delivered.
    virtual void endOfOutput() = 0;
    // A child of a task that is still current ended with a non-zero status: a command to
    // run in its place as the same task (the handler tells the task log why), or none to
    // report the end.
    virtual std::optional<QString> retryCommand() = 0;
    // The end of a task that is still current, before the runner reports it with
    // "task.finished" (status 0) or "task.failed".
    virtual void exited(int status) = 0;
};

// One task to run, as dispatch hands it to the runner.
struct RunRequest {
    QString taskId;
    QString shell;
    QString workingDir;
    qint64 timeoutSec = 1200;
    bool sendStarted = true;
    bool requiresTTY = false;
    bool refreshCapabilitiesOnSuccess = false;
    // A chat's output; none for shell and build tasks, whose output is task log lines.
    std::shared_ptr<TaskOutputHandler> output;
};

// Sends one decoded piece of output as a "task.log" per line, empty lines too, in the
// pieces in which it was read: a line cut by a read boundary arrives as two lines. Where
// lines are numbered, a piece that ends with a newline gives no empty last line.
void sendOutput(TaskHost& host, const QString& taskId, const QString& text);

// Runs the one task child of the agent, streams its output as messages and reports
// its end; also runs shell texts to completion for the change proposals. The task
// state it keeps (current task id, child, pipes, time limit) lives from the launch to
// `cleanupFinishedTask`.
class ProcessRunner : public QObject {
    Q_OBJECT

public:
    static constexpr int kKillGraceMilliseconds = 5000;
    // The success marker a build script prints before the path of a project it made.
    static constexpr auto kSuccessMarker = "__QUENDARIX_SUCCESS__";

    explicit ProcessRunner(TaskHost& host, QObject* parent = nullptr);
    ~ProcessRunner() override;

    const std::optional<QString>& currentTaskId() const { return m_currentTaskId; }
    // Marks a task as running without a child yet (change proposals prepare first).
    void setCurrentTaskId(const QString& taskId) { m_currentTaskId = taskId; }

    // Launches the task's child; the rest is reported by messages.
    void runTask(const RunRequest& request);

    // Runs a shell text to completion with standard output and error merged, and
    // hands the result to `done`. With `registerAsCurrentProcess` the child is the
    // task's process while it runs, so a cancellation stops it. `onOutput`, when set,
    // sees each decoded piece of output as it is read; `onStart` sees the command as it
    // runs (fitted to the installed tool) right before it starts.
    void executeShellCapture(const QString& shell, const QString& workingDir, bool requiresTTY,
                             bool registerAsCurrentProcess, std::function<void(ShellExecutionResult)> done,
                             std::function<void(const QString&)> onOutput = {},
                             std::function<void(const QString&)> onStart = {});

    // Ends the current child (SIGTERM to its process group, SIGKILL 5 s later) and,
    // when `cancelled`, reports "task.cancelled" with 130. A pending approval is
    // answered "no" first. Where the host's server takes one end per task, a cancelled
    // child's "task.cancelled" comes when it has exited, in place of its own end.
    void stopRunningProcessIfAny(bool cancelled);
    // Whether the task's child is being stopped by a cancellation whose end is still
    // to be said (one end per task).
    bool isCancelling(const QString& taskId) const { return m_cancelling == taskId; }

    // Forgets the task: child, pipes, time limit, task id and what handled its output;
    // reports "Ready: " with the agent id.
    void cleanupFinishedTask();

Q_SIGNALS:
    // The current task is forgotten (cleanupFinishedTask): its end, if any, is said.
    void taskEnded();
    // The task's time limit is reached: it is stopped, and ends as a cancellation.
    void timeLimitReached(const QString& taskId);

private:
    struct TaskOutput;

    // Runs `launch` with the command fitted to the installed tool once that is known
    // (at once for commands that start neither `claude` nor `codex`). Until then the
    // launch is pending: a stop abandons it through `abandon`.
    void launchWhenToolReady(const QString& shell, const QString& workingDir,
                             std::function<void(const QString&)> launch, std::function<void()> abandon);
    // Drops a pending launch, if any, and runs its `abandon`.
    void abandonPendingLaunch();
    // Launches the current task's command once the installed tool is known; a stop
    // before that ends the task.
    void launchCurrentTask(const QString& shell);
    void launchTask(const QString& shell);
    // The current task's child could not run: the task fails.
    void onLaunchFailed(const QString& error);
    // Lets go of the task's child and time limit.
    void releaseChild();

    void onStandardOutput(const QString& text);
    void onStandardError(const QString& text);
    void onExited(int status);
    void onTimeLimit(const QString& taskId);

    TaskHost& m_host;
    std::optional<QString> m_currentTaskId;
    std::optional<QString> m_cancelling;
    QPointer<ChildProcess> m_child;
    QTimer* m_timeLimit = nullptr;
    std::unique_ptr<TaskOutput> m_output;
    ToolCompatibility m_tools;
    quint64 m_launchSerial = 0;
    // Children of tasks cleaned up while they still ran, by the task they belonged to.
    QHash<ChildProcess*, QString> m_letGo;
    std::function<void()> m_abandonLaunch;
};

// Adds the project that a build script announced after the success marker to the
// configured projects, when it is not there yet. True when the list changed.
bool registerManagedProjectIfPresent(const QString& taskOutput, SettingsStore& defaults,
                                     const QMap<QString, QString>& env);

} // namespace brinmoor
