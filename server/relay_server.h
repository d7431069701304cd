#pragma once

#include "agent_snapshot.h"
#include "auth_guard.h"
#include "client_commands.h"
#include "connections_by_address.h"
#include "event_log.h"
#include "origin_policy.h"
#include "permission_requests.h"
#include "relay_connection.h"
#include "relay_messages.h"
#include "resume_cursors.h"
#include "served_hosts.h"
#include "task_queue.h"
#include "task_reads.h"
#include "terminal_flow.h"
#include "tls_context.h"
#include "trusted_proxies.h"
#include "waiting_turns.h"

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QTimer>

#include <map>
#include <vector>

class QTcpSocket;

namespace brinmoor::relay {

class RelayListener;

struct RelayConfig {
    QHostAddress bindAddress = QHostAddress::Any;
    quint16 port = 8080;
    QByteArray token;
    RelayLimits limits;
    int maxPacedSessions = 64; // terminal sessions one client may pace
    int approvalTimeoutMs = 600'000;
    int queueOfflineWaitMs = 600'000; // how long waiting tasks wait for an agent that went away
    int paceStallMs = 30'000;         // a client that owes an acknowledgement this long no longer paces
    QStringList allowedOrigins;       // besides the relay's own, normalized (the public URL's is one)
    QStringList allowedHosts;         // names and addresses Host may give besides the relay's own, normalized
                                      // (the public URL's host is one)
    GuessLimits guesses;
    EventLogLimits eventLog;
    TrustedProxies trustedProxies;
    TlsFiles tlsFiles;                    // read again on reload
    std::optional<QSslConfiguration> tls; // what the files held at start; none for plain HTTP
};

// The relay between agents and the phones: one port for the agents' WebSocket, the
// clients' WebSocket and a few HTTP endpoints. It keeps each agent's registration,
// recent messages and present, and the tool uses waiting for a decision; a client that
// comes back is given what it missed.
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
    // Reads the certificate and the key again (they are renewed often); connections that
    // are open keep going, the next ones get the new certificate. When the files do not
    // load, the old certificate stays in use.
    void reloadTls();

Q_SIGNALS:
    void stopped();

private:
    struct AgentHistory;
    // A connected agent.
    struct Agent {
        QString agentId;
        RelayConnection* connection = nullptr;
        QString currentTaskId;  // empty while idle
        QByteArray prefix;      // {"agentId":"…","seq": the start of every message relayed from it
        qint64 nextSeq = 0;     // the seq of the connection's next message; 0 before its first
        qint64 skipThrough = 0; // messages up to this seq the server has already
        qint64 acked = 0;       // the seq last confirmed to the agent
        bool ackScheduled = false;
        // It said what it runs on this connection ("agent.state"), or never will (it does not
        // number its messages): until then no waiting task goes to it.
        bool restated = false;
        AgentHistory* history = nullptr; // kept while the agent is connected
        // Until the agent says whether it numbers its messages ("agent.stream") or its
        // pong says it will not, what it sends waits here.
        bool learning = true;
        QList<QByteArray> prelude;
    };
    // What outlives an agent's connections: its recent messages, its present and its
    // registration.
    struct AgentHistory {
        EventLog log;
        AgentSnapshot snapshot;
        std::optional<QJsonObject> registration; // the latest "agent.register" without its "type"
        bool numbered = false;                   // a message of it has had a seq
    };

    void requestReceived(RelayConnection& connection, const HttpRequest& request) override;
    void bodyReceived(RelayConnection& connection, const HttpRequest& request, const QByteArray& body) override;
    void messageReceived(RelayConnection& connection, QByteArrayView payload) override;
    void pongReceived(RelayConnection& connection, QByteArrayView payload) override;
    void connectionClosed(RelayConnection& connection) override;
    void connectionReleased(RelayConnection& connection) override;
    void waitExpired(RelayConnection& connection) override;

    void admit(QTcpSocket* socket);
    // Behind a trusted proxy, the client it names is the one counted and logged.
    void takeForwardedAddress(RelayConnection& connection, const HttpRequest& request);
    void reportStoppedWhenEmpty();
    // When there are too many connections, lets go of the oldest one whose request has
    // not been judged (from that address, when given), or else of the new one; false
    // when that was the new one.
    bool makeRoom(RelayConnection& newcomer, const QString& address, const QString& reason);
    bool hostServed(RelayConnection& connection, const HttpRequest& request);
    bool originAllowed(RelayConnection& connection, const HttpRequest& request);
    // Checks the token and serves the request.
    void judge(RelayConnection& connection, const HttpRequest& request);
    // Judges the waiting requests whose turn has come.
    void takeTurns();
    void scheduleTurns();
    bool authorize(RelayConnection& connection, const HttpRequest& request, QByteArray* subprotocol);
    void acceptAgent(RelayConnection& connection, const HttpRequest& request);
    void acceptClient(RelayConnection& connection, const HttpRequest& request, const QByteArray& subprotocol);
    void receiveApproval(RelayConnection& connection, const QByteArray& body);
    void connectionDrained(RelayConnection& connection) override;

