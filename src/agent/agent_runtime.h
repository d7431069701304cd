#pragma once

#include "agent/outbox.h"
#include "agent/task_output_pace.h"
#include "base/outgoing_flow.h"
#include "chat/chat_execution.h"
#include "config/agent_profile.h"
#include "config/connection_settings.h"
#include "config/machine.h"
#include "execution/approval_slot.h"
#include "execution/process_runner.h"
#include "execution/task_host.h"
#include "execution/task_output_store.h"
#include "protocol/messages.h"
#include "protocol/server_features.h"
#include "tls/tls_trust.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <variant>

class QSslError;
class QWebSocket;

namespace brinmoor {

class SessionWatch;

class SettingsStore;
class TerminalSessionManager;
struct AgentCommand;
struct TaskAssignment;

// The socket URL of the agent endpoint for a server URL: "ws" (or "wss" for https),
// path "/v1/ws/agent", query agentId. Absent when the server URL has no host.
std::optional<QUrl> agentSocketURL(const QString& serverURL, const QString& agentId);

// The connection's clock: a heartbeat every 5 s while a task runs, a new attempt 3 s
// after a failed connect, and 60 s for the socket to open. Tests run it faster.
struct ConnectionIntervals {
    int heartbeatMilliseconds = 5000;
    int reconnectMilliseconds = 3000;
    int connectTimeoutMilliseconds = 60000;
};

// The agent's core: the WebSocket connection to the server (register, heartbeat,
// receive, reconnect), command dispatch, and the state of the one task that may run.
// It is the host of that task (send, status, approvals, settings).
//
// It speaks the agent protocol to any server: its first frame on every connection is
// "agent.register", and a lost connection stops the running task before it reconnects.
// Our relay's extensions start only when the server's hello announces them (see
// ServerFeatures): then a task outlives a lost connection, what it says waits in the
// outbox until a server listens again, and only a connection lost for longer than the
// grace time stops it. Everything runs on the thread's event loop, which serialises all
// access.
class AgentRuntime : public QObject, public TaskHost {
    Q_OBJECT

public:
    AgentRuntime(SettingsStore& defaults, Environment env, Machine machine, ConnectionIntervals intervals = {},
                 QObject* parent = nullptr);
    ~AgentRuntime() override;

    // --- connection ---
    void start();
    void stop();
    // Ends the agent for good (SIGTERM, SIGINT, Quit). With a server that takes one end
    // per task, a running task is first ended as a cancellation and its
    // "task.cancelled" written out, then the connection is closed; with any other server
    // the connection is closed at once and the task's process stopped without a word.
    // `done` runs when no task is left.
    void shutDown(std::function<void()> done);
    bool isConnected() const;
    // The server started beside the agent serves this certificate file: the connection
    // takes that certificate, read afresh at every connect, and no other, whatever name
    // it is for and whoever issued it (no authority counts then, not even "tlsCA"). None
    // (the default): the server's certificate is verified like any other, against the
    // system's authorities and "tlsCA".
    void pinServerCertificate(std::optional<QString> certificateFile);
    void sendJSON(const QJsonObject& message) override;
    void sendTaskLog(const QString& taskId, QStringView line) override;
    // Sends a "terminal.output" already serialised.
    void sendTerminalOutput(const QString& json);
    void sendRegisterMessage() override;
    // Re-announces the agent with the freshly loaded profile.
    void reloadConfiguration();
    std::function<void(const QString&)> onStatus;
    // What waits for the server, and what it has not confirmed.
    const Outbox& outbox() const { return m_outbox; }
    // What the server of the newest connection that said what it is offers beyond the
    // agent protocol (nothing for a server that knows only the agent protocol).
    const ServerFeatures& serverFeatures() const { return m_features; }

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
    ApprovalSlot& approvals() override { return m_approvals; }

    // --- terminal sessions ---
    // Created on first use; sessions outlive reconnections.
    TerminalSessionManager& terminalSessionManager();

    // --- chat bookkeeping ---
    ChatSessions& chatSessions() { return m_chatSessions; }
    // Where temporary files of tasks go (the MCP configuration, proposal copies).
    QString temporaryFolder() const override;
    bool oneEndPerTask() const override { return m_features.end; }
    bool offersFileChoice() const override { return m_features.files; }

