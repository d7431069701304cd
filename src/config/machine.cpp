#include "config/machine.h"
#include "config/host_name.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>

namespace brinmoor {

namespace {

QString runningExecutablePath()
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationFilePath();
    // Without an application object, Linux still knows the program through /proc.
    const QString viaProc = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    return viaProc;
}

} // namespace

Machine Machine::current()
{
    Machine machine;
    machine.executablePath = runningExecutablePath();
    machine.currentDirectory = QDir::currentPath();
    machine.homeDirectory = QDir::homePath();
    machine.hostName = localizedHostName();
    return machine;
}

Environment currentEnvironment()
{
    Environment env;
    const QProcessEnvironment system = QProcessEnvironment::systemEnvironment();
    const QStringList keys = system.keys();
    for (const QString& key : keys)
        env.insert(key, system.value(key));
    return env;
}

} // namespace brinmoor
