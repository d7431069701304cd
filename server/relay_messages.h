#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor::relay {

// What the server tells of one agent.
struct AgentRecord {
    QString agentId;
    bool busy = false;
    std::optional<QJsonObject> registration; // the latest "agent.register" without its "type"
    // What "server.hello" adds: whether it is connected, the seq of its newest message and
    // the present as of that message.
    bool online = true;
    qint64 seq = 0;
    QJsonObject snapshot;
};

// A tool use waiting for the phone's decision.
struct PermissionRequest {
    QString requestId;
    QString taskId;
    QString agentId;
    QString toolName;
    QJsonValue toolInput;
    QString toolUseId;
};

// A seq, or a message number, from JSON: a whole number from 0 up to 2^53 - 1; -1 for
// anything else.
qint64 wholeNumber(const QJsonValue& value);

// The messages the server itself writes; everything else is relayed.
namespace RelayMessages {

QByteArray json(const QJsonObject& object);
QJsonObject agentRecord(const AgentRecord& agent);
QJsonArray agentRecords(const QList<AgentRecord>& agents);
QByteArray agentList(const QList<AgentRecord>& agents);
QByteArray serverHello(const QList<AgentRecord>& agents);
// The agent's first message from the server: the newest seq the server has of it (0: none).
QByteArray agentHello(qint64 seq);
// The server has every message of the agent up to seq.
QByteArray agentAck(qint64 seq);
// The lowest offset the clients that pace the session have rendered; none when no
// client paces it.
QByteArray terminalWindow(const QString& sessionId, std::optional<qint64> offset);
// The lowest line of the task the clients that pace it have taken; none when no client
// paces it.
QByteArray taskWindow(const QString& taskId, std::optional<qint64> line);
QByteArray resumeOk(const QString& agentId, qint64 since);
QByteArray resumeGap(const QString& agentId, qint64 since, qint64 seq, const QJsonObject& snapshot);
QByteArray agentOnline(const QString& agentId);
QByteArray agentOffline(const QString& agentId);
QByteArray taskCreated(const QString& taskId, const QString& agentId, const QJsonValue& requestId);
QByteArray error(const QString& code, const QString& message, const QJsonValue& requestId);
QByteArray taskAssign(const QString& taskId, const QJsonObject& payload);
// A task waits for its agent at `place` (1 goes next); `waiting` is the queue after the change.
QByteArray taskQueued(const QString& agentId, const QString& taskId, int place, const QJsonObject& payload,
                      const QStringList& waiting);
// A task left the queue: "assigned", "cancelled" or "failed" (with an error).
QByteArray taskUnqueued(const QString& agentId, const QString& taskId, const QString& reason,
                        const QStringList& waiting, const QString& error);
// "task.cancel", "task.approval" and the terminal commands as the agent reads them.
QByteArray agentCommand(const QString& type, const QJsonValue& taskId, const QJsonValue& payload);
QByteArray permissionRequest(const PermissionRequest& request);
QByteArray permissionResolved(const QString& requestId, const QString& decision, const QString& reason);
QByteArray allow(const QJsonValue& updatedInput);
QByteArray deny(const QString& message);
QByteArray httpError(const QString& text);
// A whole HTTP response carrying httpError(text).
QByteArray httpErrorResponse(int status, const QString& text, QByteArrayView extraHeaders = {});

} // namespace RelayMessages

} // namespace brinmoor::relay
