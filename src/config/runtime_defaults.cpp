#include "config/runtime_defaults.h"

#include "config/settings_store.h"

#include <QDir>
#include <QFileInfo>
#include <QUuid>

#include <functional>

namespace brinmoor::RuntimeDefaults {

namespace {

bool missing(const SettingsStore& defaults, const QString& key)
{
    return !defaults.nonEmptyString(key).has_value();
}

void writeIfMissing(SettingsStore& defaults, const QString& key, const Environment& env, const QString& variable,
                    const std::function<QString()>& fallback)
{
    if (!missing(defaults, key))
        return;
    const QString fromEnv = env.value(variable);
    defaults.setValue(key, fromEnv.isEmpty() ? fallback() : fromEnv);
}

QString freshToken()
{
    return QUuid::createUuid().toString(QUuid::Id128).toLower();
}

} // namespace

QString agentIdFromHostName(const QString& hostName)
{
    if (hostName.isEmpty())
        return QStringLiteral("mac-agent");
    QString id = hostName;
    // Blanks only: a tab or another kind of space stays as it is.
    id.replace(QLatin1Char(' '), QLatin1Char('-'));
    return id.toLower();
}

std::optional<qint64> parsePort(const QString& text)
{
    // toLongLong accepts one leading sign and nothing but digits after it.
    if (text.isEmpty() || text.front().isSpace() || text.back().isSpace())
        return std::nullopt;
    bool ok = false;
    const qint64 port = text.toLongLong(&ok, 10);
    if (!ok)
        return std::nullopt;
    return port;
}

void ensure(SettingsStore& defaults, const Environment& env)
{
    ensure(defaults, env, Machine::current());
}

void ensure(SettingsStore& defaults, const Environment& env, const Machine& machine)
{
    writeIfMissing(defaults, QStringLiteral("profileId"), env, QStringLiteral("BRINMOOR_PROFILE_ID"),
                   [] { return QStringLiteral("ios-local"); });
    writeIfMissing(defaults, QStringLiteral("repoRoot"), env, QStringLiteral("BRINMOOR_REPO_ROOT"),
                   [&] { return defaultRepoRoot(machine); });
    writeIfMissing(defaults, QStringLiteral("agentId"), env, QStringLiteral("BRINMOOR_AGENT_ID"),
                   [&] { return agentIdFromHostName(machine.hostName); });
    writeIfMissing(defaults, QStringLiteral("token"), env, QStringLiteral("BRINMOOR_SHARED_TOKEN"), freshToken);

    const std::optional<qint64> storedPort = defaults.integer(QStringLiteral("serverPort"));
    qint64 port = storedPort.value_or(0);
    if (port == 0) {
        port = parsePort(env.value(QStringLiteral("BRINMOOR_SERVER_PORT"))).value_or(8080);
        defaults.setValue(QStringLiteral("serverPort"), port);
    }

    if (missing(defaults, QStringLiteral("serverURL"))) {
        const QString fromEnv = env.value(QStringLiteral("BRINMOOR_SERVER_URL"));
        defaults.setValue(QStringLiteral("serverURL"),
                          fromEnv.isEmpty() ? QStringLiteral("http://127.0.0.1:%1").arg(port) : fromEnv);
    }
    defaults.sync();
}

QString defaultRepoRoot()
{
    return defaultRepoRoot(Machine::current());
}

QString defaultRepoRoot(const Machine& machine)
{
    const QString executableDir = QFileInfo(QDir::cleanPath(machine.executablePath)).path();
    const QStringList candidates = {
        QDir::cleanPath(executableDir + QStringLiteral("/../../../../")),
        QDir::cleanPath(executableDir + QStringLiteral("/../../../../../")),
        QDir::cleanPath(machine.currentDirectory),
    };
    for (const QString& candidate : candidates) {
        if (QFileInfo(candidate + QStringLiteral("/deploy.sh")).isFile())
            return candidate;
    }
    return QDir::cleanPath(machine.currentDirectory);
}

} // namespace brinmoor::RuntimeDefaults
