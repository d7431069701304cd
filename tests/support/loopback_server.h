#pragma once

#include "protocol/server_features.h"

#include <QJsonObject>
#include <QList>

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

class QWebSocket;
class QWebSocketServer;

namespace brinmoor::test {

// A real WebSocket server on 127.0.0.1 playing the relay server: it says hello with
// the newest seq it has and the relay's extensions, records every message an agent sends
// with its seq (the "agent.stream" announcements apart, and what the agent says before
// it: its register, sent as the connection opened), confirms each one unless told not
// to, and can send frames back.
class LoopbackServer : public QObject {
    Q_OBJECT

public:
    explicit LoopbackServer(QObject* parent = nullptr);
    ~LoopbackServer() override;

    // Listens on a free port (or the given one); false when that fails.
    bool listen(quint16 port = 0);
    void close();
    quint16 port() const;
    // "http://127.0.0.1:PORT", as the agent's server URL setting holds it.
    QString serverURL() const;

    // Every message received, in order, over all connections.
    const QList<QJsonObject>& messages() const { return m_messages; }
    // The seq of each of them, as the agent's announcements number them.
    const QList<qint64>& seqs() const { return m_seqs; }
    // The "agent.stream" announcements, one per connection.
    const QList<QJsonObject>& streams() const { return m_streams; }
    // What each connection's agent said before its "agent.stream".
    const QList<QJsonObject>& preludes() const { return m_preludes; }
    void clearMessages()
    {
        m_messages.clear();
        m_seqs.clear();
    }
    // Whether each message is confirmed with "agent.ack" (it is by default).
    void setAcknowledging(bool acknowledging) { m_acknowledging = acknowledging; }
    // What its hello announces (everything our relay offers, by default).
    void setFeatures(const ServerFeatures& features) { m_features = features; }
    // Messages sent to every new connection right after the hello, as the relay sends
    // the paces of terminals.
    void setGreeting(const QList<QJsonObject>& messages) { m_greeting = messages; }
    // Messages of one type (and task, when given).
    QList<QJsonObject> messagesOfType(const QString& type, const QString& taskId = {}) const;
    // "type line" for each task.log, "type" for others: a readable trace for failures.
    QString trace() const;

    // Waits (running the event loop) until a received message matches, returning it.
    std::optional<QJsonObject> waitFor(const std::function<bool(const QJsonObject&)>& match, int timeoutMs = 10000,
                                       int skip = 0);
    std::optional<QJsonObject> waitForType(const QString& type, int timeoutMs = 10000);
    std::optional<QJsonObject> waitForTask(const QString& type, const QString& taskId, int timeoutMs = 10000);
    bool waitForConnections(int count, int timeoutMs = 10000);

    int connectionCount() const { return m_connectionCount; }
    bool hasClient() const { return !m_client.isNull(); }
    QUrl lastRequestURL() const { return m_lastRequestURL; }
    // The Authorization header of the last handshake; absent when none was sent.
    std::optional<QByteArray> lastAuthorization() const { return m_lastAuthorization; }

    void send(const QJsonObject& message);
    void sendText(const QString& text);
    // Closes the current agent connection from the server's side.
    void closeClient();
    // The close code the agent sent when it closed the connection.
    std::optional<int> lastCloseCode() const { return m_lastCloseCode; }

private:
    void onNewConnection();
    void onMessage(const QString& text);

    QWebSocketServer* m_server = nullptr;
    QPointer<QWebSocket> m_client;
    QList<QJsonObject> m_messages;
    QList<qint64> m_seqs;
    QList<QJsonObject> m_streams;
    QList<QJsonObject> m_preludes;
    bool m_streaming = false; // the agent of this connection has said "agent.stream"
    qint64 m_nextSeq = 0;
    qint64 m_newestSeq = 0;
    bool m_acknowledging = true;
    QList<QJsonObject> m_greeting;
    ServerFeatures m_features = ServerFeatures::all();
    int m_connectionCount = 0;
    QUrl m_lastRequestURL;
    std::optional<QByteArray> m_lastAuthorization;
    std::optional<int> m_lastCloseCode;
};

// Waits, running the event loop, until the condition holds; false on time-out.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10000);

// Runs the event loop until a timer of this interval, started now, has fired `ticks`
// times. Timers of one interval fire in the order they were started, so by then every
// timer of that interval started earlier has fired at least `ticks - 1` times: the
// barrier for "nothing happened" when what must not happen is timer-driven.
void waitForTimerTicks(int intervalMs, int ticks);

// Open file descriptors of this process.
int openDescriptorCount();
// Every process id on the machine.
QList<qint64> allProcesses();
// Process ids whose parent is this process (or the given one).
QList<qint64> childProcesses(qint64 parent = 0);
// Whether a process still exists (a zombie counts as gone).
bool processAlive(qint64 pid);

} // namespace brinmoor::test
