#pragma once

#include "websocket_frames.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>

class QTcpSocket;

namespace brinmoor::relay {

// A phone that reads a terminal slowly, for the tests and benchmarks: a raw client
// WebSocket that takes at most so many bytes a second from its socket, and
// acknowledges each piece of live terminal output as soon as it has read it, as a
// client that renders at that speed would. Not part of the server.
class PacedTerminalReader : public QObject {
    Q_OBJECT

public:
    // `bytesPerSecond` 0 reads as fast as the data comes.
    PacedTerminalReader(quint16 port, const QByteArray& token, const QString& agentId, const QString& sessionId,
                        qint64 bytesPerSecond, QObject* parent = nullptr);
    ~PacedTerminalReader() override;

    // Sends a message with "agentId" and the payload, the session id added.
    void command(const QString& type, QJsonObject payload = {});
    void setPace(qint64 bytesPerSecond);
    // Whether it acknowledges what it reads (it does by default).
    void setAcknowledging(bool acknowledging) { m_acknowledging = acknowledging; }

    bool isUpgraded() const { return m_upgraded; }
    bool isClosed() const { return m_closed; }
    // The session's live output so far, as UTF-8; kept whole only when asked to.
    void keepOutput(bool keep) { m_keep = keep; }
    const QByteArray& output() const { return m_output; }
    // The newest 64 KiB of output.
    QByteArray tail() const { return m_tail; }
    qint64 outputBytes() const { return m_outputBytes; }
    qint64 bytesRead() const { return m_bytesRead; }
    // Types of every message read, in order.
    const QStringList& types() const { return m_types; }

private:
    void onTick();
    void read(qint64 budget);
    void take(const QJsonObject& message);
    void send(const QJsonObject& message);

    QTcpSocket* m_socket;
    QString m_agentId;
    QString m_sessionId;
    qint64 m_rate = 0;
    QTimer m_tick;
    QByteArray m_in;
    qsizetype m_offset = 0;
    ws::FrameReader m_reader{64 * 1024 * 1024, false};
    bool m_upgraded = false;
    bool m_closed = false;
    bool m_acknowledging = true;
    bool m_keep = false;
    QByteArray m_output;
    QByteArray m_tail;
    qint64 m_outputBytes = 0;
    qint64 m_bytesRead = 0;
    QStringList m_types;
};

} // namespace brinmoor::relay
