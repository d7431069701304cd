#include "shared_frames.h"

namespace brinmoor::relay {

qint64 SharedFrames::append(const QByteArray& frame)
{
    m_frames.push_back(frame);
    m_bytes += frame.size();
    ++m_appended;
    return end() - 1;
}

void SharedFrames::releaseBefore(qint64 number)
{
    while (m_first < number && !m_frames.empty()) {
        m_bytes -= m_frames.front().size();
        m_frames.pop_front();
        ++m_first;
    }
    m_appended = 0;
}

} // namespace brinmoor::relay
