#include "loopback_counter.h"

#include "protocol/server_features.h"

#include "websocket_client.h"
#include "websocket_frames.h"

#include <QJsonDocument>
#include <QTcpServer>
#include <QTcpSocket>

#include <cstring>

namespace brinmoor::bench {

namespace {

constexpr char kLogMarker[] = "\"type\":\"task.log\"";
// {"line":"","taskId":"t","type":"task.log"}: what a log frame holds besides its text.
constexpr qsizetype kLogOverhead = 42;

} // namespace

LoopbackCounter::LoopbackCounter(QObject* parent) : QObject(parent)
{
    m_server = new QTcpServer(this);
    connect(m_server, &QTcpServer::newConnection, this, &LoopbackCounter::onNewConnection);
    m_tick.setInterval(10);
    connect(&m_tick, &QTimer::timeout, this, [this] {
        m_budget = m_throttleRate / 100;
        consume();
    });
}

bool LoopbackCounter::listen()
{
    return m_server->listen(QHostAddress::LocalHost, 0);
}

quint16 LoopbackCounter::port() const
{
    return m_server->serverPort();
}

void LoopbackCounter::throttle(qint64 bytesPerSecond, qint64 untilMs)
{
    m_throttleRate = bytesPerSecond;
    m_throttleUntil = untilMs;
}

void LoopbackCounter::throttleFor(qint64 bytesPerSecond, qint64 durationMs)
{
    if (!m_clock.isValid())
        m_clock.start();
    m_throttleRate = bytesPerSecond;
    m_throttleStart = m_clock.elapsed();
    m_throttleUntil = m_throttleStart + durationMs;
    m_budget = 0;
    if (m_socket) {
        m_socket->setReadBufferSize(64 * 1024);
        m_tick.start();
    }
}

void LoopbackCounter::onNewConnection()
{
    QTcpSocket* socket = m_server->nextPendingConnection();
    if (m_socket) {
        socket->abort();
        return;
    }
    m_socket = socket;
    // As the relay: its confirmations go out at once.
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (m_throttleRate > 0) {
        // A small buffer makes the kernel's window, and so the agent, feel the slow reader.
        m_socket->setReadBufferSize(64 * 1024);
        m_tick.start();
    }
    connect(m_socket, &QTcpSocket::readyRead, this, &LoopbackCounter::onReadable);
}

void LoopbackCounter::onReadable()
{
    consume();
}

void LoopbackCounter::consume()
{
    if (!m_socket)
        return;
    const bool throttled = m_throttleRate > 0 && (!m_clock.isValid() || m_clock.elapsed() < m_throttleUntil);
    if (!throttled)
        m_throttleRate = 0;
    qint64 want = throttled ? m_budget : m_socket->bytesAvailable();
    if (!throttled && m_tick.isActive()) {
        m_tick.stop();
        m_socket->setReadBufferSize(0);
    }
    if (want <= 0)
        return;
    if (m_offset > 0 && m_offset > m_buffer.size() / 2) {
        m_buffer.remove(0, m_offset);
        m_offset = 0;
    }
    const qsizetype before = m_buffer.size();
    m_buffer.resize(before + want);
    const qint64 n = m_socket->read(m_buffer.data() + before, want);
    m_buffer.resize(before + qMax<qint64>(n, 0));
    if (n <= 0)
        return;
    if (!m_clock.isValid() && m_upgraded)
        m_clock.start();
    m_bytesRead += n;
    if (throttled)
        m_budget -= n;
    if (!m_upgraded && !handshake())
        return;
    parseFrames();
}

bool LoopbackCounter::handshake()
{
    const qsizetype end = m_buffer.indexOf("\r\n\r\n", m_offset);
    if (end < 0)
        return false;
    m_socket->write(relay::ws::upgradeResponse(QByteArrayView(m_buffer).sliced(m_offset, end - m_offset)));
    m_offset = end + 4;
    m_upgraded = true;
    // As the relay does, or as a server that knows only the agent protocol.
    if (m_plain) {
        send(QJsonObject{{QStringLiteral("type"), QStringLiteral("agent.hello")}});
    } else {
        send(ServerFeatures::all().hello());
    }
    return true;
}

void LoopbackCounter::parseFrames()
{
    relay::ws::Message message;
    while (m_reader.next(m_buffer, m_offset, message) == relay::ws::FrameReader::Result::Message)
        handleFrame(message.opcode, message.payload.data(), message.payload.size());
    // Confirms what it read, as the relay does, so that the agent lets go of it.
    if (!m_plain && m_nextSeq - 1 > m_acked) {
        m_acked = m_nextSeq - 1;
        send(QJsonObject{{QStringLiteral("type"), QStringLiteral("agent.ack")},
                         {QStringLiteral("payload"), QJsonObject{{QStringLiteral("seq"), m_acked}}}});
    }
}

void LoopbackCounter::handleFrame(int opcode, const char* payload, qsizetype size)
{
    ++m_frames;
    if (opcode != 1)
        return;
    if (!m_plain && m_nextSeq == 0) {
        // The register the agent opens with comes again in its numbered stream, which
        // "agent.stream" announces.
        const QJsonObject first = QJsonDocument::fromJson(QByteArray(payload, size)).object();
        if (first.value(QStringLiteral("type")).toString() == QLatin1String("agent.stream")) {
            m_nextSeq = first.value(QStringLiteral("next")).toInteger();
            m_acked = m_nextSeq - 1;
        }
        return;
    }
    if (!m_plain)
        ++m_nextSeq;
    // Keys are written in sorted order, so the type is at the end of a log frame.
    const qsizetype markerSize = qsizetype(sizeof kLogMarker) - 1;
    if (size > markerSize + 1 && std::memcmp(payload + size - 1 - markerSize, kLogMarker, size_t(markerSize)) == 0) {
        ++m_logLines;
        m_logTextBytes += size - kLogOverhead;
        return;
    }
    if (onRawText && onRawText(payload, size))
        return;
    if (onMessage)
        onMessage(QJsonDocument::fromJson(QByteArray(payload, size)).object());
}

void LoopbackCounter::send(const QJsonObject& message)
{
    m_socket->write(relay::ws::frame(relay::ws::Text, QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

} // namespace brinmoor::bench
