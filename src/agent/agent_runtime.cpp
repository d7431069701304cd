#include "agent/agent_runtime.h"

#include "agent/server_certificate.h"
#include "base/diag.h"
#include "config/settings_store.h"
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
      m_chatSessions(ChatSessions::standardFilePath(m_env, m_machine.homeDirectory))
{
    m_reconnectTimer.setSingleShot(true);
    m_reconnectTimer.setTimerType(Qt::PreciseTimer);
    m_reconnectTimer.setInterval(intervals.reconnectMilliseconds);
    connect(&m_reconnectTimer, &QTimer::timeout, this, &AgentRuntime::attemptConnect);
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
    m_awaitingHello = false;
    m_outbox.close();
    startDisconnectGrace();
    // The conversations are on disk, whatever comes next.
    m_chatSessions.flush();
    reportStatus(QStringLiteral("Stopped"));
}

void AgentRuntime::discardSocket()
{
    m_connectTimeout.stop();
    m_heartbeatTimer.stop();
    m_connected = false;
    m_awaitingHello = false;
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

void AgentRuntime::attemptConnect()
{
    const ConnectionSettings settings = loadConnectionSettings();
    const std::optional<QUrl> url = agentSocketURL(settings.serverURL, settings.agentId);
    if (!url) {
        reportStatus(QStringLiteral("Reconnect in 3s: invalid server URL: ") + settings.serverURL);
        m_reconnectTimer.start();
        return;
    }
    m_socketURL = *url;
    m_certificateRefusal.clear();
    const auto tls = tlsConfiguration(settings);
    if (const QString* problem = std::get_if<QString>(&tls)) {
        refuseCertificate(*problem);
        reportStatus(QStringLiteral("Reconnect in 3s: ") + *problem);
        m_reconnectTimer.start();
        return;
    }
    QNetworkRequest request(*url);
    if (!settings.token.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + settings.token.toUtf8());

    auto* socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    m_socket = socket;
    socket->setSslConfiguration(std::get<QSslConfiguration>(tls));
    connect(socket, &QWebSocket::sslErrors, this, &AgentRuntime::onSslErrors);
    // Frames from the server may be large (terminal input, approvals), never unbounded.
    socket->setMaxAllowedIncomingMessageSize(64 * 1024 * 1024);
    connect(socket, &QWebSocket::connected, this, &AgentRuntime::onConnected);
    connect(socket, &QWebSocket::disconnected, this, [this] { onSocketLost(socketErrorText()); });
    connect(socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), this,
            [this](QAbstractSocket::SocketError) { onSocketLost(socketErrorText()); });
    connect(socket, &QWebSocket::textMessageReceived, this, [this](const QString& text) { onFrame(text.toUtf8()); });
    connect(socket, &QWebSocket::binaryMessageReceived, this, &AgentRuntime::onFrame);
    connect(socket, &QWebSocket::bytesWritten, this, [this] {
        if (m_socket)
            m_flow.update(m_socket->bytesToWrite());
    });
    m_connectTimeout.start();
    socket->open(request);
}

std::variant<QSslConfiguration, QString> AgentRuntime::tlsConfiguration(const ConnectionSettings& settings)
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    m_pinned.clear();
    if (m_pinnedFile) {
        const auto pinned = ServerCertificate::load(*m_pinnedFile);
        if (const QString* problem = std::get_if<QString>(&pinned))
            return *problem;
        m_pinned = std::get<QList<QSslCertificate>>(pinned).first();
        // No authority vouches for a pinned server, so every certificate comes to
        // onSslErrors, where the pin decides before anything (the token) is sent.
        configuration.setCaCertificates({});
        return configuration;
    }
    if (!settings.tlsCA.isEmpty()) {
        const auto authorities = ServerCertificate::load(settings.tlsCA);
        if (const QString* problem = std::get_if<QString>(&authorities))
            return *problem;
        configuration.addCaCertificates(std::get<QList<QSslCertificate>>(authorities));
    }
    return configuration;
}

bool AgentRuntime::presentsPinnedCertificate() const
{
    return m_socket && !m_pinned.isNull() && m_socket->sslConfiguration().peerCertificate() == m_pinned;
}

void AgentRuntime::onSslErrors(const QList<QSslError>& errors)
{
    // The pinned certificate is the server's own: that it names another host (the phones'
    // address) or comes from an authority this machine does not know does not matter.
    if (presentsPinnedCertificate()) {
        m_socket->ignoreSslErrors();
        return;
    }
    refuseCertificate(m_pinnedFile ? ServerCertificate::notPinned(*m_pinnedFile) : ServerCertificate::refused(errors));
}

