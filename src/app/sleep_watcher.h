#pragma once

#include <QObject>

namespace brinmoor {

class AgentStatusController;

// Tells when the computer is about to sleep and when it woke: the login manager's
// PrepareForSleep signal on the system bus on Linux (nothing when there is no bus),
// the workspace notifications on macOS.
class SleepWatcher : public QObject {
    Q_OBJECT

public:
    explicit SleepWatcher(QObject* parent = nullptr);
    ~SleepWatcher() override;
    // Sleep and wake go to the controller's willSleep and didWake.
    void follow(AgentStatusController& controller);

Q_SIGNALS:
    void willSleep();
    void didWake();

public Q_SLOTS:
    // The login manager's signal: true before sleeping, false after waking.
    void onPrepareForSleep(bool sleeping);
};

} // namespace brinmoor
