#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>

#include <deque>
#include <functional>

namespace brinmoor::relay {

// How much of an agent's recent traffic the relay keeps for clients that come back.
struct EventLogLimits {
    qint64 maxBytes = 64 * 1024 * 1024;
    qint64 maxAgeMs = 24LL * 3600 * 1000;
};

// The recent messages of one agent as they were relayed (whole frames, "seq" included),
// oldest first, for clients that come back. It is bounded by bytes and by age; of each
// terminal session's output only the newest messages are kept, as many as the agent
// itself replays when a client attaches. What it lets go is remembered as a number:
// every message up to `lostThrough` may have existed and is no longer here.
class EventLog {
public:
    // The agent replays the newest 128 reads of a terminal; the log keeps as many.
    static constexpr int kTerminalOutputKept = 128;
    // What one message costs besides its frame.
    static constexpr qint64 kEntryOverhead = 64;

    EventLog(EventLogLimits limits, std::function<qint64()> clockMs);

    // Appends a message; seq must be above every one appended before. `terminalSession`
    // names the session of a "terminal.output" and is empty for other messages.
    void append(qint64 seq, const QByteArray& frame, QByteArrayView terminalSession = {});
    // Lets go of what has grown older than the age limit.
    void trimByAge();

    // The newest seq appended; 0 before any.
    qint64 headSeq() const { return m_head; }
    // Messages up to this seq may have existed and are not here; 0 when nothing is missing.
    qint64 lostThrough() const { return m_lostThrough; }
    void markLostThrough(qint64 seq);
    // The oldest kept message after `after`: its frame, with its seq in `seq`; null
    // when there is none.
    const QByteArray* next(qint64 after, qint64* seq) const;

    // The memory the kept messages take, overhead included.
    qint64 bytes() const { return m_bytes; }
    // Kept messages.
    qsizetype size() const { return qsizetype(m_entries.size()) - m_removed; }

private:
    struct Entry {
        qint64 seq = 0;
        qint64 time = 0;
        QByteArray frame;
        QByteArray session; // of a terminal output
        bool removed = false;
    };

    void popFront();
    // Lets go of a terminal output in the middle of the log.
    void remove(qint64 seq);
    void compact();
    qint64 cost(const Entry& entry) const;

    EventLogLimits m_limits;
    std::function<qint64()> m_clock;
    std::deque<Entry> m_entries;
    // Seqs of each terminal session's kept output, oldest first.
    QHash<QByteArray, std::deque<qint64>> m_outputs;
    qint64 m_head = 0;
    qint64 m_lostThrough = 0;
    qint64 m_bytes = 0;
    qsizetype m_removed = 0; // entries let go in the middle, not yet compacted away
};

} // namespace brinmoor::relay
