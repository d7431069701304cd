#include "agent/agent_runtime.h"
#include "sessions/session_watch.h"

#include "agent/server_certificate.h"
#include "base/diag.h"
#include "config/settings_store.h"
#include "protocol/agent_command.h"
#include "protocol/messages.h"
#include "terminal/terminal_session_manager.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkRequest>
#include <QSslError>
#include <QUrlQuery>
#include <QWebSocket>

#include <limits>

namespace brinmoor {

namespace {

// A list as the log shows it: ["a", "b"].
QString describeList(const QStringList& items)
{
    QStringList quoted;
    quoted.reserve(items.size());
    for (const QString& item : items)
        quoted.append(QLatin1Char('"') + item + QLatin1Char('"'));
    return QLatin1Char('[') + quoted.join(QStringLiteral(", ")) + QLatin1Char(']');
}

} // namespace

std::optional<QUrl> agentSocketURL(const QString& serverURL, const QString& agentId)
{
    QUrl url(serverURL.trimmed(), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return std::nullopt;
    url.setScheme(url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0 ? QStringLiteral("wss")
                                                                                         : QStringLiteral("ws"));
    url.setPath(QStringLiteral("/v1/ws/agent"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("agentId"), agentId);
    url.setQuery(query);
    url.setFragment(QString());
    return url;
}

AgentRuntime::AgentRuntime(SettingsStore& defaults, Environment env, Machine machine, ConnectionIntervals intervals,
                           QObject* parent)
    : QObject(parent), m_defaults(defaults), m_env(std::move(env)), m_machine(std::move(machine)),
      m_outbox(QDateTime::currentMSecsSinceEpoch() * 1000),
      m_runner(std::make_unique<ProcessRunner>(static_cast<TaskHost&>(*this))),
      m_chatSessions(ChatSessions::standardFilePath(m_env, m_machine.homeDirectory)),
      m_taskOutput(TaskOutputStore::standardFolder(agentStateFolder(m_env, m_machine.homeDirectory)),
                   TaskOutputStore::kDefaultTasks, TaskOutputStore::kDefaultBytes)
{
    m_reconnectTimer.setSingleShot(true);
    m_reconnectTimer.setTimerType(Qt::PreciseTimer);
    m_reconnectTimer.setInterval(intervals.reconnectMilliseconds);
    connect(&m_reconnectTimer, &QTimer::timeout, this, &AgentRuntime::attemptConnect);
    // The list of kept tasks says which cancellation was the time limit's.
    connect(m_runner.get(), &ProcessRunner::timeLimitReached, &m_taskOutput, &TaskOutputStore::markTimedOut);
    m_connectTimeout.setSingleShot(true);
    m_connectTimeout.setInterval(intervals.connectTimeoutMilliseconds);
    connect(&m_connectTimeout, &QTimer::timeout, this, [this, intervals] {
        onSocketLost(QStringLiteral("the server did not answer within %1 seconds")
                         .arg(intervals.connectTimeoutMilliseconds / 1000));
    });
    m_heartbeatTimer.setInterval(intervals.heartbeatMilliseconds);
    m_heartbeatTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_heartbeatTimer, &QTimer::timeout, this, &AgentRuntime::onHeartbeat);
    m_disconnectGrace.setSingleShot(true);
    connect(&m_disconnectGrace, &QTimer::timeout, this, &AgentRuntime::onDisconnectGraceOver);
}

AgentRuntime::~AgentRuntime()
{
    m_heartbeatTimer.stop();
    m_reconnectTimer.stop();
    discardSocket();
    m_runner.reset();
}

AgentProfile AgentRuntime::loadProfile() const
{
    return AgentProfile::load(m_defaults, m_env, m_machine);
}

ConnectionSettings AgentRuntime::loadConnectionSettings() const
{
    ConnectionSettings settings = ConnectionSettings::load(m_defaults, m_env);
    settings.pinnedCertificate = m_pinnedFile.value_or(QString());
    return settings;
}

void AgentRuntime::reportStatus(const QString& text)
{
    if (onStatus)
        onStatus(text);
}

bool AgentRuntime::isConnected() const
{
    return m_socket && m_connected;
}

void AgentRuntime::pinServerCertificate(std::optional<QString> certificateFile)
{
    m_pinnedFile = std::move(certificateFile);
}

void AgentRuntime::start()
{
    diag(QStringLiteral("start requested"));
    m_reconnectTimer.stop();
    discardSocket();
    attemptConnect();
}

void AgentRuntime::stop()
{
    diag(QStringLiteral("stop requested"));
    if (m_terminalSessionManager) {
        const QStringList sessions = m_terminalSessionManager->sessionIds();
        for (const QString& sessionId : sessions)
            m_terminalSessionManager->close(sessionId);
    }
    m_approvals.resolvePendingApproval(false);
    m_reconnectTimer.stop();
    m_connectTimeout.stop();
    m_heartbeatTimer.stop();
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->close(QWebSocketProtocol::CloseCodeGoingAway);
        m_socket->deleteLater();
        m_socket = nullptr;
    }
    m_connected = false;
    m_learning = false;
    m_outbox.close();
    // A running task's process is left alone; with our relay only for the grace time.
    if (m_features.grace)
        startDisconnectGrace();
    // The conversations are on disk, whatever comes next.
    m_chatSessions.flush();
    reportStatus(QStringLiteral("Stopped"));
}

void AgentRuntime::shutDown(std::function<void()> done)
{
    const std::optional<QString> task = currentTaskId();
    if (task && m_features.end && m_outbox.isOpen()) {
        diag(QStringLiteral("shutdown.cancel taskId=") + logValue(*task));
        connect(
            m_runner.get(), &ProcessRunner::taskEnded, this,
            [this, done] {
                whenWritten([this, done] {
                    stop();
                    done();
                });
            },
            Qt::SingleShotConnection);
        stopRunningProcessIfAny(true);
        return;
    }
    stop();
    stopRunningProcessIfAny(false);
    if (!currentTaskId()) {
        done();
        return;
    }
    connect(m_runner.get(), &ProcessRunner::taskEnded, this, done, Qt::SingleShotConnection);
}

void AgentRuntime::whenWritten(std::function<void()> then)
{
    if (!m_socket || m_socket->bytesToWrite() == 0) {
        then();
        return;
    }
    auto ran = std::make_shared<bool>(false);
    const auto once = [ran, then] {
        if (!std::exchange(*ran, true))
            then();
    };
    connect(m_socket, &QWebSocket::bytesWritten, this, [this, once] {
        if (!m_socket || m_socket->bytesToWrite() == 0)
            once();
    });
    connect(m_socket, &QWebSocket::disconnected, this, once);
    QTimer::singleShot(2000, this, once);
}

void AgentRuntime::discardSocket()
{
    m_connectTimeout.stop();
    m_heartbeatTimer.stop();
    m_connected = false;
    m_learning = false;
    m_outbox.close();
    // The paces were the clients of that connection.
    if (m_terminalSessionManager)
        m_terminalSessionManager->releasePaces();
    if (!m_socket)
        return;
    m_socket->disconnect(this);
    m_socket->abort();
    m_socket->deleteLater();
    m_socket = nullptr;
}

void AgentRuntime::onFrame(const QByteArray& data)
{
    QString error;
    if (!handleCommandData(data, &error))
        onSocketLost(error);
}

void AgentRuntime::updateFlow()
{
    if (!m_socket)
        return;
    // What the server has not confirmed includes what waits in the socket: with a server
    // that confirms, the producers stop reading when the agent is a window ahead of it.
    constexpr qint64 kScale = OutgoingFlow::kHighWaterBytes / Outbox::kUnconfirmedWindowBytes;
    m_flow.update(std::max(m_socket->bytesToWrite(), m_outbox.keeps() ? m_outbox.unconfirmedBytes() * kScale : 0));
}

void AgentRuntime::onHeartbeat()
{
    if (const std::optional<QString>& taskId = currentTaskId())
        sendJSON(Messages::taskHeartbeat(*taskId));
}

void AgentRuntime::sendJSON(const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    if (type == QLatin1String("task.awaiting_approval")) {
        m_proposal = message;
        m_proposal->remove(QStringLiteral("type"));
    }
    endTaskOutput(type, message);
    m_outbox.add(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)), taskId,
                 type == QLatin1String("terminal.output") ? Outbox::Kind::TerminalOutput : Outbox::Kind::Other);
}

