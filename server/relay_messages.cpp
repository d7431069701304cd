#include "relay_messages.h"

#include "http_request.h"
#include "protocol/server_features.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>

namespace brinmoor::relay {

qint64 wholeNumber(const QJsonValue& value)
{
    const double number = value.toDouble(-1);
    if (!value.isDouble() || number < 0 || number > 9007199254740991.0 || std::floor(number) != number)
        return -1;
    return qint64(number);
}

} // namespace brinmoor::relay

namespace brinmoor::relay::RelayMessages {

namespace {

QJsonObject typed(const char* type)
{
    return QJsonObject{{QStringLiteral("type"), QLatin1String(type)}};
}

void addRequestId(QJsonObject& message, const QJsonValue& requestId)
{
    if (requestId.isString())
        message.insert(QStringLiteral("requestId"), requestId);
}

} // namespace

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QJsonObject agentRecord(const AgentRecord& agent)
{
    return QJsonObject{
        {QStringLiteral("agentId"), agent.agentId},
        {QStringLiteral("busy"), agent.busy},
        {QStringLiteral("registration"), agent.registration ? QJsonValue(*agent.registration) : QJsonValue()},
    };
}

QJsonArray agentRecords(const QList<AgentRecord>& agents)
{
    QJsonArray list;
    for (const AgentRecord& agent : agents)
        list.append(agentRecord(agent));
    return list;
}

QByteArray agentList(const QList<AgentRecord>& agents)
{
    return json(QJsonObject{{QStringLiteral("agents"), agentRecords(agents)}});
}

QByteArray serverHello(const QList<AgentRecord>& agents)
{
    QJsonArray list;
    for (const AgentRecord& agent : agents) {
        QJsonObject record = agentRecord(agent);
        record.insert(QStringLiteral("online"), agent.online);
        record.insert(QStringLiteral("seq"), agent.seq);
        record.insert(QStringLiteral("snapshot"), agent.snapshot);
        list.append(record);
    }
    QJsonObject message = typed("server.hello");
    message.insert(QStringLiteral("agents"), list);
    return json(message);
}

QByteArray agentHello(qint64 seq)
{
    ServerFeatures features = ServerFeatures::all();
    features.serverHas = seq;
    return json(features.hello());
}

QByteArray agentAck(qint64 seq)
{
    QJsonObject message = typed("agent.ack");
    message.insert(QStringLiteral("payload"), QJsonObject{{QStringLiteral("seq"), seq}});
    return json(message);
}

QByteArray terminalWindow(const QString& sessionId, std::optional<qint64> offset)
{
    QJsonObject payload{{QStringLiteral("sessionId"), sessionId}};
    if (offset)
        payload.insert(QStringLiteral("offset"), *offset);
    QJsonObject message = typed("terminal.ack");
    message.insert(QStringLiteral("payload"), payload);
    return json(message);
}

QByteArray taskWindow(const QString& taskId, std::optional<qint64> line)
{
    QJsonObject payload;
    if (line)
        payload.insert(QStringLiteral("line"), *line);
    QJsonObject message = typed("task.ack");
    message.insert(QStringLiteral("taskId"), taskId);
    message.insert(QStringLiteral("payload"), payload);
    return json(message);
}

QByteArray resumeOk(const QString& agentId, qint64 since)
{
    QJsonObject message = typed("resume.ok");
    message.insert(QStringLiteral("agentId"), agentId);
    message.insert(QStringLiteral("since"), since);
    return json(message);
}

QByteArray resumeGap(const QString& agentId, qint64 since, qint64 seq, const QJsonObject& snapshot)
{
    QJsonObject message = typed("resume.gap");
    message.insert(QStringLiteral("agentId"), agentId);
    message.insert(QStringLiteral("since"), since);
    message.insert(QStringLiteral("seq"), seq);
    message.insert(QStringLiteral("snapshot"), snapshot);
    return json(message);
}

QByteArray agentOnline(const QString& agentId)
{
    QJsonObject message = typed("agent.online");
    message.insert(QStringLiteral("agentId"), agentId);
    return json(message);
}

QByteArray agentOffline(const QString& agentId)
{
    QJsonObject message = typed("agent.offline");
    message.insert(QStringLiteral("agentId"), agentId);
    return json(message);
}

QByteArray taskCreated(const QString& taskId, const QString& agentId, const QJsonValue& requestId)
{
    QJsonObject message = typed("task.created");
    message.insert(QStringLiteral("taskId"), taskId);
    message.insert(QStringLiteral("agentId"), agentId);
    addRequestId(message, requestId);
    return json(message);
}

QByteArray error(const QString& code, const QString& text, const QJsonValue& requestId)
{
    QJsonObject message = typed("error");
    message.insert(QStringLiteral("code"), code);
    message.insert(QStringLiteral("message"), text);
    addRequestId(message, requestId);
    return json(message);
}

QByteArray taskAssign(const QString& taskId, const QJsonObject& payload)
{
    QJsonObject message = typed("task.assign");
    message.insert(QStringLiteral("taskId"), taskId);
    message.insert(QStringLiteral("payload"), payload);
    return json(message);
}

QByteArray taskQueued(const QString& agentId, const QString& taskId, int place, const QJsonObject& payload,
                      const QStringList& waiting)
{
    QJsonObject message = typed("task.queued");
    message.insert(QStringLiteral("agentId"), agentId);
    message.insert(QStringLiteral("taskId"), taskId);
    message.insert(QStringLiteral("place"), place);
    message.insert(QStringLiteral("payload"), payload);
    message.insert(QStringLiteral("waiting"), QJsonArray::fromStringList(waiting));
    return json(message);
}

QByteArray taskUnqueued(const QString& agentId, const QString& taskId, const QString& reason,
                        const QStringList& waiting, const QString& error)
{
    QJsonObject message = typed("task.unqueued");
    message.insert(QStringLiteral("agentId"), agentId);
    message.insert(QStringLiteral("taskId"), taskId);
    message.insert(QStringLiteral("reason"), reason);
    message.insert(QStringLiteral("waiting"), QJsonArray::fromStringList(waiting));
    if (!error.isEmpty())
        message.insert(QStringLiteral("error"), error);
    return json(message);
}

QByteArray agentCommand(const QString& type, const QJsonValue& taskId, const QJsonValue& payload)
{
    QJsonObject message{{QStringLiteral("type"), type}};
    if (!taskId.isUndefined())
        message.insert(QStringLiteral("taskId"), taskId);
    if (!payload.isUndefined())
        message.insert(QStringLiteral("payload"), payload);
    return json(message);
}

QByteArray permissionRequest(const PermissionRequest& request)
{
    QJsonObject message = typed("permission.request");
    message.insert(QStringLiteral("requestId"), request.requestId);
    message.insert(QStringLiteral("taskId"), request.taskId);
    message.insert(QStringLiteral("agentId"), request.agentId);
    message.insert(QStringLiteral("toolName"), request.toolName);
    message.insert(QStringLiteral("toolInput"), request.toolInput);
    if (!request.toolUseId.isEmpty())
        message.insert(QStringLiteral("toolUseId"), request.toolUseId);
    return json(message);
}

QByteArray permissionResolved(const QString& requestId, const QString& decision, const QString& reason)
{
    QJsonObject message = typed("permission.resolved");
    message.insert(QStringLiteral("requestId"), requestId);
    message.insert(QStringLiteral("decision"), decision);
    message.insert(QStringLiteral("reason"), reason);
    return json(message);
}

QByteArray allow(const QJsonValue& updatedInput)
{
    return json(QJsonObject{{QStringLiteral("behavior"), QStringLiteral("allow")},
                            {QStringLiteral("updatedInput"), updatedInput}});
}

QByteArray deny(const QString& text)
{
    return json(QJsonObject{{QStringLiteral("behavior"), QStringLiteral("deny")}, {QStringLiteral("message"), text}});
}

QByteArray httpError(const QString& text)
{
    return json(QJsonObject{{QStringLiteral("error"), text}});
}

QByteArray httpErrorResponse(int status, const QString& text, QByteArrayView extraHeaders)
{
    return jsonResponse(status, httpError(text), extraHeaders);
}

} // namespace brinmoor::relay::RelayMessages
