#include "app/launch_at_login.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace brinmoor::LaunchAtLogin {

QString autostartEntryPath(const Environment& env, const QString& home)
{
    QString configHome = env.value(QStringLiteral("XDG_CONFIG_HOME"));
    if (configHome.isEmpty() || !QDir::isAbsolutePath(configHome))
        configHome = home + QStringLiteral("/.config");
    return configHome + QStringLiteral("/autostart/brinmoor-agent.desktop");
}

QString autostartEntry(const QString& executablePath)
{
    // Exec quoting of desktop entries: the path in double quotes, with ", `, $ and \ escaped.
    QString quoted = executablePath;
    for (const char* special : {"\\", "\"", "`", "$"})
        quoted.replace(QLatin1String(special), QLatin1String("\\") + QLatin1String(special));
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Brinmoor Agent\n"
                          "Comment=Lets the Wexlin phone app work on this computer\n"
                          "Exec=\"%1\"\n"
                          "Terminal=false\n"
                          "X-GNOME-Autostart-enabled=true\n")
        .arg(quoted);
}

bool setEnabled(bool enabled, const Environment& env, const Machine& machine, QString* error)
{
    const QString path = autostartEntryPath(env, machine.homeDirectory);
    if (!enabled) {
        if (QFileInfo::exists(path) && !QFile::remove(path)) {
            *error = QStringLiteral("cannot remove ") + path;
            return false;
        }
        return true;
    }
    if (!QDir().mkpath(QFileInfo(path).absolutePath())) {
        *error = QStringLiteral("cannot create ") + QFileInfo(path).absolutePath();
        return false;
    }
    QSaveFile file(path);
    const QByteArray content = autostartEntry(machine.executablePath).toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.commit()) {
        *error = QStringLiteral("cannot write ") + path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    return true;
}

} // namespace brinmoor::LaunchAtLogin