void AgentRuntime::sendTaskLog(const QString& taskId, QStringView line)
{
    const std::optional<qint64> number = m_taskOutput.append(taskId, line);
    if (!m_features.lines || !number) {
        m_outbox.add(Messages::taskLogText(taskId, line), taskId, Outbox::Kind::TaskLog);
        return;
    }
    const QString text = Messages::taskLogText(taskId, line, number);
    m_taskPace.sent(taskId, *number, text.size());
    m_outbox.add(text, taskId, Outbox::Kind::TaskLog);
}

void AgentRuntime::sendTerminalOutput(const QString& json)
{
    m_outbox.add(json, QString(), Outbox::Kind::TerminalOutput);
}

void AgentRuntime::writeText(const QString& text)
{
    const qint64 sent = m_socket ? m_socket->sendTextMessage(text) : -1;
    if (sent <= 0 && !text.isEmpty()) {
        const QString error = !m_socket || m_socket->errorString().isEmpty() ? QStringLiteral("the frame was not sent")
                                                                             : m_socket->errorString();
        diag(QStringLiteral("sendJSON failed error=") + error + QStringLiteral(" payload=") + text);
        reportStatus(QStringLiteral("Send failed: ") + error);
        // Our relay counts what arrives: a message that did not leave is sent again, in
        // its place, on a new connection. Any other server just misses it.
        if (m_outbox.keeps() && m_outbox.isOpen()) {
            QMetaObject::invokeMethod(
                this,
                [this, error] {
                    if (m_outbox.isOpen())
                        onSocketLost(error);
                },
                Qt::QueuedConnection);
        }
        return;
    }
    updateFlow();
}

