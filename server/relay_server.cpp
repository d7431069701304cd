#include "relay_server.h"

#include "protocol/message_types.h"
#include "relay_listener.h"
#include "relay_log.h"
#include "static_files.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpSocket>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

namespace brinmoor::relay {

namespace {

constexpr quint16 kReplacedCloseCode = 4000;
// What an agent may say before its pong or "agent.stream" is held, up to this many
// messages.
constexpr qsizetype kPreludeMessages = 8;
// The ping after an agent's hello, whose pong ends the agent's prelude.
const QByteArray kLearnPing = QByteArrayLiteral("brinmoor.learn");
constexpr int kListenBacklog = 512;
// After the kernel refuses an accept (out of files), accepting resumes a little later.
constexpr int kAcceptRetryMs = 1'000;

// Messages an agent sends in bulk; relayed without being parsed. (A chat's chunks are
// read: the agent's present has the answer so far.)
constexpr QByteArrayView kStreamingTypes[] = {
    "\"type\":\"task.log\"",
    "\"type\":\"terminal.output\"",
};
constexpr int kTaskLog = 0; // their indexes above
constexpr int kTerminalOutput = 1;
constexpr QByteArrayView kSessionIdKey = "\"sessionId\":\"";
constexpr QByteArrayView kTaskIdKey = "\"taskId\":\"";
// A client that catches up is sent the log while less than this waits for it (and
// less than a quarter of what would get it dropped): what is replayed is a copy of the
// client's own.
constexpr qsizetype kReplayBacklog = 64 * 1024;
// While less than this waits for an agent, a window goes to it at once.
constexpr qsizetype kAgentQuietBacklog = 64 * 1024;
constexpr int kTrimIntervalMs = 60'000;
// Above this a JSON number no longer holds every integer.
// A stream starts at most here, so that 2^40 messages still fit below 2^53.
constexpr qint64 kLargestStreamStart = 9007199254740991LL - (qint64(1) << 40);
constexpr quint16 kPolicyViolationCloseCode = 1008;
constexpr const char* kSeqRangeReason = "seqs must stay below 2^53";

// The raw JSON text of a streamed message's string member `key` ("\"sessionId\":\"" of a
// terminal's output, "\"taskId\":\"" of a task's line; escapes kept), found without parsing
// the message: it is the message's one member of that name, and a quote inside a string
// is always escaped.
QByteArrayView quotedValue(QByteArrayView message, QByteArrayView key)
{
    const qsizetype at = message.lastIndexOf(key);
    if (at < 0)
        return {};
    const qsizetype start = at + key.size();
    for (qsizetype i = start; i < message.size(); ++i) {
        if (message[i] == '\\')
            ++i;
        else if (message[i] == '"')
            return message.sliced(start, i - start);
    }
    return {};
}

QByteArray jsonString(const QString& text)
{
    // A one-element array is the simplest way to get the serializer's escaping.
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QByteArray bearerToken(const HttpRequest& request)
{
    const QByteArray authorization = request.header("authorization");
    if (authorization.size() > 7 && authorization.first(7).compare("Bearer ", Qt::CaseInsensitive) == 0)
        return authorization.mid(7).trimmed();
    return {};
}

QList<QByteArray> offeredSubprotocols(const HttpRequest& request)
{
    QList<QByteArray> offered;
    for (const auto& [name, value] : request.headers) {
        if (name != "sec-websocket-protocol")
            continue;
        for (const QByteArray& part : value.split(',')) {
            if (!part.trimmed().isEmpty())
                offered.append(part.trimmed());
        }
    }
    return offered;
}

QByteArray error(int status, const QString& text, QByteArrayView extraHeaders = {})
{
    return jsonResponse(status, RelayMessages::httpError(text), extraHeaders);
}

} // namespace

RelayServer::RelayServer(RelayConfig config, QObject* parent)
    : QObject(parent), m_config(std::move(config)), m_listener(new RelayListener(this)),
      m_auth(m_config.token, m_config.guesses), m_origins(m_config.allowedOrigins), m_hosts(m_config.allowedHosts),
      m_permissions(m_config.approvalTimeoutMs), m_queue(m_config.queueOfflineWaitMs),
      m_terminalFlow(m_config.maxPacedSessions)
{
    m_clock.start();
    m_turnTimer.setSingleShot(true);
    // A turn comes at its millisecond, not some time around it.
    m_turnTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_turnTimer, &QTimer::timeout, this, &RelayServer::takeTurns);
    m_listener->setTlsConfiguration(m_config.tls);
    m_listener->setListenBacklogSize(kListenBacklog);
    connect(m_listener, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_listener->nextPendingConnection())
            admit(socket);
    });
    // QTcpServer stops accepting for good when the kernel refuses an accept.
    connect(m_listener, &QTcpServer::acceptError, this, [this](QAbstractSocket::SocketError) {
        logEvent("accept.failed", {{"reason", m_listener->errorString()}});
        QTimer::singleShot(kAcceptRetryMs, m_listener, [this] {
            if (!m_stopping)
                m_listener->resumeAccepting();
        });
    });
    m_permissions.onResolved = [this](const PermissionRequest& request, const QString& decision,
                                      const QString& reason) {
        logEvent("permission.resolved", {{"requestId", request.requestId}, {"decision", decision}, {"reason", reason}});
        broadcastText(RelayMessages::permissionResolved(request.requestId, decision, reason));
    };
    m_queue.onBroadcast = [this](const QByteArray& text) { broadcastText(text); };
    m_queue.onEnded = [this](const QString& agentId, const WaitingTask& task, const QString& end) {
        endWaitingTask(agentId, task, end);
    };
    // Logs of agents that stay quiet still age.
    m_trimTimer.setInterval(kTrimIntervalMs);
    connect(&m_trimTimer, &QTimer::timeout, this, &RelayServer::trimHistories);
    m_trimTimer.start();
    // A stalled pacer is let go within a quarter of the time it may owe an acknowledgement.
    m_paceTimer.setInterval(std::max(50, m_config.paceStallMs / 4));
    connect(&m_paceTimer, &QTimer::timeout, this, &RelayServer::dropStalledPacers);
}

RelayServer::~RelayServer()
{
    // Connections are children; they must not call back into a half-destroyed server.
    const QList<RelayConnection*> connections = findChildren<RelayConnection*>(Qt::FindDirectChildrenOnly);
    for (RelayConnection* connection : connections)
        delete connection;
}

