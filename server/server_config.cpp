#include "server_config.h"

#include "origin_policy.h"
#include "protocol/shared_token.h"
#include "served_hosts.h"

#include <QUrl>

namespace brinmoor::relay {

namespace {

// Beyond this a count of connections is no setting but a slip.
constexpr qint64 kMostConnections = 1'000'000;

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
    const QString token = env.value(QStringLiteral("BRINMOOR_SHARED_TOKEN"));
    if (token.isEmpty())
        return QStringLiteral("brinmoor-server: BRINMOOR_SHARED_TOKEN is not set; refusing to start without a token");
    const qsizetype characters = token.toUcs4().size();
    if (characters < kMinimumTokenLength)
        return QStringLiteral("brinmoor-server: BRINMOOR_SHARED_TOKEN is too short (%1 characters); use at least %2, "
                              "for example 32 hexadecimal digits")
            .arg(characters)
            .arg(kMinimumTokenLength);
    config.token = token.toUtf8();

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

    const std::optional<qint64> queueSeconds =
        positive(env, QStringLiteral("BRINMOOR_QUEUE_OFFLINE_SEC"), config.queueOfflineWaitMs / 1000);
    if (!queueSeconds || *queueSeconds > 24 * 3600)
        return QStringLiteral("brinmoor-server: BRINMOOR_QUEUE_OFFLINE_SEC is not a number of seconds: ") +
               env.value(QStringLiteral("BRINMOOR_QUEUE_OFFLINE_SEC"));
    config.queueOfflineWaitMs = int(*queueSeconds * 1000);

    const std::optional<qint64> stallSeconds =
        positive(env, QStringLiteral("BRINMOOR_PACE_STALL_SEC"), config.paceStallMs / 1000);
    if (!stallSeconds || *stallSeconds > 3600)
        return QStringLiteral("brinmoor-server: BRINMOOR_PACE_STALL_SEC is not a number of seconds: ") +
               env.value(QStringLiteral("BRINMOOR_PACE_STALL_SEC"));
    config.paceStallMs = int(*stallSeconds * 1000);

