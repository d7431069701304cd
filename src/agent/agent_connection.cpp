// The connection to the server: connecting (over TLS, pinned or verified), learning
// from the first frame or the pong of a ping whether the server is our relay or one
// that knows only the agent protocol, and losing the connection.
#include "agent/agent_runtime.h"
#include "sessions/session_watch.h"

#include "agent/server_certificate.h"
#include "base/diag.h"
#include "protocol/agent_command.h"
#include "protocol/messages.h"
#include "terminal/terminal_session_manager.h"

#include <QJsonDocument>
#include <QNetworkRequest>
#include <QSslError>
#include <QWebSocket>

namespace brinmoor {

namespace {

// The ping sent after the register: a server that has said nothing by its pong knows
// only the agent protocol (our relay's hello is on its way before its pong).
const QByteArray kLearnPing = QByteArrayLiteral("brinmoor.learn");

} // namespace

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
    connect(socket, &QWebSocket::pong, this, [this](quint64, const QByteArray& payload) {
        if (m_learning && payload == kLearnPing)
            speakPlain();
    });
    connect(socket, &QWebSocket::bytesWritten, this, &AgentRuntime::updateFlow);
    m_connectTimeout.start();
    socket->open(request);
}

std::variant<QSslConfiguration, QString> AgentRuntime::tlsConfiguration(const ConnectionSettings& settings)
{
    m_trust = TlsTrust::ServerTrust();
    if (m_pinnedFile) {
        // A pin is the whole of the trust: "tlsCA" does not count then.
        const auto pinned = ServerCertificate::load(*m_pinnedFile);
        if (const QString* problem = std::get_if<QString>(&pinned))
            return *problem;
        m_trust.pinned = std::get<QList<QSslCertificate>>(pinned).first();
    } else if (!settings.tlsCA.isEmpty()) {
        const auto authorities = ServerCertificate::load(settings.tlsCA);
        if (const QString* problem = std::get_if<QString>(&authorities))
            return *problem;
        m_trust.authorities = std::get<QList<QSslCertificate>>(authorities);
    }
    return m_trust.configure();
}

bool AgentRuntime::presentsPinnedCertificate() const
{
    return m_socket && m_trust.overrulesErrors(m_socket->sslConfiguration().peerCertificate());
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
    m_connectTimeout.stop();
    m_connected = true;
    m_learning = true;
    m_outbox.wait();
    m_flow.update(0);
    const ConnectionSettings settings = loadConnectionSettings();
    reportStatus(QStringLiteral("Connected as ") + settings.agentId);
    diag(QStringLiteral("connected serverURL=") + m_socketURL.toString() + QStringLiteral(" agentId=") +
         settings.agentId);
    // The first frame on every connection, whatever the server says first.
    writeText(QString::fromUtf8(QJsonDocument(registerMessage()).toJson(QJsonDocument::Compact)));
    if (m_socket)
        m_socket->ping(kLearnPing);
    m_heartbeatTimer.start();
}

void AgentRuntime::learnServer(const AgentCommand& command)
{
    if (!m_learning)
        return;
    if (command.type == QLatin1String("agent.hello")) {
        if (const std::optional<ServerFeatures> features = ServerFeatures::fromHello(command)) {
            speakExtended(*features);
            return;
        }
    }
    speakPlain();
}

void AgentRuntime::speakExtended(const ServerFeatures& features)
{
    m_learning = false;
    const bool hadGrace = m_features.grace;
    m_features = features;
    diag(QStringLiteral("server.extensions features=") + features.named().join(QLatin1Char(',')) +
         QStringLiteral(" seq=") + QString::number(features.serverHas));
    m_disconnectGrace.stop();
    const auto writer = [this](const QString& text) { writeText(text); };
    if (features.seq)
        m_outbox.open(features.serverHas, writer, features.ack);
    else
        m_outbox.openPlain(writer);
    if (hadGrace && !features.grace && currentTaskId())
        stopRunningProcessIfAny(false);
    if (m_terminalSessionManager) {
        m_terminalSessionManager->setExtended(features.pacing);
        if (features.pacing)
            m_terminalSessionManager->countOutputAsRendered();
    }
    // The register that opened the connection came before the numbered stream.
    if (features.seq)
        sendRegisterMessage();
    if (features.state)
        sendAgentState();
}

void AgentRuntime::speakPlain()
{
    m_learning = false;
    const bool hadGrace = m_features.grace;
    m_features = ServerFeatures();
    m_disconnectGrace.stop();
    m_outbox.openPlain([this](const QString& text) { writeText(text); });
    if (m_terminalSessionManager)
        m_terminalSessionManager->setExtended(false);
    // A task that outlived the lost connection to our relay: this server would have
    // had it stopped with the connection.
    if (hadGrace && currentTaskId())
        stopRunningProcessIfAny(false);
}

void AgentRuntime::onSocketLost(const QString& error)
{
    const bool wasConnected = m_connected;
    discardSocket();
    m_taskPace.release();
    // Clients ask again on the next connection.
    m_sessionWatches.clear();
    if (!wasConnected) {
        reportStatus(QStringLiteral("Reconnect in 3s: ") + error);
        m_reconnectTimer.start();
        return;
    }
    reportStatus(QStringLiteral("Disconnected: ") + error);
    if (m_features.grace) {
        // The task runs on; what it says waits for the next connection.
        startDisconnectGrace();
    } else {
        // The running task goes with the connection, before the agent connects again.
        stopRunningProcessIfAny(false);
    }
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

} // namespace brinmoor
