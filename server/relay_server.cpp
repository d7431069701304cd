#include "relay_server.h"

#include "relay_listener.h"
#include "relay_log.h"

#include <QJsonDocument>
#include <QTcpSocket>

#include <algorithm>

namespace brinmoor::relay {

namespace {

constexpr int kListenBacklog = 512;
// After the kernel refuses an accept (out of files), accepting resumes a little later.
constexpr int kAcceptRetryMs = 1'000;
constexpr int kTrimIntervalMs = 60'000;

} // namespace

RelayServer::RelayServer(RelayConfig config, QObject* parent)
    : QObject(parent), m_config(std::move(config)), m_listener(new RelayListener(this)),
      m_front(m_config, m_clock, m_unjudged, *this), m_permissions(m_config.approvalTimeoutMs), m_push(m_config.push),
      m_queue(m_config.queueOfflineWaitMs),
      m_replay(m_config.eventLog, m_config.limits.maxBacklog, m_clients,
               [this](const QString& agentId, const AgentSnapshot& snapshot) { return presentOf(agentId, snapshot); }),
      m_terminalFlow(m_config.maxPacedSessions)
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
        m_clients.sendText(RelayMessages::permissionResolved(request.requestId, decision, reason));
    };
    m_queue.onBroadcast = [this](const QByteArray& text) { m_clients.sendText(text); };
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
    m_push.abandonTests();
    const QList<RelayConnection*> agents = m_agentIds.keys();
    for (RelayConnection* agent : agents)
        agent->close(ws::GoingAway, "server shutting down");
    for (RelayConnection* client : m_clients.clients())
        client->close(ws::GoingAway, "server shutting down");
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
    m_front.requestReceived(connection, request);
}

void RelayServer::bodyReceived(RelayConnection& connection, const HttpRequest& request, const QByteArray& body)
{
    m_front.bodyReceived(connection, request, body);
}

void RelayServer::waitExpired(RelayConnection& connection)
{
    m_front.waitExpired(connection);
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

void RelayServer::connectionDrained(RelayConnection& connection)
{
    if (connection.role() == RelayConnection::Role::Agent)
        tellPendingWindows(connection);
    else
        m_replay.pump(connection);
}

void RelayServer::connectionClosed(RelayConnection& connection)
{
    switch (connection.role()) {
    case RelayConnection::Role::Http:
        m_front.forget(connection);
        m_unjudged.remove(&connection);
        m_permissions.withdraw(&connection);
        break;
    case RelayConnection::Role::Agent: agentClosed(connection); break;
    case RelayConnection::Role::Client: clientClosed(connection); break;
    }
}

void RelayServer::connectionReleased(RelayConnection& connection)
{
    m_front.forget(connection);
    m_unjudged.remove(&connection);
    m_clientConnections.remove(&connection);
    m_connections.remove(&connection);
    reportStoppedWhenEmpty();
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
            connection.respond(RelayMessages::httpErrorResponse(
                400, QStringLiteral("since must be a JSON object of agent ids and seqs")));
            return;
        }
        since = *parsed;
    }
    connection.upgrade(RelayConnection::Role::Client, request.header("sec-websocket-key"), subprotocol);
    m_clients.add(&connection);
    connection.sendText(RelayMessages::serverHello(helloRecords()));
    for (const PermissionRequest& pending : m_permissions.pending())
        connection.sendText(RelayMessages::permissionRequest(pending));
    logEvent("client.connected", {{"address", connection.address()}});
    for (const auto& [agentId, seq] : since)
        m_replay.resume(connection, agentId, seq);
}

QString RelayServer::agentOfTask(const QString& taskId) const
{
    return m_taskAgents.value(taskId);
}

void RelayServer::holdApproval(RelayConnection& connection, PermissionRequest request)
{
    request.requestId = m_permissions.add(request, &connection);
    logEvent("permission.request",
             {{"requestId", request.requestId}, {"taskId", request.taskId}, {"toolName", request.toolName}});
    m_clients.sendText(RelayMessages::permissionRequest(request));
    const AgentHistory* history = m_replay.find(request.agentId);
    const AgentSnapshot::Task* task = history ? history->snapshot.find(request.taskId) : nullptr;
    m_push.notify(PushNotice{QStringLiteral("approval"), request.agentId, task ? task->projectPath : QString(),
                             request.taskId, request.requestId, request.toolName, "high",
                             m_permissions.timeoutSeconds()});
}

void RelayServer::trimHistories()
{
    m_replay.trimByAge(
        m_clock.elapsed(), [this](const QString& agentId) { return m_agents.contains(agentId); },
        [this](const QString& agentId, const AgentHistory& history) {
            // An agent forgotten is forgotten with its tasks.
            for (const QString& taskId : history.snapshot.runningTaskIds()) {
                m_taskAgents.remove(taskId);
                m_permissions.endTask(taskId);
            }
            m_terminalFlow.keepSessions(agentId, [](const QString&) { return false; });
        });
}

QList<AgentRecord> RelayServer::agentRecords() const
{
    QList<AgentRecord> records;
    for (const Agent& agent : m_agents) {
        AgentRecord record;
        record.agentId = agent.agentId;
        record.busy = !agent.currentTaskId.isEmpty();
        if (const AgentHistory* history = agent.history)
            record.registration = history->registration;
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
    for (const auto& [agentId, history] : m_replay.histories()) {
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
