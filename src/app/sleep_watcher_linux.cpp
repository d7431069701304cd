#include "app/sleep_watcher.h"

#include "base/diag.h"

#include <QDBusConnection>

namespace brinmoor {

SleepWatcher::SleepWatcher(QObject* parent) : QObject(parent)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return;
    bus.connect(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
                SLOT(onPrepareForSleep(bool)));
}

SleepWatcher::~SleepWatcher() = default;

} // namespace brinmoor
