#include "protocol/agent_command.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

namespace brinmoor {

namespace {

std::optional<AgentCommand> fail(QString* error, const QString& reason)
{
    if (error)
        *error = reason;
    return std::nullopt;
}

} // namespace

std::optional<AgentCommand> AgentCommand::decode(const QByteArray& data, QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(data, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(error, QStringLiteral("frame is not valid JSON: ") + parseError.errorString());
    if (!document.isObject())
        return fail(error, QStringLiteral("frame is not a JSON object"));
    const QJsonObject object = document.object();

    AgentCommand command;
    const QJsonValue type = object.value(QLatin1String("type"));
    if (!type.isString())
        return fail(error, QStringLiteral("frame has no string \"type\""));
    command.type = type.toString();

    const QJsonValue taskId = object.value(QLatin1String("taskId"));
    if (taskId.isString())
        command.taskId = taskId.toString();
    else if (!taskId.isUndefined() && !taskId.isNull())
        return fail(error, QStringLiteral("frame has a \"taskId\" that is not a string"));

    const QJsonValue payload = object.value(QLatin1String("payload"));
    if (payload.isObject()) {
        std::optional<JSONValue> decoded = JSONValue::decode(payload);
        if (!decoded)
            return fail(error, QStringLiteral("frame has an unreadable \"payload\""));
        command.payload = decoded->objectValue();
    } else if (!payload.isUndefined() && !payload.isNull()) {
        return fail(error, QStringLiteral("frame has a \"payload\" that is not an object"));
    }
    return command;
}

const JSONValue* AgentCommand::member(const QString& key) const
{
    if (!payload)
        return nullptr;
    const auto it = payload->constFind(key);
    return it == payload->cend() ? nullptr : &it.value();
}

std::optional<QString> AgentCommand::stringMember(const QString& key) const
{
    const JSONValue* value = member(key);
    return value ? value->stringValue() : std::nullopt;
}

std::optional<qint64> AgentCommand::intMember(const QString& key) const
{
    const JSONValue* value = member(key);
    return value ? value->intValue() : std::nullopt;
}

std::optional<QString> AgentCommand::outOfRangeMember(const QStringList& keys) const
{
    for (const QString& key : keys) {
        const JSONValue* value = member(key);
        if (value && value->isOutOfRange())
            return key + QStringLiteral(" is out of range: ") + value->numberText();
    }
    return std::nullopt;
}

} // namespace brinmoor
