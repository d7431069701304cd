#include "event_log.h"

#include "event_log_ring.h"

#include <algorithm>
#include <cstring>

namespace brinmoor::relay {

namespace {

// Removed entries stay in place until they are this many and half of the log.
constexpr qsizetype kCompactAfter = 1024;
constexpr qsizetype kSmallestRing = 64;

using Entry = EventLogEntry;

// An entry, and the ring's room for one more, fit in what a message is counted besides its frame.
static_assert(sizeof(Entry) * 2 <= EventLog::kEntryOverhead);

qint64 cost(const Entry& entry)
{
    return EventLog::kEntryOverhead + std::max(entry.size, 0);
}

} // namespace

void EventLogRing::push_back(Entry&& entry)
{
    if (m_count == m_capacity)
        resize(std::max(kSmallestRing, m_capacity * 2));
    at(m_count) = std::move(entry);
    ++m_count;
}

void EventLogRing::pop_front()
{
    front() = Entry();
    m_head = (m_head + 1) & (m_capacity - 1);
    --m_count;
    if (m_capacity > kSmallestRing && m_count < m_capacity / 8)
        resize(m_capacity / 2);
}

void EventLogRing::resize(qsizetype capacity)
{
    auto slots = std::make_unique<Entry[]>(size_t(capacity));
    for (qsizetype i = 0; i < m_count; ++i)
        slots[size_t(i)] = std::move(at(i));
    m_slots = std::move(slots);
    m_capacity = capacity;
    m_head = 0;
}

qsizetype EventLogRing::firstAbove(qint64 seq) const
{
    qsizetype low = 0;
    qsizetype high = m_count;
    while (low < high) {
        const qsizetype middle = low + (high - low) / 2;
        if (at(middle).seq <= seq)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

void EventLogRing::dropRemoved()
{
    qsizetype kept = 0;
    for (qsizetype i = 0; i < m_count; ++i) {
        if (at(i).size >= 0)
            at(kept++) = std::move(at(i));
    }
    for (qsizetype i = kept; i < m_count; ++i)
        at(i) = Entry();
    m_count = kept;
}

EventLog::EventLog(EventLogLimits limits) : m_limits(limits), m_entries(std::make_unique<EventLogRing>()) {}

EventLog::EventLog(EventLog&& other) noexcept = default;
EventLog& EventLog::operator=(EventLog&& other) noexcept = default;
EventLog::~EventLog() = default;

qsizetype EventLog::size() const
{
    return m_entries->size() - m_removed;
}

void EventLog::append(qint64 nowMs, qint64 seq, const QByteArray& frame, QByteArrayView terminalSession)
{
    Entry entry;
    entry.seq = seq;
    entry.time = nowMs;
    entry.size = qint32(frame.size());
    if (terminalSession.isEmpty())
        entry.start = store(frame);
    if (entry.start < 0)
        entry.aside = frame;
    else
        m_blockedBytes += entry.size;
    std::deque<qint64>* outputs = nullptr;
    if (!terminalSession.isEmpty()) {
        const QByteArray key = terminalSession.toByteArray();
        auto id = m_sessionIds.constFind(key);
        if (id == m_sessionIds.constEnd()) {
            id = m_sessionIds.insert(key, qint32(m_sessions.size()));
            m_sessions.emplace_back();
        }
        entry.session = *id;
        outputs = &m_sessions[size_t(*id)];
    }
    m_bytes += cost(entry);
    m_head = seq;
    if (m_entries->empty())
        m_oldestTime = nowMs;
    m_entries->push_back(std::move(entry));
    if (outputs) {
        outputs->push_back(seq);
        if (qsizetype(outputs->size()) > kTerminalOutputKept) {
            const qint64 oldest = outputs->front();
            outputs->pop_front();
            remove(oldest);
        }
    }
    while (!m_entries->empty() && m_bytes > m_limits.maxBytes)
        popFront();
    trimByAge(nowMs);
}

qint64 EventLog::store(const QByteArray& frame)
{
    const qsizetype size = frame.size();
    if (size > kBlockSize)
        return -1;
    qint64 position = m_blocksEnd;
    // A frame does not straddle two blocks.
    if (position % kBlockSize + size > kBlockSize)
        position += kBlockSize - position % kBlockSize;
    while (position + size > m_blocksStart + qint64(m_blocks.size()) * kBlockSize)
        m_blocks.push_back(m_spare ? std::move(m_spare) : std::unique_ptr<char[]>(new char[kBlockSize]));
    const qint64 offset = position - m_blocksStart;
    std::memcpy(m_blocks[size_t(offset / kBlockSize)].get() + offset % kBlockSize, frame.constData(), size_t(size));
    m_blocksEnd = position + size;
    return position;
}

void EventLog::releaseBlocksBefore(qint64 position)
{
    while (!m_blocks.empty() && m_blocksStart + kBlockSize <= position) {
        m_spare = std::move(m_blocks.front());
        m_blocks.pop_front();
        m_blocksStart += kBlockSize;
    }
}

void EventLog::trimByAge(qint64 nowMs)
{
    const qint64 oldestKept = nowMs - m_limits.maxAgeMs;
    while (!m_entries->empty() && m_oldestTime < oldestKept)
        popFront();
}

void EventLog::markLostThrough(qint64 seq)
{
    m_lostThrough = std::max(m_lostThrough, seq);
}

void EventLog::popFront()
{
    Entry& entry = m_entries->front();
    // A terminal output at the front is its session's oldest.
    if (entry.session >= 0) {
        std::deque<qint64>& outputs = m_sessions[size_t(entry.session)];
        if (!outputs.empty() && outputs.front() == entry.seq)
            outputs.pop_front();
    }
    m_lostThrough = std::max(m_lostThrough, entry.seq);
    if (entry.start >= 0) {
        m_blockedBytes -= entry.size;
        releaseBlocksBefore(entry.start + entry.size);
    }
    m_bytes -= cost(entry);
    m_entries->pop_front();
    while (!m_entries->empty() && m_entries->front().size < 0) {
        m_bytes -= cost(m_entries->front());
        --m_removed;
        m_entries->pop_front();
    }
    if (m_entries->empty()) {
        // Nothing left: the blocks go too, and the next message starts a new one.
        m_blocks.clear();
        m_spare.reset();
        m_blocksEnd += (kBlockSize - m_blocksEnd % kBlockSize) % kBlockSize;
        m_blocksStart = m_blocksEnd;
        return;
    }
    m_oldestTime = m_entries->front().time;
}

void EventLog::remove(qint64 seq)
{
    const qsizetype index = m_entries->firstAbove(seq - 1);
    if (index == m_entries->size() || m_entries->at(index).seq != seq || m_entries->at(index).size < 0)
        return;
    if (index == 0) {
        popFront();
        return;
    }
    // A removed output is no loss: its session's newer output is kept.
    Entry& entry = m_entries->at(index);
    m_bytes -= cost(entry);
    entry.aside = QByteArray();
    entry.size = -1;
    m_bytes += cost(entry);
    ++m_removed;
    if (m_removed > kCompactAfter && m_removed * 2 > m_entries->size()) {
        m_bytes -= m_removed * kEntryOverhead;
        m_entries->dropRemoved();
        m_removed = 0;
    }
}

qint64 EventLog::memory() const
{
    const qint64 blocks = qint64(m_blocks.size()) + (m_spare ? 1 : 0);
    return m_bytes - m_blockedBytes + blocks * kBlockSize;
}

bool EventLog::dropOldest()
{
    if (m_entries->empty())
        return false;
    popFront();
    return true;
}

QByteArray EventLog::next(qint64 after, qint64* seq) const
{
    qsizetype index = m_entries->firstAbove(after);
    while (index < m_entries->size() && m_entries->at(index).size < 0)
        ++index;
    if (index == m_entries->size())
        return QByteArray();
    const Entry& entry = m_entries->at(index);
    *seq = entry.seq;
    if (entry.start < 0)
        return entry.aside;
    const qint64 offset = entry.start - m_blocksStart;
    return QByteArray(m_blocks[size_t(offset / kBlockSize)].get() + offset % kBlockSize, entry.size);
}

} // namespace brinmoor::relay
