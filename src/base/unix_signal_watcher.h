#pragma once

#include <QObject>

#include <initializer_list>

class QSocketNotifier;

namespace brinmoor {

// Turns Unix signals (SIGINT, SIGTERM, SIGHUP) into a Qt signal on the event loop
// (through a self-pipe, the one thing a signal handler may safely do).
class UnixSignalWatcher : public QObject {
    Q_OBJECT

public:
    explicit UnixSignalWatcher(std::initializer_list<int> signals, QObject* parent = nullptr);
    ~UnixSignalWatcher() override;

Q_SIGNALS:
    void received(int signal);

private:
    QSocketNotifier* m_notifier = nullptr;
};

} // namespace brinmoor
