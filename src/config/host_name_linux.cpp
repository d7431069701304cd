#include "config/host_name.h"

#include <QFile>
#include <QSysInfo>

namespace brinmoor {

QString localizedHostName()
{
    // The static host name lives in /etc/hostname; the kernel's name is the fallback.
    QFile file(QStringLiteral("/etc/hostname"));
    if (file.open(QIODevice::ReadOnly)) {
        const QString name = QString::fromUtf8(file.readAll()).trimmed();
        if (!name.isEmpty())
            return name;
    }
    return QSysInfo::machineHostName();
}

} // namespace brinmoor
