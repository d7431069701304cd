#include "config/machine.h"
#include "config/host_name.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>

namespace brinmoor {

namespace {

// The program's own file, links followed.
QString realExecutablePath()
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationFilePath();
    // Without an application object, Linux still knows the program through /proc.
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
}

// The program's first command-line argument, as whoever started it wrote it.
QString firstArgument()
{
    if (QCoreApplication::instance())
        return QCoreApplication::arguments().value(0);
    QFile commandLine(QStringLiteral("/proc/self/cmdline"));
    if (!commandLine.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray arguments = commandLine.readAll();
    return QFile::decodeName(arguments.left(arguments.indexOf('\0')));
}

QString invokedExecutablePath()
{
    const QString first = firstArgument();
    if (first.isEmpty())
        return realExecutablePath();
    // A bare name was looked up on PATH by whoever started the program; the folder
    // that lookup found is the program's, link or not.
    if (!first.contains(QLatin1Char('/'))) {
        const QString found = QStandardPaths::findExecutable(first);
        return found.isEmpty() ? realExecutablePath() : QDir::cleanPath(found);
    }
    return QDir::cleanPath(QDir::current().absoluteFilePath(first));
}

} // namespace

Machine Machine::current()
{
    Machine machine;
    machine.executablePath = invokedExecutablePath();
    const QString real = realExecutablePath();
    machine.bundleDirectory = real.isEmpty() ? QString() : QFileInfo(real).path();
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

QString agentStateFolder(const Environment& env, const QString& home)
{
#ifdef Q_OS_MACOS
    Q_UNUSED(env);
    return home + QStringLiteral("/Library/Application Support/BrinmoorMacAgent");
#else
    QString stateHome = env.value(QStringLiteral("XDG_STATE_HOME"));
    // XDG's base directory rules ignore a relative XDG_STATE_HOME.
    if (stateHome.isEmpty() || !QDir::isAbsolutePath(stateHome))
        stateHome = home + QStringLiteral("/.local/state");
    return stateHome + QStringLiteral("/brinmoor");
#endif
}

} // namespace brinmoor
