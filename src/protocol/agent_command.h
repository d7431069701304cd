#pragma once

#include "protocol/json_value.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace brinmoor {

// One decoded frame from the server: its "type", the optional top-level "taskId"
// and the optional "payload" object.
struct AgentCommand {
    QString type;
    std::optional<QString> taskId;
    std::optional<JSONValue::Object> payload;

    // Decodes a frame. A frame that is not a JSON object, has no string "type", or
    // has a "taskId" or "payload" of the wrong kind fails, with the reason in `error`.
    static std::optional<AgentCommand> decode(const QByteArray& data, QString* error = nullptr);

    // A payload member; null when the payload or the member is absent.
    const JSONValue* member(const QString& key) const;
    // A payload member that is a string; absent for any other kind.
    std::optional<QString> stringMember(const QString& key) const;
    // A payload member read with `JSONValue::intValue`.
    std::optional<qint64> intMember(const QString& key) const;
    // "KEY is out of range: VALUE" for the first of the payload members that is a
    // number no integer can hold; absent when there is none.
    std::optional<QString> outOfRangeMember(const QStringList& keys) const;
};

} // namespace brinmoor
