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

// A phone that reads a terminal or a task slowly, for the tests and benchmarks: a raw
// client WebSocket that takes at most so many bytes a second from its socket, and
// acknowledges each piece of live terminal output, and each numbered line of a task's
// output, as soon as it has read it, as a client that renders at that speed would. Not
// part of the server.
class PacedTerminalReader : public QObject {
    Q_OBJECT

public:
    // `bytesPerSecond` 0 reads as fast as the data comes.
    PacedTerminalReader(quint16 port, const QByteArray& token, const QString& agentId, const QString& sessionId,
                        qint64 bytesPerSecond, QObject* parent = nullptr);
    ~PacedTerminalReader() override;

    // Sends a message with "agentId" and the payload, the session id added.
    void command(const QString& type, QJsonObject payload = {});
    // Sends a message as it is.
    void send(const QJsonObject& message);
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
    // The numbered lines of task output read ("task.log" with "number"): each is
    // acknowledged ("task.ack") as soon as it is read, as a page that takes it does.
    const QList<QPair<qint64, QString>>& taskLines() const { return m_taskLines; }
    // The messages read that are neither terminal output nor task output.
    const QList<QJsonObject>& otherMessages() const { return m_others; }

private:
    void onTick();
    void read(qint64 budget);
    void take(const QJsonObject& message);
    void takeTaskLine(const QJsonObject& message);

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
    QList<QPair<qint64, QString>> m_taskLines;
    QList<QJsonObject> m_others;
};

} // namespace brinmoor::relay
