#include "resume_cursors.h"

namespace brinmoor::relay {

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

const ResumeCursors::Cursor* ResumeCursors::find(const RelayConnection* client, const QString& agentId) const
{
    const auto cursors = m_cursors.constFind(client);
    if (cursors == m_cursors.constEnd())
        return nullptr;
    const auto cursor = cursors->constFind(agentId);
    return cursor == cursors->constEnd() ? nullptr : &*cursor;
}

ResumeCursors::ClientCursors* ResumeCursors::of(const RelayConnection* client)
{
    const auto cursors = m_cursors.find(client);
    return cursors == m_cursors.end() ? nullptr : &*cursors;
}

} // namespace brinmoor::relay
