// Pushes to the devices subscribed: what waits for their user as agents report it, the
// push endpoints, and what each client shows.
#include "http_request.h"
#include "protocol/message_types.h"
#include "relay_log.h"
#include "relay_server.h"

#include <QJsonDocument>
#include <QPointer>

namespace brinmoor::relay {

namespace {

QByteArray failure(int status, const QString& text)
{
    return RelayMessages::httpErrorResponse(status, text, {});
}

} // namespace

void RelayServer::pushRequest(RelayConnection& connection, const HttpRequest& request, const QByteArray& body)
{
    const QByteArray& path = request.path;
    const QByteArray& method = request.method;
    if (path == "/v1/push/key") {
        connection.respond(m_push.publicKey());
    } else if (path == "/v1/push/decision") {
        connection.respond(decideFromPush(body));
    } else if (path == "/v1/push/subscriptions") {
        connection.respond(method == "POST" ? m_push.subscribe(body) : m_push.subscriptions());
    } else if (path.endsWith("/test")) {
        const QString id = QString::fromLatin1(path.split('/').value(4));
        connection.hold();
        QPointer<RelayConnection> waiting(&connection);
        m_push.test(id, [waiting](const QByteArray& response) {
            if (waiting)
                waiting->respond(response);
        });
    } else {
        connection.respond(m_push.unsubscribe(QString::fromLatin1(path.split('/').value(4))));
    }
}

QByteArray RelayServer::decideFromPush(const QByteArray& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return failure(400, QStringLiteral("the body must be a JSON object"));
    const QJsonObject object = document.object();
    const QString requestId = object.value(QStringLiteral("requestId")).toString();
    if (requestId.isEmpty())
        return failure(400, QStringLiteral("requestId is missing"));
    const QString decision = object.value(QStringLiteral("decision")).toString();
    if (decision != QLatin1String("allow") && decision != QLatin1String("deny"))
        return failure(400, QStringLiteral("decision must be \"allow\" or \"deny\""));
    // Asked twice (a notification's button tapped again, a retried request), the decision
    // made first holds.
    if (m_permissions.contains(requestId))
        m_permissions.decide(requestId, decision == QLatin1String("allow"), QString(), QJsonValue());
    const std::optional<PermissionRequests::Outcome> outcome = m_permissions.outcome(requestId);
    if (!outcome)
        return failure(404, QStringLiteral("no pending permission request: ") + requestId);
    return jsonResponse(200, RelayMessages::json(QJsonObject{{QStringLiteral("requestId"), requestId},
                                                             {QStringLiteral("decision"), outcome->decision},
                                                             {QStringLiteral("reason"), outcome->reason}}));
}

void RelayServer::run(RelayConnection& client, const ShowCard& command)
{
    m_push.setViewing(&client, command.endpoint, command.card);
}

void RelayServer::pushFor(const QString& agentId, const AgentHistory& history, const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    QString kind;
    if (type == MessageTypes::TaskAwaitingApproval)
        kind = QStringLiteral("proposal");
    else if (type == MessageTypes::TaskFailed)
        kind = QStringLiteral("failed");
    else if (type == MessageTypes::TaskFinished)
        kind = QStringLiteral("answer");
    else
        return;
    const QString taskId = message.value(QStringLiteral("taskId")).toString();
    if (taskId.isEmpty())
        return; // no card to open
    const AgentSnapshot::Task* task = history.snapshot.find(taskId);
    // Of the tasks that finish, only a chat's answer waits to be read.
    if (kind == QLatin1String("answer") && (!task || task->kind != QLatin1String("chat")))
        return;
    m_push.notify(PushNotice{kind, agentId, task ? task->projectPath : QString(), taskId, {}, {}, "normal", 86400});
}

} // namespace brinmoor::relay