void AgentRuntime::refuseCertificate(const QString& reason)
{
    m_certificateRefusal = reason;
    diag(QStringLiteral("tls.refused serverURL=") + m_socketURL.toString() + QStringLiteral(" reason=") + reason);
}

QString AgentRuntime::socketErrorText() const
{
    if (!m_certificateRefusal.isEmpty())
        return m_certificateRefusal;
    if (!m_socket)
        return QStringLiteral("connection closed");
    // A close handshake from the server is not a socket error: say what it sent.
    if (m_socket->error() == QAbstractSocket::UnknownSocketError) {
        QString text = QStringLiteral("connection closed by the server (code %1)").arg(int(m_socket->closeCode()));
        if (!m_socket->closeReason().isEmpty())
            text += QStringLiteral(": ") + m_socket->closeReason();
        return text;
    }
    return m_socket->errorString();
}

void AgentRuntime::onConnected()
{
    // The server's hello comes first, with what it has of this agent; the time-out
    // runs until it does.
    m_connected = true;
    m_awaitingHello = true;
    m_flow.update(0);
    const ConnectionSettings settings = loadConnectionSettings();
    reportStatus(QStringLiteral("Connected as ") + settings.agentId);
    diag(QStringLiteral("connected serverURL=") + m_socketURL.toString() + QStringLiteral(" agentId=") +
         settings.agentId);
    m_heartbeatTimer.start();
}

void AgentRuntime::onHello(qint64 serverHas)
{
    if (!m_awaitingHello)
        return;
    m_awaitingHello = false;
    m_connectTimeout.stop();
    m_disconnectGrace.stop();
    m_outbox.open(serverHas, [this](const QString& text) { writeText(text); });
    if (m_terminalSessionManager)
        m_terminalSessionManager->countOutputAsRendered();
    sendRegisterMessage();
    sendAgentState();
}

void AgentRuntime::onSocketLost(const QString& error)
{
    const bool wasConnected = m_connected;
    discardSocket();
    if (!wasConnected) {
        reportStatus(QStringLiteral("Reconnect in 3s: ") + error);
        m_reconnectTimer.start();
        return;
    }
    reportStatus(QStringLiteral("Disconnected: ") + error);
    // The task runs on; what it says waits for the next connection.
    startDisconnectGrace();
    start();
}

void AgentRuntime::startDisconnectGrace()
{
    if (!currentTaskId() || m_disconnectGrace.isActive())
        return;
    const qint64 seconds = loadConnectionSettings().taskDisconnectGraceSec;
    m_disconnectGrace.start(int(std::min<qint64>(seconds * 1000, std::numeric_limits<int>::max())));
}

void AgentRuntime::onDisconnectGraceOver()
{
    if (m_outbox.isOpen() || !currentTaskId())
        return;
    diag(QStringLiteral("task.stop.disconnected taskId=") + logValue(*currentTaskId()) + QStringLiteral(" graceSec=") +
         QString::number(loadConnectionSettings().taskDisconnectGraceSec));
    stopRunningProcessIfAny(false);
}

void AgentRuntime::onFrame(const QByteArray& data)
{
    QString error;
    if (!handleCommandData(data, &error))
        onSocketLost(error);
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
    m_outbox.add(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)), taskId,
                 type == QLatin1String("terminal.output") ? Outbox::Kind::TerminalOutput : Outbox::Kind::Other);
}

void AgentRuntime::sendTaskLog(const QString& taskId, QStringView line)
{
    m_outbox.add(Messages::taskLogText(taskId, line), taskId, Outbox::Kind::TaskLog);
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
        // The server counts what arrives: a message that did not leave is sent again,
        // in its place, on a new connection.
        QMetaObject::invokeMethod(
            this,
            [this, error] {
                if (m_outbox.isOpen())
                    onSocketLost(error);
            },
            Qt::QueuedConnection);
        return;
    }
    m_flow.update(m_socket->bytesToWrite());
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

void AgentRuntime::sendRegisterMessage()
{
    const AgentProfile profile = loadProfile();
    diag(QStringLiteral("register profile=") + profile.profileId + QStringLiteral(" actions=") +
         describeList(profile.actions) + QStringLiteral(" projects=") + describeList(profile.projects));
    sendJSON(Messages::agentRegister({profile.profileId, profile.projects, profile.createProjectRoot, profile.actions,
                                      profile.buildTemplate, profile.repoRoot}));
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
    }
    return *m_terminalSessionManager;
}

QString AgentRuntime::temporaryFolder() const
{
    return QDir::tempPath();
}

} // namespace brinmoor
