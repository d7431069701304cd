#pragma once

#include "auth_guard.h"
#include "origin_policy.h"
#include "permission_requests.h"
#include "relay_connection.h"
#include "relay_messages.h"
#include "unauthenticated_connections.h"

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QSet>

#include <vector>

class QTcpServer;

namespace brinmoor::relay {

struct RelayConfig {
    QHostAddress bindAddress = QHostAddress::Any;
    quint16 port = 8080;
    QByteArray token;
    RelayLimits limits;
    int approvalTimeoutMs = 600'000;
    QStringList allowedOrigins; // besides the relay's own, normalized
};

// The relay between agents and the phones: one port for the agents' WebSocket, the
// clients' WebSocket and a few HTTP endpoints. It keeps each agent's registration and
// task, and the tool uses waiting for a decision.
class RelayServer : public QObject, private ConnectionHandler {
    Q_OBJECT

public:
    explicit RelayServer(RelayConfig config, QObject* parent = nullptr);
    ~RelayServer() override;

    bool listen(QString* error);
    quint16 port() const;
    // Stops listening, closes every connection ("server shutting down") and emits
    // stopped once all are gone.
    void stop();

Q_SIGNALS:
    void stopped();

private:
    struct Agent {
        QString agentId;
        std::optional<QJsonObject> registration; // the latest "agent.register" without its "type"
        RelayConnection* connection = nullptr;
        QString currentTaskId; // empty while idle
        QByteArray prefix;     // {"agentId":"…", the start of every message relayed from it
    };

    void requestReceived(RelayConnection& connection, const HttpRequest& request) override;
    void bodyReceived(RelayConnection& connection, const HttpRequest& request, const QByteArray& body) override;
    void messageReceived(RelayConnection& connection, QByteArrayView payload) override;
    void connectionClosed(RelayConnection& connection) override;
    void connectionReleased(RelayConnection& connection) override;

    void admit(QTcpSocket* socket);
    void reportStoppedWhenEmpty();
    // Lets go of the oldest connection without a token when there are too many.
    bool dropOldestUnauthenticated(const RelayConnection& newcomer, const QString& address, const QString& reason);
    bool originAllowed(RelayConnection& connection, const HttpRequest& request);
    bool authorize(RelayConnection& connection, const HttpRequest& request, QByteArray* subprotocol);
    void acceptAgent(RelayConnection& connection, const HttpRequest& request);
    void acceptClient(RelayConnection& connection, const HttpRequest& request, const QByteArray& subprotocol);
    void receiveApproval(RelayConnection& connection, const QByteArray& body);

    void agentMessage(Agent& agent, QByteArrayView payload);
    void observeAgentMessage(Agent& agent, const QJsonObject& message);
    void endTask(Agent& agent, const QString& taskId);
    void dropAgent(Agent& agent);
    void clientMessage(RelayConnection& client, QByteArrayView payload);
    void createTask(RelayConnection& client, const QJsonObject& message);
    void forwardToAgent(RelayConnection& client, const QString& type, const QJsonObject& message);
    void decidePermission(RelayConnection& client, const QJsonObject& message);
    // The connected agent of that id, or none after answering the client "AGENT_OFFLINE".
    Agent* connectedAgent(RelayConnection& client, const QString& agentId, const QJsonValue& requestId);
    void replyError(RelayConnection& client, const QString& code, const QString& message, const QJsonValue& requestId);

    void broadcast(const QByteArray& frame);
    void broadcastText(const QByteArray& text);
    QList<AgentRecord> agentRecords() const;

    RelayConfig m_config;
    QTcpServer* m_listener;
    AuthGuard m_auth;
    OriginPolicy m_origins;
    QSet<RelayConnection*> m_connections;
    UnauthenticatedConnections m_unauthenticated;
    bool m_stopping = false;
    bool m_stopped = false;
    PermissionRequests m_permissions;
    QElapsedTimer m_clock;
    QMap<QString, Agent> m_agents; // by agent id, so lists come out in a stable order
    QHash<RelayConnection*, QString> m_agentIds;
    std::vector<RelayConnection*> m_clients;
    int m_broadcasting = 0;               // while > 0, closed clients are only blanked in m_clients
    QHash<QString, QString> m_taskAgents; // task id to agent id, while the task lives
};

} // namespace brinmoor::relay
