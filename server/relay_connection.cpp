#include "relay_connection.h"

#include "relay_log.h"
#include "trusted_proxies.h"

#include <QHostAddress>
#include <QSslSocket>

namespace brinmoor::relay {

namespace {

// At most this much is handed to the socket at a time; the rest waits in our queue, so a
// slow peer's backlog can be measured and dropped. What the socket holds of small frames
// is a copy of each peer's own, so it is kept small: the kernel's buffer keeps a fast
// peer busy between two turns of the event loop.
constexpr qint64 kSocketWindow = 16 * 1024;
// A response's body is handed to the socket in pieces of this size, each a view of the
// body: a slow reader of a file holds no copy of it (over TLS, one encrypted piece).
constexpr qsizetype kResponsePiece = 16 * 1024;
constexpr int kClosingGraceMs = 5'000;
// A peer that keeps sending after its answer (a refused 16 MiB body) is not read for
// long: past this much the socket is let go.
constexpr qint64 kMaxDiscardedWhileClosing = 256 * 1024;

} // namespace

RelayConnection::RelayConnection(QTcpSocket* socket, const RelayLimits& limits, ConnectionHandler& handler,
                                 QObject* parent)
    : QObject(parent), m_socket(socket), m_limits(limits), m_handler(handler),
      m_address(addressText(socket->peerAddress())), m_reader(limits.maxMessageSize, true)
{
    m_socket->setParent(this);
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    // Until the token is shown the socket holds no more than one request head; the rest
    // waits in the kernel, which stops the sender.
    m_socket->setReadBufferSize(m_limits.maxHeadSize);
    connect(m_socket, &QTcpSocket::readyRead, this, &RelayConnection::onReadyRead);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &RelayConnection::onBytesWritten);
    connect(m_socket, &QTcpSocket::disconnected, this, &RelayConnection::finish);
    connect(m_socket, &QTcpSocket::errorOccurred, this, [this](QAbstractSocket::SocketError error) {
        // A handshake that fails is worth a line: it is how a phone that does not trust
        // the certificate shows itself.
        if (m_tls && m_tls->mode() != QSslSocket::UnencryptedMode && !m_tls->isEncrypted() && m_state != State::Closed)
            logEvent("tls.failed", {{"address", m_address},
                                    {"reason", error == QAbstractSocket::RemoteHostClosedError
                                                   ? QStringLiteral("the client left during the handshake")
                                                   : m_socket->errorString()}});
        if (error != QAbstractSocket::RemoteHostClosedError || m_socket->state() == QAbstractSocket::UnconnectedState)
            finish();
    });
    m_tls = qobject_cast<QSslSocket*>(socket);
    if (m_tls) {
        // What QSslSocket has encrypted waits in its plain socket: that is what goes out
        // slowly to a slow peer.
        connect(m_tls, &QSslSocket::encryptedBytesWritten, this, &RelayConnection::onBytesWritten);
    }
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, &RelayConnection::onDeadline);
    m_deadline.start(m_limits.headTimeoutMs);
    if (m_socket->bytesAvailable() > 0)
        QMetaObject::invokeMethod(this, &RelayConnection::onReadyRead, Qt::QueuedConnection);
}

RelayConnection::~RelayConnection() = default;

void RelayConnection::onDeadline()
{
    if (m_state == State::Request && m_tls && !m_tls->isEncrypted()) {
        logEvent("tls.failed",
                 {{"address", m_address},
                  {"reason", QStringLiteral("no TLS handshake within %1 s").arg(m_limits.headTimeoutMs / 1000)}});
        finish();
    } else if (m_state == State::Request) {
        respond(jsonResponse(408, "{\"error\":\"request head not received in time\"}"));
    } else if (m_state == State::Body) {
        respond(jsonResponse(408, "{\"error\":\"request body not received in time\"}"));
    } else if (m_state == State::Waiting) {
        m_handler.waitExpired(*this);
    } else {
        finish();
    }
}

QHostAddress RelayConnection::peerAddress() const
{
    return m_socket->peerAddress();
}

QHostAddress RelayConnection::localAddress() const
{
    return m_socket->localAddress();
}

qint64 RelayConnection::unsentBytes() const
{
    return m_socket->bytesToWrite() + (m_tls ? m_tls->encryptedBytesToWrite() : 0);
}

qsizetype RelayConnection::backlog() const
{
    return m_queue.bytes() + unsentBytes();
}

bool RelayConnection::writesAtOnce() const
{
    return m_state == State::Open && m_queue.empty() && unsentBytes() < kSocketWindow;
}

