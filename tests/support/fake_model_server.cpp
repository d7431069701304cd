#include "support/fake_model_server.h"

#include "http_request.h"

#include <QJsonDocument>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace brinmoor::test {

namespace {

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// One chunk of a chunked HTTP body; an empty one ends the body.
QByteArray httpChunk(const QByteArray& data)
{
    if (data.isEmpty())
        return "0\r\n\r\n";
    return QByteArray::number(data.size(), 16) + "\r\n" + data + "\r\n";
}

FakeModelServer::Reply eventStream(const QList<QJsonObject>& events)
{
    return {200, "text/event-stream", FakeModelServer::sse(events)};
}

QJsonObject messageStart()
{
    return {{"type", "message_start"},
            {"message", QJsonObject{{"id", "msg_fake"},
                                    {"type", "message"},
                                    {"role", "assistant"},
                                    {"model", "claude-fake"},
                                    {"content", QJsonArray()},
                                    {"stop_reason", QJsonValue::Null},
                                    {"stop_sequence", QJsonValue::Null},
                                    {"usage", QJsonObject{{"input_tokens", 10}, {"output_tokens", 1}}}}}};
}

QJsonObject messageEnd(const QString& stopReason)
{
    return {{"type", "message_delta"},
            {"delta", QJsonObject{{"stop_reason", stopReason}, {"stop_sequence", QJsonValue::Null}}},
            {"usage", QJsonObject{{"output_tokens", 5}}}};
}

QJsonObject responseCompleted()
{
    return {{"type", "response.completed"},
            {"response", QJsonObject{{"id", "resp_fake"},
                                     {"usage", QJsonObject{{"input_tokens", 10},
                                                           {"input_tokens_details", QJsonValue::Null},
                                                           {"output_tokens", 5},
                                                           {"output_tokens_details", QJsonValue::Null},
                                                           {"total_tokens", 15}}}}}};
}

QJsonObject responseItem(const QJsonObject& item)
{
    return {{"type", "response.output_item.done"}, {"output_index", 0}, {"item", item}};
}

} // namespace

FakeModelServer::FakeModelServer() : m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, &FakeModelServer::onConnection);
}

FakeModelServer::~FakeModelServer() = default;

quint16 FakeModelServer::listen()
{
    m_server->listen(QHostAddress::LocalHost);
    return m_server->serverPort();
}

QString FakeModelServer::baseURL() const
{
    return QStringLiteral("http://127.0.0.1:") + QString::number(m_server->serverPort());
}

void FakeModelServer::onConnection()
{
    while (QTcpSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadable(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_buffers.remove(socket);
            socket->deleteLater();
        });
    }
}

void FakeModelServer::onReadable(QTcpSocket* socket)
{
    QByteArray& buffer = m_buffers[socket];
    buffer += socket->readAll();
    // Requests on a kept-alive connection are answered in turn.
    while (true) {
        relay::HttpRequest head;
        if (relay::parseRequestHead(buffer, 64 * 1024, head) != relay::HeadStatus::Complete)
            return;
        const qsizetype length = head.header("content-length").toLongLong();
        const bool chunked = head.headerHasToken("transfer-encoding", "chunked");
        QByteArray body;
        qsizetype consumed = head.headSize;
        if (chunked) {
            while (true) {
                const qsizetype sizeEnd = buffer.indexOf("\r\n", consumed);
                if (sizeEnd < 0)
                    return;
                const qsizetype size = buffer.mid(consumed, sizeEnd - consumed).trimmed().toLongLong(nullptr, 16);
                if (buffer.size() < sizeEnd + 2 + size + 2)
                    return;
                body += buffer.mid(sizeEnd + 2, size);
                consumed = sizeEnd + 2 + size + 2;
                if (size == 0)
                    break;
            }
        } else {
            if (buffer.size() < consumed + length)
                return;
            body = buffer.mid(consumed, length);
            consumed += length;
        }
        buffer.remove(0, consumed);

        const QByteArray target = head.query.isEmpty() ? head.path : head.path + '?' + head.query;
        Request request{QString::fromUtf8(head.method), QString::fromUtf8(target), body,
                        QJsonDocument::fromJson(body).object()};
        m_requests.append(request);
        Reply reply = respond ? respond(request) : Reply{404, "application/json", "{}"};
        const QByteArray status = "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' +
                                  relay::statusReason(reply.status).toByteArray() +
                                  "\r\nContent-Type: " + reply.contentType + "\r\nConnection: keep-alive\r\n";
        if (!reply.laterPieces.isEmpty()) {
            socket->write(status + "Transfer-Encoding: chunked\r\n\r\n" +
                          (reply.body.isEmpty() ? QByteArray() : httpChunk(reply.body)));
            sendLater(socket, reply);
            continue;
        }
        socket->write(status + "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n\r\n" + reply.body);
    }
}

