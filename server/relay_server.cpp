#include "relay_server.h"

#include "protocol/message_types.h"
#include "relay_listener.h"
#include "relay_log.h"
#include "static_files.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QTimer>
#include <QUuid>

#include <cstring>

namespace brinmoor::relay {

namespace {

constexpr quint16 kReplacedCloseCode = 4000;
constexpr int kListenBacklog = 512;
// After the kernel refuses an accept (out of files), accepting resumes a little later.
constexpr int kAcceptRetryMs = 1'000;

// Messages an agent sends in bulk; relayed without being parsed.
constexpr QByteArrayView kStreamingTypes[] = {
    "\"type\":\"task.log\"",
    "\"type\":\"terminal.output\"",
    "\"type\":\"task.chat.chunk\"",
};

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
    : QObject(parent), m_config(std::move(config)), m_listener(new RelayListener(this)), m_auth(m_config.token),
      m_origins(m_config.allowedOrigins), m_permissions(m_config.approvalTimeoutMs)
{
    m_clock.start();
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
    const QString& address = connection->address();
    m_connections.insert(connection);
    m_unauthenticated.add(connection, address);
    const RelayLimits& limits = m_config.limits;
    // A trusted proxy carries many clients: the cap per address is not for it (it reads
    // whole request heads before it passes them on); the cap on all still is.
    if (m_unauthenticated.countFrom(address) > limits.maxUnauthenticatedPerAddress &&
        !m_config.trustedProxies.contains(connection->peerAddress())) {
        dropOldestUnauthenticated(*connection, address,
                                  QStringLiteral("more than %1 connections without a token from this address")
                                      .arg(limits.maxUnauthenticatedPerAddress));
    }
    if (m_unauthenticated.size() > limits.maxUnauthenticated) {
        dropOldestUnauthenticated(
            *connection, {}, QStringLiteral("more than %1 connections without a token").arg(limits.maxUnauthenticated));
    }
    if (m_connections.size() > limits.maxConnections) {
        const QString reason = QStringLiteral("more than %1 connections").arg(limits.maxConnections);
        if (!dropOldestUnauthenticated(*connection, {}, reason)) {
            logEvent("connection.refused", {{"address", address}, {"reason", reason}});
            connection->abort();
        }
    }
}

void RelayServer::takeForwardedAddress(RelayConnection& connection, const HttpRequest& request)
{
    if (!m_config.trustedProxies.contains(connection.peerAddress()))
        return;
    connection.setAddress(
        m_config.trustedProxies.clientAddress(connection.peerAddress(), request.headerValues("x-forwarded-for")));
}

bool RelayServer::dropOldestUnauthenticated(const RelayConnection& newcomer, const QString& address,
                                            const QString& reason)
{
    RelayConnection* oldest = m_unauthenticated.oldest(&newcomer, address);
    if (!oldest)
        return false;
    logEvent("connection.dropped", {{"address", oldest->address()}, {"reason", reason}});
    oldest->abort();
    return true;
}

void RelayServer::requestReceived(RelayConnection& connection, const HttpRequest& request)
{
    takeForwardedAddress(connection, request);
    const QByteArray& path = request.path;
    if (path != "/v1" && !path.startsWith("/v1/")) {
        connection.respond(StaticFiles::response(request));
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
    QByteArray subprotocol;
    if (!authorize(connection, request, &subprotocol))
        return;
    m_unauthenticated.remove(&connection);

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

void RelayServer::bodyReceived(RelayConnection& connection, const HttpRequest&, const QByteArray& body)
{
    receiveApproval(connection, body);
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
    // The right token is always served; only wrong ones are held back.
    if (granted)
        return true;
    const QString& address = connection.address();
    const QString path = QString::fromUtf8(request.path);
    const qint64 now = m_clock.elapsed();
    if (m_auth.isBlocked(address, now)) {
        logEvent("auth.refused",
                 {{"address", address}, {"path", path}, {"reason", QStringLiteral("too many failed attempts")}});
        connection.respond(error(429, QStringLiteral("too many failed attempts; try again later"),
                                 QByteArray("Retry-After: " + QByteArray::number(m_auth.blockMs() / 1000) + "\r\n")));
        return false;
    }
    logEvent("auth.refused", {{"address", address},
                              {"path", path},
                              {"reason", presented ? QStringLiteral("wrong token") : QStringLiteral("no token")}});
    if (m_auth.recordFailure(address, now))
        logEvent("auth.blocked", {{"address", address}, {"seconds", QString::number(m_auth.blockMs() / 1000)}});
    connection.respond(error(401, QStringLiteral("unauthorized"), "WWW-Authenticate: Bearer\r\n"));
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
    Agent agent;
    agent.agentId = agentId;
    agent.connection = &connection;
    agent.prefix = "{\"agentId\":" + jsonString(agentId);
    m_agents.insert(agentId, agent);
    m_agentIds.insert(&connection, agentId);
    connection.upgrade(RelayConnection::Role::Agent, request.header("sec-websocket-key"), {});
    connection.sendText(RelayMessages::agentHello());
    logEvent("agent.connected", {{"agentId", agentId}, {"address", connection.address()}});
    broadcastText(RelayMessages::agentOnline(agentId));
}

void RelayServer::acceptClient(RelayConnection& connection, const HttpRequest& request, const QByteArray& subprotocol)
{
    connection.upgrade(RelayConnection::Role::Client, request.header("sec-websocket-key"), subprotocol);
    m_clients.push_back(&connection);
    connection.sendText(RelayMessages::serverHello(agentRecords()));
    for (const PermissionRequest& pending : m_permissions.pending())
        connection.sendText(RelayMessages::permissionRequest(pending));
    logEvent("client.connected", {{"address", connection.address()}});
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

void RelayServer::agentMessage(Agent& agent, QByteArrayView payload)
{
    const QByteArrayView body = payload.trimmed();
    if (body.size() < 2 || body.front() != '{' || body.back() != '}') {
        logEvent("agent.message.invalid", {{"agentId", agent.agentId}});
        return;
    }
    bool streaming = false;
    for (QByteArrayView marker : kStreamingTypes) {
        if (body.indexOf(marker) >= 0) {
            streaming = true;
            break;
        }
    }
    QByteArray rewritten;
    QByteArrayView relayed = body;
    if (!streaming || body.indexOf("\"agentId\"") >= 0) {
        const QJsonDocument document = QJsonDocument::fromJson(body.toByteArray());
        if (!document.isObject() || !document.object().value(QStringLiteral("type")).isString()) {
            logEvent("agent.message.invalid", {{"agentId", agent.agentId}});
            return;
        }
        QJsonObject message = document.object();
        observeAgentMessage(agent, message);
        if (message.contains(QStringLiteral("agentId"))) {
            // The relay names the sender; an agent does not get to name another.
            message.remove(QStringLiteral("agentId"));
            rewritten = RelayMessages::json(message);
            relayed = rewritten;
        }
    }
    if (m_clients.empty())
        return;
    // {"agentId":"ID", followed by the message after its opening brace.
    const QByteArrayView rest = relayed.sliced(1);
    const qsizetype textSize = agent.prefix.size() + 1 + rest.size();
    char header[10];
    const qsizetype headerSize = ws::writeFrameHeader(header, ws::Text, quint64(textSize));
    QByteArray frame(headerSize + textSize, Qt::Uninitialized);
    char* out = frame.data();
    std::memcpy(out, header, size_t(headerSize));
    out += headerSize;
    std::memcpy(out, agent.prefix.constData(), size_t(agent.prefix.size()));
    out += agent.prefix.size();
    *out++ = ',';
    std::memcpy(out, rest.data(), size_t(rest.size()));
    broadcast(frame);
}

void RelayServer::observeAgentMessage(Agent& agent, const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    if (type == QLatin1String("agent.register")) {
        QJsonObject registration = message;
        registration.remove(QStringLiteral("type"));
        registration.remove(QStringLiteral("agentId"));
        agent.registration = registration;
        logEvent("agent.register", {{"agentId", agent.agentId}});
    } else if (type == QLatin1String("task.heartbeat") || type == QLatin1String("task.started")) {
        if (agent.currentTaskId.isEmpty())
            agent.currentTaskId = taskId;
    } else if (type == QLatin1String("task.finished") || type == QLatin1String("task.failed") ||
               type == QLatin1String("task.cancelled")) {
        endTask(agent, taskId);
    }
}

void RelayServer::endTask(Agent& agent, const QString& taskId)
{
    if (taskId.isEmpty())
        return;
    if (agent.currentTaskId == taskId)
        agent.currentTaskId.clear();
    m_taskAgents.remove(taskId);
    m_permissions.endTask(taskId);
}

void RelayServer::dropAgent(Agent& agent)
{
    QStringList tasks;
    for (auto it = m_taskAgents.cbegin(); it != m_taskAgents.cend(); ++it) {
        if (it.value() == agent.agentId)
            tasks.append(it.key());
    }
    for (const QString& taskId : tasks)
        endTask(agent, taskId);
    m_agents.remove(agent.agentId);
}

void RelayServer::clientMessage(RelayConnection& client, QByteArrayView payload)
{
    const QJsonDocument document = QJsonDocument::fromJson(payload.toByteArray());
    if (!document.isObject()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), QStringLiteral("messages must be JSON objects"),
                   QJsonValue());
        return;
    }
    const QJsonObject message = document.object();
    const QString type = message.value(QStringLiteral("type")).toString();
    if (type.isEmpty()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), QStringLiteral("a message needs a string \"type\""),
                   message.value(QStringLiteral("requestId")));
        return;
    }
    if (type == QLatin1String("task.create"))
        createTask(client, message);
    else if (MessageTypes::agentCommands().contains(type))
        forwardToAgent(client, type, message);
    else if (type == QLatin1String("permission.decision"))
        decidePermission(client, message);
    else
        replyError(client, QStringLiteral("UNKNOWN_TYPE"), QStringLiteral("unknown message type: ") + type,
                   message.value(QStringLiteral("requestId")));
}

void RelayServer::createTask(RelayConnection& client, const QJsonObject& message)
{
    const QJsonValue requestId = message.value(QStringLiteral("requestId"));
    const QString agentId = message.value(QStringLiteral("agentId")).toString();
    const QJsonValue payload = message.value(QStringLiteral("payload"));
    if (agentId.isEmpty()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), QStringLiteral("task.create needs a string \"agentId\""),
                   requestId);
        return;
    }
    if (!payload.isObject()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), QStringLiteral("task.create needs an object \"payload\""),
                   requestId);
        return;
    }
    Agent* agent = connectedAgent(client, agentId, requestId);
    if (!agent)
        return;
    const QString taskId = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    m_taskAgents.insert(taskId, agentId);
    if (agent->currentTaskId.isEmpty())
        agent->currentTaskId = taskId;
    logEvent("task.create", {{"taskId", taskId}, {"agentId", agentId}});
    agent->connection->sendText(RelayMessages::taskAssign(taskId, payload.toObject()));
    client.sendText(RelayMessages::taskCreated(taskId, agentId, requestId));
}

