#pragma once

#include "agent/outgoing_flow.h"
#include "config/agent_profile.h"
#include "config/connection_settings.h"
#include "config/machine.h"
#include "execution/chat_execution.h"
#include "execution/process_runner.h"
#include "execution/shell_execution_result.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

class QWebSocket;

namespace brinmoor {

class SettingsStore;
class TerminalSessionManager;
struct AgentCommand;
struct TaskAssignment;

// The socket URL of the agent endpoint for a server URL: "ws" (or "wss" for https),
// path "/v1/ws/agent", query agentId. Absent when the server URL has no host.
std::optional<QUrl> agentSocketURL(const QString& serverURL, const QString& agentId);

// The agent's core: the WebSocket connection to the server (register, heartbeat,
// receive, reconnect), command dispatch, and the state of the one task that may run.
// Everything runs on the thread's event loop, which serialises all access.
class AgentRuntime : public QObject {
    Q_OBJECT

public:
    static constexpr int kHeartbeatMilliseconds = 5000;
    static constexpr int kReconnectMilliseconds = 3000;
    static constexpr int kConnectTimeoutMilliseconds = 60000;

    AgentRuntime(SettingsStore& defaults, Environment env, Machine machine, QObject* parent = nullptr);
    ~AgentRuntime() override;

    // --- connection ---
    void start();
    void stop();
    bool isConnected() const;
    void sendJSON(const QJsonObject& message);
    // The same as sending Messages::taskLog, without building the object.
    void sendTaskLog(const QString& taskId, QStringView line);
    // Sends a message already serialised; `asObject` builds it for the send hook.
    void sendSerialized(const QString& json, const std::function<QJsonObject()>& asObject);
    void sendRegisterMessage();
    // Re-announces the agent with the freshly loaded profile.
    void reloadConfiguration();
    std::function<void(const QString&)> onStatus;

    // --- dispatch ---
    // Decodes and routes one frame; false (with the reason) when it does not decode,
    // which the receive path treats as a lost connection.
    bool handleCommandData(const QByteArray& data, QString* error = nullptr);

    // --- task state and the runner ---
    const std::optional<QString>& currentTaskId() const { return m_runner->currentTaskId(); }
    ProcessRunner& runner() { return *m_runner; }
    void stopRunningProcessIfAny(bool cancelled) { m_runner->stopRunningProcessIfAny(cancelled); }
    void cleanupFinishedTask() { m_runner->cleanupFinishedTask(); }

    // --- AI tasks and the approval slot ---
    // Runs an "ai_task": a proposal in a workspace copy, or the command directly.
    void runAITask(const TaskAssignment& task, const ResolvedExecution& resolved);
    // Waits for the phone's "task.approval" of the task, or `timeoutSec`; `done` gets
    // true only for an approval in time. A wait stored earlier is replaced.
    void waitForApproval(const QString& taskId, qint64 timeoutSec, std::function<void(bool)> done);
    void resolvePendingApproval(bool approved);
    bool hasPendingApproval() const { return static_cast<bool>(m_pendingApprovalContinuation); }
    const std::optional<QString>& pendingApprovalTaskId() const { return m_pendingApprovalTaskId; }

    // --- terminal sessions ---
    // Created on first use; sessions outlive reconnections.
    TerminalSessionManager& terminalSessionManager();

    // --- chat bookkeeping ---
    ChatSessions& chatSessions() { return m_chatSessions; }
    // Deletes the current task's MCP configuration file, if any.
    void cleanupMCPConfig();
    // Where temporary files of tasks go (the MCP configuration).
    QString temporaryFolder() const;

    // --- configuration, read afresh at every use ---
    AgentProfile loadProfile() const;
    ConnectionSettings loadConnectionSettings() const;
    SettingsStore& defaults() { return m_defaults; }
    const Environment& environment() const { return m_env; }
    OutgoingFlow& outgoingFlow() { return m_flow; }
    void reportStatus(const QString& text);

    // --- test hooks: when set, they replace the named operation ---
    std::function<void(const QJsonObject&)> testSendJSONHook;
    std::function<void(const QString& shell, const QString& workingDir, std::function<void(ShellExecutionResult)> done)>
        testShellCaptureHook;
    // Returns the copy's path, or throws AgentError.
    std::function<QString(const QString& projectPath, const QString& taskId)> testProposalWorkspaceHook;
    // Returns the diff, or throws AgentError.
    std::function<QString(const QString& original, const QString& proposal)> testWorkspaceDiffHook;
    // Returns, or throws AgentError.
    std::function<void(const QString& diff, const QString& workingDir)> testApplyDiffHook;
    std::function<void(const QString& taskId, qint64 timeoutSec, std::function<void(bool)> done)>
        testWaitForApprovalHook;

private:
    void attemptConnect();
    void onConnected();
    void onSocketLost(const QString& error);
    void discardSocket();
    QString socketErrorText() const;
    void onFrame(const QByteArray& data);
    void onHeartbeat();
    void sendText(const QString& text);

    void handleTaskAssign(const AgentCommand& command);
    void handleTerminalCommand(const AgentCommand& command);
    void routeTask(const TaskAssignment& task);

    SettingsStore& m_defaults;
    Environment m_env;
    Machine m_machine;

    QPointer<QWebSocket> m_socket;
    bool m_connected = false;
    QUrl m_socketURL;
    QTimer m_reconnectTimer;
    QTimer m_connectTimeout;
    QTimer m_heartbeatTimer;
    OutgoingFlow m_flow;

    std::unique_ptr<ProcessRunner> m_runner;

    std::optional<QString> m_pendingApprovalTaskId;
    std::function<void(bool)> m_pendingApprovalContinuation;
    QTimer m_approvalTimeout;
    std::optional<QString> m_currentMCPConfigPath;
    ChatSessions m_chatSessions;
    TerminalSessionManager* m_terminalSessionManager = nullptr;
};

} // namespace brinmoor
