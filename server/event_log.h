#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QHash>

#include <deque>
#include <memory>
#include <vector>

namespace brinmoor::relay {

class EventLogRing;

// How much of an agent's recent traffic the relay keeps for clients that come back.
struct EventLogLimits {
    qint64 maxBytes = 32 * 1024 * 1024; // each agent's log
    qint64 maxAgeMs = 24LL * 3600 * 1000;
    qint64 maxTotalBytes = 32 * 1024 * 1024; // all of them together (see EventLog::memory)
};

// The recent messages of one agent as they were relayed (whole frames, "seq" included),
// oldest first, for clients that come back. It is bounded by bytes and by age; of each
// terminal session's output only the newest messages are kept, as many as the agent
// itself replays when a client attaches. What it lets go is remembered as a number:
// every message up to `lostThrough` may have existed and is no longer here.
//
// Most messages are copied into large blocks that go whole once their messages have
// aged out, so that keeping a message costs no allocation of its own and letting it go
// touches nothing but the log; terminal output, which goes from the middle, and frames
// too big for a block are kept as they are.
class EventLog {
public:
    // The agent replays the newest 128 reads of a terminal; the log keeps as many.
    static constexpr int kTerminalOutputKept = 128;
    // What one message costs besides its frame: its entry, and the ring's room for one more.
    static constexpr qint64 kEntryOverhead = 112;
    static constexpr qsizetype kBlockSize = 256 * 1024;

    explicit EventLog(EventLogLimits limits);
    EventLog(EventLog&& other) noexcept;
    EventLog& operator=(EventLog&& other) noexcept;
    ~EventLog();

    // Appends a message at time `nowMs` (of the caller's clock); seq must be above every
    // one appended before. `terminalSession` names the session of a "terminal.output"
    // and is empty for other messages.
    void append(qint64 nowMs, qint64 seq, const QByteArray& frame, QByteArrayView terminalSession = {});
    // Lets go of what has grown older than the age limit by `nowMs`.
    void trimByAge(qint64 nowMs);

    // The newest seq appended; 0 before any.
    qint64 headSeq() const { return m_head; }
    // Messages up to this seq may have existed and are not here; 0 when nothing is missing.
    qint64 lostThrough() const { return m_lostThrough; }
    void markLostThrough(qint64 seq);
    // The oldest kept message after `after`: its frame, with its seq in `seq`; empty
    // when there is none.
    QByteArray next(qint64 after, qint64* seq) const;

    // The memory the kept messages take, overhead included (the last block may hold up
    // to kBlockSize more).
    qint64 bytes() const { return m_bytes; }
    // Kept messages.
    qsizetype size() const;
    // The memory the log holds: its messages as bytes() counts them, and the room left in
    // its blocks and its spare block.
    qint64 memory() const;
    // Lets go of the oldest message (others need the room); false when there is none.
    bool dropOldest();

private:
    void popFront();
    // Lets go of a terminal output in the middle of the log.
    void remove(qint64 seq);
    void compact();
    // Copies a frame into the blocks; where it starts.
    qint64 store(const QByteArray& frame);
    // Lets the blocks go that end before `position`.
    void releaseBlocksBefore(qint64 position);

    EventLogLimits m_limits;
    // The entries, oldest first (event_log_ring.h).
    std::unique_ptr<EventLogRing> m_entries;
    // The terminal sessions, by the raw JSON text of their id, and the seqs of each one's
    // kept output, oldest first.
    QHash<QByteArray, qint32> m_sessionIds;
    std::vector<std::deque<qint64>> m_sessions;
    std::deque<std::unique_ptr<char[]>> m_blocks;
    std::unique_ptr<char[]> m_spare; // a block let go, for the next one needed
    qint64 m_blocksStart = 0;        // the position of the first block's first byte
    qint64 m_blocksEnd = 0;          // the position after the last byte stored
    qint64 m_oldestTime = 0;         // of the front entry
    qint64 m_head = 0;
    qint64 m_lostThrough = 0;
    qint64 m_bytes = 0;
    qint64 m_blockedBytes = 0; // of the kept frames that are in the blocks
    qsizetype m_removed = 0;   // entries let go in the middle, not yet compacted away
};

} // namespace brinmoor::relay
