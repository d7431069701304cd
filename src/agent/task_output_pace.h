#pragma once

#include "base/outgoing_flow.h"

#include <QString>

#include <deque>
#include <optional>
#include <utility>

namespace brinmoor {

// How far a task's output may run ahead of the slowest client that reads it. Clients
// that pace a task say, through the server, the newest line they have taken; the task's
// child is not read while what was sent of its output after that line takes a window or
// more. Without a pace (no client paces the task, or no connection) nothing waits.
class TaskOutputPace {
public:
    static constexpr qint64 kWindowBytes = 256 * 1024;

    // The flow the task's child waits on.
    OutgoingFlow* flow() { return &m_flow; }

    // A task starts: no line sent, no pace.
    void begin(const QString& taskId);
    // Line `number` of the task went out, taking `bytes`.
    void sent(const QString& taskId, qint64 number, qint64 bytes);
    // The slowest client pacing the task has taken its lines up to `line`; none: no
    // client paces it any more.
    void acknowledge(const QString& taskId, std::optional<qint64> line);
    // The connection is gone: nothing paces.
    void release() { acknowledge(m_taskId, std::nullopt); }

    // What was sent after the line acknowledged, while a client paces.
    qint64 aheadBytes() const;

private:
    void update();

    QString m_taskId;
    // Lines sent that a pace may still count: their number and the bytes sent before
    // them.
    std::deque<std::pair<qint64, qint64>> m_lines;
    qint64 m_sentBytes = 0;
    std::optional<qint64> m_taken; // the newest line the pace says was taken
    OutgoingFlow m_flow{kWindowBytes, kWindowBytes / 2};
};

} // namespace brinmoor
