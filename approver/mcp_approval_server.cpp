#include "mcp_approval_server.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace brinmoor::approver {

namespace {

constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;

QString idKey(const QJsonValue& id)
{
    return QString::fromUtf8(QJsonDocument(QJsonArray{id}).toJson(QJsonDocument::Compact));
}

QJsonObject toolDescription()
{
    const QJsonObject anyValue{
        {QStringLiteral("description"), QStringLiteral("The arguments the tool would be called with.")}};
    QJsonObject properties{
        {QStringLiteral("tool_name"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("string")},
                     {QStringLiteral("description"), QStringLiteral("The name of the tool that wants to run.")}}},
        {QStringLiteral("input"), anyValue},
        {QStringLiteral("tool_input"), anyValue},
        {QStringLiteral("tool_use_id"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("string")},
                     {QStringLiteral("description"), QStringLiteral("The id of this tool use, when there is one.")}}},
    };
    return QJsonObject{
        {QStringLiteral("name"), QStringLiteral("request_permission")},
        {QStringLiteral("description"),
         QStringLiteral(
             "Asks the user, on their phone, whether a tool may run. Answers with JSON: "
             "{\"behavior\":\"allow\",\"updatedInput\":{...}} or {\"behavior\":\"deny\",\"message\":\"...\"}.")},
        {QStringLiteral("inputSchema"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("object")},
                     {QStringLiteral("properties"), properties},
                     {QStringLiteral("required"), QJsonArray{QStringLiteral("tool_name")}}}},
    };
}

QJsonObject textResult(const QByteArray& text)
{
    return QJsonObject{
        {QStringLiteral("content"), QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                           {QStringLiteral("text"), QString::fromUtf8(text)}}}}};
}

} // namespace

MCPApprovalServer::MCPApprovalServer(ApprovalSettings settings, std::function<void(const QByteArray&)> write,
                                     QObject* parent)
    : QObject(parent), m_client(std::move(settings)), m_write(std::move(write))
{
}

const QStringList& MCPApprovalServer::supportedProtocolVersions()
{
    // Newest last; an unknown version asked for gets the newest.
    static const QStringList versions{QStringLiteral("2024-11-05"), QStringLiteral("2025-03-26"),
                                      QStringLiteral("2025-06-18"), QStringLiteral("2025-11-25")};
    return versions;
}

void MCPApprovalServer::handleLine(const QByteArray& line)
{
    if (line.trimmed().isEmpty())
        return;
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError) {
        fail(QJsonValue::Null, kParseError, QStringLiteral("Parse error"));
        return;
    }
    const QJsonObject message = document.object();
    const QJsonValue id = message.value(QStringLiteral("id"));
    const QJsonValue method = message.value(QStringLiteral("method"));
    if (!document.isObject() || message.value(QStringLiteral("jsonrpc")) != QLatin1String("2.0")) {
        fail(id.isString() || id.isDouble() ? id : QJsonValue(QJsonValue::Null), kInvalidRequest,
             QStringLiteral("Invalid Request"));
        return;
    }
    if (!method.isString()) {
        // A response to something we never ask, or garbage with an id.
        if (!message.contains(QStringLiteral("result")) && !message.contains(QStringLiteral("error")))
            fail(id.isUndefined() ? QJsonValue(QJsonValue::Null) : id, kInvalidRequest,
                 QStringLiteral("Invalid Request"));
        return;
    }
    const QJsonObject params = message.value(QStringLiteral("params")).toObject();
    if (id.isUndefined()) {
        // Notifications get no answer; a cancelled call gets none either.
        if (method == QLatin1String("notifications/cancelled")) {
            const auto call = m_callsById.find(idKey(params.value(QStringLiteral("requestId"))));
            if (call != m_callsById.end()) {
                m_client.cancel(call->second);
                m_callsById.erase(call);
            }
        }
        return;
    }
    handleRequest(id, method.toString(), params);
}

void MCPApprovalServer::handleRequest(const QJsonValue& id, const QString& method, const QJsonObject& params)
{
    if (method == QLatin1String("initialize")) {
        const QString asked = params.value(QStringLiteral("protocolVersion")).toString();
        const QString version =
            supportedProtocolVersions().contains(asked) ? asked : supportedProtocolVersions().constLast();
        respond(id, QJsonObject{
                        {QStringLiteral("protocolVersion"), version},
                        {QStringLiteral("capabilities"),
                         QJsonObject{{QStringLiteral("tools"), QJsonObject{{QStringLiteral("listChanged"), false}}}}},
                        {QStringLiteral("serverInfo"),
                         QJsonObject{{QStringLiteral("name"), QStringLiteral("MCPApprovalServer")},
                                     {QStringLiteral("version"), QStringLiteral(BRINMOOR_VERSION)}}},
                    });
    } else if (method == QLatin1String("ping")) {
        respond(id, QJsonObject());
    } else if (method == QLatin1String("tools/list")) {
        respond(id, QJsonObject{{QStringLiteral("tools"), QJsonArray{toolDescription()}}});
    } else if (method == QLatin1String("tools/call")) {
        callTool(id, params);
    } else {
        fail(id, kMethodNotFound, QStringLiteral("Method not found: ") + method);
    }
}

void MCPApprovalServer::callTool(const QJsonValue& id, const QJsonObject& params)
{
    const QString name = params.value(QStringLiteral("name")).toString();
    if (name != QLatin1String("request_permission")) {
        fail(id, kInvalidParams, QStringLiteral("Unknown tool: ") + name);
        return;
    }
    const QJsonObject arguments = params.value(QStringLiteral("arguments")).toObject();
    const QString toolName = arguments.value(QStringLiteral("tool_name")).toString();
    if (toolName.isEmpty()) {
        respond(id, textResult(denyDecision(QStringLiteral("request_permission needs \"tool_name\""))));
        return;
    }
    // `claude` sends "input"; the policy text given to `codex` asks for "tool_input".
    QJsonValue toolInput = arguments.value(QStringLiteral("input"));
    if (toolInput.isUndefined())
        toolInput = arguments.value(QStringLiteral("tool_input"));
    if (toolInput.isUndefined())
        toolInput = QJsonObject();
    const qint64 key = ++m_nextKey;
    const QString callId = idKey(id);
    m_callsById[callId] = key;
    m_client.request(key, toolName, toolInput, arguments.value(QStringLiteral("tool_use_id")).toString(),
                     [this, id, callId](const QByteArray& decision) {
                         m_callsById.erase(callId);
                         respond(id, textResult(decision));
                     });
}

void MCPApprovalServer::respond(const QJsonValue& id, const QJsonValue& result)
{
    m_write(QJsonDocument(QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                                      {QStringLiteral("id"), id},
                                      {QStringLiteral("result"), result}})
                .toJson(QJsonDocument::Compact));
}

void MCPApprovalServer::fail(const QJsonValue& id, int code, const QString& message)
{
    m_write(QJsonDocument(QJsonObject{{QStringLiteral("jsonrpc"), QStringLiteral("2.0")},
                                      {QStringLiteral("id"), id},
                                      {QStringLiteral("error"), QJsonObject{{QStringLiteral("code"), code},
                                                                            {QStringLiteral("message"), message}}}})
                .toJson(QJsonDocument::Compact));
}

void MCPApprovalServer::shutdown()
{
    m_callsById.clear();
    m_client.cancelAll();
}

} // namespace brinmoor::approver