    const std::optional<qint64> backlog =
        positive(env, QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES"), config.limits.maxBacklog);
    if (!backlog)
        return QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_BACKLOG_BYTES is not a number of bytes: ") +
               env.value(QStringLiteral("BRINMOOR_CLIENT_BACKLOG_BYTES"));
    config.limits.maxBacklog = *backlog;

    const std::optional<qint64> pacedSessions =
        positive(env, QStringLiteral("BRINMOOR_CLIENT_PACED_SESSIONS"), config.maxPacedSessions);
    if (!pacedSessions || *pacedSessions > 1'000'000)
        return QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_PACED_SESSIONS is not a number of sessions: ") +
               env.value(QStringLiteral("BRINMOOR_CLIENT_PACED_SESSIONS"));
    config.maxPacedSessions = int(*pacedSessions);

    const std::optional<qint64> clients =
        positive(env, QStringLiteral("BRINMOOR_CLIENT_CONNECTIONS"), config.limits.maxClients);
    if (!clients || *clients > kMostConnections)
        return QStringLiteral("brinmoor-server: BRINMOOR_CLIENT_CONNECTIONS is not a number of connections: ") +
               env.value(QStringLiteral("BRINMOOR_CLIENT_CONNECTIONS"));
    config.limits.maxClients = int(*clients);

    const std::optional<qint64> perAddress =
        positive(env, QStringLiteral("BRINMOOR_CLIENT_CONNECTIONS_PER_ADDRESS"), config.limits.maxClientsPerAddress);
    if (!perAddress || *perAddress > kMostConnections)
        return QStringLiteral(
                   "brinmoor-server: BRINMOOR_CLIENT_CONNECTIONS_PER_ADDRESS is not a number of connections: ") +
               env.value(QStringLiteral("BRINMOOR_CLIENT_CONNECTIONS_PER_ADDRESS"));
    config.limits.maxClientsPerAddress = int(*perAddress);

    const std::optional<qint64> logBytes =
        positive(env, QStringLiteral("BRINMOOR_EVENT_LOG_BYTES"), config.eventLog.maxBytes);
    if (!logBytes)
        return QStringLiteral("brinmoor-server: BRINMOOR_EVENT_LOG_BYTES is not a number of bytes: ") +
               env.value(QStringLiteral("BRINMOOR_EVENT_LOG_BYTES"));
    config.eventLog.maxBytes = *logBytes;

    const std::optional<qint64> logTotal =
        positive(env, QStringLiteral("BRINMOOR_EVENT_LOG_TOTAL_BYTES"), config.eventLog.maxTotalBytes);
    if (!logTotal)
        return QStringLiteral("brinmoor-server: BRINMOOR_EVENT_LOG_TOTAL_BYTES is not a number of bytes: ") +
               env.value(QStringLiteral("BRINMOOR_EVENT_LOG_TOTAL_BYTES"));
    config.eventLog.maxTotalBytes = *logTotal;

    const std::optional<qint64> logSeconds =
        positive(env, QStringLiteral("BRINMOOR_EVENT_LOG_SECONDS"), config.eventLog.maxAgeMs / 1000);
    if (!logSeconds || *logSeconds > 365LL * 24 * 3600)
        return QStringLiteral("brinmoor-server: BRINMOOR_EVENT_LOG_SECONDS is not a number of seconds: ") +
               env.value(QStringLiteral("BRINMOOR_EVENT_LOG_SECONDS"));
    config.eventLog.maxAgeMs = *logSeconds * 1000;

    const QString origins = env.value(QStringLiteral("BRINMOOR_ALLOWED_ORIGINS"));
    for (const QString& entry : origins.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const std::optional<QString> origin = normalizedOrigin(entry.trimmed());
        if (!origin)
            return QStringLiteral("brinmoor-server: BRINMOOR_ALLOWED_ORIGINS has an entry that is not an origin "
                                  "(scheme://host[:port]): ") +
                   entry.trimmed();
        config.allowedOrigins.append(*origin);
    }

    const QString publicURL = env.value(QStringLiteral("BRINMOOR_PUBLIC_URL")).trimmed();
    if (!publicURL.isEmpty()) {
        // Pages served under the public URL (through a proxy, or a name the relay does not
        // see in Host) are the relay's own.
        const std::optional<QString> origin = normalizedOrigin(publicURL);
        if (!origin)
            return QStringLiteral("brinmoor-server: BRINMOOR_PUBLIC_URL is not an http or https URL without a path: ") +
                   publicURL;
        config.allowedOrigins.append(*origin);
        // The name phones use is one the relay answers to.
        if (const std::optional<QString> host = ServedHosts::normalizedEntry(QUrl(publicURL).host(QUrl::FullyEncoded)))
            config.allowedHosts.append(*host);
    }

    const QString hosts = env.value(QStringLiteral("BRINMOOR_ALLOWED_HOSTS"));
    for (const QString& entry : hosts.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const std::optional<QString> host = ServedHosts::normalizedEntry(entry.trimmed());
        if (!host)
            return QStringLiteral("brinmoor-server: BRINMOOR_ALLOWED_HOSTS has an entry that is not a host name or IP "
                                  "address: ") +
                   entry.trimmed();
        config.allowedHosts.append(*host);
    }

    QString badProxy;
    const std::optional<TrustedProxies> proxies =
        TrustedProxies::parse(env.value(QStringLiteral("BRINMOOR_TRUSTED_PROXIES")), &badProxy);
    if (!proxies)
        return QStringLiteral("brinmoor-server: BRINMOOR_TRUSTED_PROXIES has an entry that is not an IP address or "
                              "subnet: ") +
               badProxy;
    config.trustedProxies = *proxies;

    auto push = pushSettingsFromEnvironment(env, publicURL);
    if (const QString* problem = std::get_if<QString>(&push))
        return *problem;
    config.push = std::get<PushSettings>(push);

    config.tlsFiles = TlsFiles{env.value(QStringLiteral("BRINMOOR_TLS_CERT")).trimmed(),
                               env.value(QStringLiteral("BRINMOOR_TLS_KEY")).trimmed()};
    if (config.tlsFiles.isSet()) {
        auto loaded = loadTlsConfiguration(config.tlsFiles);
        if (const QString* problem = std::get_if<QString>(&loaded))
            return QStringLiteral("brinmoor-server: ") + *problem;
        config.tls = std::get<QSslConfiguration>(loaded);
    }
    return config;
}

} // namespace brinmoor::relay