void RelayServer::forwardToAgent(RelayConnection& client, const QString& type, const QJsonObject& message)
{
    const QJsonValue requestId = message.value(QStringLiteral("requestId"));
    const QString agentId = message.value(QStringLiteral("agentId")).toString();
    const QJsonValue taskId = message.value(QStringLiteral("taskId"));
    const QJsonValue payload = message.value(QStringLiteral("payload"));
    QString problem;
    if (agentId.isEmpty())
        problem = type + QStringLiteral(" needs a string \"agentId\"");
    else if (type.startsWith(QLatin1String("task.")) && !taskId.isString())
        problem = type + QStringLiteral(" needs a string \"taskId\"");
    else if (!payload.isUndefined() && !payload.isObject())
        problem = type + QStringLiteral(" needs an object \"payload\"");
    if (!problem.isEmpty()) {
        replyError(client, QStringLiteral("BAD_REQUEST"), problem, requestId);
        return;
    }
    if (const Agent* agent = connectedAgent(client, agentId, requestId))
        agent->connection->sendText(RelayMessages::agentCommand(type, taskId, payload));
}

void RelayServer::decidePermission(RelayConnection& client, const QJsonObject& message)
{
    const QJsonValue requestId = message.value(QStringLiteral("requestId"));
    const QString decision = message.value(QStringLiteral("decision")).toString();
    if (!requestId.isString()) {
        replyError(client, QStringLiteral("BAD_REQUEST"),
                   QStringLiteral("permission.decision needs a string \"requestId\""), requestId);
        return;
    }
    if (decision != QLatin1String("allow") && decision != QLatin1String("deny")) {
        replyError(client, QStringLiteral("BAD_REQUEST"),
                   QStringLiteral("permission.decision needs \"decision\" \"allow\" or \"deny\""), requestId);
        return;
    }
    if (!m_permissions.contains(requestId.toString())) {
        replyError(client, QStringLiteral("UNKNOWN_REQUEST"),
                   QStringLiteral("no pending permission request: ") + requestId.toString(), requestId);
        return;
    }
    m_permissions.decide(requestId.toString(), decision == QLatin1String("allow"),
                         message.value(QStringLiteral("message")).toString(),
                         message.value(QStringLiteral("updatedInput")));
}

void RelayServer::connectionClosed(RelayConnection& connection)
{
    switch (connection.role()) {
    case RelayConnection::Role::Http: m_permissions.withdraw(&connection); break;
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
    m_unauthenticated.remove(&connection);
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
    for (size_t i = 0; i < m_clients.size(); ++i) {
        if (m_clients[i])
            m_clients[i]->sendFrame(frame);
    }
    if (--m_broadcasting == 0)
        std::erase(m_clients, nullptr);
}

void RelayServer::broadcastText(const QByteArray& text)
{
    if (!m_clients.empty())
        broadcast(ws::frame(ws::Text, text));
}

QList<AgentRecord> RelayServer::agentRecords() const
{
    QList<AgentRecord> records;
    for (const Agent& agent : m_agents)
        records.append(AgentRecord{agent.agentId, !agent.currentTaskId.isEmpty(), agent.registration});
    return records;
}

} // namespace brinmoor::relay