void FakeModelServer::sendLater(QTcpSocket* socket, const Reply& reply)
{
    // Each piece leaves at once, not when the socket would gather more.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    auto* timer = new QTimer(socket);
    timer->setInterval(reply.pieceIntervalMs);
    connect(timer, &QTimer::timeout, socket,
            [this, socket, timer, pieces = reply.laterPieces, next = qsizetype(0)]() mutable {
                if (onPieceSent)
                    onPieceSent(next);
                socket->write(httpChunk(pieces.at(next)));
                socket->flush();
                if (++next < pieces.size())
                    return;
                socket->write(httpChunk(QByteArray()));
                timer->deleteLater();
            });
    timer->start();
}

QByteArray FakeModelServer::sse(const QList<QJsonObject>& events)
{
    QByteArray stream;
    for (const QJsonObject& event : events)
        stream +=
            "event: " + event.value(QStringLiteral("type")).toString().toUtf8() + "\ndata: " + compact(event) + "\n\n";
    return stream;
}

FakeModelServer::Reply FakeModelServer::messagesBlocks(const QJsonArray& blocks)
{
    return eventStream(messageEvents(blocks));
}

FakeModelServer::Reply FakeModelServer::messagesOverTime(const QJsonArray& blocks, int intervalMs)
{
    Reply reply{200, "text/event-stream", QByteArray()};
    reply.pieceIntervalMs = intervalMs;
    for (const QJsonObject& event : messageEvents(blocks)) {
        const bool isDelta = event.value(QStringLiteral("type")).toString() == QLatin1String("content_block_delta");
        if (isDelta || !reply.laterPieces.isEmpty()) {
            // Each delta starts a piece; what follows it goes with it.
            if (isDelta)
                reply.laterPieces.append(QByteArray());
            reply.laterPieces.last() += sse({event});
        } else {
            reply.body += sse({event});
        }
    }
    return reply;
}

QList<QJsonObject> FakeModelServer::messageEvents(const QJsonArray& blocks)
{
    QList<QJsonObject> events{messageStart()};
    bool usesTool = false;
    for (qsizetype index = 0; index < blocks.size(); ++index) {
        const QJsonObject block = blocks.at(index).toObject();
        if (block.value(QStringLiteral("type")).toString() == QLatin1String("text")) {
            events.append({{"type", "content_block_start"},
                           {"index", index},
                           {"content_block", QJsonObject{{"type", "text"}, {"text", ""}}}});
            for (const QJsonValue& piece : block.value(QStringLiteral("deltas")).toArray())
                events.append({{"type", "content_block_delta"},
                               {"index", index},
                               {"delta", QJsonObject{{"type", "text_delta"}, {"text", piece}}}});
        } else {
            usesTool = true;
            QJsonObject start = block;
            start.insert(QStringLiteral("input"), QJsonObject());
            events.append({{"type", "content_block_start"}, {"index", index}, {"content_block", start}});
            events.append(
                {{"type", "content_block_delta"},
                 {"index", index},
                 {"delta", QJsonObject{{"type", "input_json_delta"},
                                       {"partial_json", QString::fromUtf8(compact(
                                                            block.value(QStringLiteral("input")).toObject()))}}}});
        }
        events.append({{"type", "content_block_stop"}, {"index", index}});
    }
    events.append(messageEnd(usesTool ? QStringLiteral("tool_use") : QStringLiteral("end_turn")));
    events.append({{"type", "message_stop"}});
    return events;
}

