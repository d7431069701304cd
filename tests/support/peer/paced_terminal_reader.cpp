#include "paced_terminal_reader.h"

#include "websocket_client.h"

#include <QJsonDocument>
#include <QTcpSocket>

namespace brinmoor::relay {

namespace {

constexpr int kTickMs = 10;
constexpr qsizetype kTailSize = 64 * 1024;

} // namespace

PacedTerminalReader::PacedTerminalReader(quint16 port, const QByteArray& token, const QString& agentId,
                                         const QString& sessionId, qint64 bytesPerSecond, QObject* parent)
    : QObject(parent), m_socket(new QTcpSocket(this)), m_agentId(agentId), m_sessionId(sessionId),
      m_rate(bytesPerSecond)
{
    // A small receive buffer, so that a slow reader is felt by the sender and not hidden
    // in the kernel.
    m_socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 64 * 1024);
    m_socket->setReadBufferSize(64 * 1024);
    connect(m_socket, &QTcpSocket::connected, this, [this, token] {
        m_socket->write(ws::upgradeRequest("/v1/ws/client", QByteArray("Authorization: Bearer " + token + "\r\n")));
    });
    connect(m_socket, &QTcpSocket::readyRead, this, [this] {
        if (m_rate == 0)
            read(m_socket->bytesAvailable());
    });
    connect(m_socket, &QTcpSocket::disconnected, this, [this] { m_closed = true; });
    m_tick.setInterval(kTickMs);
    connect(&m_tick, &QTimer::timeout, this, &PacedTerminalReader::onTick);
    m_tick.start();
    m_socket->connectToHost(QStringLiteral("127.0.0.1"), port);
}

PacedTerminalReader::~PacedTerminalReader() = default;

void PacedTerminalReader::setPace(qint64 bytesPerSecond)
{
    m_rate = bytesPerSecond;
}

void PacedTerminalReader::onTick()
{
    read(m_rate == 0 ? m_socket->bytesAvailable() : m_rate * kTickMs / 1000);
}

void PacedTerminalReader::read(qint64 budget)
{
    if (budget <= 0 || m_socket->bytesAvailable() <= 0)
        return;
    const QByteArray data = m_socket->read(budget);
    m_bytesRead += data.size();
    m_in += data;
    if (!m_upgraded) {
        const qsizetype end = m_in.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        m_upgraded = m_in.startsWith("HTTP/1.1 101");
        m_in.remove(0, end + 4);
    }
    ws::Message message;
    while (m_reader.next(m_in, m_offset, message) == ws::FrameReader::Result::Message) {
        if (message.opcode == ws::Text)
            take(QJsonDocument::fromJson(message.payload.toByteArray()).object());
        else if (message.opcode == ws::Close)
            m_closed = true;
    }
    m_in.remove(0, m_offset);
    m_offset = 0;
}

void PacedTerminalReader::take(const QJsonObject& message)
{
    const QString type = message.value(QStringLiteral("type")).toString();
    m_types.append(type);
    if (type == QLatin1String("task.log") && message.contains(QStringLiteral("number"))) {
        takeTaskLine(message);
        return;
    }
    if (type != QLatin1String("terminal.output") && type != QLatin1String("task.log"))
        m_others.append(message);
    if (type != QLatin1String("terminal.output") ||
        message.value(QStringLiteral("sessionId")).toString() != m_sessionId ||
        message.contains(QStringLiteral("snapshot")))
        return;
    const QByteArray data = message.value(QStringLiteral("data")).toString().toUtf8();
    m_outputBytes += data.size();
    if (m_keep)
        m_output += data;
    m_tail += data;
    if (m_tail.size() > kTailSize)
        m_tail.remove(0, m_tail.size() - kTailSize);
    if (m_acknowledging && message.contains(QStringLiteral("offset")))
        command(QStringLiteral("terminal.ack"),
                QJsonObject{{QStringLiteral("offset"), message.value(QStringLiteral("offset"))}});
}

void PacedTerminalReader::takeTaskLine(const QJsonObject& message)
{
    const qint64 number = qint64(message.value(QStringLiteral("number")).toDouble());
    m_taskLines.append({number, message.value(QStringLiteral("line")).toString()});
    if (m_acknowledging)
        send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.ack")},
                         {QStringLiteral("agentId"), m_agentId},
                         {QStringLiteral("taskId"), message.value(QStringLiteral("taskId"))},
                         {QStringLiteral("line"), number}});
}

void PacedTerminalReader::command(const QString& type, QJsonObject payload)
{
    payload.insert(QStringLiteral("sessionId"), m_sessionId);
    send(QJsonObject{
        {QStringLiteral("type"), type}, {QStringLiteral("agentId"), m_agentId}, {QStringLiteral("payload"), payload}});
}

void PacedTerminalReader::send(const QJsonObject& message)
{
    m_socket->write(ws::maskedFrame(ws::Text, QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

} // namespace brinmoor::relay
