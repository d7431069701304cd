#pragma once

#include <QHash>
#include <QString>

#include <deque>
#include <functional>

namespace brinmoor {

// Everything the agent says to the server goes through here, so that nothing is lost
// when the connection is: each message gets its seq when it is written, and stays until
// the server confirms it ("agent.ack"); what is said while no server listens waits. When
// a server listens again it hears "agent.stream", then every message it lacks, in order.
//
// Waiting is bounded per task: when one task's kept messages take more than 16 MiB,
// the oldest of its "task.log" lines that are still to be sent give way to one line that
// says how many were dropped. Terminal output said while no server listens is not kept:
// each session's replay keeps it for an attach.
class Outbox {
public:
    static constexpr qint64 kTaskBytes = 16 * 1024 * 1024;
    // Written messages the server never confirms (a server that does not) are kept up
    // to this much; the oldest are taken to have arrived.
    static constexpr qint64 kUnconfirmedBytes = 16 * 1024 * 1024;

    enum class Kind { Other, TaskLog, TerminalOutput };

    // `firstSeq` is the seq of the agent's first message.
    explicit Outbox(qint64 firstSeq);

    // A serialised message, of a task (its id) or not.
    void add(const QString& text, const QString& taskId = {}, Kind kind = Kind::Other);
    // A server listens, and has the agent's messages up to `serverHas` (0: none): writes
    // "agent.stream", what the server lacks, and from now on every message at once.
    void open(qint64 serverHas, std::function<void(const QString&)> writer);
    void close();
    bool isOpen() const { return bool(m_write); }
    // The server has every message up to `seq`.
    void acknowledge(qint64 seq);

    qint64 firstSeq() const { return m_firstSeq; }
    qint64 nextSeq() const { return m_nextSeq; }
    qsizetype unsentCount() const;
    qsizetype unconfirmedCount() const { return qsizetype(m_unconfirmed.size()); }
    // The memory the kept messages of a task take.
    qint64 taskBytes(const QString& taskId) const;

    // The line that stands for `count` dropped lines of a task.
    static QString droppedLinesText(qint64 count);

private:
    struct Entry {
        QString text;
        QString taskId;
        Kind kind = Kind::Other;
        qint64 seq = 0;
        bool dropped = false;
    };
    // A task's share of what is kept.
    struct TaskShare {
        qint64 bytes = 0;
        std::deque<quint64> lines; // ids of its task log lines still to be sent, oldest first
        quint64 notice = 0;        // id + 1 of its dropped-lines notice still to be sent
        qint64 dropped = 0;        // lines the notice stands for
    };

    static qint64 size(const Entry& entry) { return entry.text.size() * qint64(sizeof(QChar)); }
    Entry& unsent(quint64 id) { return m_unsent[size_t(id - m_unsentBase)]; }
    void write(Entry entry);
    void keepWithinBound(const QString& taskId);
    void release(const Entry& entry);

    std::function<void(const QString&)> m_write;
    qint64 m_firstSeq;
    qint64 m_nextSeq;
    std::deque<Entry> m_unconfirmed; // written, oldest first
    qint64 m_unconfirmedBytes = 0;
    std::deque<Entry> m_unsent; // oldest first; an entry's id is its place in the sequence of adds
    quint64 m_unsentBase = 0;   // the id of m_unsent's front
    qsizetype m_droppedCount = 0;
    QHash<QString, TaskShare> m_tasks;
};

} // namespace brinmoor
