#include "support/relay_client.h"

#include "support/loopback_server.h"

#include <QJsonDocument>
#include <QNetworkRequest>
#include <QSslSocket>
#include <QTcpSocket>
#include <QWebSocket>
#include <QWebSocketHandshakeOptions>

namespace brinmoor::test {

RelayClient::RelayClient(QObject* parent)
    : QObject(parent), m_socket(new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this))
{
    m_socket->setMaxAllowedIncomingMessageSize(64 * 1024 * 1024);
    connect(m_socket, &QWebSocket::textMessageReceived, this,
            [this](const QString& text) { m_messages.append(QJsonDocument::fromJson(text.toUtf8()).object()); });
}

RelayClient::~RelayClient() = default;

void RelayClient::useTls(const QSslConfiguration& tls)
{
    m_tls = true;
    m_socket->setSslConfiguration(tls);
}

QUrl RelayClient::url(quint16 port, const QString& pathAndQuery) const
{
    return QUrl((m_tls ? QStringLiteral("wss") : QStringLiteral("ws")) + QStringLiteral("://127.0.0.1:") +
                QString::number(port) + pathAndQuery);
}

bool RelayClient::open(quint16 port, const QString& token, TokenVia via, const QStringList& otherSubprotocols)
{
    return open(url(port, QStringLiteral("/v1/ws/client")), token, via, otherSubprotocols);
}

bool RelayClient::openResuming(quint16 port, const QString& token, const QJsonObject& since)
{
    QUrl resuming = url(port, QStringLiteral("/v1/ws/client"));
    resuming.setQuery(QStringLiteral("since=") + QString::fromLatin1(QUrl::toPercentEncoding(QString::fromUtf8(
                                                     QJsonDocument(since).toJson(QJsonDocument::Compact)))));
    return open(resuming, token, TokenVia::Header, {});
}

bool RelayClient::open(const QUrl& url, const QString& token, TokenVia via, const QStringList& otherSubprotocols)
{
    QNetworkRequest request(url);
    if (!m_origin.isEmpty())
        request.setRawHeader("Origin", m_origin);
    QWebSocketHandshakeOptions options;
    QStringList protocols = otherSubprotocols;
    if (via == TokenVia::Header)
        request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    else
        protocols.append(QStringLiteral("bearer.") + token);
    options.setSubprotocols(protocols);
    m_socket->open(request, options);
    return waitFor(
               [](const QJsonObject& m) { return m.value(QStringLiteral("type")) == QLatin1String("server.hello"); })
        .has_value();
}

bool RelayClient::openAgent(quint16 port, const QString& agentId, const QString& token, bool announce)
{
    QNetworkRequest request(url(port, QStringLiteral("/v1/ws/agent?agentId=") + agentId));
    request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    m_socket->open(request);
    const std::optional<QJsonObject> hello = waitForType(QStringLiteral("agent.hello"));
    if (!hello)
        return false;
    if (announce) {
        // A stream of seqs of its own, starting above what the server has of this agent.
        const qint64 next =
            hello->value(QStringLiteral("payload")).toObject().value(QStringLiteral("seq")).toInteger() + 1;
        send(QJsonObject{{QStringLiteral("type"), QStringLiteral("agent.stream")},
                         {QStringLiteral("first"), next},
                         {QStringLiteral("next"), next}});
    }
    return true;
}

void RelayClient::send(const QJsonObject& message)
{
    m_socket->sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void RelayClient::sendText(const QString& text)
{
    m_socket->sendTextMessage(text);
}

void RelayClient::close()
{
    m_socket->close();
}

bool RelayClient::isConnected() const
{
    return m_socket->state() == QAbstractSocket::ConnectedState;
}

std::optional<QJsonObject> RelayClient::waitFor(const std::function<bool(const QJsonObject&)>& match, int timeoutMs)
{
    qsizetype checked = 0;
    std::optional<QJsonObject> found;
    waitUntil(
        [&] {
            for (; checked < m_messages.size(); ++checked) {
                if (match(m_messages[checked])) {
                    found = m_messages[checked];
                    return true;
                }
            }
            return false;
        },
        timeoutMs);
    if (!found)
        qWarning("no matching message; received:\n%s", qPrintable(trace()));
    return found;
}

std::optional<QJsonObject> RelayClient::waitForType(const QString& type, int timeoutMs)
{
    return waitFor([&](const QJsonObject& m) { return m.value(QStringLiteral("type")).toString() == type; }, timeoutMs);
}

QString RelayClient::trace() const
{
    QStringList lines;
    for (const QJsonObject& message : m_messages)
        lines.append(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
    return lines.join(QLatin1Char('\n'));
}

QByteArray httpExchange(quint16 port, const QByteArray& request, int timeoutMs)
{
    return httpExchangeFrom(QStringLiteral("127.0.0.1"), port, request, timeoutMs);
}

QByteArray httpExchangeFrom(const QString& from, quint16 port, const QByteArray& request, int timeoutMs)
{
    QTcpSocket socket;
    socket.bind(QHostAddress(from));
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!socket.waitForConnected(timeoutMs))
        return {};
    socket.write(request);
    return readUntilClosed(socket, timeoutMs);
}

QByteArray httpsExchange(quint16 port, const QByteArray& request, const QSslConfiguration& tls, const QString& peerName,
                         int timeoutMs)
{
    QSslSocket socket;
    socket.setSslConfiguration(tls);
    QList<QSslError> refused;
    QObject::connect(&socket, &QSslSocket::sslErrors, &socket,
                     [&refused](const QList<QSslError>& errors) { refused = errors; });
    socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port,
                                  peerName.isEmpty() ? QStringLiteral("127.0.0.1") : peerName);
    if (!waitUntil([&] { return socket.isEncrypted() || socket.state() == QAbstractSocket::UnconnectedState; },
                   timeoutMs) ||
        !socket.isEncrypted()) {
        for (const QSslError& error : refused)
            qWarning("certificate refused: %s", qPrintable(error.errorString()));
        return {};
    }
    socket.write(request);
    return readUntilClosed(socket, timeoutMs);
}

QByteArray readUntilClosed(QTcpSocket& socket, int timeoutMs)
{
    QByteArray received;
    waitUntil(
        [&] {
            received += socket.readAll();
            return socket.state() == QAbstractSocket::UnconnectedState;
        },
        timeoutMs);
    received += socket.readAll();
    return received;
}

QString statusAndBody(const QByteArray& response)
{
    const qsizetype headEnd = response.indexOf("\r\n\r\n");
    const qsizetype lineEnd = response.indexOf("\r\n");
    if (headEnd < 0 || lineEnd < 0)
        return QString::fromUtf8(response);
    return QString::fromUtf8(response.left(lineEnd)) + QLatin1Char('\n') + QString::fromUtf8(response.mid(headEnd + 4));
}

std::optional<QByteArray> responseHeader(const QByteArray& response, QByteArrayView name)
{
    const qsizetype headEnd = response.indexOf("\r\n\r\n");
    const QList<QByteArray> lines = response.left(headEnd < 0 ? response.size() : headEnd).split('\n');
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0 && QByteArrayView(lines[i]).first(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0)
            return lines[i].mid(colon + 1).trimmed();
    }
    return std::nullopt;
}

void HeldRequest::start(quint16 port, const QByteArray& request)
{
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    socket.write(request);
}

QString HeldRequest::result(int timeoutMs)
{
    return statusAndBody(readUntilClosed(socket, timeoutMs));
}

} // namespace brinmoor::test