FakeModelServer::Reply FakeModelServer::messagesText(const QString& text)
{
    return messagesBlocks({QJsonObject{{"type", "text"}, {"deltas", QJsonArray{text}}}});
}

FakeModelServer::Reply FakeModelServer::messagesToolUse(const QString& id, const QString& name,
                                                        const QJsonObject& input)
{
    return messagesBlocks({QJsonObject{{"type", "tool_use"}, {"id", id}, {"name", name}, {"input", input}}});
}

FakeModelServer::Reply FakeModelServer::messagesError(int status, const QString& message)
{
    return {
        status, "application/json",
        compact({{"type", "error"}, {"error", QJsonObject{{"type", "invalid_request_error"}, {"message", message}}}})};
}

FakeModelServer::Reply FakeModelServer::responsesMessage(const QString& text)
{
    return eventStream({{{"type", "response.created"}, {"response", QJsonObject{{"id", "resp_fake"}}}},
                        responseItem({{"type", "message"},
                                      {"role", "assistant"},
                                      {"id", "msg_fake"},
                                      {"content", QJsonArray{QJsonObject{{"type", "output_text"}, {"text", text}}}}}),
                        responseCompleted()});
}

FakeModelServer::Reply FakeModelServer::responsesFunctionCall(const QString& callId, const QString& name,
                                                              const QJsonObject& arguments,
                                                              const QString& toolNamespace)
{
    QJsonObject call{{"type", "function_call"},
                     {"id", "fc_fake"},
                     {"call_id", callId},
                     {"name", name},
                     {"arguments", QString::fromUtf8(compact(arguments))}};
    if (!toolNamespace.isEmpty())
        call.insert(QStringLiteral("namespace"), toolNamespace);
    return eventStream({{{"type", "response.created"}, {"response", QJsonObject{{"id", "resp_fake"}}}},
                        responseItem(call),
                        responseCompleted()});
}

FakeModelServer::Reply FakeModelServer::responsesFailed(const QString& message)
{
    return eventStream(
        {{{"type", "response.created"}, {"response", QJsonObject{{"id", "resp_fake"}}}},
         {{"type", "response.failed"},
          {"response", QJsonObject{{"id", "resp_fake"},
                                   {"error", QJsonObject{{"code", "invalid_prompt"}, {"message", message}}}}}}});
}

QJsonObject lastUserContent(const QJsonObject& messagesRequest)
{
    const QJsonArray messages = messagesRequest.value(QStringLiteral("messages")).toArray();
    for (qsizetype i = messages.size() - 1; i >= 0; --i) {
        const QJsonObject message = messages.at(i).toObject();
        if (message.value(QStringLiteral("role")).toString() != QLatin1String("user"))
            continue;
        const QJsonValue content = message.value(QStringLiteral("content"));
        if (content.isString())
            return {{"type", "text"}, {"text", content.toString()}};
        const QJsonArray parts = content.toArray();
        return parts.isEmpty() ? QJsonObject() : parts.last().toObject();
    }
    return {};
}

QJsonArray inputItems(const QJsonObject& responsesRequest, const QString& type)
{
    QJsonArray items;
    for (const QJsonValue& item : responsesRequest.value(QStringLiteral("input")).toArray()) {
        if (item.toObject().value(QStringLiteral("type")).toString() == type)
            items.append(item);
    }
    return items;
}

} // namespace brinmoor::test
