#pragma once

#include "auth_guard.h"
#include "origin_policy.h"
#include "permission_requests.h"
#include "relay_config.h"
#include "relay_messages.h"
#include "served_hosts.h"
#include "waiting_turns.h"

#include <QElapsedTimer>
#include <QTimer>

namespace brinmoor::relay {

class ConnectionsByAddress;
class RelayConnection;
struct HttpRequest;

// What the relay does with the requests its front door lets in.
class FrontDesk {
public:
    virtual ~FrontDesk() = default;
    virtual void acceptAgent(RelayConnection& connection, const HttpRequest& request) = 0;
    virtual void acceptClient(RelayConnection& connection, const HttpRequest& request,
                              const QByteArray& subprotocol) = 0;
    virtual QList<AgentRecord> agentRecords() const = 0;
    // The agent that runs the task; empty when the relay knows of no such task.
    virtual QString agentOfTask(const QString& taskId) const = 0;
    // A tool asks for a decision on the connection, which stays open until it is made.
    virtual void holdApproval(RelayConnection& connection, PermissionRequest request) = 0;
    // A request under /v1/push/, with its body when it has one.
    virtual void pushRequest(RelayConnection& connection, const HttpRequest& request, const QByteArray& body) = 0;
};

// The relay's front door: every HTTP request head comes here. It checks the host, routes
// the path, serves the web client and the health check, checks the origin and the token
// (a request from an address that failed recently waits for its turn), completes the
// WebSocket handshake's checks and reads the approvals' POST.
class RelayFront {
public:
    RelayFront(const RelayConfig& config, const QElapsedTimer& clock, ConnectionsByAddress& unjudged, FrontDesk& desk);

    void requestReceived(RelayConnection& connection, const HttpRequest& request);
    void bodyReceived(RelayConnection& connection, const HttpRequest& head, const QByteArray& body);
    void waitExpired(RelayConnection& connection);
    // The connection no longer waits for its turn.
    void forget(RelayConnection& connection);

private:
    // Behind a trusted proxy, the client it names is the one counted and logged.
    void takeForwardedAddress(RelayConnection& connection, const HttpRequest& request);
    bool hostServed(RelayConnection& connection, const HttpRequest& request);
    bool originAllowed(RelayConnection& connection, const HttpRequest& request);
    // Checks the token and serves the request.
    void judge(RelayConnection& connection, const HttpRequest& request);
    bool authorize(RelayConnection& connection, const HttpRequest& request, QByteArray* subprotocol);
    // Judges the waiting requests whose turn has come.
    void takeTurns();
    void scheduleTurns();

    const RelayConfig& m_config;
    const QElapsedTimer& m_clock;
    ConnectionsByAddress& m_unjudged; // not answered, and not shown the token
    FrontDesk& m_desk;
    AuthGuard m_auth;
    OriginPolicy m_origins;
    ServedHosts m_hosts;
    WaitingTurns m_turns;
    QTimer m_turnTimer;
    bool m_takingTurns = false;
};

} // namespace brinmoor::relay
