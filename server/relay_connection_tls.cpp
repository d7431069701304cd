// A connection's TLS: the first byte tells a handshake from a plain request, which is
// answered in plain text; what goes out over TLS carries Strict-Transport-Security.
#include "relay_connection.h"

#include "relay_log.h"

#include <QRegularExpression>
#include <QSslSocket>

namespace brinmoor::relay {

namespace {

// Every TLS connection starts with a handshake record; a plain request starts with a
// letter.
constexpr char kTlsHandshakeRecord = 0x16;
// Browsers that reached the relay over TLS keep to TLS for it for a year.
constexpr QByteArrayView kTransportSecurity = "Strict-Transport-Security: max-age=31536000\r\n";

} // namespace

bool RelayConnection::isEncrypted() const
{
    return m_tls && m_tls->isEncrypted();
}

void RelayConnection::startTls()
{
    char first = 0;
    if (m_tls->peek(&first, 1) != 1)
        return;
    if (first == kTlsHandshakeRecord) {
        m_tls->startServerEncryption();
        return;
    }
    // A plain request on the TLS port is read as one, and answered in plain text (see
    // answerPlainRequest).
    logEvent("tls.failed", {{"address", m_address}, {"reason", QStringLiteral("not a TLS handshake")}});
    m_plainOnTlsPort = true;
}

void RelayConnection::answerPlainRequest(const HttpRequest& request)
{
    // An old http:// link opened in a browser goes on at the same place over https; what
    // is not a page (a WebSocket, a body, a request without a usable Host) is told why.
    static const QRegularExpression host(QStringLiteral("^([A-Za-z0-9.-]+|\\[[0-9A-Fa-f:.]+\\])(:[0-9]{1,5})?$"));
    const QByteArray body = "{\"error\":\"this port speaks TLS: use https:// or wss://\"}";
    const bool page = (request.method == "GET" || request.method == "HEAD") && !request.hasHeader("upgrade") &&
                      !request.hasHeader("content-length") &&
                      host.match(QString::fromLatin1(request.header("host"))).hasMatch();
    if (!page) {
        respond(jsonResponse(400, body));
        return;
    }
    QByteArray location = "https://" + request.header("host") + request.path;
    if (!request.query.isEmpty())
        location += '?' + request.query;
    respond(jsonResponse(308, body, QByteArray("Location: " + location + "\r\n")));
}

QByteArray RelayConnection::withTransportSecurity(QByteArray head) const
{
    if (isEncrypted())
        head.insert(head.indexOf("\r\n") + 2, kTransportSecurity.data(), kTransportSecurity.size());
    return head;
}

} // namespace brinmoor::relay
