#include "base/outgoing_flow.h"

namespace brinmoor {

void OutgoingFlow::update(qint64 pendingBytes)
{
    if (!m_blocked && pendingBytes > m_high) {
        m_blocked = true;
    } else if (m_blocked && pendingBytes < m_low) {
        m_blocked = false;
        Q_EMIT resumed();
    }
}

} // namespace brinmoor
