#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

namespace brinmoor::relay {

class EventLog;

// The messages of one agent's connection as the relay numbers and relays them. Until the
// agent says whether it numbers its messages ("agent.stream") or its pong says it will
// not, what it says is held (the prelude). Each message then has a seq, the agent's or
// one the relay makes, is confirmed to the agent ("agent.ack"), and is relayed as
// {"agentId":"ID","seq":N, spliced in front of the agent's own bytes.
class AgentStream {
public:
    // Messages an agent sends in bulk; relayed without being parsed.
    enum class Bulk { None, TaskLog, TerminalOutput };

    // One message as the relay reads it: only what it must look at is parsed.
    struct Reading {
        QByteArrayView body; // the message without surrounding white space
        bool isObject = false;
        Bulk bulk = Bulk::None;
        bool parsed = false;                // it had to be parsed (it may not have been JSON)
        std::optional<QJsonObject> message; // parsed, an object with a string "type"
        bool announces = false;             // "agent.stream"
    };
    static Reading read(QByteArrayView payload);

    // What came of an "agent.stream".
    enum class Announcement {
        Started,    // the agent numbers its messages from now on
        Ignored,    // the relay numbers them already
        OutOfRange, // its seqs could reach 2^53: the agent is to be let go
        Invalid,
    };

    AgentStream() = default;
    explicit AgentStream(const QString& agentId);

    // Until the agent's pong or "agent.stream", a message is held; true when this one was.
    // An "agent.stream" ends the prelude: what was held comes again, numbered.
    bool hold(const Reading& reading, QByteArrayView payload);
    // Whether the prelude must end before this message: an agent that says many and never
    // answers the ping does not number them either.
    bool preludeFull(const Reading& reading) const;
    bool learning() const { return m_learning; }
    // Ends the prelude (the agent does not number its messages); what it held, to number.
    QList<QByteArray> endPrelude();

    Announcement announce(const QJsonObject& message, EventLog& log, bool numbered);
    bool numbering() const { return m_nextSeq != 0; }
    // Numbers the messages of an agent that does not, from a number above every seq the
    // relay has given it before.
    void numberHere(EventLog& log, bool numbered);
    // The seq of the message read now.
    qint64 take() { return m_nextSeq++; }
    // A message sent again after a reconnect: the relay has it.
    bool repeats(qint64 seq) const { return seq <= m_skipThrough; }
    // The seq to confirm to the agent, once for all the messages read at once; none when
    // it has been confirmed already.
    std::optional<qint64> confirm();
    // Whether a confirmation is due; true once until confirm().
    bool scheduleConfirm();

    // The frame that relays `message` (an object) with its seq.
    QByteArray frame(qint64 seq, QByteArrayView message) const;
    // The raw JSON text of a bulk message's "sessionId" or "taskId" (escapes kept).
    static QByteArrayView sessionOf(QByteArrayView message);
    static QByteArrayView taskOf(QByteArrayView message);

private:
    // The seq of a connection's first message: the one the agent announces, or one the
    // relay makes for an agent that does not.
    void start(EventLog& log, bool numbered, qint64 first, qint64 next);

    QByteArray m_prefix;      // {"agentId":"…","seq": the start of every message relayed from it
    qint64 m_nextSeq = 0;     // the seq of the connection's next message; 0 before its first
    qint64 m_skipThrough = 0; // messages up to this seq the relay has already
    qint64 m_acked = 0;       // the seq last confirmed to the agent
    bool m_confirmScheduled = false;
    bool m_learning = true;
    QList<QByteArray> m_prelude;
};

} // namespace brinmoor::relay
