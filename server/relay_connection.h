#pragma once

#include "http_request.h"
#include "outgoing_queue.h"
#include "shared_frames.h"
#include "websocket_frames.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTimer>

#include <optional>

class QSslSocket;
class QTcpSocket;

namespace brinmoor::relay {

struct RelayLimits {
    qsizetype maxMessageSize = 16 * 1024 * 1024; // one WebSocket message or request body
    qsizetype maxBacklog = 8 * 1024 * 1024;      // what one peer may have waiting before it is dropped
    qsizetype maxHeadSize = 16 * 1024;           // also all that is read before the token is shown
    int headTimeoutMs = 10'000;                  // also the longest a request waits for its turn
    int maxConnections = 8192;                   // all of them; lowered to fit the open-file limit
    // Connections other than the agents' WebSockets (requests not read yet among them),
    // in all and from one address.
    int maxClients = 4096;
    int maxClientsPerAddress = 1024;
};

class RelayConnection;

// What the server does with a connection's traffic.
class ConnectionHandler {
public:
    virtual ~ConnectionHandler() = default;
    // The head of an HTTP request, before any of its body is read: the handler answers
    // it, upgrades it, or asks for the body with readBody().
    virtual void requestReceived(RelayConnection& connection, const HttpRequest& request) = 0;
    // The whole body that readBody() asked for; the handler answers or holds the request.
    virtual void bodyReceived(RelayConnection& connection, const HttpRequest& request, const QByteArray& body) = 0;
    // One text or binary message on an upgraded connection.
    virtual void messageReceived(RelayConnection& connection, QByteArrayView payload) = 0;
    // The peer's answer to a ping (see RelayConnection::ping), in its place among the
    // messages.
    virtual void pongReceived(RelayConnection& connection, QByteArrayView payload)
    {
        Q_UNUSED(connection);
        Q_UNUSED(payload);
    }
    // A request held with RelayConnection::wait() was not resumed in time; the handler
    // answers it.
    virtual void waitExpired(RelayConnection& connection) = 0;
    // Called once when the connection is closing or gone; only connectionReleased follows.
    virtual void connectionClosed(RelayConnection& connection) = 0;
    // The socket is let go; the connection is deleted soon after.
    virtual void connectionReleased(RelayConnection& connection) = 0;
    // What was queued for the peer went to the socket, after notifyWhenDrained().
    virtual void connectionDrained(RelayConnection& connection) = 0;
};

// One TCP connection: an HTTP request, and after an upgrade a WebSocket. It bounds what
// it buffers both ways and deletes itself when the peer is gone. Given a QSslSocket it
// first takes the peer's TLS handshake, within the time a request head has.
class RelayConnection : public QObject {
    Q_OBJECT

public:
    enum class Role { Http, Agent, Client };

    RelayConnection(QTcpSocket* socket, const RelayLimits& limits, ConnectionHandler& handler,
                    QObject* parent = nullptr);
    ~RelayConnection() override;

    // The client's address as the relay counts and logs it: the peer's, or the one a
    // trusted proxy names.
    const QString& address() const { return m_address; }
    void setAddress(const QString& address) { m_address = address; }
    // The other end of the socket: the client, or a proxy in front of it.
    QHostAddress peerAddress() const;
    // This end of the socket: the address of the relay's the peer reached.
    QHostAddress localAddress() const;
    Role role() const { return m_role; }
    bool isOpen() const { return m_state == State::Open; }
    // Still reading a request's head or body, or holding its head until its turn.
    bool isReadingRequest() const
    {
        return m_state == State::Request || m_state == State::Body || m_state == State::Waiting;
    }
    // The peer finished a TLS handshake: what it sends and receives is encrypted.
    bool isEncrypted() const;

    // Answers the HTTP request and closes.
    void respond(const QByteArray& response);
    // The same with a body that goes out a little at a time, as the peer takes it, and is
    // never copied whole (a file of the web client, shared by every reader of it).
    void respond(const QByteArray& head, const QByteArray& body);

