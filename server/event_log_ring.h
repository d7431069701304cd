#pragma once

// The inside of EventLog: its entries and the ring that holds them. Only event_log.cpp
// includes this.

#include <QByteArray>

#include <memory>

namespace brinmoor::relay {

// One kept message of the log.
struct EventLogEntry {
    qint64 seq = 0;
    qint64 time = 0;
    qint64 start = -1;   // where its frame starts in the blocks; -1 when kept aside
    qint32 size = 0;     // of its frame; -1 once it is removed
    qint32 session = -1; // of a terminal output, an index into the log's sessions
    QByteArray aside;    // the frame of a terminal output or of one too big for a block
};

// The entries, oldest first, in a ring that doubles when full and halves when mostly
// empty: letting the front go allocates and frees nothing.
class EventLogRing {
public:
    using Entry = EventLogEntry;

    bool empty() const { return m_count == 0; }
    qsizetype size() const { return m_count; }
    Entry& at(qsizetype i) { return m_slots[size_t((m_head + i) & (m_capacity - 1))]; }
    const Entry& at(qsizetype i) const { return m_slots[size_t((m_head + i) & (m_capacity - 1))]; }
    Entry& front() { return at(0); }
    Entry& back() { return at(m_count - 1); }
    void push_back(Entry&& entry);
    void pop_front();
    // The index of the first entry whose seq is above `seq` (or `size()`).
    qsizetype firstAbove(qint64 seq) const;
    // Keeps only the entries not removed.
    void dropRemoved();

private:
    void resize(qsizetype capacity);

    std::unique_ptr<Entry[]> m_slots;
    qsizetype m_capacity = 0; // a power of two
    qsizetype m_head = 0;
    qsizetype m_count = 0;
};

} // namespace brinmoor::relay
