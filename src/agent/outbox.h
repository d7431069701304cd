#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <deque>
#include <functional>

namespace brinmoor {

// Everything the agent says to the server goes through here. What it does with a
// message depends on what the server of the connection has said it is:
// - a server that knows only the agent protocol (plain): each message is written once,
//   nothing is kept, and what is said while no socket is open is dropped;
// - our relay, which numbers messages and confirms them ("agent.ack"): each message gets
//   its seq when it is written and stays until the server confirms it (the newest
//   confirmed ones a while longer, for a server that is restarted and loses them), and
//   what is said while no server listens waits; the next such server hears
//   "agent.stream", then every message it lacks, in order.
// Until a new connection's server has said which it is, what the agent says waits.
//
// Waiting is bounded per task: when one task's kept messages take more than 16 MiB,
// the oldest of its "task.log" lines that are still to be sent give way to one line that
// says how many were dropped. Terminal output said while no server listens is not kept:
// each session's replay keeps it for an attach.
// The written messages a server has not confirmed, and the newest of those it has, as
// UTF-8 text in blocks of 64 KiB: a message takes its own bytes and four more, and no
// allocation of its own; a block goes when its last message is let go. The confirmed
// ones are kept for a server that has lost them (one that was restarted says in its
// hello that it has less than it confirmed) and go once they take more than a bound.
class WrittenMessages {
public:
    static constexpr qsizetype kBlockBytes = 64 * 1024;

    explicit WrittenMessages(qint64 confirmedKept) : m_confirmedKept(confirmedKept) {}

    void append(qint64 seq, QStringView text);
    // The server has every message up to `seq`.
    void confirm(qint64 seq);
    // Lets the oldest message go (an unconfirmed one is taken to have arrived).
    void dropOldest();
    void clear();
    bool isEmpty() const { return m_sizes.empty(); }
    // The messages not confirmed, and the memory they take.
    qsizetype unconfirmedCount() const { return qsizetype(m_sizes.size()) - m_confirmedCount; }
    qint64 unconfirmedBytes() const { return m_bytes - m_confirmedBytes; }
    // Every message kept, confirmed or not.
    qsizetype count() const { return qsizetype(m_sizes.size()); }
    qint64 bytes() const { return m_bytes; }
    // The seq of the oldest message kept, and of the newest.
    qint64 firstSeq() const { return m_firstSeq; }
    qint64 lastSeq() const { return m_firstSeq + qint64(m_sizes.size()) - 1; }
    // Each message from seq `from` on, oldest first.
    void forEachFrom(qint64 from, const std::function<void(const QString&)>& visit) const;

private:
    qint64 m_confirmedKept;
    std::deque<QByteArray> m_blocks; // a message never spans two
    qsizetype m_begin = 0;           // where the oldest message starts in the first block
    std::deque<qint32> m_sizes;
    qint64 m_bytes = 0;
    qint64 m_firstSeq = 0;
    qsizetype m_confirmedCount = 0; // the oldest messages that are confirmed
    qint64 m_confirmedBytes = 0;
};

class Outbox {
public:
    static constexpr qint64 kTaskBytes = 16 * 1024 * 1024;
    // Written messages a server does not confirm are kept up to this much; the oldest are
    // taken to have arrived. The agent stops reading output long before (see
    // unconfirmedBytes), so only a server that stops confirming gets here.
    static constexpr qint64 kUnconfirmedBytes = 16 * 1024 * 1024;
    // How far the agent's output may run ahead of what a server that confirms has
    // confirmed before the agent stops reading it (see OutgoingFlow): the memory the
    // kept copy takes, and on loopback still about 100 MB/s of task output.
    static constexpr qint64 kUnconfirmedWindowBytes = 1024 * 1024;
    // Confirmed messages kept for a server that loses what it had confirmed (it was
    // restarted): the newest ones, up to this much, go to it again.
    static constexpr qint64 kConfirmedKeptBytes = 1024 * 1024;

    enum class Kind { Other, TaskLog, TerminalOutput };
    using Writer = std::function<void(const QString&)>;

    // `firstSeq` is the seq of the agent's first message.
    explicit Outbox(qint64 firstSeq);

    // A serialised message, of a task (its id) or not.
    void add(const QString& text, const QString& taskId = {}, Kind kind = Kind::Other);
    // A socket is open and its server has not said what it is: what is said waits.
    void wait();
    // The server numbers messages and has the agent's messages up to `serverHas` (0:
    // none): writes "agent.stream", what the server lacks (confirmed messages it lost
    // too, as far as they are kept), and from now on every message at once. With `confirms` the messages are kept until confirmed, and what is said
    // while no server listens waits for the next one.
    void open(qint64 serverHas, Writer writer, bool confirms = true);
    // The server knows only the agent protocol: what was said since the socket opened
    // goes out, what waited from before is dropped, and from now on every message is
    // written once and not kept.
    void openPlain(Writer writer);
    // No socket.
    void close();
    // Whether messages go out at once.
    bool isOpen() const { return m_state == State::Numbered || m_state == State::Plain; }
    // Whether the last server that said what it is keeps messages until they are
    // confirmed (so what is said while no socket is open waits for the next one).
    bool keeps() const { return m_keep; }
    // The server has every message up to `seq`.
    void acknowledge(qint64 seq);

    qint64 firstSeq() const { return m_firstSeq; }
    qint64 nextSeq() const { return m_nextSeq; }
    qsizetype unsentCount() const;
    qsizetype unconfirmedCount() const { return m_written.unconfirmedCount(); }
    // The memory the written, unconfirmed messages take (their UTF-8).
    qint64 unconfirmedBytes() const { return m_written.unconfirmedBytes(); }
    // The memory the confirmed ones kept for a server that loses them take.
    qint64 confirmedKeptBytes() const { return m_written.bytes() - m_written.unconfirmedBytes(); }
    // The memory the messages of a task that wait for a server take.
    qint64 taskBytes(const QString& taskId) const;

    // The line that stands for `count` dropped lines of a task.
    static QString droppedLinesText(qint64 count);

private:
    enum class State { Closed, Waiting, Numbered, Plain };
    struct Entry {
        QString text;
        QString taskId;
        Kind kind = Kind::Other;
        bool dropped = false;
        bool saidWhileOpen = false; // said while a socket was open, waiting for its server
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
    // Numbers and writes a message, keeping it for a server that confirms.
    void write(const QString& text);
    void keepWithinBound(const QString& taskId);
    // Takes the oldest unsent entry out, forgetting its share; false for a dropped one.
    bool takeUnsent(Entry& entry);
    // An entry no longer counts in its task's share.
    void forget(const Entry& entry);

    State m_state = State::Closed;
    bool m_keep = true;
    Writer m_write;
    qint64 m_firstSeq;
    qint64 m_nextSeq;
    WrittenMessages m_written{kConfirmedKeptBytes};
    std::deque<Entry> m_unsent; // oldest first; an entry's id is its place in the sequence of adds
    quint64 m_unsentBase = 0;   // the id of m_unsent's front
    qsizetype m_droppedCount = 0;
    QHash<QString, TaskShare> m_tasks;
};

} // namespace brinmoor
