#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QPair>
#include <QString>

#include <optional>
#include <variant>

namespace brinmoor::relay {

// What a client sends the relay, each decoded once from its JSON into one of these and
// checked against the shape its type has (see client_commands.cpp). `requestId` is the
// message's own, of whatever kind: only a string one is echoed.

// "task.create": a task for the agent, now or once it is free.
struct CreateTask {
    QJsonValue requestId;
    QString agentId;
    QJsonObject payload;
};

// "client.resume": what the client has seen of each agent.
struct ResumeFrom {
    QJsonValue requestId;
    QList<QPair<QString, qint64>> since;
};

// "terminal.ack": the offset of a session's output the client has rendered; none when
// it stops pacing the session.
struct AcknowledgeTerminal {
    QJsonValue requestId;
    QString agentId;
    QString sessionId;
    std::optional<qint64> offset;
};

// "task.ack": the line of a task's output the client has taken; none when it stops
// pacing the task.
struct AcknowledgeTask {
    QJsonValue requestId;
    QString agentId;
    QString taskId;
    std::optional<qint64> line;
};

// A read of what the agent keeps or finds, answered to this client alone:
// "task.output.read" and "tasks.list" (its tasks' kept output), "sessions.list" and
// "sessions.read" (the coding assistants' sessions). It goes to the agent as `type` with
// `taskId` and `payload`, the values as the client wrote them, and the relay's "readId"
// added to the payload.
struct AgentRead {
    QJsonValue requestId;
    QString type;
    QString agentId;
    QJsonValue taskId; // undefined but for "task.output.read"
    QJsonObject payload;
};

// A command the relay hands the agent as it is ("task.cancel", the terminal commands, …).
struct ForwardToAgent {
    QJsonValue requestId;
    QString type;
    QString agentId;
    QJsonValue taskId;
    QJsonValue payload; // undefined when the client sent none
};

// "permission.decision": the answer to a tool's request for approval.
struct DecidePermission {
    QJsonValue requestId;
    bool allow = false;
    QString message;
    QJsonValue updatedInput;
};

// "client.viewing": the card the client shows (`{"requestId"}` or `{"taskId"}`; empty for
// none) on the device whose push endpoint that is.
struct ShowCard {
    QJsonValue requestId;
    QString endpoint;
    QJsonObject card;
};

using ClientCommand = std::variant<CreateTask, ResumeFrom, AcknowledgeTerminal, AcknowledgeTask, AgentRead,
                                   ForwardToAgent, DecidePermission, ShowCard>;

// Why a message was not taken: what the client is answered with an "error".
struct CommandRefusal {
    QString code; // "BAD_REQUEST" or "UNKNOWN_TYPE"
    QString message;
    QJsonValue requestId;
};

namespace ClientCommands {

std::variant<ClientCommand, CommandRefusal> decode(QByteArrayView payload);

// What a client has seen, {"AGENT":SEQ,…}; none when the value is not such an object.
std::optional<QList<QPair<QString, qint64>>> sinceList(const QJsonValue& value);

} // namespace ClientCommands

} // namespace brinmoor::relay
