#include "server_config.h"

#include "origin_policy.h"

namespace brinmoor::relay {

namespace {

// A positive whole number from the environment, or the default when unset.
std::optional<qint64> positive(const QProcessEnvironment& env, const QString& name, qint64 fallback)
{
    const QString text = env.value(name).trimmed();
    if (text.isEmpty())
        return fallback;
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok || value <= 0)
        return std::nullopt;
    return value;
}

} // namespace

std::variant<RelayConfig, QString> configFromEnvironment(const QProcessEnvironment& env)
{
    RelayConfig config;
    config.token = env.value(QStringLiteral("BRINMOOR_SHARED_TOKEN")).toUtf8();
    if (config.token.isEmpty())
        return QStringLiteral("brinmoor-server: BRINMOOR_SHARED_TOKEN is not set; refusing to start without a token");

    const QString portText = env.value(QStringLiteral("BRINMOOR_SERVER_PORT")).trimmed();
    if (!portText.isEmpty()) {
        bool ok = false;
        const int port = portText.toInt(&ok);
        if (!ok || port < 0 || port > 65535)
            return QStringLiteral("brinmoor-server: BRINMOOR_SERVER_PORT is not a port number: ") + portText;
        config.port = quint16(port);
    }

    const QString bind = env.value(QStringLiteral("BRINMOOR_SERVER_BIND")).trimmed();
    if (!bind.isEmpty()) {
        QHostAddress address;
        if (!address.setAddress(bind))
            return QStringLiteral("brinmoor-server: BRINMOOR_SERVER_BIND is not an IP address: ") + bind;
        config.bindAddress = address;
    }

    const std::optional<qint64> approvalSeconds =
        positive(env, QStringLiteral("BRINMOOR_APPROVAL_TIMEOUT_SEC"), config.approvalTimeoutMs / 1000);
    if (!approvalSeconds || *approvalSeconds > 24 * 3600)
        return QStringLiteral("brinmoor-server: BRINMOOR_APPROVAL_TIMEOUT_SEC is not a number of seconds: ") +
               env.value(QStringLiteral("BRINMOOR_APPROVAL_TIMEOUT_SEC"));
    config.approvalTimeoutMs = int(*approvalSeconds * 1000);

    const std::optional<qint64> backlog =
        positive(env, QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES"), config.limits.maxBacklog);
    if (!backlog)
        return QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_BACKLOG_BYTES is not a number of bytes: ") +
               env.value(QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES"));
    config.limits.maxBacklog = *backlog;

    const QString origins = env.value(QStringLiteral("BRINMOOR_ALLOWED_ORIGINS"));
    for (const QString& entry : origins.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const std::optional<QString> origin = normalizedOrigin(entry.trimmed());
        if (!origin)
            return QStringLiteral("brinmoor-server: BRINMOOR_ALLOWED_ORIGINS has an entry that is not an origin "
                                  "(scheme://host[:port]): ") +
                   entry.trimmed();
        config.allowedOrigins.append(*origin);
    }
    return config;
}

} // namespace brinmoor::relay
