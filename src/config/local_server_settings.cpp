#include "config/local_server_settings.h"

#include "config/connection_settings.h"

namespace brinmoor {

namespace {

QString setting(const SettingsStore& defaults, const Environment& env, const char* key, const char* variable)
{
    return settingOrEnvironment(defaults, QLatin1String(key), env, QLatin1String(variable)).value_or(QString());
}

} // namespace

QString LocalServerSettings::scheme() const
{
    return tls() ? QStringLiteral("https") : QStringLiteral("http");
}

QList<QPair<QString, QString>> LocalServerSettings::serverEnvironment() const
{
    return {{QStringLiteral("BRINMOOR_TLS_CERT"), tlsCertificate},
            {QStringLiteral("BRINMOOR_TLS_KEY"), tlsKey},
            {QStringLiteral("BRINMOOR_PUBLIC_URL"), publicURL},
            {QStringLiteral("BRINMOOR_TRUSTED_PROXIES"), trustedProxies},
            {QStringLiteral("BRINMOOR_ALLOWED_HOSTS"), allowedHosts},
            {QStringLiteral("BRINMOOR_PUSH_CONTACT"), pushContact}};
}

LocalServerSettings LocalServerSettings::load(const SettingsStore& defaults, const Environment& env)
{
    return {setting(defaults, env, "tlsCert", "BRINMOOR_TLS_CERT"),
            setting(defaults, env, "tlsKey", "BRINMOOR_TLS_KEY"),
            setting(defaults, env, "publicURL", "BRINMOOR_PUBLIC_URL"),
            setting(defaults, env, "trustedProxies", "BRINMOOR_TRUSTED_PROXIES"),
            setting(defaults, env, "allowedHosts", "BRINMOOR_ALLOWED_HOSTS"),
            setting(defaults, env, "pushContact", "BRINMOOR_PUSH_CONTACT")};
}

} // namespace brinmoor