    // --- configuration, read afresh at every use ---
    AgentProfile loadProfile() const;
    ConnectionSettings loadConnectionSettings() const;
    QString agentId() const override { return loadConnectionSettings().agentId; }
    SettingsStore& defaults() override { return m_defaults; }
    const Environment& environment() const override { return m_env; }
    OutgoingFlow* outgoingFlow() override { return &m_flow; }
    OutgoingFlow* taskOutputFlow() override { return m_features.lines ? m_taskPace.flow() : nullptr; }
    bool numbersOutputLines() const override { return m_features.lines; }
    void reportStatus(const QString& text) override;

private:
    void attemptConnect();
    void onConnected();
    void onSocketLost(const QString& error);
    void discardSocket();
    QString socketErrorText() const;
    // What the next connection trusts, or why it cannot be made.
    std::variant<QSslConfiguration, QString> tlsConfiguration(const ConnectionSettings& settings);
    void onSslErrors(const QList<QSslError>& errors);
    bool presentsPinnedCertificate() const;
    void refuseCertificate(const QString& reason);
    void onFrame(const QByteArray& data);
    // The first frame of a connection's server, or its pong, tells what it is.
    void learnServer(const AgentCommand& command);
    // Our relay announced its extensions: the outbox opens, the agent registers in its
    // numbered stream and restates itself.
    void speakExtended(const ServerFeatures& features);
    // A server that knows only the agent protocol.
    void speakPlain();
    void onHeartbeat();
    QJsonObject registerMessage() const;
    void writeText(const QString& text);
    // The producers of output read while what waits for the socket, and (for a server
    // that confirms) what it has not confirmed, is under the flow's high-water mark.
    void updateFlow();
    // Restates what the agent runs, for a server that may have started since.
    void sendAgentState();
    void startDisconnectGrace();
    void onDisconnectGraceOver();
    // Runs `then` when the socket has written what it holds, or at the latest 2 s later.
    void whenWritten(std::function<void()> then);

    void handleTaskAssign(const AgentCommand& command);
    void handleServerCommand(const AgentCommand& command);
    void handleTerminalCommand(const AgentCommand& command);
    // Lists the projects under the repository root, off the loop, for "projects.listed".
    void listProjects();
    // "sessions.list" and "sessions.read": the assistants' sessions found on this
    // computer, read off the loop.
    void handleSessionsCommand(const AgentCommand& command);
    // Whether a process at the desk holds the session a chat would continue ("idle",
    // "busy", "waiting"), for a server that lists sessions; empty when none does.
    QString deskSessionState(const TaskAssignment& task) const;
    // "sessions.watch": follows a session's file and says what is added ("sessions.grew").
    void watchSession(const QString& tool, const QString& id);
    // "task.ack", "task.output.read" and "tasks.list" of a server that reads numbered lines.
    void handleTaskOutputCommand(const AgentCommand& command);
    // The task's output is kept from here, and paced from its first line.
    void beginTaskOutput(const TaskAssignment& task);
    // A task's end as it is said: its kept output ends with it.
    void endTaskOutput(const QString& type, const QJsonObject& message);
    void routeTask(const TaskAssignment& task);

    SettingsStore& m_defaults;
    Environment m_env;
    Machine m_machine;

    QPointer<QWebSocket> m_socket;
    bool m_connected = false;
    QUrl m_socketURL;
    std::optional<QString> m_pinnedFile;
    TlsTrust::ServerTrust m_trust; // whom to trust, read from the files at the last connect
    QString m_certificateRefusal;  // why this connection's certificate was refused
    QTimer m_reconnectTimer;
    QTimer m_connectTimeout;
    QTimer m_heartbeatTimer;
    QTimer m_disconnectGrace;
    // The server of this connection has not said yet what it is.
    bool m_learning = false;
    ServerFeatures m_features;
    OutgoingFlow m_flow;
    Outbox m_outbox;
    // What the agent restates of its task: kind and project from its "task.assign", and
    // the proposal it waits on.
    Messages::StateTask m_task;
    std::optional<QJsonObject> m_proposal;

    ApprovalSlot m_approvals;
    std::unique_ptr<ProcessRunner> m_runner;
    ChatSessions m_chatSessions;
    TaskOutputStore m_taskOutput;
    TaskOutputPace m_taskPace;
    TerminalSessionManager* m_terminalSessionManager = nullptr;
    // A walk for "projects.list" is under way: a request meanwhile takes its answer.
    bool m_listingProjects = false;
    // The sessions followed for the clients, by "tool:id"; until "sessions.unwatch" or
    // the connection goes.
    std::map<QString, std::unique_ptr<SessionWatch>> m_sessionWatches;
};

} // namespace brinmoor
