#include "base/outgoing_flow.h"

namespace brinmoor {

void OutgoingFlow::update(qint64 pendingBytes)
{
    if (!m_blocked && pendingBytes > kHighWaterBytes) {
        m_blocked = true;
    } else if (m_blocked && pendingBytes < kLowWaterBytes) {
        m_blocked = false;
        Q_EMIT resumed();
    }
}

} // namespace brinmoor