bool RelayServer::listen(QString* error)
{
    if (m_listener->listen(m_config.bindAddress, m_config.port))
        return true;
    if (error)
        *error = m_listener->errorString();
    return false;
}

quint16 RelayServer::port() const
{
    return m_listener->serverPort();
}

void RelayServer::stop()
{
    if (m_stopping)
        return;
    m_stopping = true;
    m_listener->close();
    m_permissions.endAll(QStringLiteral("the server shut down before a decision"),
                         QStringLiteral("server shutting down"));
    const QList<RelayConnection*> agents = m_agentIds.keys();
    for (RelayConnection* agent : agents)
        agent->close(ws::GoingAway, "server shutting down");
    const std::vector<RelayConnection*> clients = m_clients;
    for (RelayConnection* client : clients) {
        if (client)
            client->close(ws::GoingAway, "server shutting down");
    }
    // Requests still being read get no answer; answered ones finish sending it.
    const QSet<RelayConnection*> connections = m_connections;
    for (RelayConnection* connection : connections) {
        if (connection->isReadingRequest())
            connection->abort();
    }
    reportStoppedWhenEmpty();
}

void RelayServer::reloadTls()
{
    if (!m_listener->isTls()) {
        logEvent("tls.reload.skipped", {{"reason", QStringLiteral("TLS is off")}});
        return;
    }
    auto loaded = loadTlsConfiguration(m_config.tlsFiles);
    if (const QString* problem = std::get_if<QString>(&loaded)) {
        logEvent("tls.reload.failed", {{"reason", *problem}});
        return;
    }
    const QSslConfiguration& configuration = std::get<QSslConfiguration>(loaded);
    m_listener->setTlsConfiguration(configuration);
    logEvent("tls.reloaded", {{"expires", expiryText(configuration)}});
    warnWhenExpiringSoon(configuration);
}

void RelayServer::reportStoppedWhenEmpty()
{
    if (m_stopping && !m_stopped && m_connections.isEmpty()) {
        m_stopped = true;
        Q_EMIT stopped();
    }
}

void RelayServer::admit(QTcpSocket* socket)
{
    auto* connection = new RelayConnection(socket, m_config.limits, *this, this);
    const QString address = connection->address();
    m_connections.insert(connection);
    m_unjudged.add(connection, address);
    // Until it is an agent's WebSocket it counts as a client's: an agent that comes while
    // clients are at their cap may be refused, but never is the one let go.
    m_clientConnections.add(connection, address);
    const RelayLimits& limits = m_config.limits;
    // A trusted proxy carries many clients: the cap per address is not for it; the
    // others are.
    if (m_clientConnections.countFrom(address) > limits.maxClientsPerAddress &&
        !m_config.trustedProxies.contains(connection->peerAddress()) &&
        !makeRoom(*connection, address,
                  QStringLiteral("more than %1 client connections from this address").arg(limits.maxClientsPerAddress)))
        return;
    if (m_clientConnections.size() > limits.maxClients &&
        !makeRoom(*connection, {}, QStringLiteral("more than %1 client connections").arg(limits.maxClients)))
        return;
    if (m_connections.size() > limits.maxConnections)
        makeRoom(*connection, {}, QStringLiteral("more than %1 connections").arg(limits.maxConnections));
}

void RelayServer::takeForwardedAddress(RelayConnection& connection, const HttpRequest& request)
{
    if (!m_config.trustedProxies.contains(connection.peerAddress()))
        return;
    connection.setAddress(
        m_config.trustedProxies.clientAddress(connection.peerAddress(), request.headerValues("x-forwarded-for")));
}

bool RelayServer::makeRoom(RelayConnection& newcomer, const QString& address, const QString& reason)
{
    RelayConnection* oldest = m_unjudged.oldest(&newcomer, address);
    if (!oldest) {
        logEvent("connection.refused", {{"address", newcomer.address()}, {"reason", reason}});
        newcomer.abort();
        return false;
    }
    logEvent("connection.dropped", {{"address", oldest->address()}, {"reason", reason}});
    oldest->abort();
    return true;
}

void RelayServer::requestReceived(RelayConnection& connection, const HttpRequest& request)
{
    takeForwardedAddress(connection, request);
    if (!hostServed(connection, request))
        return;
    const QByteArray& path = request.path;
    if (path != "/v1" && !path.startsWith("/v1/")) {
        const StaticFiles::Response file = StaticFiles::response(request);
        connection.respond(file.head, file.body);
        return;
    }
    if (path == "/v1/health") {
        if (request.method == "GET" || request.method == "HEAD")
            connection.respond(jsonResponse(200, "{\"ok\":true}"));
        else
            connection.respond(error(405, QStringLiteral("method not allowed"), "Allow: GET\r\n"));
        return;
    }
    // Everything else under /v1 needs the token, and a browser's page must be one the
    // relay trusts; all of it is decided from the head, before any body is read.
    const bool upgradePath = path == "/v1/ws/agent" || path == "/v1/ws/client";
    if (!upgradePath && path != "/v1/agents" && path != "/v1/approvals") {
        connection.respond(error(404, QStringLiteral("not found")));
        return;
    }
    if (!originAllowed(connection, request))
        return;
    const QByteArray method = path == "/v1/approvals" ? "POST" : "GET";
    if (request.method != method) {
        connection.respond(error(405, QStringLiteral("method not allowed"), QByteArray("Allow: " + method + "\r\n")));
        return;
    }
    // The token is judged now, or, from an address that failed recently, in its turn;
    // meanwhile the request waits, read but not judged.
    const QString key = AuthGuard::keyOf(connection.address());
    if (m_turns.hasLine(key) || !m_auth.mayJudge(key, m_clock.elapsed())) {
        m_turns.add(key, &connection, request);
        connection.wait(m_config.limits.headTimeoutMs);
        if (!m_takingTurns)
            scheduleTurns();
        return;
    }
    judge(connection, request);
}

