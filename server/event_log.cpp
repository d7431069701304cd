#include "event_log.h"

#include <algorithm>

namespace brinmoor::relay {

namespace {

// Removed entries stay in place until they are this many and half of the log.
constexpr qsizetype kCompactAfter = 1024;

} // namespace

EventLog::EventLog(EventLogLimits limits, std::function<qint64()> clockMs)
    : m_limits(limits), m_clock(std::move(clockMs))
{
}

qint64 EventLog::cost(const Entry& entry) const
{
    return kEntryOverhead + entry.frame.size() + entry.session.size();
}

void EventLog::append(qint64 seq, const QByteArray& frame, QByteArrayView terminalSession)
{
    Entry entry;
    entry.seq = seq;
    entry.time = m_clock();
    entry.frame = frame;
    entry.session = terminalSession.toByteArray();
    m_bytes += cost(entry);
    m_head = seq;
    m_entries.push_back(std::move(entry));
    if (!terminalSession.isEmpty()) {
        std::deque<qint64>& outputs = m_outputs[m_entries.back().session];
        outputs.push_back(seq);
        if (qsizetype(outputs.size()) > kTerminalOutputKept) {
            const qint64 oldest = outputs.front();
            outputs.pop_front();
            remove(oldest);
        }
    }
    while (!m_entries.empty() && (m_bytes > m_limits.maxBytes || m_entries.front().removed))
        popFront();
    trimByAge();
}

void EventLog::trimByAge()
{
    const qint64 oldestKept = m_clock() - m_limits.maxAgeMs;
    while (!m_entries.empty() && (m_entries.front().time < oldestKept || m_entries.front().removed))
        popFront();
}

void EventLog::markLostThrough(qint64 seq)
{
    m_lostThrough = std::max(m_lostThrough, seq);
}

void EventLog::popFront()
{
    Entry& entry = m_entries.front();
    if (entry.removed) {
        --m_removed;
    } else {
        // A terminal output at the front is its session's oldest.
        if (!entry.session.isEmpty()) {
            const auto outputs = m_outputs.find(entry.session);
            if (outputs != m_outputs.end()) {
                outputs->pop_front();
                if (outputs->empty())
                    m_outputs.erase(outputs);
            }
        }
        m_lostThrough = std::max(m_lostThrough, entry.seq);
    }
    m_bytes -= cost(entry);
    m_entries.pop_front();
}

void EventLog::remove(qint64 seq)
{
    const auto it = std::lower_bound(m_entries.begin(), m_entries.end(), seq,
                                     [](const Entry& entry, qint64 value) { return entry.seq < value; });
    if (it == m_entries.end() || it->seq != seq || it->removed)
        return;
    m_bytes -= cost(*it);
    it->frame = QByteArray();
    it->session = QByteArray();
    it->removed = true;
    m_bytes += cost(*it);
    ++m_removed;
    if (m_removed > kCompactAfter && m_removed * 2 > qsizetype(m_entries.size()))
        compact();
}

void EventLog::compact()
{
    const auto removed = std::remove_if(m_entries.begin(), m_entries.end(), [](const Entry& e) { return e.removed; });
    m_bytes -= qint64(std::distance(removed, m_entries.end())) * kEntryOverhead;
    m_entries.erase(removed, m_entries.end());
    m_removed = 0;
}

const QByteArray* EventLog::next(qint64 after, qint64* seq) const
{
    auto it = std::upper_bound(m_entries.begin(), m_entries.end(), after,
                               [](qint64 value, const Entry& entry) { return value < entry.seq; });
    while (it != m_entries.end() && it->removed)
        ++it;
    if (it == m_entries.end())
        return nullptr;
    *seq = it->seq;
    return &it->frame;
}

} // namespace brinmoor::relay