void AgentRuntime::sendAgentState()
{
    QList<Messages::StateTask> tasks;
    std::optional<QJsonObject> proposal;
    if (currentTaskId() && *currentTaskId() == m_task.taskId) {
        Messages::StateTask task = m_task;
        task.awaitingApproval = m_approvals.pendingApprovalTaskId() == m_task.taskId;
        if (task.awaitingApproval && m_proposal &&
            m_proposal->value(QStringLiteral("taskId")).toString() == m_task.taskId)
            proposal = m_proposal;
        tasks.append(task);
    }
    sendJSON(Messages::agentState(tasks, proposal,
                                  m_terminalSessionManager ? m_terminalSessionManager->openSessions()
                                                           : QList<Messages::StateTerminal>()));
}

QJsonObject AgentRuntime::registerMessage() const
{
    const AgentProfile profile = loadProfile();
    diag(QStringLiteral("register profile=") + profile.profileId + QStringLiteral(" actions=") +
         describeList(profile.actions) + QStringLiteral(" projects=") + describeList(profile.projects));
    return Messages::agentRegister({profile.profileId, profile.projects, profile.createProjectRoot, profile.actions,
                                    profile.buildTemplate, profile.repoRoot});
}

void AgentRuntime::sendRegisterMessage()
{
    sendJSON(registerMessage());
}

void AgentRuntime::reloadConfiguration()
{
    QTimer::singleShot(0, this, &AgentRuntime::sendRegisterMessage);
}

TerminalSessionManager& AgentRuntime::terminalSessionManager()
{
    if (!m_terminalSessionManager) {
        m_terminalSessionManager = new TerminalSessionManager([this] { return loadProfile(); },
                                                              [this](const QJsonObject& event) { sendJSON(event); },
                                                              [](const QString& line) { diag(line); }, &m_flow, this);
        m_terminalSessionManager->sendSerialized = [this](const QString& json) { sendTerminalOutput(json); };
        m_terminalSessionManager->setExtended(m_features.pacing);
    }
    return *m_terminalSessionManager;
}

QString AgentRuntime::temporaryFolder() const
{
    return QDir::tempPath();
}

} // namespace brinmoor
