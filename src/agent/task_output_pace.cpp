#include "agent/task_output_pace.h"

namespace brinmoor {

void TaskOutputPace::begin(const QString& taskId)
{
    m_taskId = taskId;
    m_lines.clear();
    m_sentBytes = 0;
    m_taken.reset();
    update();
}

void TaskOutputPace::sent(const QString& taskId, qint64 number, qint64 bytes)
{
    if (taskId != m_taskId)
        return;
    m_lines.emplace_back(number, m_sentBytes);
    m_sentBytes += bytes;
    // Without a pace, only the newest lines are worth remembering: a client that starts
    // pacing has taken about as much as was sent.
    if (!m_taken) {
        while (m_lines.size() > 1 && m_sentBytes - m_lines[1].second > 2 * kWindowBytes)
            m_lines.pop_front();
    }
    update();
}

void TaskOutputPace::acknowledge(const QString& taskId, std::optional<qint64> line)
{
    if (taskId != m_taskId)
        return;
    m_taken = line;
    if (line) {
        while (!m_lines.empty() && m_lines.front().first <= *line)
            m_lines.pop_front();
    }
    update();
}

qint64 TaskOutputPace::aheadBytes() const
{
    // The front is the oldest line not taken (or the oldest one remembered).
    return m_taken && !m_lines.empty() ? m_sentBytes - m_lines.front().second : 0;
}

void TaskOutputPace::update()
{
    m_flow.update(aheadBytes());
}

} // namespace brinmoor
