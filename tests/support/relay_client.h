#pragma once

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSslConfiguration>
#include <QString>
#include <QTcpSocket>

#include <functional>
#include <optional>

class QUrl;
class QWebSocket;

namespace brinmoor::test {

// A phone as the relay sees it: a real WebSocket client on /v1/ws/client that records
// every message.
class RelayClient : public QObject {
    Q_OBJECT

public:
    enum class TokenVia { Header, Subprotocol };

    explicit RelayClient(QObject* parent = nullptr);
    ~RelayClient() override;

    // Connects over TLS (wss://127.0.0.1) from now on, trusting what `tls` trusts.
    void useTls(const QSslConfiguration& tls);
    // Sends this Origin header with the handshake, as a browser's page does.
    void setOrigin(const QByteArray& origin) { m_origin = origin; }

    // Connects and waits for "server.hello"; false when that does not happen.
    bool open(quint16 port, const QString& token, TokenVia via = TokenVia::Header,
              const QStringList& otherSubprotocols = {});
    // Connects saying in its URL what it has seen of each agent ({"AGENT":SEQ,…}).
    bool openResuming(quint16 port, const QString& token, const QJsonObject& since);
    // Connects as an agent instead, waiting for "agent.hello"; then, when it is to
    // announce, numbers its messages from just above the server's seq, as an agent does.
    bool openAgent(quint16 port, const QString& agentId, const QString& token, bool announce = true);
    void send(const QJsonObject& message);
    void sendText(const QString& text);
    void close();

    const QList<QJsonObject>& messages() const { return m_messages; }
    std::optional<QJsonObject> waitFor(const std::function<bool(const QJsonObject&)>& match, int timeoutMs = 10000);
    std::optional<QJsonObject> waitForType(const QString& type, int timeoutMs = 10000);
    // The types of the messages so far, for failure reports.
    QString trace() const;

    bool isConnected() const;
    QWebSocket& socket() { return *m_socket; }

private:
    bool open(const QUrl& url, const QString& token, TokenVia via, const QStringList& otherSubprotocols);
    QUrl url(quint16 port, const QString& pathAndQuery) const;

    QWebSocket* m_socket;
    QList<QJsonObject> m_messages;
    bool m_tls = false;
    QByteArray m_origin;
};

// An HTTP request left running while the test goes on (an approval held open).
struct HeldRequest {
    QTcpSocket socket;

    void start(quint16 port, const QByteArray& request);
    // Waits for the server to answer and close: the status line and body.
    QString result(int timeoutMs = 10000);
};

// Reads until the peer closes the connection (or the time runs out).
QByteArray readUntilClosed(QTcpSocket& socket, int timeoutMs = 10000);
// Sends raw bytes to 127.0.0.1:port and returns everything read until the server
// closes the connection (or the time runs out).
QByteArray httpExchange(quint16 port, const QByteArray& request, int timeoutMs = 10000);
// The same from another loopback address (127.0.0.2, …), as from another machine.
QByteArray httpExchangeFrom(const QString& from, quint16 port, const QByteArray& request, int timeoutMs = 10000);
// The same over TLS, trusting what `tls` trusts and checking the certificate for
// `peerName` (127.0.0.1 when empty); empty when the handshake fails.
QByteArray httpsExchange(quint16 port, const QByteArray& request, const QSslConfiguration& tls,
                         const QString& peerName = {}, int timeoutMs = 10000);
// The status line and body of a response, "HTTP/1.1 200 OK\n{…}"; headers dropped.
QString statusAndBody(const QByteArray& response);
// The value of one header of a response (name compared without regard to case), or
// none.
std::optional<QByteArray> responseHeader(const QByteArray& response, QByteArrayView name);

} // namespace brinmoor::test