void RelayServer::judge(RelayConnection& connection, const HttpRequest& request)
{
    QByteArray subprotocol;
    if (!authorize(connection, request, &subprotocol))
        return;
    m_unjudged.remove(&connection);
    const QByteArray& path = request.path;

    if (path == "/v1/agents") {
        connection.respond(jsonResponse(200, RelayMessages::agentList(agentRecords())));
        return;
    }
    if (path == "/v1/approvals") {
        connection.readBody();
        return;
    }
    const QByteArray key = request.header("sec-websocket-key");
    if (!request.headerHasToken("upgrade", "websocket") || !request.headerHasToken("connection", "upgrade") ||
        QByteArray::fromBase64(key).size() != 16) {
        connection.respond(error(400, QStringLiteral("not a WebSocket handshake")));
        return;
    }
    if (request.header("sec-websocket-version") != "13") {
        connection.respond(
            error(426, QStringLiteral("unsupported WebSocket version"), "Sec-WebSocket-Version: 13\r\n"));
        return;
    }
    if (path == "/v1/ws/agent")
        acceptAgent(connection, request);
    else
        acceptClient(connection, request, subprotocol);
}

void RelayServer::takeTurns()
{
    if (m_takingTurns)
        return;
    m_takingTurns = true;
    // A right token moves no turn: the requests behind it are judged at once.
    while (std::optional<WaitingTurns::Waiting> next = m_turns.takeNext(m_auth, m_clock.elapsed())) {
        next->connection->resume();
        judge(*next->connection, next->request);
    }
    m_takingTurns = false;
    scheduleTurns();
}

void RelayServer::scheduleTurns()
{
    const qint64 now = m_clock.elapsed();
    const qint64 turn = m_turns.nextTurn(m_auth, now);
    if (turn < 0)
        m_turnTimer.stop();
    else
        m_turnTimer.start(int(std::clamp<qint64>(turn - now, 0, m_config.limits.headTimeoutMs)));
}

void RelayServer::waitExpired(RelayConnection& connection)
{
    const std::optional<WaitingTurns::Waiting> waiting = m_turns.remove(&connection);
    logEvent("auth.refused",
             {{"address", connection.address()},
              {"path", waiting ? QString::fromUtf8(waiting->request.path) : QString()},
              {"reason", QStringLiteral("no turn within %1 s").arg(m_config.limits.headTimeoutMs / 1000)}});
    connection.respond(error(429, QStringLiteral("too many failed attempts; try again later"), "Retry-After: 1\r\n"));
}

void RelayServer::bodyReceived(RelayConnection& connection, const HttpRequest&, const QByteArray& body)
{
    receiveApproval(connection, body);
}

bool RelayServer::hostServed(RelayConnection& connection, const HttpRequest& request)
{
    // A browser always names the host it resolved; a program that leaves Host out
    // (HTTP/1.0) names nothing that could have been pointed here.
    const QList<QByteArray> hosts = request.headerValues("host");
    if (hosts.isEmpty() ||
        (hosts.size() == 1 && m_hosts.serves(hosts.first(), connection.localAddress(), m_clock.elapsed())))
        return true;
    logEvent("host.refused", {{"address", connection.address()},
                              {"path", QString::fromUtf8(request.path)},
                              {"host", QString::fromUtf8(hosts.join(", "))}});
    connection.respond(error(421, QStringLiteral("host not allowed: add it to BRINMOOR_ALLOWED_HOSTS")));
    return false;
}

bool RelayServer::originAllowed(RelayConnection& connection, const HttpRequest& request)
{
    // Only browsers send an Origin; the agent, the phone app and the approval tool do not.
    if (!request.hasHeader("origin") ||
        m_origins.allows(request.header("origin"), request.header("host"), connection.isEncrypted()))
        return true;
    logEvent("origin.refused", {{"address", connection.address()},
                                {"path", QString::fromUtf8(request.path)},
                                {"origin", QString::fromUtf8(request.header("origin"))}});
    connection.respond(error(403, QStringLiteral("origin not allowed")));
    return false;
}

bool RelayServer::authorize(RelayConnection& connection, const HttpRequest& request, QByteArray* subprotocol)
{
    const QByteArray bearer = bearerToken(request);
    bool presented = !bearer.isEmpty();
    bool granted = m_auth.tokenMatches(bearer);
    // Browsers cannot set headers on a WebSocket, so clients may carry the token as a
    // subprotocol "bearer.TOKEN"; the server answers with a protocol the client offered.
    if (request.path == "/v1/ws/client") {
        QByteArray bearerOffer;
        for (const QByteArray& offer : offeredSubprotocols(request)) {
            if (offer.startsWith("bearer.")) {
                presented = true;
                if (m_auth.tokenMatches(QByteArrayView(offer).sliced(7))) {
                    granted = true;
                    bearerOffer = offer;
                }
            } else if (subprotocol->isEmpty()) {
                *subprotocol = offer;
            }
        }
        if (subprotocol->isEmpty())
            *subprotocol = bearerOffer;
    }
    // The right token is always served, even to a blocked address; only wrong ones are
    // held back.
    if (granted)
        return true;
    const QString& address = connection.address();
    const QString key = AuthGuard::keyOf(address);
    const QString path = QString::fromUtf8(request.path);
    const qint64 now = m_clock.elapsed();
    const bool blocked = m_auth.isBlocked(key, now);
    const QString reason = blocked     ? QStringLiteral("too many failed attempts")
                           : presented ? QStringLiteral("wrong token")
                                       : QStringLiteral("no token");
    logEvent("auth.refused", {{"address", address}, {"path", path}, {"reason", reason}});
    // Every failure moves the address's turn, a blocked one's too.
    if (m_auth.recordFailure(key, now))
        logEvent("auth.blocked", {{"address", address}, {"seconds", QString::number(m_auth.limits().blockMs / 1000)}});
    if (blocked) {
        connection.respond(
            error(429, QStringLiteral("too many failed attempts; try again later"),
                  QByteArray("Retry-After: " + QByteArray::number(m_auth.limits().blockMs / 1000) + "\r\n")));
    } else {
        connection.respond(error(401, QStringLiteral("unauthorized"), "WWW-Authenticate: Bearer\r\n"));
    }
    return false;
}

