#include "config/settings_store.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brinmoor {

std::optional<QString> SettingsStore::string(const QString& key) const
{
    const QVariant stored = value(key);
    if (!stored.isValid() || stored.isNull())
        return std::nullopt;
    return stored.toString();
}

std::optional<QString> SettingsStore::nonEmptyString(const QString& key) const
{
    std::optional<QString> text = string(key);
    if (!text || text->isEmpty())
        return std::nullopt;
    return text;
}

std::optional<qint64> SettingsStore::integer(const QString& key) const
{
    const QVariant stored = value(key);
    switch (stored.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong: return stored.toLongLong();
    case QMetaType::QString: {
        // INI files keep every value as text; a plain decimal integer reads back as one.
        bool ok = false;
        const qint64 number = stored.toString().toLongLong(&ok, 10);
        if (ok)
            return number;
        return std::nullopt;
    }
    default: return std::nullopt;
    }
}

bool SettingsStore::boolean(const QString& key) const
{
    const QVariant stored = value(key);
    if (stored.typeId() == QMetaType::Bool)
        return stored.toBool();
    if (stored.typeId() == QMetaType::QString)
        return stored.toString() == QLatin1String("true");
    return false;
}

namespace {

// Creates the file readable by its owner only, before QSettings ever writes it;
// QSettings' atomic save keeps the mode of the file it replaces.
void createPrivateFile(const QString& path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::close(fd);
}

} // namespace

QSettingsStore::QSettingsStore(const QString& iniPath)
    : QSettingsStore(std::make_unique<QSettings>(iniPath, QSettings::IniFormat), true)
{
}

QSettingsStore::QSettingsStore(std::unique_ptr<QSettings> settings, bool restrictFile)
    : m_settings(std::move(settings)), m_restrictFile(restrictFile)
{
    if (m_restrictFile) {
        createPrivateFile(m_settings->fileName());
        restrictPermissions();
    }
}

QSettingsStore::~QSettingsStore()
{
    sync();
}

QString QSettingsStore::standardIniPath(const Environment& env, const QString& home)
{
    QString configHome = env.value(QStringLiteral("XDG_CONFIG_HOME"));
    // XDG's base directory rules ignore a relative XDG_CONFIG_HOME.
    if (configHome.isEmpty() || !QDir::isAbsolutePath(configHome))
        configHome = home + QStringLiteral("/.config");
    return configHome + QStringLiteral("/brinmoor/BrinmoorMacAgent.ini");
}

std::unique_ptr<QSettingsStore> QSettingsStore::standard()
{
#ifdef Q_OS_MACOS
    auto settings = std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                                QStringLiteral("com.brinmoor"), QStringLiteral("BrinmoorMacAgent"));
    return std::unique_ptr<QSettingsStore>(new QSettingsStore(std::move(settings), false));
#else
    const QString path = standardIniPath(currentEnvironment(), QDir::homePath());
    return std::make_unique<QSettingsStore>(path);
#endif
}

QString QSettingsStore::fileName() const
{
    return m_settings->fileName();
}

QVariant QSettingsStore::value(const QString& key) const
{
    return m_settings->value(key);
}

void QSettingsStore::setValue(const QString& key, const QVariant& value)
{
    m_settings->setValue(key, value);
}

void QSettingsStore::remove(const QString& key)
{
    m_settings->remove(key);
}

void QSettingsStore::sync()
{
    m_settings->sync();
    restrictPermissions();
}

void QSettingsStore::restrictPermissions() const
{
    if (!m_restrictFile)
        return;
    const QByteArray native = QFile::encodeName(m_settings->fileName());
    ::chmod(native.constData(), 0600);
}

} // namespace brinmoor
