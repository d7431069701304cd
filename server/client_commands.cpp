#include "client_commands.h"

#include "protocol/message_types.h"
#include "relay_messages.h"

#include <QHash>
#include <QJsonDocument>

#include <initializer_list>

namespace brinmoor::relay::ClientCommands {

namespace {

namespace Types = MessageTypes;

// What a member must hold; each kind has its own words in the answer to a client that
// got it wrong.
enum class Kind {
    Id,       // a string that is not empty
    String,   // any string
    Object,   // a JSON object
    Count,    // a whole number from 0
    Position, // a whole number from 1
    Text,     // any string, asked for "as a string"
    Since,    // {"AGENT":SEQ,…}
    Decision, // "allow" or "deny"
    Card,     // an object, or null
};

enum class Presence {
    Required,
    Optional, // may be left out
    Nullable, // may be left out or null
};

struct Field {
    QLatin1String name;
    Kind kind;
    Presence presence = Presence::Required;
    bool inPayload = false; // a member of the message's "payload" rather than of the message
};

using Make = ClientCommand (*)(const QString& type, const QJsonObject& message);

// A type's members, checked in this order (the first one wrong is the one the client
// hears of), and how the command is made of a message that has them right.
struct Shape {
    QList<Field> fields;
    Make make = nullptr;
};

QJsonValue requestIdOf(const QJsonObject& message)
{
    return message.value(QStringLiteral("requestId"));
}

QString stringOf(const QJsonObject& message, const char* key)
{
    return message.value(QLatin1String(key)).toString();
}

std::optional<qint64> countOf(const QJsonValue& value)
{
    const qint64 number = wholeNumber(value);
    return number < 0 ? std::nullopt : std::optional<qint64>(number);
}

ClientCommand makeCreateTask(const QString&, const QJsonObject& message)
{
    return CreateTask{requestIdOf(message), stringOf(message, "agentId"),
                      message.value(QStringLiteral("payload")).toObject()};
}

ClientCommand makeResumeFrom(const QString&, const QJsonObject& message)
{
    return ResumeFrom{requestIdOf(message), *sinceList(message.value(QStringLiteral("since")))};
}

ClientCommand makeAcknowledgeTerminal(const QString&, const QJsonObject& message)
{
    const QJsonObject payload = message.value(QStringLiteral("payload")).toObject();
    return AcknowledgeTerminal{requestIdOf(message), stringOf(message, "agentId"), stringOf(payload, "sessionId"),
                               countOf(payload.value(QStringLiteral("offset")))};
}

ClientCommand makeAcknowledgeTask(const QString&, const QJsonObject& message)
{
    return AcknowledgeTask{requestIdOf(message), stringOf(message, "agentId"), stringOf(message, "taskId"),
                           countOf(message.value(QStringLiteral("line")))};
}

// The read's own members of `from`, those it has, to go to the agent.
QJsonObject picked(const QJsonObject& from, std::initializer_list<const char*> keys)
{
    QJsonObject payload;
    for (const char* key : keys) {
        const QJsonValue value = from.value(QLatin1String(key));
        if (!value.isUndefined())
            payload.insert(QLatin1String(key), value);
    }
    return payload;
}

ClientCommand makeAgentRead(const QString& type, const QJsonObject& message)
{
    AgentRead read{requestIdOf(message), type, stringOf(message, "agentId"), QJsonValue(QJsonValue::Undefined), {}};
    const QJsonObject payload = message.value(QStringLiteral("payload")).toObject();
    if (type == Types::TaskOutputRead) {
        read.taskId = message.value(QStringLiteral("taskId"));
        read.payload = picked(message, {"count", "from", "match"});
    } else if (type == Types::SessionsList) {
        read.payload = picked(payload, {"projectPath"});
    } else if (type == Types::SessionsRead) {
        read.payload = picked(payload, {"tool", "id", "before"});
    }
    return read;
}

ClientCommand makeForwardToAgent(const QString& type, const QJsonObject& message)
{
    return ForwardToAgent{requestIdOf(message), type, stringOf(message, "agentId"),
                          message.value(QStringLiteral("taskId")), message.value(QStringLiteral("payload"))};
}

ClientCommand makeDecidePermission(const QString&, const QJsonObject& message)
{
    return DecidePermission{requestIdOf(message), stringOf(message, "decision") == QLatin1String("allow"),
                            stringOf(message, "message"), message.value(QStringLiteral("updatedInput"))};
}

ClientCommand makeShowCard(const QString&, const QJsonObject& message)
{
    return ShowCard{requestIdOf(message), stringOf(message, "endpoint"),
                    message.value(QStringLiteral("card")).toObject()};
}

const QHash<QString, Shape>& shapes()
{
    static const QHash<QString, Shape> table = [] {
        const Field agentId{QLatin1String("agentId"), Kind::Id};
        const Field payload{QLatin1String("payload"), Kind::Object};
        QHash<QString, Shape> shapes{
            {Types::TaskCreate, {{agentId, payload}, makeCreateTask}},
            {Types::ClientResume, {{{QLatin1String("since"), Kind::Since}}, makeResumeFrom}},
            {Types::TerminalAck,
             {{agentId,
               payload,
               {QLatin1String("sessionId"), Kind::Id, Presence::Required, true},
               {QLatin1String("offset"), Kind::Count, Presence::Nullable, true}},
              makeAcknowledgeTerminal}},
            {Types::TaskAck,
             {{agentId, {QLatin1String("taskId"), Kind::Id}, {QLatin1String("line"), Kind::Count, Presence::Nullable}},
              makeAcknowledgeTask}},
            {Types::TaskOutputRead,
             {{agentId,
               {QLatin1String("taskId"), Kind::String},
               {QLatin1String("count"), Kind::Count},
               {QLatin1String("from"), Kind::Position, Presence::Optional},
               {QLatin1String("match"), Kind::Text, Presence::Optional}},
              makeAgentRead}},
            {Types::TasksList, {{agentId}, makeAgentRead}},
            {Types::SessionsList,
             {{agentId, payload, {QLatin1String("projectPath"), Kind::String, Presence::Required, true}},
              makeAgentRead}},
            {Types::SessionsRead,
             {{agentId,
               payload,
               {QLatin1String("tool"), Kind::Id, Presence::Required, true},
               {QLatin1String("id"), Kind::Id, Presence::Required, true},
               {QLatin1String("before"), Kind::Count, Presence::Optional, true}},
              makeAgentRead}},
            {Types::PermissionDecision,
             {{{QLatin1String("requestId"), Kind::String}, {QLatin1String("decision"), Kind::Decision}},
              makeDecidePermission}},
            {Types::ClientViewing,
             {{{QLatin1String("endpoint"), Kind::String}, {QLatin1String("card"), Kind::Card}}, makeShowCard}},
        };
        // What goes to the agent as it is: a task's commands name the task.
        for (const QString& type : Types::agentCommands()) {
            Shape shape{{agentId}, makeForwardToAgent};
            if (type.startsWith(QLatin1String("task.")))
                shape.fields.append({QLatin1String("taskId"), Kind::String});
            shape.fields.append({QLatin1String("payload"), Kind::Object, Presence::Optional});
            shapes.insert(type, shape);
        }
        return shapes;
    }();
    return table;
}

bool holds(const QJsonValue& value, Kind kind)
{
    switch (kind) {
    case Kind::Id: return !value.toString().isEmpty();
    case Kind::String:
    case Kind::Text: return value.isString();
    case Kind::Object: return value.isObject();
    case Kind::Count: return wholeNumber(value) >= 0;
    case Kind::Position: return wholeNumber(value) >= 1;
    case Kind::Since: return sinceList(value).has_value();
    case Kind::Decision: return value.toString() == QLatin1String("allow") || value.toString() == QLatin1String("deny");
    case Kind::Card: return value.isObject() || value.isNull();
    }
    return false;
}

QString problem(const QString& type, const Field& field)
{
    const QString name = field.name;
    switch (field.kind) {
    case Kind::Id:
    case Kind::String: return QStringLiteral("%1 needs a string \"%2\"").arg(type, name);
    case Kind::Object: return QStringLiteral("%1 needs an object \"%2\"").arg(type, name);
    case Kind::Count: return QStringLiteral("%1 needs \"%2\" as a whole number").arg(type, name);
    case Kind::Position: return QStringLiteral("%1 needs \"%2\" as a whole number from 1").arg(type, name);
    case Kind::Text: return QStringLiteral("%1 needs \"%2\" as a string").arg(type, name);
    case Kind::Since: return QStringLiteral("%1 needs an object \"%2\" of agent ids and seqs").arg(type, name);
    case Kind::Decision: return QStringLiteral("%1 needs \"%2\" \"allow\" or \"deny\"").arg(type, name);
    case Kind::Card: return QStringLiteral("%1 needs \"%2\" as an object or null").arg(type, name);
    }
    return {};
}

// The first member the message has wrong; none when it has them all right.
const Field* firstWrong(const QJsonObject& message, const Shape& shape)
{
    const QJsonObject payload = message.value(QStringLiteral("payload")).toObject();
    for (const Field& field : shape.fields) {
        const QJsonValue value = (field.inPayload ? payload : message).value(field.name);
        if (value.isUndefined() && field.presence != Presence::Required)
            continue;
        if (value.isNull() && field.presence == Presence::Nullable)
            continue;
        if (!holds(value, field.kind))
            return &field;
    }
    return nullptr;
}

CommandRefusal badRequest(const QString& text, const QJsonValue& requestId)
{
    return CommandRefusal{QStringLiteral("BAD_REQUEST"), text, requestId};
}

} // namespace

std::optional<QList<QPair<QString, qint64>>> sinceList(const QJsonValue& value)
{
    if (!value.isObject())
        return std::nullopt;
    QList<QPair<QString, qint64>> since;
    const QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const qint64 seq = wholeNumber(it.value());
        if (it.key().isEmpty() || seq < 0)
            return std::nullopt;
        since.append({it.key(), seq});
    }
    return since;
}

std::variant<ClientCommand, CommandRefusal> decode(QByteArrayView payload)
{
    const QJsonDocument document = QJsonDocument::fromJson(payload.toByteArray());
    if (!document.isObject())
        return badRequest(QStringLiteral("messages must be JSON objects"), QJsonValue());
    const QJsonObject message = document.object();
    const QString type = stringOf(message, "type");
    if (type.isEmpty())
        return badRequest(QStringLiteral("a message needs a string \"type\""), requestIdOf(message));
    const auto shape = shapes().constFind(type);
    if (shape == shapes().constEnd())
        return CommandRefusal{QStringLiteral("UNKNOWN_TYPE"), QStringLiteral("unknown message type: ") + type,
                              requestIdOf(message)};
    if (const Field* wrong = firstWrong(message, *shape))
        return badRequest(problem(type, *wrong), requestIdOf(message));
    return shape->make(type, message);
}

} // namespace brinmoor::relay::ClientCommands