void RelayServer::acceptAgent(RelayConnection& connection, const HttpRequest& request)
{
    const QString agentId = QString::fromUtf8(request.queryItem("agentId")).trimmed();
    if (agentId.isEmpty()) {
        connection.respond(error(400, QStringLiteral("agentId is missing")));
        return;
    }
    const auto existing = m_agents.find(agentId);
    if (existing != m_agents.end()) {
        // The same agent again (a reconnect racing the old socket's end): the newer wins.
        RelayConnection* old = existing->connection;
        m_agentIds.remove(old);
        dropAgent(*existing);
        logEvent("agent.replaced", {{"agentId", agentId}});
        old->close(kReplacedCloseCode, "replaced by a newer connection");
    }
    // An agent's WebSocket is no client's: no cap on clients ever lets it go.
    m_clientConnections.remove(&connection);
    Agent agent;
    agent.agentId = agentId;
    agent.connection = &connection;
    agent.prefix = "{\"agentId\":" + jsonString(agentId) + ",\"seq\":";
    agent.history = &historyOf(agentId);
    m_agents.insert(agentId, agent);
    m_agentIds.insert(&connection, agentId);
    m_queue.agentOnline(agentId);
    connection.upgrade(RelayConnection::Role::Agent, request.header("sec-websocket-key"), {});
    connection.sendText(RelayMessages::agentHello(agent.history->log.headSeq()));
    // The agent's first message (its register) crosses the hello. An agent that takes up
    // the announcement says "agent.stream" in answer, before its pong of this ping; one
    // that does not has its messages numbered here, from its pong on.
    connection.sendFrame(ws::frame(ws::Ping, kLearnPing));
    // The readers that pace its terminals hold them back again.
    for (const TerminalFlow::Window& window : m_terminalFlow.windowsOf(agentId))
        tellAgentWindow(window);
    for (const TerminalFlow::Window& window : m_taskFlow.windowsOf(agentId))
        tellAgentTaskWindow(window);
    logEvent("agent.connected", {{"agentId", agentId}, {"address", connection.address()}});
    broadcastText(RelayMessages::agentOnline(agentId));
}

void RelayServer::acceptClient(RelayConnection& connection, const HttpRequest& request, const QByteArray& subprotocol)
{
    // A client that comes back may say in its URL what it has seen: ?since={"AGENT":SEQ,…}
    QList<QPair<QString, qint64>> since;
    const QByteArray sinceText = request.queryItem("since");
    if (!sinceText.isEmpty()) {
        const QJsonDocument document = QJsonDocument::fromJson(sinceText);
        const auto parsed = document.isObject() ? ClientCommands::sinceList(document.object()) : std::nullopt;
        if (!parsed) {
            connection.respond(error(400, QStringLiteral("since must be a JSON object of agent ids and seqs")));
            return;
        }
        since = *parsed;
    }
    connection.upgrade(RelayConnection::Role::Client, request.header("sec-websocket-key"), subprotocol);
    m_clients.push_back(&connection);
    connection.sendText(RelayMessages::serverHello(helloRecords()));
    for (const PermissionRequest& pending : m_permissions.pending())
        connection.sendText(RelayMessages::permissionRequest(pending));
    logEvent("client.connected", {{"address", connection.address()}});
    for (const auto& [agentId, seq] : since)
        resume(connection, agentId, seq);
}

void RelayServer::receiveApproval(RelayConnection& connection, const QByteArray& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    const QJsonObject object = document.object();
    if (!document.isObject()) {
        connection.respond(error(400, QStringLiteral("the body must be a JSON object")));
        return;
    }
    PermissionRequest request;
    request.taskId = object.value(QStringLiteral("taskId")).toString();
    request.toolName = object.value(QStringLiteral("toolName")).toString();
    request.toolInput = object.value(QStringLiteral("toolInput"));
    if (request.toolInput.isUndefined())
        request.toolInput = QJsonObject();
    request.toolUseId = object.value(QStringLiteral("toolUseId")).toString();
    if (request.taskId.isEmpty()) {
        connection.respond(error(400, QStringLiteral("taskId is missing")));
        return;
    }
    if (request.toolName.isEmpty()) {
        connection.respond(error(400, QStringLiteral("toolName is missing")));
        return;
    }
    const auto task = m_taskAgents.constFind(request.taskId);
    if (task == m_taskAgents.constEnd()) {
        connection.respond(error(404, QStringLiteral("unknown task: ") + request.taskId));
        return;
    }
    request.agentId = *task;
    request.requestId = m_permissions.add(request, &connection);
    logEvent("permission.request",
             {{"requestId", request.requestId}, {"taskId", request.taskId}, {"toolName", request.toolName}});
    broadcastText(RelayMessages::permissionRequest(request));
}

void RelayServer::pongReceived(RelayConnection& connection, QByteArrayView payload)
{
    if (connection.role() != RelayConnection::Role::Agent || payload != kLearnPing)
        return;
    const auto id = m_agentIds.constFind(&connection);
    if (id == m_agentIds.constEnd())
        return;
    const auto agent = m_agents.find(*id);
    if (agent != m_agents.end() && agent->learning)
        endPrelude(*agent);
}

void RelayServer::endPrelude(Agent& agent)
{
    agent.learning = false;
    const QList<QByteArray> prelude = std::exchange(agent.prelude, {});
    const QString agentId = agent.agentId;
    for (const QByteArray& message : prelude) {
        // A message may drop the agent (it may not, today); look it up again each time.
        const auto found = m_agents.find(agentId);
        if (found == m_agents.end())
            return;
        agentMessage(*found, message);
    }
}

void RelayServer::messageReceived(RelayConnection& connection, QByteArrayView payload)
{
    if (connection.role() == RelayConnection::Role::Client) {
        clientMessage(connection, payload);
        return;
    }
    const auto id = m_agentIds.constFind(&connection);
    if (id == m_agentIds.constEnd())
        return;
    const auto agent = m_agents.find(*id);
    if (agent != m_agents.end())
        agentMessage(*agent, payload);
}

RelayServer::AgentHistory& RelayServer::historyOf(const QString& agentId)
{
    const auto found = m_histories.find(agentId);
    if (found != m_histories.end())
        return found->second;
    return m_histories.emplace(agentId, AgentHistory{EventLog(m_config.eventLog), AgentSnapshot(), std::nullopt, false})
        .first->second;
}

void RelayServer::startStream(Agent& agent, qint64 first, qint64 next)
{
    AgentHistory& history = *agent.history;
    const qint64 head = history.log.headSeq();
    // What came before the first message this server numbers, if anything did, is not
    // here; a jump within a stream means the messages between went to an earlier life of
    // the server. A stream that starts afresh leaves nothing out.
    if (!history.numbered || (next > head + 1 && next != first))
        history.log.markLostThrough(next - 1);
    agent.nextSeq = next;
    agent.skipThrough = head;
}

