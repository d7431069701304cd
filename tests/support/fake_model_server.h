#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>

class QTcpServer;
class QTcpSocket;

namespace brinmoor::test {

// A model server on loopback for the real `claude` and `codex`: HTTP/1.1 with
// keep-alive, every request recorded, each answered by a function of the test. The
// helpers build the streamed answers of the Anthropic Messages API and the Responses
// API as server-sent events.
class FakeModelServer : public QObject {
    Q_OBJECT

public:
    struct Request {
        QString method;
        QString path; // with its query
        QByteArray body;
        QJsonObject json; // the body, when it is a JSON object
    };
    struct Reply {
        int status = 200;
        QByteArray contentType;
        QByteArray body;
        // A stream the model writes over time: after the body, one piece every
        // `pieceIntervalMs`, as the chunks of a chunked body.
        QList<QByteArray> laterPieces = {};
        int pieceIntervalMs = 0;
    };

    FakeModelServer();
    ~FakeModelServer() override;

    quint16 listen();
    QString baseURL() const;

    std::function<Reply(const Request&)> respond;
    // Told each later piece of a reply (its index) right before it is handed to the
    // socket.
    std::function<void(qsizetype piece)> onPieceSent;
    const QList<Request>& requests() const { return m_requests; }

    // Anthropic Messages API. A message of content blocks: text blocks as
    // {"type":"text","deltas":[…]} (the text in the pieces the model streams), tool uses
    // as {"type":"tool_use","id","name","input"}.
    static Reply messagesBlocks(const QJsonArray& blocks);
    // The same message as the model writes it over time: up to its first delta at once,
    // then one delta every `intervalMs`.
    static Reply messagesOverTime(const QJsonArray& blocks, int intervalMs);
    static Reply messagesText(const QString& text);
    static Reply messagesToolUse(const QString& id, const QString& name, const QJsonObject& input);
    static Reply messagesError(int status, const QString& message);
    // Responses API.
    static Reply responsesMessage(const QString& text);
    // A call of a function; an MCP tool is named by its tool and its namespace
    // ("mcp__SERVER").
    static Reply responsesFunctionCall(const QString& callId, const QString& name, const QJsonObject& arguments,
                                       const QString& toolNamespace = QString());
    static Reply responsesFailed(const QString& message);

    static QByteArray sse(const QList<QJsonObject>& events);

private:
    static QList<QJsonObject> messageEvents(const QJsonArray& blocks);
    void onConnection();
    void onReadable(QTcpSocket* socket);
    void sendLater(QTcpSocket* socket, const Reply& reply);

    QTcpServer* m_server;
    QList<Request> m_requests;
    QHash<QTcpSocket*, QByteArray> m_buffers;
};

// The text of the last user turn of a Messages request: its "tool_result" when it
// answers a tool call, else its text.
QJsonObject lastUserContent(const QJsonObject& messagesRequest);

// The items of a Responses request's "input" of one type ("function_call_output", …).
QJsonArray inputItems(const QJsonObject& responsesRequest, const QString& type);

} // namespace brinmoor::test