void RelayConnection::onReadyRead()
{
    if (m_state == State::Closed)
        return;
    if (m_tls && m_tls->mode() == QSslSocket::UnencryptedMode && m_state == State::Request && !m_plainOnTlsPort) {
        startTls();
        if (!m_plainOnTlsPort)
            return;
    }
    // A waiting request's body, or what follows its upgrade, stays with the socket (at
    // most one head's worth; the kernel holds the rest) until it is taken up again.
    if (m_state == State::Waiting)
        return;
    const qint64 available = m_socket->bytesAvailable();
    if (available <= 0)
        return;
    if (m_state == State::Held || m_state == State::Closing) {
        // Nothing more is expected from a held request or a closing peer.
        m_discarded += qMax<qint64>(m_socket->skip(available), 0);
        if (m_state == State::Closing && m_discarded > kMaxDiscardedWhileClosing) {
            // The answer goes out before the socket does.
            m_socket->flush();
            finish();
        }
        return;
    }
    const qsizetype before = m_buffer.size();
    m_buffer.resize(before + available);
    const qint64 n = m_socket->read(m_buffer.data() + before, available);
    m_buffer.resize(before + qMax<qint64>(n, 0));
    if (m_state == State::Request)
        readRequest();
    else if (m_state == State::Body)
        readBodyBytes();
    else if (m_state == State::Open)
        readFrames();
}

void RelayConnection::readRequest()
{
    HttpRequest request;
    switch (parseRequestHead(m_buffer, m_limits.maxHeadSize, request)) {
    case HeadStatus::Incomplete: return;
    case HeadStatus::TooLarge: respond(jsonResponse(431, "{\"error\":\"request head too large\"}")); return;
    case HeadStatus::Malformed: respond(jsonResponse(400, "{\"error\":\"malformed request\"}")); return;
    case HeadStatus::Complete: break;
    }
    if (m_plainOnTlsPort) {
        answerPlainRequest(request);
        return;
    }
    qsizetype bodySize = 0;
    if (request.hasHeader("transfer-encoding")) {
        respond(jsonResponse(411, "{\"error\":\"a request body needs Content-Length\"}"));
        return;
    }
    if (request.hasHeader("content-length")) {
        bool ok = false;
        bodySize = request.header("content-length").toLongLong(&ok);
        if (!ok || bodySize < 0) {
            respond(jsonResponse(400, "{\"error\":\"malformed request\"}"));
            return;
        }
        if (bodySize > m_limits.maxMessageSize) {
            respond(jsonResponse(413, "{\"error\":\"request body too large\"}"));
            return;
        }
    }
    m_buffer.remove(0, request.headSize);
    m_bodySize = bodySize;
    m_request = request;
    m_state = State::Held;
    m_handler.requestReceived(*this, request);
    if (m_state == State::Body)
        readBodyBytes();
}

void RelayConnection::wait(int timeoutMs)
{
    if (m_state != State::Held)
        return;
    m_state = State::Waiting;
    // The socket stops reading too: what the peer sends meanwhile (a body it was not
    // asked for yet) stays in the kernel, which holds the sender back.
    m_socket->setReadBufferSize(1);
    m_deadline.start(timeoutMs);
}

void RelayConnection::resume()
{
    if (m_state != State::Waiting)
        return;
    m_state = State::Held;
    m_socket->setReadBufferSize(m_limits.maxHeadSize);
    m_deadline.start(m_limits.headTimeoutMs);
    QMetaObject::invokeMethod(this, &RelayConnection::continueReading, Qt::QueuedConnection);
}

void RelayConnection::continueReading()
{
    if (m_state != State::Body && m_state != State::Open)
        return;
    if (m_socket->bytesAvailable() > 0)
        onReadyRead();
    else if (m_state == State::Body)
        readBodyBytes();
    else
        readFrames();
}

void RelayConnection::readBody()
{
    if (m_state != State::Held)
        return;
    m_state = State::Body;
    m_socket->setReadBufferSize(0);
}

void RelayConnection::hold()
{
    if (m_state == State::Held)
        m_deadline.stop();
}

void RelayConnection::readBodyBytes()
{
    if (m_buffer.size() < m_bodySize)
        return;
    const QByteArray body = m_buffer.first(m_bodySize);
    m_buffer.clear();
    m_state = State::Held;
    m_deadline.stop();
    m_handler.bodyReceived(*this, m_request, body);
}

void RelayConnection::upgrade(Role role, QByteArrayView key, QByteArrayView subprotocol)
{
    if (m_state != State::Held)
        return;
    m_role = role;
    m_state = State::Open;
    m_deadline.stop();
    m_socket->setReadBufferSize(0);
    QByteArray response = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                          "Sec-WebSocket-Accept: " +
                          ws::acceptKey(key) + "\r\n";
    if (!subprotocol.isEmpty())
        response += "Sec-WebSocket-Protocol: " + subprotocol.toByteArray() + "\r\n";
    response += "\r\n";
    m_socket->write(withTransportSecurity(response));
    if (!m_buffer.isEmpty())
        QMetaObject::invokeMethod(this, &RelayConnection::readFrames, Qt::QueuedConnection);
}

