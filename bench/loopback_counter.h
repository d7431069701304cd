#pragma once

#include "websocket_frames.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

#include <functional>

class QTcpServer;
class QTcpSocket;

namespace brinmoor::bench {

// A deliberately small WebSocket server for benchmarks: it speaks just enough of the
// protocol to accept one agent, unmasks frames in place and counts "task.log" lines
// without parsing them as JSON, so that it stays much faster than what it measures.
// It can read slowly (a byte budget per second) to exercise the agent's back-pressure.
// Like the relay, it announces the relay's extensions in its hello and confirms what it
// has read; or, set plain, it says a bare hello and confirms nothing, as a server that
// knows only the agent protocol.
class LoopbackCounter : public QObject {
    Q_OBJECT

public:
    explicit LoopbackCounter(QObject* parent = nullptr);

    bool listen();
    quint16 port() const;

    // Reads at most this many bytes per second until `until` ms after the first byte;
    // 0 means no limit.
    void throttle(qint64 bytesPerSecond, qint64 untilMs);

    void send(const QJsonObject& message);
    // Before listen(): speak only the agent protocol.
    void setPlain(bool plain) { m_plain = plain; }

    qint64 logLines() const { return m_logLines; }
    qint64 logTextBytes() const { return m_logTextBytes; }
    qint64 frames() const { return m_frames; }
    qint64 bytesRead() const { return m_bytesRead; }

    // Reads slowly from now on, for the given time.
    void throttleFor(qint64 bytesPerSecond, qint64 durationMs);

    // Sees every text frame that is not a "task.log" first, unparsed; returning true
    // means it was handled and is not parsed as JSON.
    std::function<bool(const char* payload, qsizetype size)> onRawText;
    // Called for every message that is not a "task.log", parsed.
    std::function<void(const QJsonObject&)> onMessage;

private:
    void onNewConnection();
    void onReadable();
    void consume();
    bool handshake();
    void parseFrames();
    void handleFrame(int opcode, const char* payload, qsizetype size);

    QTcpServer* m_server = nullptr;
    QTcpSocket* m_socket = nullptr;
    QByteArray m_buffer;
    qsizetype m_offset = 0;
    relay::ws::FrameReader m_reader{64 * 1024 * 1024, true};
    bool m_upgraded = false;
    qint64 m_logLines = 0;
    qint64 m_logTextBytes = 0;
    qint64 m_frames = 0;
    bool m_plain = false;
    qint64 m_nextSeq = 0; // the seq of the agent's next message
    qint64 m_acked = 0;
    qint64 m_bytesRead = 0;
    qint64 m_throttleRate = 0;
    qint64 m_throttleUntil = 0;
    qint64 m_budget = 0;
    qint64 m_throttleStart = 0; // m_clock time the slow reading started
    QElapsedTimer m_clock;
    QTimer m_tick;
};

} // namespace brinmoor::bench
