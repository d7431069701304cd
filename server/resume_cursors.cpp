#include "resume_cursors.h"

#include "event_log.h"
#include "relay_connection.h"

namespace brinmoor::relay {

void ResumeCursors::replayFrom(const RelayConnection* client, const QString& agentId, qint64 seq)
{
    set(client, agentId, Cursor{seq, true});
}

void ResumeCursors::waitAfter(const RelayConnection* client, const QString& agentId, qint64 seq)
{
    set(client, agentId, Cursor{seq, false});
}

void ResumeCursors::set(const RelayConnection* client, const QString& agentId, Cursor cursor)
{
    ClientCursors& cursors = m_cursors[client];
    if (!cursors.contains(agentId))
        ++m_counts[agentId];
    cursors.insert(agentId, cursor);
}

void ResumeCursors::erase(const RelayConnection* client, const QString& agentId)
{
    const auto cursors = m_cursors.find(client);
    if (cursors == m_cursors.end() || !cursors->remove(agentId))
        return;
    if (--m_counts[agentId] == 0)
        m_counts.remove(agentId);
    if (cursors->isEmpty())
        m_cursors.erase(cursors);
}

void ResumeCursors::eraseClient(const RelayConnection* client)
{
    const auto cursors = m_cursors.constFind(client);
    if (cursors == m_cursors.constEnd())
        return;
    for (auto it = cursors->constBegin(); it != cursors->constEnd(); ++it) {
        if (--m_counts[it.key()] == 0)
            m_counts.remove(it.key());
    }
    m_cursors.erase(cursors);
}

ResumeCursors::Live ResumeCursors::live(const RelayConnection* client, const QString& agentId, qint64 seq,
                                        qint64 lostThrough, qint64* had)
{
    const auto cursors = m_cursors.constFind(client);
    if (cursors == m_cursors.constEnd())
        return Live::Send;
    const auto cursor = cursors->constFind(agentId);
    if (cursor == cursors->constEnd())
        return Live::Send;
    // A replaying client is sent this from the log in its turn; a waiting one has it
    // already, or this is the first message it lacks.
    if (cursor->replaying || seq <= cursor->seq)
        return Live::Hold;
    *had = cursor->seq;
    erase(client, agentId);
    return *had < lostThrough ? Live::Gap : Live::Send;
}

ResumeCursors::Replayed ResumeCursors::replay(RelayConnection& client, const LogOf& logOf, qsizetype window)
{
    Replayed replayed;
    const auto cursors = m_cursors.find(&client);
    if (cursors == m_cursors.end())
        return replayed;
    QStringList caughtUp;
    for (auto it = cursors->begin(); it != cursors->end(); ++it) {
        if (!it->replaying)
            continue;
        const EventLog* log = logOf(it.key());
        while (true) {
            if (!log) {
                caughtUp.append(it.key());
                break;
            }
            // The log may have let go of what the client still lacked while it read.
            if (it->seq < log->lostThrough()) {
                replayed.gaps.append({it.key(), it->seq});
                break;
            }
            qint64 seq = 0;
            const QByteArray frame = log->next(it->seq, &seq);
            if (frame.isEmpty()) {
                caughtUp.append(it.key());
                break;
            }
            if (!client.isOpen() || client.backlog() >= window) {
                replayed.behind = true;
                break;
            }
            client.sendFrame(frame);
            it->seq = seq;
        }
    }
    // Erasing may let go of the client's cursors: nothing below reads them.
    for (const auto& [agentId, had] : std::as_const(replayed.gaps))
        erase(&client, agentId);
    for (const QString& agentId : std::as_const(caughtUp))
        erase(&client, agentId);
    return replayed;
}

} // namespace brinmoor::relay