void RelayServer::agentMessage(Agent& agent, QByteArrayView payload)
{
    const QByteArrayView body = payload.trimmed();
    const bool isObject = body.size() >= 2 && body.front() == '{' && body.back() == '}';
    int streamingType = -1;
    for (int i = 0; isObject && i < int(std::size(kStreamingTypes)); ++i) {
        if (body.indexOf(kStreamingTypes[i]) >= 0) {
            streamingType = i;
            break;
        }
    }
    const bool parse = isObject && (streamingType < 0 || body.indexOf("\"agentId\"") >= 0);
    std::optional<QJsonObject> parsed;
    if (parse) {
        const QJsonDocument document = QJsonDocument::fromJson(body.toByteArray());
        if (document.isObject() && document.object().value(QStringLiteral("type")).isString())
            parsed = document.object();
    }
    const bool announces = parsed && parsed->value(QStringLiteral("type")).toString() == MessageTypes::AgentStream;
    if (agent.learning && !announces && agent.prelude.size() >= kPreludeMessages) {
        // An agent says one message (its register) before its pong; one that says many
        // and never answers the ping does not number them either.
        endPrelude(agent);
    }
    if (agent.learning) {
        if (!announces) {
            agent.prelude.append(payload.toByteArray());
            return;
        }
        // The agent numbers its messages: what it said before (its register, sent before it
        // read the hello) comes again in its numbered stream.
        agent.learning = false;
        agent.prelude.clear();
    }
    if (announces && agent.nextSeq != 0) {
        // Numbered here already (its pong came first): renumbering now could put its
        // messages below what clients have. They stay numbered here.
        logEvent("agent.stream.ignored", {{"agentId", agent.agentId}});
        return;
    }
    if (announces) {
        // The agent numbers its messages itself: seqs outlive the server.
        const qint64 first = wholeNumber(parsed->value(QStringLiteral("first")));
        const qint64 next = wholeNumber(parsed->value(QStringLiteral("next")));
        if (first > 0 && next >= first && next > kLargestStreamStart) {
            // A page holds seqs as JavaScript numbers: exact only below 2^53. A stream that
            // could reach that is not taken, and the agent is let go.
            logEvent("agent.dropped", {{"agentId", agent.agentId}, {"reason", QLatin1String(kSeqRangeReason)}});
            agent.connection->close(kPolicyViolationCloseCode, kSeqRangeReason);
            return;
        }
        if (first > 0 && next >= first)
            startStream(agent, first, next);
        else
            logEvent("agent.message.invalid", {{"agentId", agent.agentId}});
        return;
    }
    if (agent.nextSeq == 0) {
        // An agent that does not number its messages: the server does, from a number above
        // every seq it has given before.
        const qint64 made = std::max(QDateTime::currentMSecsSinceEpoch() * 1000, agent.history->log.headSeq() + 1);
        startStream(agent, made, made);
        // Nor does it restate what it runs.
        agent.restated = true;
    }
    const qint64 seq = agent.nextSeq++;
    scheduleAck(agent);
    if (seq <= agent.skipThrough)
        return; // sent again after a reconnect; the server has it
    if (!isObject || (parse && !parsed)) {
        logEvent("agent.message.invalid", {{"agentId", agent.agentId}});
        return;
    }
    AgentHistory& history = *agent.history;
    QByteArray rewritten;
    QByteArrayView relayed = body;
    if (parsed && answerTaskRead(agent.agentId, *parsed))
        return; // for one client alone, not logged
    if (parsed) {
        if (refusedAsBusy(agent, *parsed))
            return;
        observeAgentMessage(agent, history, *parsed);
        if (parsed->contains(QStringLiteral("agentId"))) {
            // The relay names the sender; an agent does not get to name another.
            parsed->remove(QStringLiteral("agentId"));
            rewritten = RelayMessages::json(*parsed);
            relayed = rewritten;
        }
    }
    // {"agentId":"ID","seq":N, followed by the message after its opening brace.
    char digits[24];
    const std::to_chars_result printed = std::to_chars(std::begin(digits), std::end(digits), seq);
    const QByteArrayView number(digits, printed.ptr - digits);
    const QByteArrayView rest = relayed.sliced(1);
    const qsizetype textSize = agent.prefix.size() + number.size() + 1 + rest.size();
    char header[10];
    const qsizetype headerSize = ws::writeFrameHeader(header, ws::Text, quint64(textSize));
    QByteArray frame(headerSize + textSize, Qt::Uninitialized);
    char* out = frame.data();
    std::memcpy(out, header, size_t(headerSize));
    out += headerSize;
    std::memcpy(out, agent.prefix.constData(), size_t(agent.prefix.size()));
    out += agent.prefix.size();
    std::memcpy(out, number.data(), size_t(number.size()));
    out += number.size();
    *out++ = ',';
    std::memcpy(out, rest.data(), size_t(rest.size()));
    const qint64 memoryBefore = history.log.memory();
    const QByteArrayView terminal =
        streamingType == kTerminalOutput ? quotedValue(rest, kSessionIdKey) : QByteArrayView();
    history.log.append(m_batchTime, seq, frame, terminal);
    m_logMemory += history.log.memory() - memoryBefore;
    history.numbered = true;
    if (m_logMemory > m_config.eventLog.maxTotalBytes)
        trimToTotal();
    deliver(agent.agentId, history, seq, frame);
    // Those that pace what was sent owe an acknowledgement for it.
    if (streamingType == kTerminalOutput && !m_terminalFlow.isEmpty())
        m_terminalFlow.sent(agent.agentId, QString::fromUtf8(terminal), m_clock.elapsed());
    else if (streamingType == kTaskLog && !m_taskFlow.isEmpty())
        m_taskFlow.sent(agent.agentId, QString::fromUtf8(quotedValue(rest, kTaskIdKey)), m_clock.elapsed());
}

void RelayServer::scheduleAck(Agent& agent)
{
    // One confirmation for all the messages read at once; they are logged at one time.
    if (agent.ackScheduled)
        return;
    agent.ackScheduled = true;
    m_batchTime = m_clock.elapsed();
    QTimer::singleShot(0, this, [this, agentId = agent.agentId, connection = agent.connection] {
        const auto found = m_agents.find(agentId);
        if (found == m_agents.end() || found->connection != connection)
            return;
        found->ackScheduled = false;
        const qint64 received = found->nextSeq - 1;
        if (received > found->acked) {
            found->acked = received;
            connection->sendText(RelayMessages::agentAck(received));
        }
    });
}

