#include "support/plain_server.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkRequest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cmath>

namespace brinmoor::test {

namespace {

enum class Kind { String, Integer, Boolean, Strings };

struct Member {
    const char* name;
    Kind kind;
    bool required = true;
};

// The agent's messages and their members, as the protocol lists them ("type" aside).
const QHash<QString, QList<Member>>& outgoingTable()
{
    static const QHash<QString, QList<Member>> table = [] {
        const Member taskId{"taskId", Kind::String};
        const QList<Member> proposal{taskId,
                                     {"proposalId", Kind::String},
                                     {"proposalSummary", Kind::String},
                                     {"proposalCommentary", Kind::String},
                                     {"proposalDiff", Kind::String},
                                     {"proposalFiles", Kind::Strings}};
        const QList<Member> session{{"sessionId", Kind::String}, {"projectPath", Kind::String}};
        QHash<QString, QList<Member>> rows{
            {QStringLiteral("agent.register"),
             {{"profiles", Kind::Strings},
              {"projects", Kind::Strings},
              {"createProjectRoot", Kind::String},
              {"actions", Kind::Strings},
              {"taskKinds", Kind::Strings},
              {"buildTemplate", Kind::String},
              {"repoRoot", Kind::String},
              {"supportsApproval", Kind::Boolean}}},
            {QStringLiteral("task.heartbeat"), {taskId}},
            {QStringLiteral("task.started"), {taskId}},
            {QStringLiteral("task.log"), {taskId, {"line", Kind::String}}},
            {QStringLiteral("task.commentary"), {taskId, {"text", Kind::String}, {"replace", Kind::Boolean}}},
            {QStringLiteral("task.chat.chunk"), {taskId, {"conversationId", Kind::String}, {"chunk", Kind::String}}},
            {QStringLiteral("task.chat.final"), {taskId, {"conversationId", Kind::String}, {"text", Kind::String}}},
            {QStringLiteral("task.chat.error"), {taskId, {"conversationId", Kind::String}, {"message", Kind::String}}},
            {QStringLiteral("task.finished"), {taskId, {"exitCode", Kind::Integer}}},
            {QStringLiteral("task.failed"),
             {taskId, {"error", Kind::String}, {"errorCode", Kind::String}, {"exitCode", Kind::Integer}}},
            {QStringLiteral("task.cancelled"), {taskId, {"exitCode", Kind::Integer}}},
            {QStringLiteral("task.progress"),
             {taskId, {"phase", Kind::String}, {"message", Kind::String}, {"percent", Kind::Integer}}},
            {QStringLiteral("task.artifact"),
             {taskId, {"kind", Kind::String}, {"summary", Kind::String}, {"mimeType", Kind::String}}},
            {QStringLiteral("task.proposal_ready"), proposal},
            {QStringLiteral("task.awaiting_approval"), proposal},
            {QStringLiteral("terminal.opened"),
             session + QList<Member>{{"status", Kind::String}, {"mode", Kind::String, false}}},
            {QStringLiteral("terminal.output"),
             session + QList<Member>{{"data", Kind::String}, {"snapshot", Kind::Boolean, false}}},
            {QStringLiteral("terminal.status"),
             session + QList<Member>{{"status", Kind::String}, {"message", Kind::String}}},
            {QStringLiteral("terminal.completion"), session + QList<Member>{{"replacementStart", Kind::Integer},
                                                                            {"replacementEnd", Kind::Integer},
                                                                            {"replacement", Kind::String},
                                                                            {"suggestions", Kind::Strings}}},
            {QStringLiteral("terminal.closed"), session + QList<Member>{{"exitCode", Kind::Integer, false}}},
            {QStringLiteral("terminal.error"),
             session + QList<Member>{{"error", Kind::String}, {"message", Kind::String}}},
        };
        return rows;
    }();
    return table;
}

// The server's commands and the members of their payloads.
const QHash<QString, QStringList>& incomingPayloads()
{
    static const QHash<QString, QStringList> table{
        {QStringLiteral("task.assign"),
         {QStringLiteral("action"), QStringLiteral("projectPath"), QStringLiteral("timeoutSec"),
          QStringLiteral("system"), QStringLiteral("mode"), QStringLiteral("approvalMode"), QStringLiteral("prompt"),
          QStringLiteral("conversationId"), QStringLiteral("command")}},
        {QStringLiteral("task.cancel"), {}},
        {QStringLiteral("task.approval"), {QStringLiteral("decision")}},
        {QStringLiteral("terminal.open"),
         {QStringLiteral("sessionId"), QStringLiteral("command"), QStringLiteral("projectPath"), QStringLiteral("mode"),
          QStringLiteral("replace"), QStringLiteral("replaceSessionId")}},
        {QStringLiteral("terminal.attach"), {QStringLiteral("sessionId")}},
        {QStringLiteral("terminal.input"), {QStringLiteral("sessionId"), QStringLiteral("dataBase64")}},
        {QStringLiteral("terminal.complete"),
         {QStringLiteral("sessionId"), QStringLiteral("line"), QStringLiteral("cursor")}},
        {QStringLiteral("terminal.resize"),
         {QStringLiteral("sessionId"), QStringLiteral("cols"), QStringLiteral("rows")}},
        {QStringLiteral("terminal.signal"), {QStringLiteral("sessionId"), QStringLiteral("signal")}},
        {QStringLiteral("terminal.close"), {QStringLiteral("sessionId")}},
    };
    return table;
}

bool hasKind(const QJsonValue& value, Kind kind)
{
    switch (kind) {
    case Kind::String: return value.isString();
    case Kind::Integer: return value.isDouble() && std::trunc(value.toDouble()) == value.toDouble();
    case Kind::Boolean: return value.isBool();
    case Kind::Strings:
        if (!value.isArray())
            return false;
        for (const QJsonValue& item : value.toArray()) {
            if (!item.isString())
                return false;
        }
        return true;
    }
    return false;
}

// The values a row fixes, where the message breaks one.
QStringList fixedValueProblems(const QString& type, const QJsonObject& m)
{
    QStringList problems;
    const auto require = [&](const char* member, const QJsonValue& expected) {
        if (m.contains(QLatin1String(member)) && m.value(QLatin1String(member)) != expected)
            problems.append(
                QStringLiteral("\"%1\" is not %2")
                    .arg(QLatin1String(member),
                         QString::fromUtf8(QJsonDocument(QJsonArray{expected}).toJson(QJsonDocument::Compact))
                             .mid(1)
                             .chopped(1)));
    };
    if (type == QLatin1String("agent.register")) {
        require("supportsApproval", true);
        require("taskKinds", QJsonArray{QStringLiteral("build"), QStringLiteral("ai_task"), QStringLiteral("chat"),
                                        QStringLiteral("shell"), QStringLiteral("terminal_session")});
    } else if (type == QLatin1String("task.commentary")) {
        require("replace", true);
    } else if (type == QLatin1String("task.finished")) {
        require("exitCode", 0);
    } else if (type == QLatin1String("terminal.opened")) {
        require("status", QStringLiteral("running"));
        require("mode", QStringLiteral("interactive"));
    } else if (type == QLatin1String("terminal.status")) {
        require("status", QStringLiteral("running"));
    } else if (type == QLatin1String("terminal.output")) {
        require("snapshot", true);
    }
    return problems;
}

// Messages whose content may be true again on a later connection (see the header).
bool mayRecur(const QString& type)
{
    static const QStringList types{QStringLiteral("agent.register"),  QStringLiteral("task.heartbeat"),
                                   QStringLiteral("terminal.output"), QStringLiteral("terminal.opened"),
                                   QStringLiteral("terminal.status"), QStringLiteral("terminal.completion"),
                                   QStringLiteral("terminal.error")};
    return types.contains(type);
}

// Said once per task.
bool oncePerTask(const QString& type)
{
    static const QStringList types{QStringLiteral("task.started"),           QStringLiteral("task.finished"),
                                   QStringLiteral("task.cancelled"),         QStringLiteral("task.failed"),
                                   QStringLiteral("task.chat.final"),        QStringLiteral("task.chat.error"),
                                   QStringLiteral("task.awaiting_approval"), QStringLiteral("task.proposal_ready")};
    return types.contains(type);
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

PlainServer::PlainServer(QObject* parent) : QObject(parent)
{
    m_clock.start();
    m_server = new QWebSocketServer(QStringLiteral("plain"), QWebSocketServer::NonSecureMode, this);
    connect(m_server, &QWebSocketServer::newConnection, this, &PlainServer::onNewConnection);
}

PlainServer::~PlainServer()
{
    close();
}

bool PlainServer::listen(quint16 port)
{
    if (!m_server->listen(QHostAddress::LocalHost, port))
        return false;
    m_port = m_server->serverPort();
    return true;
}

void PlainServer::close()
{
    m_server->close();
    for (Connection& connection : m_connections) {
        if (connection.socket)
            connection.socket->abort();
    }
}

QString PlainServer::serverURL() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

bool PlainServer::waitForConnections(int count, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (connectionCount() < count) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

void PlainServer::closeConnection()
{
    for (qsizetype i = m_connections.size() - 1; i >= 0; --i) {
        if (m_connections[i].socket) {
            m_connections[i].socket->close();
            return;
        }
    }
}

void PlainServer::onNewConnection()
{
    while (QWebSocket* socket = m_server->nextPendingConnection()) {
        Connection connection;
        connection.socket = socket;
        connection.openedAt = m_clock.elapsed();
        connection.requestURL = socket->requestUrl();
        const QNetworkRequest request = socket->request();
        if (request.hasRawHeader("Authorization"))
            connection.authorization = request.rawHeader("Authorization");
        m_connections.append(connection);
        const int number = int(m_connections.size());
        socket->setParent(this);
        connect(socket, &QWebSocket::textMessageReceived, this,
                [this, number](const QString& text) { onText(number, text); });
        connect(socket, &QWebSocket::binaryMessageReceived, this, [this, number](const QByteArray& data) {
            ++m_received;
            violation(number, QStringLiteral("a binary frame"), data.left(200));
        });
        connect(socket, &QWebSocket::disconnected, this, [this, number, socket] {
            m_connections[number - 1].endedAt = m_clock.elapsed();
            socket->deleteLater();
        });
        switch (m_greeting) {
        case Greeting::Nothing: break;
        case Greeting::BareHello: socket->sendTextMessage(QStringLiteral(R"({"type":"agent.hello"})")); break;
        case Greeting::UnknownType:
            socket->sendTextMessage(QStringLiteral(R"({"type":"server.welcome","payload":{"motd":"hello"}})"));
            break;
        }
    }
}

void PlainServer::onText(int connection, const QString& text)
{
    const QByteArray data = text.toUtf8();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    Connection& state = m_connections[connection - 1];
    ++state.frames;
    ++m_received;
    if (!document.isObject()) {
        violation(connection, QStringLiteral("a frame that is not one JSON object"), data.left(200));
        return;
    }
    const QJsonObject message = document.object();
    m_frames.append(Frame{connection, m_clock.elapsed() - state.openedAt, message});
    check(connection, message, compact(message));
}

void PlainServer::check(int connection, const QJsonObject& m, const QByteArray& canonical)
{
    Connection& state = m_connections[connection - 1];
    const QString type = m.value(QStringLiteral("type")).toString();
    const QString taskId = m.value(QStringLiteral("taskId")).toString();

    if (state.frames == 1 && type != QLatin1String("agent.register"))
        violation(connection, QStringLiteral("the first frame of the connection is not \"agent.register\""), canonical);

    const auto row = outgoingTable().constFind(type);
    if (row == outgoingTable().constEnd()) {
        violation(connection, QStringLiteral("a message type the protocol does not have"), canonical);
        return;
    }
    QStringList known{QStringLiteral("type")};
    for (const Member& member : *row) {
        const QString name = QLatin1String(member.name);
        known.append(name);
        if (!m.contains(name)) {
            if (member.required)
                violation(connection, QStringLiteral("member \"%1\" is missing").arg(name), canonical);
        } else if (!hasKind(m.value(name), member.kind)) {
            violation(connection, QStringLiteral("member \"%1\" has the wrong JSON type").arg(name), canonical);
        }
    }
    for (auto it = m.constBegin(); it != m.constEnd(); ++it) {
        if (!known.contains(it.key()))
            violation(connection, QStringLiteral("member \"%1\" is not in the row of %2").arg(it.key(), type),
                      canonical);
    }
    for (const QString& problem : fixedValueProblems(type, m))
        violation(connection, problem, canonical);

    // A replay of an earlier connection.
    const auto first = m_firstConnection.constFind(canonical);
    if (first == m_firstConnection.constEnd())
        m_firstConnection.insert(canonical, connection);
    else if (*first < connection && !mayRecur(type))
        violation(connection, QStringLiteral("sent again: it was sent on connection %1 already").arg(*first),
                  canonical);

    // Once per task.
    if (oncePerTask(type)) {
        checkOnce(type + QLatin1Char('|') + taskId, type + QStringLiteral(" of task ") + taskId, canonical);
    } else if (type == QLatin1String("task.progress")) {
        const QString phase = m.value(QStringLiteral("phase")).toString();
        checkOnce(type + QLatin1Char('|') + taskId + QLatin1Char('|') + phase,
                  QStringLiteral("task.progress phase ") + phase + QStringLiteral(" of task ") + taskId, canonical);
    } else if (type == QLatin1String("task.artifact")) {
        const QString kind = m.value(QStringLiteral("kind")).toString();
        checkOnce(type + QLatin1Char('|') + taskId + QLatin1Char('|') + kind,
                  QStringLiteral("task.artifact kind ") + kind + QStringLiteral(" of task ") + taskId, canonical);
    } else if (type == QLatin1String("task.log")) {
        const QString line = m.value(QStringLiteral("line")).toString();
        if (line.startsWith(QLatin1String("workspace.resolve ")) || line.startsWith(QLatin1String("proposal.")))
            checkOnce(type + QLatin1Char('|') + taskId + QLatin1Char('|') + line,
                      QStringLiteral("the line \"") + line + QStringLiteral("\" of task ") + taskId, canonical);
        static const QString shell = QStringLiteral("workspace.resolve action=shell requestedProjectPath=");
        static const QString resolved = QStringLiteral(" resolvedWorkingDir=");
        if (line.startsWith(shell) && line.contains(resolved))
            m_shellWorkingDir.insert(taskId, line.mid(line.lastIndexOf(resolved) + resolved.size()));
    }

    // Registrations: one at the start of the connection, more only for a reason.
    if (type == QLatin1String("agent.register")) {
        if (++state.registrations > 1) {
            if (state.registrationsAllowed > 0)
                --state.registrationsAllowed;
            else if (m_reloadsExpected > 0)
                --m_reloadsExpected;
            else
                violation(connection, QStringLiteral("\"agent.register\" again on the connection without a reason"),
                          canonical);
        }
        state.createProjectRoot = m.value(QStringLiteral("createProjectRoot")).toString();
    } else if (type == QLatin1String("task.finished") && m_shellWorkingDir.contains(taskId) &&
               !state.createProjectRoot.isEmpty() &&
               QDir::cleanPath(m_shellWorkingDir.value(taskId)) == QDir::cleanPath(state.createProjectRoot)) {
        ++state.registrationsAllowed;
    }

    // Terminal sessions end once.
    const QString sessionId = m.value(QStringLiteral("sessionId")).toString();
    if (type == QLatin1String("terminal.opened")) {
        m_terminalClosed.insert(sessionId, false);
    } else if (type == QLatin1String("terminal.closed")) {
        if (m_terminalClosed.value(sessionId))
            violation(connection, QStringLiteral("a second \"terminal.closed\" of session ") + sessionId, canonical);
        m_terminalClosed.insert(sessionId, true);
    }
}

void PlainServer::checkOnce(const QString& key, const QString& what, const QByteArray& canonical)
{
    const int connection = m_frames.isEmpty() ? 0 : m_frames.last().connection;
    if (m_onceSeen.contains(key))
        violation(connection, QStringLiteral("sent twice: ") + what, canonical);
    else
        m_onceSeen.insert(key, connection);
}

void PlainServer::violation(int connection, const QString& text, const QByteArray& frame)
{
    m_violations.append(QStringLiteral("connection %1: %2: %3").arg(connection).arg(text, QString::fromUtf8(frame)));
}

QList<PlainServer::Frame> PlainServer::framesOf(int connection) const
{
    QList<Frame> found;
    for (const Frame& frame : m_frames) {
        if (frame.connection == connection)
            found.append(frame);
    }
    return found;
}

QList<QJsonObject> PlainServer::messages(const QString& type, const QString& taskId) const
{
    QList<QJsonObject> found;
    for (const Frame& frame : m_frames) {
        if (frame.type() == type &&
            (taskId.isEmpty() || frame.message.value(QStringLiteral("taskId")).toString() == taskId))
            found.append(frame.message);
    }
    return found;
}

QString PlainServer::report() const
{
    QString text = QStringLiteral("violations (%1):\n").arg(m_violations.size());
    for (const QString& v : m_violations)
        text += QStringLiteral("  ") + v + QLatin1Char('\n');
    text += QStringLiteral("frames (%1):\n").arg(m_frames.size());
    // The newest 300 frames, each cut to 300 characters: enough to see what happened.
    const qsizetype from = std::max<qsizetype>(0, m_frames.size() - 300);
    for (qsizetype i = from; i < m_frames.size(); ++i) {
        const Frame& frame = m_frames[i];
        QString json = QString::fromUtf8(compact(frame.message));
        if (json.size() > 300)
            json = json.left(300) + QStringLiteral("…");
        text += QStringLiteral("  #%1 +%2ms %3\n").arg(frame.connection).arg(frame.sinceOpenMs).arg(json);
    }
    return text;
}

std::optional<QJsonObject> PlainServer::waitFor(const std::function<bool(const QJsonObject&)>& match, int timeoutMs,
                                                int skip)
{
    const qsizetype violationsBefore = m_violations.size();
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        int skipped = 0;
        for (const Frame& frame : std::as_const(m_frames)) {
            if (match(frame.message) && skipped++ == skip)
                return frame.message;
        }
        if (deadline.hasExpired() || m_violations.size() > violationsBefore)
            return std::nullopt;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

std::optional<QJsonObject> PlainServer::waitForType(const QString& type, int timeoutMs)
{
    return waitFor([&](const QJsonObject& m) { return m.value(QStringLiteral("type")).toString() == type; }, timeoutMs);
}

std::optional<QJsonObject> PlainServer::waitForTask(const QString& type, const QString& taskId, int timeoutMs)
{
    return waitFor(
        [&](const QJsonObject& m) {
            return m.value(QStringLiteral("type")).toString() == type &&
                   m.value(QStringLiteral("taskId")).toString() == taskId;
        },
        timeoutMs);
}

void PlainServer::assign(const QString& taskId, const QJsonObject& payload)
{
    sendCommand({{QStringLiteral("type"), QStringLiteral("task.assign")},
                 {QStringLiteral("taskId"), taskId},
                 {QStringLiteral("payload"), payload}});
}

void PlainServer::cancel(const QString& taskId)
{
    sendCommand({{QStringLiteral("type"), QStringLiteral("task.cancel")}, {QStringLiteral("taskId"), taskId}});
}

void PlainServer::approval(const QString& taskId, const QString& decision)
{
    sendCommand({{QStringLiteral("type"), QStringLiteral("task.approval")},
                 {QStringLiteral("taskId"), taskId},
                 {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), decision}}}});
}

void PlainServer::terminal(const QString& type, const QJsonObject& payload)
{
    sendCommand({{QStringLiteral("type"), type}, {QStringLiteral("payload"), payload}});
}

void PlainServer::sendCommand(const QJsonObject& command)
{
    const QString type = command.value(QStringLiteral("type")).toString();
    const auto row = incomingPayloads().constFind(type);
    if (row == incomingPayloads().constEnd() ||
        (type.startsWith(QLatin1String("terminal.")) && command.contains(QStringLiteral("taskId")))) {
        violation(0, QStringLiteral("the test sent a command the protocol does not have"), compact(command));
        return;
    }
    const QJsonObject payload = command.value(QStringLiteral("payload")).toObject();
    for (auto it = payload.constBegin(); it != payload.constEnd(); ++it) {
        if (!row->contains(it.key()))
            violation(0, QStringLiteral("the test sent a member not in the row of ") + type, compact(command));
    }
    sendOutsideTheProtocol(command);
}

void PlainServer::sendOutsideTheProtocol(const QJsonObject& command)
{
    for (qsizetype i = m_connections.size() - 1; i >= 0; --i) {
        if (m_connections[i].socket) {
            m_connections[i].socket->sendTextMessage(QString::fromUtf8(compact(command)));
            return;
        }
    }
    violation(0, QStringLiteral("the test sent a command while no agent was connected"), compact(command));
}

} // namespace brinmoor::test
