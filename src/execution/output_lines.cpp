#include "execution/output_lines.h"

#include "execution/process_runner.h"
#include "execution/task_host.h"

namespace brinmoor {

OutputLines::OutputLines(TaskHost& host, QString taskId, QObject* parent)
    : QObject(parent), m_host(host), m_taskId(std::move(taskId))
{
    m_wait.setSingleShot(true);
    m_wait.setInterval(kWaitMilliseconds);
    connect(&m_wait, &QTimer::timeout, this, [this] {
        // While the child is held back, or its pipe holds more, the rest of the line comes.
        if (moreComing && moreComing()) {
            m_wait.start();
            return;
        }
        flush();
    });
}

void OutputLines::take(const QString& text)
{
    if (!m_host.numbersOutputLines()) {
        flush();
        sendOutput(m_host, m_taskId, text);
        return;
    }
    const qsizetype last = text.lastIndexOf(QLatin1Char('\n'));
    if (last < 0) {
        m_partial += text;
        if (!m_partial.isEmpty() && !m_wait.isActive())
            m_wait.start();
        return;
    }
    m_wait.stop();
    // Whole lines: what waited, and this read up to its last newline.
    const QString whole = m_partial + QStringView(text).left(last + 1);
    m_partial = text.mid(last + 1);
    sendOutput(m_host, m_taskId, whole);
    if (!m_partial.isEmpty())
        m_wait.start();
}

void OutputLines::flush()
{
    m_wait.stop();
    if (m_partial.isEmpty())
        return;
    const QString piece = std::exchange(m_partial, QString());
    sendOutput(m_host, m_taskId, piece);
}

} // namespace brinmoor
