#include "terminal/read_ahead_window.h"

#include <algorithm>

namespace brinmoor {

void ReadAheadWindow::rendered(qint64 offset, qint64 nowMs)
{
    if (!m_mark || offset < m_mark->offset) {
        m_mark = Mark{offset, nowMs};
        return;
    }
    const qint64 elapsed = nowMs - m_mark->atMs;
    if (elapsed < kPeriodMs)
        return;
    // What the reader rendered in one period, at the rate it rendered since the mark.
    const qint64 perPeriod = (offset - m_mark->offset) * kPeriodMs / elapsed;
    m_size = std::clamp(perPeriod, kMinimum, kMaximum);
    m_mark = Mark{offset, nowMs};
}

void ReadAheadWindow::reset()
{
    m_mark.reset();
    m_size = kMinimum;
}

} // namespace brinmoor
