#pragma once

#include "approval_client.h"

#include <QByteArray>
#include <QJsonValue>
#include <QObject>

#include <functional>
#include <map>

namespace brinmoor::approver {

// The approval tool as an MCP server: JSON-RPC 2.0, one message a line. It offers one
// tool, "request_permission", whose answer is the phone's decision.
class MCPApprovalServer : public QObject {
    Q_OBJECT

public:
    MCPApprovalServer(ApprovalSettings settings, std::function<void(const QByteArray& line)> write,
                      QObject* parent = nullptr);

    // One line from the client, without its line break.
    void handleLine(const QByteArray& line);
    // The client has gone: nothing is answered any more.
    void shutdown();
    bool isIdle() const { return m_client.isIdle(); }

    static const QStringList& supportedProtocolVersions();

private:
    void handleRequest(const QJsonValue& id, const QString& method, const QJsonObject& params);
    void callTool(const QJsonValue& id, const QJsonObject& params);
    void respond(const QJsonValue& id, const QJsonValue& result);
    void fail(const QJsonValue& id, int code, const QString& message);

    ApprovalClient m_client;
    std::function<void(const QByteArray&)> m_write;
    qint64 m_nextKey = 0;
    std::map<QString, qint64> m_callsById; // JSON-RPC id (as JSON text) to the pending call
};

} // namespace brinmoor::approver
