#pragma once

#include <QHash>
#include <QString>

namespace brinmoor::relay {

class RelayConnection;

// Where each client that resumes is in each agent's messages. A client without a cursor
// on an agent gets that agent's messages as they come; one with a cursor has everything
// up to its seq and is either being replayed the log or waiting for the first message
// after it.
class ResumeCursors {
public:
    struct Cursor {
        qint64 seq = 0;
        bool replaying = false;
    };
    using ClientCursors = QHash<QString, Cursor>; // by agent id

    void set(const RelayConnection* client, const QString& agentId, Cursor cursor);
    void erase(const RelayConnection* client, const QString& agentId);
    void eraseClient(const RelayConnection* client);

    // Whether any client has a cursor on the agent: when none has, its messages simply
    // go to every client.
    bool anyOn(const QString& agentId) const { return m_counts.contains(agentId); }
    // The client's cursor on the agent, or none.
    const Cursor* find(const RelayConnection* client, const QString& agentId) const;
    // The client's cursors, to advance as it is replayed to; none when it has none.
    ClientCursors* of(const RelayConnection* client);

private:
    QHash<const RelayConnection*, ClientCursors> m_cursors;
    QHash<QString, int> m_counts; // by agent id: clients with a cursor on it
};

} // namespace brinmoor::relay