void RelayServer::deliver(const QString& agentId, AgentHistory& history, qint64 seq, const QByteArray& frame)
{
    if (m_clients.empty())
        return;
    if (!m_cursors.anyOn(agentId)) {
        broadcast(frame);
        return;
    }
    ++m_broadcasting;
    qint64 shared = -1;
    for (size_t i = 0; i < m_clients.size(); ++i) {
        RelayConnection* client = m_clients[i];
        if (!client)
            continue;
        const ResumeCursors::Cursor* cursor = m_cursors.find(client, agentId);
        if (!cursor) {
            client->sendShared(m_sharedFrames, frame, shared);
            continue;
        }
        // A replaying client is sent this from the log in its turn; a waiting one has it
        // already, or this is the first message it lacks.
        if (cursor->replaying || seq <= cursor->seq)
            continue;
        const qint64 had = cursor->seq;
        m_cursors.erase(client, agentId);
        if (had < history.log.lostThrough())
            sendGap(*client, agentId, had);
        else
            client->sendShared(m_sharedFrames, frame, shared);
    }
    if (--m_broadcasting == 0)
        std::erase(m_clients, nullptr);
    if (shared >= 0)
        releaseSharedFrames();
}

void RelayServer::observeAgentMessage(Agent& agent, AgentHistory& history, const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    if (type == MessageTypes::AgentRegister) {
        QJsonObject registration = message;
        registration.remove(QStringLiteral("type"));
        registration.remove(QStringLiteral("agentId"));
        history.registration = registration;
        logEvent("agent.register", {{"agentId", agent.agentId}});
    } else if (type == MessageTypes::TaskHeartbeat || type == MessageTypes::TaskStarted) {
        if (agent.currentTaskId.isEmpty())
            agent.currentTaskId = taskId;
        m_queue.agentReported(agent.agentId, taskId);
    } else if (type == MessageTypes::TaskFinished || type == MessageTypes::TaskFailed ||
               type == MessageTypes::TaskCancelled) {
        endTask(agent, taskId);
    } else if (type == MessageTypes::TerminalClosed) {
        m_terminalFlow.removeSession(agent.agentId, message.value(QStringLiteral("sessionId")).toString());
    } else if (type == MessageTypes::TerminalOpened) {
        // A session that opens for a project replaces the project's old one.
        history.snapshot.observe(message);
        m_terminalFlow.keepSessions(agent.agentId,
                                    [&](const QString& sessionId) { return history.snapshot.hasTerminal(sessionId); });
        return;
    } else if (type == MessageTypes::AgentState) {
        // The agent restates what it runs: tasks the server thought running and the agent
        // does not know ended with the agent's earlier life.
        const QStringList before = history.snapshot.runningTaskIds();
        history.snapshot.observe(message);
        const QStringList running = history.snapshot.runningTaskIds();
        for (const QString& gone : before) {
            if (!running.contains(gone))
                endTask(agent, gone);
        }
        for (const QString& kept : running)
            m_taskAgents.insert(kept, agent.agentId);
        agent.currentTaskId = running.value(0);
        agent.restated = true;
        m_queue.agentReported(agent.agentId, QString());
        startWaitingTaskSoon(agent.agentId);
        // The sessions it no longer has are paced no more.
        m_terminalFlow.keepSessions(agent.agentId,
                                    [&](const QString& sessionId) { return history.snapshot.hasTerminal(sessionId); });
        return;
    }
    history.snapshot.observe(message);
}

void RelayServer::endTask(Agent& agent, const QString& taskId)
{
    if (taskId.isEmpty())
        return;
    if (agent.currentTaskId == taskId)
        agent.currentTaskId.clear();
    m_taskAgents.remove(taskId);
    m_taskFlow.removeSession(agent.agentId, taskId);
    m_permissions.endTask(taskId);
    m_queue.agentReported(agent.agentId, taskId);
    startWaitingTaskSoon(agent.agentId);
}

void RelayServer::dropAgent(Agent& agent)
{
    // Its tasks go on without the connection: they end when the agent says so.
    const QString agentId = agent.agentId;
    m_agents.remove(agentId);
    m_pendingWindows.remove(agentId);
    m_queue.agentOffline(agentId);
    const auto history = m_histories.find(agentId);
    if (history != m_histories.end() && !history->second.numbered)
        m_histories.erase(history);
}

void RelayServer::clientMessage(RelayConnection& client, QByteArrayView payload)
{
    std::variant<ClientCommand, CommandRefusal> decoded = ClientCommands::decode(payload);
    if (const CommandRefusal* refusal = std::get_if<CommandRefusal>(&decoded)) {
        replyError(client, refusal->code, refusal->message, refusal->requestId);
        return;
    }
    std::visit([&](const auto& command) { run(client, command); }, std::get<ClientCommand>(decoded));
}

void RelayServer::run(RelayConnection& client, const ForwardToAgent& command)
{
    const QString& agentId = command.agentId;
    // A waiting task is cancelled at the relay, whether its agent is connected or not.
    if (command.type == MessageTypes::TaskCancel && m_queue.cancel(agentId, command.taskId.toString()))
        return;
    const Agent* agent = connectedAgent(client, agentId, command.requestId);
    if (!agent)
        return;
    const QByteArray text = RelayMessages::agentCommand(command.type, command.taskId, command.payload);
    if (!agentTakes(client, *agent, text.size(), command.requestId))
        return;
    agent->connection->sendText(text);
    if (command.type == MessageTypes::TaskApproval) {
        historyOf(agentId).snapshot.approvalSent(command.taskId.toString());
    } else if (command.type == MessageTypes::TerminalClose) {
        // An interactive session ends without a word of the agent.
        const QString sessionId = command.payload.toObject().value(QStringLiteral("sessionId")).toString();
        historyOf(agentId).snapshot.terminalClosing(sessionId);
        m_terminalFlow.removeSession(agentId, sessionId);
    }
}

void RelayServer::run(RelayConnection& client, const ResumeFrom& command)
{
    for (const auto& [agentId, seq] : command.since)
        resume(client, agentId, seq);
}