    // Holds a request whose head was read (from requestReceived) for at most
    // `timeoutMs`: nothing more is read from the peer meanwhile. The handler takes it up
    // again with resume(), or hears waitExpired() when the time is up.
    void wait(int timeoutMs);
    // Takes a waiting request up again; the handler answers, upgrades or reads its body
    // as it would have in requestReceived, with the head's time to do so.
    void resume();
    // Reads the body of a request whose sender has shown the token.
    void readBody();
    // Keeps a request that was read open until the handler answers it, however long that
    // takes (a push service that is slow to answer): the head's time no longer runs.
    void hold();
    // Completes the WebSocket handshake; later messages go to messageReceived.
    void upgrade(Role role, QByteArrayView key, QByteArrayView subprotocol);
    // Queues a prebuilt frame; a peer that lets too much pile up is dropped.
    void sendFrame(const QByteArray& frame);
    // The same for a frame other peers are sent too: when it has to wait, it waits in
    // `frames`, held once for all of them. `number` is its number there, -1 until it is
    // added (by the first peer that has to keep it).
    void sendShared(SharedFrames& frames, const QByteArray& frame, qint64& number);
    // The number of the oldest frame of `frames` this peer still waits for; none when it
    // waits for none.
    std::optional<qint64> oldestShared() const;
    void sendText(QByteArrayView text);
    // Starts the closing handshake; the peer hears the code and reason.
    void close(quint16 code, QByteArrayView reason);
    // Lets the socket go at once, without a word.
    void abort();

    // What waits for the peer: the bytes handed over and not yet sent, and what keeping
    // them costs.
    qsizetype backlog() const;
    // Whether a frame sent now goes straight to the socket, without waiting in the queue.
    bool writesAtOnce() const;
    // Calls the handler's connectionDrained once the queue has gone to the socket.
    void notifyWhenDrained();
    // Why this side ended the WebSocket; empty when the peer did, or it was a plain request.
    const QByteArray& closeReason() const { return m_closeReason; }

private:
    enum class State { Request, Body, Held, Waiting, Open, Closing, Closed };

    void onReadyRead();
    // With TLS, the first byte tells a handshake from a plain request.
    void startTls();
    // The answer to a plain request on the TLS port.
    void answerPlainRequest(const HttpRequest& request);
    // The deadline of the request head passed, or of the closing handshake.
    void onDeadline();
    // Bytes handed to the socket that are not on the wire yet.
    qint64 unsentBytes() const;
    // A response head with Strict-Transport-Security added when the connection is encrypted.
    QByteArray withTransportSecurity(QByteArray head) const;
    void onBytesWritten();
    void readRequest();
    // After a wait: reads what the peer sent meanwhile, as the state now wants it.
    void continueReading();
    void readBodyBytes();
    void readFrames();
    void drainQueue();
    // Closes the peer once more waits for it than it may have.
    void dropWhenTooSlow();
    void notifyClosed();
    void finish();

    QTcpSocket* m_socket;
    QSslSocket* m_tls = nullptr;   // m_socket when it speaks TLS
    bool m_plainOnTlsPort = false; // a plain request came to the TLS port
    RelayLimits m_limits;
    ConnectionHandler& m_handler;
    QString m_address;
    Role m_role = Role::Http;
    State m_state = State::Request;
    QByteArray m_buffer;
    qsizetype m_offset = 0;
    HttpRequest m_request;    // the head read, for its body
    qsizetype m_bodySize = 0; // announced by Content-Length
    qint64 m_discarded = 0;   // read and dropped while closing
    ws::FrameReader m_reader;
    OutgoingQueue m_queue;        // what waits to be handed to the socket
    bool m_endAfterQueue = false; // a response: the socket goes once the queue is sent
    QByteArray m_body;            // the response's body, which the queue holds views of
    QTimer m_deadline;            // the request head, and later the closing handshake, must not take forever
    bool m_notified = false;
    bool m_notifyDrained = false;
    QByteArray m_closeReason;
};

} // namespace brinmoor::relay
