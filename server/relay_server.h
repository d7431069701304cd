#pragma once

#include "agent_reads.h"
#include "agent_stream.h"
#include "client_broadcast.h"
#include "client_commands.h"
#include "connections_by_address.h"
#include "permission_requests.h"
#include "push_notices.h"
#include "relay_config.h"
#include "relay_connection.h"
#include "relay_front.h"
#include "relay_messages.h"
#include "replay_service.h"
#include "task_queue.h"
#include "terminal_flow.h"

#include <QElapsedTimer>
#include <QHash>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QTimer>

class QTcpSocket;

namespace brinmoor::relay {

class RelayListener;

// The relay between agents and the phones: one port for the agents' WebSocket, the
// clients' WebSocket and a few HTTP endpoints. It listens and keeps the count of
// connections, lets the front door (RelayFront) take requests, numbers and relays what
// agents say (AgentStream), runs the clients' commands (ClientCommands), replays what a
// client that comes back missed (ReplayService) and holds the tool uses waiting for a
// decision.
class RelayServer : public QObject, private ConnectionHandler, private FrontDesk {
    Q_OBJECT

public:
    explicit RelayServer(RelayConfig config, QObject* parent = nullptr);
    ~RelayServer() override;

    bool listen(QString* error);
    quint16 port() const;
    // Stops listening, closes every connection ("server shutting down") and emits
    // stopped once all are gone.
    void stop();
    // Reads the certificate and the key again (they are renewed often); connections that
    // are open keep going, the next ones get the new certificate. When the files do not
    // load, the old certificate stays in use.
    void reloadTls();

Q_SIGNALS:
    void stopped();

private:
    // A connected agent.
    struct Agent {
        QString agentId;
        RelayConnection* connection = nullptr;
        QString currentTaskId; // empty while idle
        // It said what it runs on this connection ("agent.state"), or never will (it does not
        // number its messages): until then no waiting task goes to it.
        bool restated = false;
        AgentHistory* history = nullptr; // kept while the agent is connected
        AgentStream stream;
    };

    // ConnectionHandler
    void requestReceived(RelayConnection& connection, const HttpRequest& request) override;
    void bodyReceived(RelayConnection& connection, const HttpRequest& request, const QByteArray& body) override;
    void messageReceived(RelayConnection& connection, QByteArrayView payload) override;
    void pongReceived(RelayConnection& connection, QByteArrayView payload) override;
    void connectionClosed(RelayConnection& connection) override;
    void connectionReleased(RelayConnection& connection) override;
    void waitExpired(RelayConnection& connection) override;
    void connectionDrained(RelayConnection& connection) override;

    // FrontDesk
    void acceptAgent(RelayConnection& connection, const HttpRequest& request) override;
    void acceptClient(RelayConnection& connection, const HttpRequest& request, const QByteArray& subprotocol) override;
    QList<AgentRecord> agentRecords() const override;
    QString agentOfTask(const QString& taskId) const override;
    void holdApproval(RelayConnection& connection, PermissionRequest request) override;
    void pushRequest(RelayConnection& connection, const HttpRequest& request, const QByteArray& body) override;

    void admit(QTcpSocket* socket);
    void reportStoppedWhenEmpty();
    // When there are too many connections, lets go of the oldest one whose request has
    // not been judged (from that address, when given), or else of the new one; false
    // when that was the new one.
    bool makeRoom(RelayConnection& newcomer, const QString& address, const QString& reason);

    // Agents (relay_agents.cpp).
    void agentMessage(Agent& agent, QByteArrayView payload);
    // The agent's "agent.stream": it numbers its messages itself.
    void announce(Agent& agent, const QJsonObject& message);
    // The agent does not number its messages: what it said so far is numbered here.
    void endPrelude(Agent& agent);
    void observeAgentMessage(Agent& agent, AgentHistory& history, const QJsonObject& message);
    void scheduleAck(Agent& agent);
    void endTask(Agent& agent, const QString& taskId);
    void dropAgent(Agent& agent);
    void agentClosed(RelayConnection& connection);
    // Tells the agent a session's window; while the agent has much waiting for it, only
    // the latest window of each session is kept, and told once it has read the rest.
    void tellAgentWindow(const TerminalFlow::Window& window);
    void tellPendingWindows(RelayConnection& agentConnection);