void RelayServer::run(RelayConnection& client, const AcknowledgeTerminal& command)
{
    const QString& agentId = command.agentId;
    if (command.offset) {
        // Only sessions the agent has open are paced; an acknowledgement of any other (one
        // that closed a moment ago, or never was) changes nothing.
        const auto history = m_histories.find(agentId);
        if (history == m_histories.end() || !history->second.snapshot.hasTerminal(command.sessionId))
            return;
        if (!m_terminalFlow.canPace(&client, agentId, command.sessionId)) {
            replyError(
                client, QStringLiteral("TOO_MANY_SESSIONS"),
                QStringLiteral("a client paces at most %1 terminal sessions").arg(m_terminalFlow.maxSessionsPerClient()),
                command.requestId);
            return;
        }
    }
    const std::optional<TerminalFlow::Window> window =
        m_terminalFlow.acknowledge(&client, agentId, command.sessionId, command.offset);
    if (window)
        tellAgentWindow(*window);
    watchPace();
}

void RelayServer::tellAgentWindow(const TerminalFlow::Window& window)
{
    const auto agent = m_agents.constFind(window.agentId);
    if (agent == m_agents.constEnd())
        return;
    const auto pending = m_pendingWindows.find(window.agentId);
    if (pending == m_pendingWindows.end() && agent->connection->backlog() < kAgentQuietBacklog) {
        agent->connection->sendText(RelayMessages::terminalWindow(window.sessionId, window.offset));
        return;
    }
    m_pendingWindows[window.agentId].insert(window.sessionId, window.offset);
    agent->connection->notifyWhenDrained();
}

void RelayServer::tellPendingWindows(RelayConnection& agentConnection)
{
    const auto id = m_agentIds.constFind(&agentConnection);
    if (id == m_agentIds.constEnd())
        return;
    const QHash<QString, std::optional<qint64>> windows = m_pendingWindows.take(*id);
    for (auto it = windows.cbegin(); it != windows.cend(); ++it)
        agentConnection.sendText(RelayMessages::terminalWindow(it.key(), it.value()));
}

bool RelayServer::agentTakes(RelayConnection& client, const Agent& agent, qsizetype size, const QJsonValue& requestId)
{
    const RelayConnection& connection = *agent.connection;
    if (connection.writesAtOnce() || connection.backlog() + size <= m_config.limits.maxBacklog / 2)
        return true;
    replyError(client, QStringLiteral("AGENT_BEHIND"),
               QStringLiteral("agent has not read what it was sent yet: ") + agent.agentId, requestId);
    return false;
}

void RelayServer::resume(RelayConnection& client, const QString& agentId, qint64 since)
{
    m_cursors.erase(&client, agentId);
    const auto found = m_histories.find(agentId);
    if (found == m_histories.end() || !found->second.numbered) {
        // Nothing of this agent yet (the server started since): its messages after
        // `since` go to the client as they come.
        client.sendText(RelayMessages::resumeOk(agentId, since));
        m_cursors.set(&client, agentId, ResumeCursors::Cursor{since, false});
        return;
    }
    const EventLog& log = found->second.log;
    if (since < log.lostThrough()) {
        sendGap(client, agentId, since);
        return;
    }
    client.sendText(RelayMessages::resumeOk(agentId, since));
    if (since >= log.headSeq()) {
        if (since > log.headSeq())
            m_cursors.set(&client, agentId, ResumeCursors::Cursor{since, false});
        return;
    }
    m_cursors.set(&client, agentId, ResumeCursors::Cursor{since, true});
    pump(client);
}

void RelayServer::sendGap(RelayConnection& client, const QString& agentId, qint64 since)
{
    AgentHistory& history = historyOf(agentId);
    client.sendText(
        RelayMessages::resumeGap(agentId, since, history.log.headSeq(), presentOf(agentId, history.snapshot)));
}

void RelayServer::pump(RelayConnection& client)
{
    ResumeCursors::ClientCursors* cursors = m_cursors.of(&client);
    if (!cursors)
        return;
    const qsizetype window = std::min(kReplayBacklog, m_config.limits.maxBacklog / 4);
    QStringList caughtUp;
    QList<QPair<QString, qint64>> gaps; // agent id, the seq the client has
    bool behind = false;
    for (auto it = cursors->begin(); it != cursors->end(); ++it) {
        if (!it->replaying)
            continue;
        const auto history = m_histories.find(it.key());
        while (true) {
            if (history == m_histories.end()) {
                caughtUp.append(it.key());
                break;
            }
            // The log may have let go of what the client still lacked while it read.
            const EventLog& log = history->second.log;
            if (it->seq < log.lostThrough()) {
                gaps.append({it.key(), it->seq});
                break;
            }
            qint64 seq = 0;
            const QByteArray frame = log.next(it->seq, &seq);
            if (frame.isEmpty()) {
                caughtUp.append(it.key());
                break;
            }
            if (!client.isOpen() || client.backlog() >= window) {
                behind = true;
                break;
            }
            client.sendFrame(frame);
            it->seq = seq;
        }
    }
    // Erasing may let go of the client's cursors: nothing below reads them.
    for (const auto& [agentId, had] : std::as_const(gaps)) {
        m_cursors.erase(&client, agentId);
        sendGap(client, agentId, had);
    }
    for (const QString& agentId : std::as_const(caughtUp))
        m_cursors.erase(&client, agentId);
    if (behind && client.isOpen())
        client.notifyWhenDrained();
}

void RelayServer::connectionDrained(RelayConnection& connection)
{
    if (connection.role() == RelayConnection::Role::Agent)
        tellPendingWindows(connection);
    else
        pump(connection);
}

void RelayServer::trimHistories()
{
    m_logMemory = 0;
    for (auto it = m_histories.begin(); it != m_histories.end();) {
        it->second.log.trimByAge(m_clock.elapsed());
        if (m_agents.contains(it->first) || it->second.log.size() > 0) {
            m_logMemory += it->second.log.memory();
            ++it;
            continue;
        }
        // An agent gone for longer than its log reaches back is forgotten with its tasks.
        for (const QString& taskId : it->second.snapshot.runningTaskIds()) {
            m_taskAgents.remove(taskId);
            m_permissions.endTask(taskId);
        }
        m_terminalFlow.keepSessions(it->first, [](const QString&) { return false; });
        it = m_histories.erase(it);
    }
    releaseSharedFrames();
}

