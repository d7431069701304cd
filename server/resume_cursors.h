#pragma once

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>

#include <functional>

namespace brinmoor::relay {

class EventLog;
class RelayConnection;

// Where each client that resumes is in each agent's messages. A client without a cursor
// on an agent gets that agent's messages as they come; one with a cursor has everything
// up to its seq and is either being replayed the log or waiting for the first message
// after it.
class ResumeCursors {
public:
    // What a live message is to a client.
    enum class Live {
        Send, // it takes it as it comes (it has no cursor, or the message is the first it lacks)
        Hold, // it has it already, or is sent it from the log in its turn
        Gap,  // it lacks messages the log let go: it is told of the gap instead
    };
    // What replaying left to do.
    struct Replayed {
        QList<QPair<QString, qint64>> gaps; // agent id, the seq the client has: their cursors are gone
        bool behind = false;                // the client has as much waiting as it may
    };
    using LogOf = std::function<const EventLog*(const QString& agentId)>;

    // The client has the agent's messages up to `seq`: it is replayed the log after it,
    // or waits for the first message after it.
    void replayFrom(const RelayConnection* client, const QString& agentId, qint64 seq);
    void waitAfter(const RelayConnection* client, const QString& agentId, qint64 seq);
    void erase(const RelayConnection* client, const QString& agentId);
    void eraseClient(const RelayConnection* client);

    // Whether any client has a cursor on the agent: when none has, its messages simply
    // go to every client.
    bool anyOn(const QString& agentId) const { return m_counts.contains(agentId); }
    // What the agent's live message `seq` is to the client; a client that waited for it
    // has no cursor after, and `had` is what it had. `lostThrough` is the agent's log's.
    Live live(const RelayConnection* client, const QString& agentId, qint64 seq, qint64 lostThrough, qint64* had);
    // Sends the client what its replaying cursors lack from the logs while its backlog
    // stays below `window`; a cursor that reaches the log's head is gone.
    Replayed replay(RelayConnection& client, const LogOf& logOf, qsizetype window);

private:
    struct Cursor {
        qint64 seq = 0;
        bool replaying = false;
    };
    using ClientCursors = QHash<QString, Cursor>; // by agent id

    void set(const RelayConnection* client, const QString& agentId, Cursor cursor);

    QHash<const RelayConnection*, ClientCursors> m_cursors;
    QHash<QString, int> m_counts; // by agent id: clients with a cursor on it
};

} // namespace brinmoor::relay
