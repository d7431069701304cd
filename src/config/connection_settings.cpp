#include "config/connection_settings.h"

#include "config/settings_store.h"

namespace brinmoor {

std::optional<QString> settingOrEnvironment(const SettingsStore& defaults, const QString& key, const Environment& env,
                                            const QString& variable)
{
    if (std::optional<QString> stored = defaults.nonEmptyString(key))
        return stored;
    const QString fromEnv = env.value(variable);
    if (!fromEnv.isEmpty())
        return fromEnv;
    return std::nullopt;
}

QString maskToken(const QString& token)
{
    if (token.isEmpty())
        return QString();
    return token.left(4) + QStringLiteral("…");
}

ConnectionSettings ConnectionSettings::load(const SettingsStore& defaults, const Environment& env)
{
    ConnectionSettings settings;
    settings.serverURL =
        settingOrEnvironment(defaults, QStringLiteral("serverURL"), env, QStringLiteral("BRINMOOR_SERVER_URL"))
            .value_or(QStringLiteral("http://127.0.0.1:8080"));
    settings.agentId =
        settingOrEnvironment(defaults, QStringLiteral("agentId"), env, QStringLiteral("BRINMOOR_AGENT_ID"))
            .value_or(QStringLiteral("mac-agent"));
    settings.token =
        settingOrEnvironment(defaults, QStringLiteral("token"), env, QStringLiteral("BRINMOOR_SHARED_TOKEN"))
            .value_or(QString());
    // A whole number of seconds from 0 up; anything else keeps the default.
    bool valid = false;
    const qint64 grace = settingOrEnvironment(defaults, QStringLiteral("taskDisconnectGraceSec"), env,
                                              QStringLiteral("BRINMOOR_TASK_DISCONNECT_GRACE_SEC"))
                             .value_or(QString())
                             .trimmed()
                             .toLongLong(&valid);
    if (valid && grace >= 0 && grace <= 30LL * 24 * 3600)
        settings.taskDisconnectGraceSec = grace;
    settings.tlsCA = settingOrEnvironment(defaults, QStringLiteral("tlsCA"), env, QStringLiteral("BRINMOOR_TLS_CA"))
                         .value_or(QString());
    return settings;
}

} // namespace brinmoor