void RelayServer::trimToTotal()
{
    // Trimmed a little below the limit, so that the logs are not searched again at every
    // message that comes while they are full.
    const qint64 target = m_config.eventLog.maxTotalBytes - m_config.eventLog.maxTotalBytes / 64;
    while (m_logMemory > target) {
        // The largest log gives way until it is no larger than the next one.
        EventLog* largest = nullptr;
        qint64 next = 0;
        for (auto& [agentId, history] : m_histories) {
            const qint64 memory = history.log.memory();
            if (history.log.size() == 0)
                continue;
            if (!largest || memory > largest->memory()) {
                next = largest ? largest->memory() : 0;
                largest = &history.log;
            } else {
                next = std::max(next, memory);
            }
        }
        if (!largest)
            return;
        do {
            const qint64 before = largest->memory();
            largest->dropOldest();
            m_logMemory += largest->memory() - before;
        } while (m_logMemory > target && largest->size() > 0 && largest->memory() > next);
    }
}

void RelayServer::run(RelayConnection& client, const DecidePermission& command)
{
    const QString requestId = command.requestId.toString();
    if (!m_permissions.contains(requestId)) {
        replyError(client, QStringLiteral("UNKNOWN_REQUEST"),
                   QStringLiteral("no pending permission request: ") + requestId, command.requestId);
        return;
    }
    m_permissions.decide(requestId, command.allow, command.message, command.updatedInput);
}

void RelayServer::connectionClosed(RelayConnection& connection)
{
    switch (connection.role()) {
    case RelayConnection::Role::Http:
        m_turns.remove(&connection);
        m_unjudged.remove(&connection);
        m_permissions.withdraw(&connection);
        break;
    case RelayConnection::Role::Agent: {
        const auto id = m_agentIds.find(&connection);
        if (id == m_agentIds.end())
            break; // replaced by a newer connection
        const QString agentId = *id;
        m_agentIds.erase(id);
        const auto agent = m_agents.find(agentId);
        if (agent != m_agents.end())
            dropAgent(*agent);
        logEvent("agent.disconnected", {{"agentId", agentId}});
        broadcastText(RelayMessages::agentOffline(agentId));
        break;
    }
    case RelayConnection::Role::Client:
        for (RelayConnection*& client : m_clients) {
            if (client == &connection)
                client = nullptr;
        }
        m_cursors.eraseClient(&connection);
        for (const TerminalFlow::Window& window : m_terminalFlow.removeClient(&connection))
            tellAgentWindow(window);
        for (const TerminalFlow::Window& window : m_taskFlow.removeClient(&connection))
            tellAgentTaskWindow(window);
        m_taskReads.removeClient(&connection);
        for (QSet<RelayConnection*>& pacers : m_taskPacers)
            pacers.remove(&connection);
        if (m_broadcasting == 0)
            std::erase(m_clients, nullptr);
        if (connection.closeReason().isEmpty()) {
            logEvent("client.disconnected", {{"address", connection.address()}});
        } else {
            logEvent("client.dropped",
                     {{"address", connection.address()}, {"reason", QString::fromUtf8(connection.closeReason())}});
        }
        break;
    }
}

void RelayServer::connectionReleased(RelayConnection& connection)
{
    m_turns.remove(&connection);
    m_unjudged.remove(&connection);
    m_clientConnections.remove(&connection);
    m_connections.remove(&connection);
    reportStoppedWhenEmpty();
}

RelayServer::Agent* RelayServer::connectedAgent(RelayConnection& client, const QString& agentId,
                                                const QJsonValue& requestId)
{
    const auto agent = m_agents.find(agentId);
    if (agent != m_agents.end())
        return &*agent;
    replyError(client, QStringLiteral("AGENT_OFFLINE"), QStringLiteral("agent is not connected: ") + agentId,
               requestId);
    return nullptr;
}

void RelayServer::replyError(RelayConnection& client, const QString& code, const QString& message,
                             const QJsonValue& requestId)
{
    client.sendText(RelayMessages::error(code, message, requestId));
}

void RelayServer::broadcast(const QByteArray& frame)
{
    ++m_broadcasting;
    qint64 shared = -1;
    for (size_t i = 0; i < m_clients.size(); ++i) {
        if (m_clients[i])
            m_clients[i]->sendShared(m_sharedFrames, frame, shared);
    }
    if (--m_broadcasting == 0)
        std::erase(m_clients, nullptr);
    if (shared >= 0)
        releaseSharedFrames();
}

void RelayServer::releaseSharedFrames()
{
    qint64 oldest = m_sharedFrames.end();
    for (const RelayConnection* client : m_clients) {
        if (!client)
            continue;
        if (const std::optional<qint64> waiting = client->oldestShared())
            oldest = std::min(oldest, *waiting);
    }
    m_sharedFrames.releaseBefore(oldest);
}

void RelayServer::broadcastText(const QByteArray& text)
{
    if (!m_clients.empty())
        broadcast(ws::frame(ws::Text, text));
}

QList<AgentRecord> RelayServer::agentRecords() const
{
    QList<AgentRecord> records;
    for (const Agent& agent : m_agents) {
        const auto history = m_histories.find(agent.agentId);
        AgentRecord record;
        record.agentId = agent.agentId;
        record.busy = !agent.currentTaskId.isEmpty();
        if (history != m_histories.end())
            record.registration = history->second.registration;
        records.append(record);
    }
    return records;
}

QList<AgentRecord> RelayServer::helloRecords() const
{
    // The connected agents, and those gone whose messages the server still keeps.
    QMap<QString, AgentRecord> records;
    for (const AgentRecord& connected : agentRecords())
        records.insert(connected.agentId, connected);
    for (const auto& [agentId, history] : m_histories) {
        if (!history.numbered && !records.contains(agentId))
            continue;
        AgentRecord& record = records[agentId];
        record.agentId = agentId;
        record.registration = history.registration;
        record.online = m_agents.contains(agentId);
        record.seq = history.log.headSeq();
        record.snapshot = presentOf(agentId, history.snapshot);
    }
    for (AgentRecord& record : records) {
        if (record.snapshot.isEmpty())
            record.snapshot = presentOf(record.agentId, AgentSnapshot());
    }
    return records.values();
}

} // namespace brinmoor::relay
