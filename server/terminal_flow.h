#pragma once

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>

#include <functional>
#include <optional>

namespace brinmoor::relay {

class RelayConnection;

// The pace of terminal output. A client that renders a session's output slowly says
// how far it has got ("terminal.ack" with the "offset" of the output it has rendered);
// the agent is told the lowest offset of the clients that pace the session, and stops
// reading the terminal while its output is a window ahead of it. Clients that never
// acknowledge do not pace anything. What it keeps is bounded: an entry per client and
// session it paces, for sessions the relay knows as open, and at most so many sessions
// per client. A client that owes an acknowledgement (it was sent output after its last
// one) for too long no longer paces: a page the browser froze does not hold a process.
class TerminalFlow {
public:
    explicit TerminalFlow(int maxSessionsPerClient = 64) : m_maxSessionsPerClient(maxSessionsPerClient) {}

    // What the agent is to hear for one session: the lowest offset of the clients that
    // pace it, or none when no client does any more.
    struct Window {
        QString agentId;
        QString sessionId;
        std::optional<qint64> offset;
    };

    // A client's acknowledgement; without an offset the client stops pacing the session.
    // The window to tell the agent, when it changed.
    std::optional<Window> acknowledge(const RelayConnection* client, const QString& agentId, const QString& sessionId,
                                      std::optional<qint64> offset);
    // Whether the client may pace the session: it does already, or it paces fewer
    // sessions than it may.
    bool canPace(const RelayConnection* client, const QString& agentId, const QString& sessionId) const;
    int maxSessionsPerClient() const { return m_maxSessionsPerClient; }
    // The client is gone: the windows that changed.
    QList<Window> removeClient(const RelayConnection* client);
    // The session is closed.
    void removeSession(const QString& agentId, const QString& sessionId);
    // Every session of the agent that `isOpen` does not name is closed.
    void keepSessions(const QString& agentId, const std::function<bool(const QString& sessionId)>& isOpen);
    // The windows of the sessions some client paces, for an agent that connects.
    QList<Window> windowsOf(const QString& agentId) const;
    // Output of the session went to its clients at `nowMs`: those that had acknowledged
    // all they were sent owe an acknowledgement from then.
    void sent(const QString& agentId, const QString& sessionId, qint64 nowMs);
    // A client that stopped pacing a session because it owed an acknowledgement too long.
    struct Stall {
        const RelayConnection* client;
        QString agentId;
        QString sessionId;
    };
    // The clients that have owed an acknowledgement since `limitMs` before `nowMs` or
    // longer no longer pace (added to `stalls`); the windows that changed.
    QList<Window> dropStalled(qint64 nowMs, qint64 limitMs, QList<Stall>& stalls);
    bool isEmpty() const { return m_sessions.isEmpty(); }

private:
    using Key = QPair<QString, QString>; // agent id, session id
    struct Session {
        QHash<const RelayConnection*, qint64> offsets;
        QHash<const RelayConnection*, qint64> owedSince; // when each was first sent what it has not acknowledged
        std::optional<qint64> told;
    };

    std::optional<Window> update(const Key& key);
    void forgetClientsOf(const Session& session);

    int m_maxSessionsPerClient;
    QHash<Key, Session> m_sessions;
    QHash<const RelayConnection*, int> m_paced; // sessions each client paces
};

} // namespace brinmoor::relay
