#include "tls_context.h"

#include "base/platform.h"
#include "relay_log.h"
#include "tls/tls_trust.h"

#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>

#include <sys/socket.h>
#include <unistd.h>

namespace brinmoor::relay {

namespace {

constexpr int kMinimumRsaBits = 2048;

QString isoText(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODate);
}

std::variant<QByteArray, QString> readFile(const char* variable, const QString& path)
{
    auto text = TlsTrust::readFile(path);
    if (const QString* reason = std::get_if<QString>(&text))
        return QLatin1String(variable) + QStringLiteral(" cannot be read: ") + path + QStringLiteral(": ") + *reason;
    return text;
}

QSslKey privateKey(const QByteArray& pem)
{
    for (const QSsl::KeyAlgorithm algorithm : {QSsl::Rsa, QSsl::Ec}) {
        QSslKey key(pem, algorithm, QSsl::Pem, QSsl::PrivateKey);
        if (!key.isNull())
            return key;
    }
    return {};
}

// OpenSSL checks that the key belongs to the certificate when it sets up a server's
// context, which a server socket does as it starts encrypting: on one end of a socket
// pair that nobody writes to, that happens at once and goes no further.
bool opensslTakesThePair(const QSslConfiguration& configuration)
{
    int ends[2];
    if (!Platform::makeSocketPair(AF_UNIX, SOCK_STREAM, 0, ends))
        return false;
    bool failed = false;
    {
        QSslSocket probe;
        if (probe.setSocketDescriptor(ends[0])) {
            probe.setSslConfiguration(configuration);
            QObject::connect(&probe, &QSslSocket::errorOccurred, &probe, [&failed] { failed = true; });
            probe.startServerEncryption();
            probe.abort();
        } else {
            ::close(ends[0]);
            failed = true;
        }
    }
    ::close(ends[1]);
    return !failed;
}

} // namespace

std::variant<QSslConfiguration, QString> loadTlsConfiguration(const TlsFiles& files, const QDateTime& now)
{
    if (files.key.isEmpty())
        return QStringLiteral("BRINMOOR_TLS_CERT is set but BRINMOOR_TLS_KEY is not");
    if (files.certificate.isEmpty())
        return QStringLiteral("BRINMOOR_TLS_KEY is set but BRINMOOR_TLS_CERT is not");

    const auto certificateText = readFile("BRINMOOR_TLS_CERT", files.certificate);
    if (const QString* problem = std::get_if<QString>(&certificateText))
        return *problem;
    const QList<QSslCertificate> chain = TlsTrust::certificatesIn(std::get<QByteArray>(certificateText));
    if (chain.isEmpty())
        return QStringLiteral("BRINMOOR_TLS_CERT holds no PEM certificate: ") + files.certificate;
    // Browsers and phones refuse such a certificate: better said once here than by every
    // client.
    const QSslCertificate& served = chain.first();
    if (served.expiryDate() < now)
        return QStringLiteral("BRINMOOR_TLS_CERT expired on ") + isoText(served.expiryDate()) + QStringLiteral(": ") +
               files.certificate;
    if (served.effectiveDate() > now)
        return QStringLiteral("BRINMOOR_TLS_CERT is not valid before ") + isoText(served.effectiveDate()) +
               QStringLiteral(": ") + files.certificate;

    const auto keyText = readFile("BRINMOOR_TLS_KEY", files.key);
    if (const QString* problem = std::get_if<QString>(&keyText))
        return *problem;
    const QSslKey key = privateKey(std::get<QByteArray>(keyText));
    if (key.isNull())
        return QStringLiteral("BRINMOOR_TLS_KEY holds no PEM private key that can be used (RSA or EC, not "
                              "encrypted): ") +
               files.key;

    const QSslKey publicKey = chain.first().publicKey();
    if (publicKey.algorithm() == QSsl::Rsa && key.algorithm() == QSsl::Rsa && publicKey.length() == key.length() &&
        key.length() < kMinimumRsaBits)
        return QStringLiteral("BRINMOOR_TLS_CERT holds an RSA key of %1 bits; TLS here needs at least %2: %3")
            .arg(key.length())
            .arg(kMinimumRsaBits)
            .arg(files.certificate);

    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setProtocol(QSsl::TlsV1_2OrLater);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setLocalCertificateChain(chain);
    configuration.setPrivateKey(key);
    configuration.setAllowedNextProtocols({QByteArray(QSslConfiguration::NextProtocolHttp1_1)});
    if (publicKey.algorithm() != key.algorithm() || publicKey.length() != key.length() ||
        !opensslTakesThePair(configuration))
        return QStringLiteral("BRINMOOR_TLS_KEY is not the key of the certificate in BRINMOOR_TLS_CERT: ") + files.key +
               QStringLiteral(", ") + files.certificate;
    return configuration;
}

QString expiryText(const QSslConfiguration& configuration)
{
    const QList<QSslCertificate> chain = configuration.localCertificateChain();
    if (chain.isEmpty())
        return {};
    return isoText(chain.first().expiryDate());
}

std::optional<qint64> daysLeftWhenExpiringSoon(const QSslConfiguration& configuration, const QDateTime& now)
{
    constexpr qint64 kSoonDays = 14;
    constexpr qint64 kDaySeconds = 24 * 60 * 60;
    const QList<QSslCertificate> chain = configuration.localCertificateChain();
    if (chain.isEmpty())
        return std::nullopt;
    const qint64 seconds = now.secsTo(chain.first().expiryDate());
    const qint64 days = (std::max<qint64>(seconds, 0) + kDaySeconds - 1) / kDaySeconds;
    if (days > kSoonDays)
        return std::nullopt;
    return days;
}

void warnWhenExpiringSoon(const QSslConfiguration& configuration)
{
    if (const std::optional<qint64> days = daysLeftWhenExpiringSoon(configuration))
        logEvent("tls.expires.soon", {{"expires", expiryText(configuration)}, {"days", QString::number(*days)}});
}

} // namespace brinmoor::relay
