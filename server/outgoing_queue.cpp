#include "outgoing_queue.h"

#include <QIODevice>

namespace brinmoor::relay {

namespace {

// What an entry costs besides its bytes: it is counted in the backlog, so that a peer
// sent many small frames is bounded by what it really holds.
constexpr qsizetype kEntryCost = 64;

} // namespace

void OutgoingQueue::push(const QByteArray& frame)
{
    m_entries.push_back(Entry{frame});
    m_bytes += frame.size() + kEntryCost;
}

void OutgoingQueue::pushShared(SharedFrames& frames, const QByteArray& frame, qint64& number)
{
    if (number < 0)
        number = frames.append(frame);
    m_shared = &frames;
    if (!m_entries.empty() && m_entries.back().end == number) {
        ++m_entries.back().end;
        m_bytes += frame.size();
    } else {
        m_entries.push_back(Entry{{}, number, number + 1});
        m_bytes += frame.size() + kEntryCost;
    }
}

std::optional<qint64> OutgoingQueue::oldestShared() const
{
    for (const Entry& entry : m_entries) {
        if (entry.first >= 0)
            return entry.first;
    }
    return std::nullopt;
}

void OutgoingQueue::writeNext(QIODevice& socket)
{
    Entry& next = m_entries.front();
    if (next.first < 0) {
        m_bytes -= next.frame.size() + kEntryCost;
        socket.write(next.frame);
        m_entries.pop_front();
        return;
    }
    const QByteArray& frame = m_shared->at(next.first++);
    m_bytes -= frame.size();
    socket.write(frame);
    if (next.first == next.end) {
        m_bytes -= kEntryCost;
        m_entries.pop_front();
    }
}

void OutgoingQueue::clear()
{
    m_entries.clear();
    m_bytes = 0;
}

} // namespace brinmoor::relay