void RelayConnection::readFrames()
{
    ws::Message message;
    while (m_state == State::Open) {
        const ws::FrameReader::Result result = m_reader.next(m_buffer, m_offset, message);
        if (result == ws::FrameReader::Result::NeedMore)
            break;
        if (result == ws::FrameReader::Result::Failed) {
            close(m_reader.failureCode(), m_reader.failureReason());
            break;
        }
        switch (message.opcode) {
        case ws::Text:
        case ws::Binary: m_handler.messageReceived(*this, message.payload); break;
        case ws::Ping: sendFrame(ws::frame(ws::Pong, message.payload)); break;
        case ws::Pong: m_handler.pongReceived(*this, message.payload); break;
        case ws::Close: {
            // Answer with the peer's own code where it may be sent back, then let the socket go.
            const quint16 code = message.payload.size() >= 2
                                     ? quint16((quint8(message.payload[0]) << 8) | quint8(message.payload[1]))
                                     : quint16(ws::NormalClosure);
            close(ws::isSendableCloseCode(code) ? code : quint16(ws::NormalClosure), {});
            break;
        }
        default: break;
        }
    }
    if (m_offset > 0) {
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
    // One big message must not pin its buffer for the life of the connection.
    if (m_buffer.capacity() > kSocketWindow * 4 && m_buffer.size() < kSocketWindow)
        m_buffer.squeeze();
}

void RelayConnection::sendText(QByteArrayView text)
{
    sendFrame(ws::frame(ws::Text, text));
}

void RelayConnection::sendFrame(const QByteArray& frame)
{
    if (m_state != State::Open)
        return;
    if (m_queue.empty() && unsentBytes() < kSocketWindow) {
        m_socket->write(frame);
        return;
    }
    m_queue.push(frame);
    dropWhenTooSlow();
}

void RelayConnection::sendShared(SharedFrames& frames, const QByteArray& frame, qint64& number)
{
    if (m_state != State::Open)
        return;
    if (m_queue.empty() && unsentBytes() < kSocketWindow) {
        m_socket->write(frame);
        return;
    }
    m_queue.pushShared(frames, frame, number);
    dropWhenTooSlow();
}

std::optional<qint64> RelayConnection::oldestShared() const
{
    return m_queue.oldestShared();
}

void RelayConnection::dropWhenTooSlow()
{
    if (backlog() <= m_limits.maxBacklog)
        return;
    m_queue.clear();
    close(ws::PolicyViolation,
          QByteArray("too slow: more than " + QByteArray::number(m_limits.maxBacklog) + " bytes waiting to be sent"));
}

void RelayConnection::onBytesWritten()
{
    drainQueue();
}

void RelayConnection::drainQueue()
{
    while (!m_queue.empty() && unsentBytes() < kSocketWindow)
        m_queue.writeNext(*m_socket);
    if (m_endAfterQueue && m_queue.empty() && m_state == State::Closing) {
        m_endAfterQueue = false;
        m_socket->disconnectFromHost();
    }
    if (m_notifyDrained && m_queue.empty() && m_state == State::Open) {
        m_notifyDrained = false;
        m_handler.connectionDrained(*this);
    }
}

void RelayConnection::notifyWhenDrained()
{
    m_notifyDrained = true;
}

void RelayConnection::close(quint16 code, QByteArrayView reason)
{
    if (m_state != State::Open)
        return;
    m_state = State::Closing;
    m_queue.clear();
    m_closeReason = reason.toByteArray();
    m_socket->write(ws::closeFrame(code, reason));
    notifyClosed();
    m_socket->disconnectFromHost();
    m_deadline.start(kClosingGraceMs);
}

void RelayConnection::abort()
{
    finish();
}

void RelayConnection::respond(const QByteArray& response)
{
    respond(response, {});
}

void RelayConnection::respond(const QByteArray& head, const QByteArray& body)
{
    if (m_state != State::Request && m_state != State::Body && m_state != State::Held && m_state != State::Waiting)
        return;
    m_state = State::Closing;
    m_socket->write(withTransportSecurity(head));
    m_body = body;
    for (qsizetype at = 0; at < body.size(); at += kResponsePiece) {
        const qsizetype size = std::min(kResponsePiece, body.size() - at);
        m_queue.push(QByteArray::fromRawData(m_body.constData() + at, size));
    }
    notifyClosed();
    m_endAfterQueue = true;
    drainQueue();
    m_deadline.start(kClosingGraceMs);
}

void RelayConnection::notifyClosed()
{
    if (m_notified)
        return;
    m_notified = true;
    m_handler.connectionClosed(*this);
}

void RelayConnection::finish()
{
    if (m_state == State::Closed)
        return;
    m_state = State::Closed;
    m_deadline.stop();
    notifyClosed();
    m_socket->abort();
    m_handler.connectionReleased(*this);
    deleteLater();
}

} // namespace brinmoor::relay
