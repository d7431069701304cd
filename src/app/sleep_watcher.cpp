#include "app/sleep_watcher.h"

#include "app/agent_status_controller.h"

namespace brinmoor {

void SleepWatcher::onPrepareForSleep(bool sleeping)
{
    if (sleeping)
        Q_EMIT willSleep();
    else
        Q_EMIT didWake();
}

void SleepWatcher::follow(AgentStatusController& controller)
{
    connect(this, &SleepWatcher::willSleep, &controller, &AgentStatusController::willSleep);
    connect(this, &SleepWatcher::didWake, &controller, &AgentStatusController::didWake);
}

} // namespace brinmoor