    AgentHistory& historyOf(const QString& agentId);
    // The seq of a connection's first message: the one the agent announces, or one the
    // server makes for an agent that does not.
    void startStream(Agent& agent, qint64 first, qint64 next);
    void agentMessage(Agent& agent, QByteArrayView payload);
    // The agent does not number its messages: what it said so far is numbered here.
    void endPrelude(Agent& agent);
    void observeAgentMessage(Agent& agent, AgentHistory& history, const QJsonObject& message);
    void scheduleAck(Agent& agent);
    void deliver(const QString& agentId, AgentHistory& history, qint64 seq, const QByteArray& frame);
    void endTask(Agent& agent, const QString& taskId);
    void dropAgent(Agent& agent);
    void clientMessage(RelayConnection& client, QByteArrayView payload);
    // The client commands, each once it is decoded and its shape checked.
    void run(RelayConnection& client, const CreateTask& command);
    void run(RelayConnection& client, const ForwardToAgent& command);
    void run(RelayConnection& client, const ResumeFrom& command);
    void run(RelayConnection& client, const AcknowledgeTerminal& command);
    void run(RelayConnection& client, const DecidePermission& command);
    // Tasks' kept output (relay_task_output.cpp).
    void run(RelayConnection& client, const AcknowledgeTask& command);
    void run(RelayConnection& client, const ReadTaskOutput& command);
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
    // Tells the agent a session's window; while the agent has much waiting for it, only
    // the latest window of each session is kept, and told once it has read the rest.
    void tellAgentWindow(const TerminalFlow::Window& window);
    void tellAgentTaskWindow(const TerminalFlow::Window& window);
    // A task went to the agent: who paces it from its first line.
    void startTaskPace(const QString& agentId, const QString& taskId);
    // Whether the agent's message answers a read; if so it went to the client that asked.
    bool answerTaskRead(const QString& agentId, const QJsonObject& message);
    void tellPendingWindows(RelayConnection& agentConnection);
    // Pacers that stopped acknowledging (relay_pace_stalls.cpp).
    void watchPace();
    void dropStalledPacers();
    // Whether the agent takes a client's command of `size` bytes now: a client's commands
    // never pile up for an agent that does not read them; the client is told instead.
    bool agentTakes(RelayConnection& client, const Agent& agent, qsizetype size, const QJsonValue& requestId);
    // Starts giving the client the agent's messages after `since`.
    void resume(RelayConnection& client, const QString& agentId, qint64 since);
    void sendGap(RelayConnection& client, const QString& agentId, qint64 since);
    // Sends replaying clients the log, as far as their backlog allows.
    void pump(RelayConnection& client);
    void trimHistories();
    // Lets go of the oldest messages of the largest logs while all of them hold more
    // than they may together.
    void trimToTotal();
    // The shared frames no client waits for any more go.
    void releaseSharedFrames();
    // The connected agent of that id, or none after answering the client "AGENT_OFFLINE".
    Agent* connectedAgent(RelayConnection& client, const QString& agentId, const QJsonValue& requestId);
    void replyError(RelayConnection& client, const QString& code, const QString& message, const QJsonValue& requestId);

    void broadcast(const QByteArray& frame);
    void broadcastText(const QByteArray& text);
    QList<AgentRecord> agentRecords() const;
    QList<AgentRecord> helloRecords() const;

    RelayConfig m_config;
    RelayListener* m_listener;
    AuthGuard m_auth;
    OriginPolicy m_origins;
    ServedHosts m_hosts;
    QSet<RelayConnection*> m_connections;
    ConnectionsByAddress m_unjudged;          // not answered, and not shown the token
    ConnectionsByAddress m_clientConnections; // all but the agents' WebSockets, by the peer's address
    WaitingTurns m_turns;
    QTimer m_turnTimer;
    bool m_takingTurns = false;
    bool m_stopping = false;
    bool m_stopped = false;
    PermissionRequests m_permissions;
    TaskQueue m_queue;
    QElapsedTimer m_clock;
    qint64 m_batchTime = 0;        // m_clock when the messages being read began to arrive
    QMap<QString, Agent> m_agents; // by agent id, so lists come out in a stable order
    QHash<RelayConnection*, QString> m_agentIds;
    std::vector<RelayConnection*> m_clients;
    int m_broadcasting = 0;               // while > 0, closed clients are only blanked in m_clients
    QHash<QString, QString> m_taskAgents; // task id to agent id, while the task lives
    std::map<QString, AgentHistory> m_histories;
    qint64 m_logMemory = 0; // of every history's log
    SharedFrames m_sharedFrames;
    QHash<QString, QHash<QString, std::optional<qint64>>> m_pendingWindows; // agent id, session id
    ResumeCursors m_cursors;
    TerminalFlow m_terminalFlow;
    TerminalFlow m_taskFlow; // the same pace, of tasks' output: task ids, and lines for offsets
    TaskReads m_taskReads;
    QHash<QString, QSet<RelayConnection*>> m_taskPacers; // agent id: the clients that pace its tasks
    QTimer m_trimTimer;
    QTimer m_paceTimer; // runs while some client paces something
};

} // namespace brinmoor::relay
