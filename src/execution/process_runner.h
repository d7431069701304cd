#pragma once

#include "execution/chat_json_line_parser.h"
#include "execution/shell_execution_result.h"
#include "execution/tool_compatibility.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <optional>

class QTimer;

namespace brinmoor {

class AgentRuntime;
class ChildProcess;
class SettingsStore;

// One task to run, as dispatch hands it to the runner.
struct RunRequest {
    QString taskId;
    QString shell;
    QString workingDir;
    qint64 timeoutSec = 1200;
    bool sendStarted = true;
    std::optional<QString> chatConversationID;
    bool emitChatEvents = false;
    bool requiresTTY = false;
    std::optional<ChatJSONProvider> chatJSONProvider;
    bool refreshCapabilitiesOnSuccess = false;
    // The project path the task asked for: with the conversation id it keys the chat
    // bookkeeping.
    QString projectPath;
};

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

    explicit ProcessRunner(AgentRuntime& runtime);
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

    // Sends one decoded piece of output: a "task.log" per line (empty lines too), then
    // for chats one "task.chat.chunk" with the sanitized text.
    void sendOutput(const QString& taskId, const QString& text, bool emitChatEvents, const QString& conversationId);

    // Ends the current child (SIGTERM to its process group, SIGKILL 5 s later) and,
    // when `cancelled`, reports "task.cancelled" with 130. A pending approval is
    // answered "no" first.
    void stopRunningProcessIfAny(bool cancelled);

    // Forgets the task: child, pipes, time limit, task id, MCP configuration file;
    // reports "Ready: " with the agent id.
    void cleanupFinishedTask();

private:
    struct TaskOutput;

    // Runs `launch` with the command fitted to the installed tool once that is known
    // (at once for commands that start neither `claude` nor `codex`). Until then the
    // launch is pending: a stop abandons it through `abandon`.
    void launchWhenToolReady(const QString& shell, const QString& workingDir,
                             std::function<void(const QString&)> launch, std::function<void()> abandon);
    // Drops a pending launch, if any, and runs its `abandon`.
    void abandonPendingLaunch();
    void launchTask(const QString& shell);

    void onStandardOutput(const QString& text);
    void handleParseResult(const ParseResult& result);
    void onStandardError(const QString& text);
    void onExited(int status);
    void onTimeLimit(const QString& taskId);

    AgentRuntime& m_runtime;
    std::optional<QString> m_currentTaskId;
    QPointer<ChildProcess> m_child;
    QTimer* m_timeLimit = nullptr;
    std::unique_ptr<TaskOutput> m_output;
    ToolCompatibility m_tools;
    quint64 m_launchSerial = 0;
    std::function<void()> m_abandonLaunch;
};

// Adds the project that a build script announced after the success marker to the
// configured projects, when it is not there yet. True when the list changed.
bool registerManagedProjectIfPresent(const QString& taskOutput, SettingsStore& defaults,
                                     const QMap<QString, QString>& env);

} // namespace brinmoor
