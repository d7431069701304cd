#include "terminal/replay_buffer.h"

namespace brinmoor {

void ReplayBuffer::keep(const QString& read)
{
    m_reads.append(read);
    m_units += read.size();
    qsizetype dropped = 0;
    while (m_reads.size() - dropped > 1 && (m_reads.size() - dropped > kMaxReads || m_units > kMaxUnits))
        m_units -= m_reads.at(dropped++).size();
    m_reads.erase(m_reads.begin(), m_reads.begin() + dropped);
}

} // namespace brinmoor
