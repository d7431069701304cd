#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>

class QWebSocket;
class QWebSocketServer;

namespace brinmoor::test {

// A server that knows only the agent protocol, as a phone app's own server speaks it:
// the agent's endpoint, its incoming commands and its outgoing messages with their
// members, and nothing more. It never confirms anything ("agent.ack", "terminal.ack"),
// its hello (when it says one) is a bare {"type":"agent.hello"}, and it knows nothing
// of our relay's extensions. It listens on 127.0.0.1, records what the agent sends and
// keeps a list of everything that such a server would not expect:
//
// - a message "type" that is not one the agent sends in that protocol;
// - a member that is not in that message's row (e.g. "offset" on "terminal.output",
//   "seq" anywhere), a member of the row that is missing or of the wrong JSON type, and
//   the values the row fixes ("supportsApproval" true, "replace" true, "status"
//   "running", "snapshot" true, "exitCode" 0 of "task.finished", the "taskKinds");
// - a first frame on a connection that is not "agent.register";
// - a binary frame, or a text frame that is not one JSON object;
// - a message sent twice. What counts as twice:
//   * a replay: a frame equal (as a JSON object) to one received on an earlier
//     connection. Exempt are the messages whose content may well be true again:
//     "agent.register", "task.heartbeat" (one task beats the same beat all along),
//     "terminal.output" (a shell may print the same text again, and an attach replays
//     output on purpose), and the answers to terminal commands that a phone may send
//     again: "terminal.opened" (an attach restates it), "terminal.status",
//     "terminal.completion", "terminal.error";
//   * for one task: a second "task.started", "task.finished", "task.cancelled",
//     "task.failed", "task.chat.final", "task.chat.error", "task.awaiting_approval" or
//     "task.proposal_ready"; a second "task.progress" of the same phase or
//     "task.artifact" of the same kind; a second "task.log" line beginning
//     "workspace.resolve " or "proposal." (said once per task). Other "task.log" lines,
//     chat chunks and commentary may repeat within a connection (empty lines, a final
//     commentary equal to the streamed one), and so may heartbeats;
//   * a second "agent.register" on one connection without a reason for it. The
//     reasons: the test announced a configuration reload (`expectRegistration`), or a
//     shell task that ran in the create-project root (its "workspace.resolve" line
//     names as resolvedWorkingDir the "createProjectRoot" of the registration) has
//     just finished;
//   * a second "terminal.closed" for a session without a "terminal.opened" between.
//
// Frames are numbered by connection (from 1, in the order the connections opened) and
// timed from their connection's opening. The server sends only the commands of the
// protocol, in their shapes: "taskId" at the top level, every other member in
// "payload".
class PlainServer : public QObject {
    Q_OBJECT

public:
    // What the server says first on a new connection.
    enum class Greeting {
        Nothing,     // waits for the agent
        BareHello,   // {"type":"agent.hello"}
        UnknownType, // a message of a type the agent does not know, which it ignores
    };

    struct Frame {
        int connection = 0;
        qint64 sinceOpenMs = 0;
        QJsonObject message;

        QString type() const { return message.value(QStringLiteral("type")).toString(); }
    };

    explicit PlainServer(QObject* parent = nullptr);
    ~PlainServer() override;

    // Listens on a free port (or the given one); false when that fails.
    bool listen(quint16 port = 0);
    // Goes away: stops listening and drops every connection.
    void close();
    quint16 port() const { return m_port; }
    // "http://127.0.0.1:PORT", as the agent's server URL setting holds it.
    QString serverURL() const;
    // For the connections opened from now on.
    void setGreeting(Greeting greeting) { m_greeting = greeting; }

    int connectionCount() const { return int(m_connections.size()); }
    bool waitForConnections(int count, int timeoutMs = 10000);
    // The URL and the "Authorization" header (absent when none was sent) of a connection.
    QUrl requestURL(int connection) const { return m_connections.value(connection - 1).requestURL; }
    std::optional<QByteArray> authorization(int connection) const
    {
        return m_connections.value(connection - 1).authorization;
    }
    // The server's clock (ms since it was made), when a connection opened and ended
    // (-1 while it is open).
    qint64 now() const { return m_clock.elapsed(); }
    qint64 openedAt(int connection) const { return m_connections.value(connection - 1).openedAt; }
    qint64 endedAt(int connection) const { return m_connections.value(connection - 1).endedAt; }
    // Closes the newest connection from the server's side (close code 1000).
    void closeConnection();

    // Every frame received, in order, over all connections; `received` counts also the
    // frames that were not JSON objects.
    const QList<Frame>& frames() const { return m_frames; }
    qsizetype received() const { return m_received; }
    QList<Frame> framesOf(int connection) const;
    // The messages of one type (and one task, when given), in order.
    QList<QJsonObject> messages(const QString& type, const QString& taskId = {}) const;

    // What a server that knows only the protocol would not have expected, each with the
    // frame that showed it.
    const QStringList& violations() const { return m_violations; }
    // The violations and every frame received, for a failure message.
    QString report() const;

    // Waits (running the event loop) until a received message matches, returning it; gives
    // up early when a violation turns up meanwhile.
    std::optional<QJsonObject> waitFor(const std::function<bool(const QJsonObject&)>& match, int timeoutMs = 10000,
                                       int skip = 0);
    std::optional<QJsonObject> waitForType(const QString& type, int timeoutMs = 10000);
    std::optional<QJsonObject> waitForTask(const QString& type, const QString& taskId, int timeoutMs = 10000);

    // The protocol's commands, to the newest connection. Members not in the command's
    // row are refused (recorded as a violation of the test's own).
    void assign(const QString& taskId, const QJsonObject& payload);
    void cancel(const QString& taskId);
    void approval(const QString& taskId, const QString& decision);
    // "terminal.open", "terminal.attach", "terminal.input", "terminal.complete",
    // "terminal.resize", "terminal.signal" or "terminal.close".
    void terminal(const QString& type, const QJsonObject& payload);
    // A command of our relay's clients that this server would never send, sent as it is,
    // for tests that show the agent keeps to the protocol all the same.
    void sendOutsideTheProtocol(const QJsonObject& command);
    // The test is about to make the agent reload its configuration, which re-registers.
    void expectRegistration() { ++m_reloadsExpected; }

private:
    struct Connection {
        QPointer<QWebSocket> socket;
        QUrl requestURL;
        std::optional<QByteArray> authorization;
        qint64 openedAt = 0;
        qint64 endedAt = -1;
        int frames = 0;
        int registrations = 0;
        int registrationsAllowed = 0;
        QString createProjectRoot;
    };

    void onNewConnection();
    void onText(int connection, const QString& text);
    void check(int connection, const QJsonObject& message, const QByteArray& canonical);
    void checkOnce(const QString& key, const QString& what, const QByteArray& canonical);
    void violation(int connection, const QString& text, const QByteArray& frame);
    void sendCommand(const QJsonObject& command);

    QWebSocketServer* m_server = nullptr;
    quint16 m_port = 0;
    Greeting m_greeting = Greeting::Nothing;
    QElapsedTimer m_clock;
    QList<Connection> m_connections;
    QList<Frame> m_frames;
    QStringList m_violations;
    QHash<QByteArray, int> m_firstConnection;  // frame → the connection it was first received on
    QHash<QString, int> m_onceSeen;            // once-per-task keys already seen
    QHash<QString, QString> m_shellWorkingDir; // shell task → where it ran
    QHash<QString, bool> m_terminalClosed;     // session → closed since its last "terminal.opened"
    int m_reloadsExpected = 0;
    qsizetype m_received = 0;
};

} // namespace brinmoor::test