    // Clients' commands (relay_client_commands.cpp), each once it is decoded and its
    // shape checked.
    void clientMessage(RelayConnection& client, QByteArrayView payload);
    void run(RelayConnection& client, const ForwardToAgent& command);
    void run(RelayConnection& client, const ResumeFrom& command);
    void run(RelayConnection& client, const AcknowledgeTerminal& command);
    void run(RelayConnection& client, const DecidePermission& command);
    void clientClosed(RelayConnection& connection);
    // The connected agent of that id, or none after answering the client "AGENT_OFFLINE".
    Agent* connectedAgent(RelayConnection& client, const QString& agentId, const QJsonValue& requestId);
    // Whether the agent takes a client's command of `size` bytes now: a client's commands
    // never pile up for an agent that does not read them; the client is told instead.
    bool agentTakes(RelayConnection& client, const Agent& agent, qsizetype size, const QJsonValue& requestId);
    void replyError(RelayConnection& client, const QString& code, const QString& message, const QJsonValue& requestId);

    // Tasks (relay_tasks.cpp).
    void run(RelayConnection& client, const CreateTask& command);
    // Whether the agent runs a task, as far as the relay knows.
    bool agentRuns(const Agent& agent) const;
    void assignTask(Agent& agent, const WaitingTask& task);
    // Once the messages being read have gone out, the first waiting task goes to the agent
    // if it is free.
    void startWaitingTaskSoon(const QString& agentId);
    // The agent's refusal of a task the relay sent it as busy: the task waits again, and the
    // refusal is not relayed.
    bool refusedAsBusy(Agent& agent, const QJsonObject& message);
    void endWaitingTask(const QString& agentId, const WaitingTask& task, const QString& end);
    // The snapshot of "server.hello" and "resume.gap": the agent's present and its queue.
    QJsonObject presentOf(const QString& agentId, const AgentSnapshot& snapshot) const;

    // Tasks' kept output (relay_task_output.cpp).
    void run(RelayConnection& client, const AcknowledgeTask& command);
    void tellAgentTaskWindow(const TerminalFlow::Window& window);
    // A task went to the agent: who paces it from its first line.
    void startTaskPace(const QString& agentId, const QString& taskId);

    // Reads of what an agent keeps or finds (relay_agent_reads.cpp).
    void run(RelayConnection& client, const AgentRead& command);
    // Whether the agent's message answers a read; if so it went to the client that asked,
    // if that one still waits for it.
    bool answerRead(const QString& agentId, const QJsonObject& message);

    // Pushes to the devices subscribed (relay_push.cpp).
    void run(RelayConnection& client, const ShowCard& command);
    // What waits for the user after this message of the agent's, pushed.
    void pushFor(const QString& agentId, const AgentHistory& history, const QJsonObject& message);
    // POST /v1/push/decision: a notification's Allow or Deny.
    QByteArray decideFromPush(const QByteArray& body);

    // Pacers that stopped acknowledging (relay_pace_stalls.cpp).
    void watchPace();
    void dropStalledPacers();

    void trimHistories();
    QList<AgentRecord> helloRecords() const;

    RelayConfig m_config;
    RelayListener* m_listener;
    QElapsedTimer m_clock;
    QSet<RelayConnection*> m_connections;
    ConnectionsByAddress m_unjudged;          // not answered, and not shown the token
    ConnectionsByAddress m_clientConnections; // all but the agents' WebSockets, by the peer's address
    RelayFront m_front;
    bool m_stopping = false;
    bool m_stopped = false;
    PermissionRequests m_permissions;
    PushNotices m_push;
    TaskQueue m_queue;
    qint64 m_batchTime = 0;        // m_clock when the messages being read began to arrive
    QMap<QString, Agent> m_agents; // by agent id, so lists come out in a stable order
    QHash<RelayConnection*, QString> m_agentIds;
    ClientBroadcast m_clients;
    QHash<QString, QString> m_taskAgents; // task id to agent id, while the task lives
    ReplayService m_replay;
    QHash<QString, QHash<QString, std::optional<qint64>>> m_pendingWindows; // agent id, session id
    TerminalFlow m_terminalFlow;
    TerminalFlow m_taskFlow; // the same pace, of tasks' output: task ids, and lines for offsets
    AgentReads m_reads;
    QHash<QString, QSet<RelayConnection*>> m_taskPacers; // agent id: the clients that pace its tasks
    QTimer m_trimTimer;
    QTimer m_paceTimer; // runs while some client paces something
};

} // namespace brinmoor::relay
