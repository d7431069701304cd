#include "push_settings.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QUrl>

namespace brinmoor::relay {

namespace {

const QString kPrefix = QStringLiteral("brinmoor-server: ");

QString defaultStateFolder(const QProcessEnvironment& env)
{
    QString stateHome = env.value(QStringLiteral("XDG_STATE_HOME"));
    // XDG's base directory rules ignore a relative XDG_STATE_HOME.
    if (stateHome.isEmpty() || !QDir::isAbsolutePath(stateHome))
        stateHome = env.value(QStringLiteral("HOME"), QDir::homePath()) + QStringLiteral("/.local/state");
    return stateHome + QStringLiteral("/brinmoor-server");
}

// The host a contact names: the mail domain of a mailto: address, the host of an https:
// URL; none for anything else.
std::optional<QString> contactHost(const QString& contact)
{
    if (contact.startsWith(QLatin1String("mailto:"))) {
        const QString address = contact.mid(7);
        const qsizetype at = address.lastIndexOf(QLatin1Char('@'));
        if (at <= 0 || at == address.size() - 1 || address.contains(QLatin1Char(' ')))
            return std::nullopt;
        QString domain = address.mid(at + 1);
        if (domain.startsWith(QLatin1Char('[')) && domain.endsWith(QLatin1Char(']')))
            domain = domain.mid(1, domain.size() - 2);
        return domain;
    }
    const QUrl url(contact, QUrl::StrictMode);
    if (!url.isValid() || url.scheme() != QLatin1String("https") || url.host().isEmpty())
        return std::nullopt;
    return url.host();
}

} // namespace

bool isLocalHost(const QString& host)
{
    const QString name = host.toLower().chopped(host.endsWith(QLatin1Char('.')) ? 1 : 0);
    QHostAddress address;
    if (address.setAddress(name)) {
        static const QList<QPair<QHostAddress, int>> kLocalSubnets = {
            QHostAddress::parseSubnet(QStringLiteral("127.0.0.0/8")),
            QHostAddress::parseSubnet(QStringLiteral("10.0.0.0/8")),
            QHostAddress::parseSubnet(QStringLiteral("172.16.0.0/12")),
            QHostAddress::parseSubnet(QStringLiteral("192.168.0.0/16")),
            QHostAddress::parseSubnet(QStringLiteral("169.254.0.0/16")),
            QHostAddress::parseSubnet(QStringLiteral("100.64.0.0/10")),
            QHostAddress::parseSubnet(QStringLiteral("0.0.0.0/8")),
            QHostAddress::parseSubnet(QStringLiteral("::1/128")),
            QHostAddress::parseSubnet(QStringLiteral("fc00::/7")),
            QHostAddress::parseSubnet(QStringLiteral("fe80::/10")),
        };
        for (const auto& subnet : kLocalSubnets) {
            if (address.isInSubnet(subnet))
                return true;
        }
        return false;
    }
    return name == QLatin1String("localhost") || name.endsWith(QLatin1String(".localhost")) ||
           name.endsWith(QLatin1String(".local")) || !name.contains(QLatin1Char('.'));
}

std::variant<PushSettings, QString> pushSettingsFromEnvironment(const QProcessEnvironment& env,
                                                                const QString& publicURL)
{
    PushSettings settings;
    settings.stateFolder = env.value(QStringLiteral("BRINMOOR_STATE_DIR")).trimmed();
    if (settings.stateFolder.isEmpty())
        settings.stateFolder = defaultStateFolder(env);

    const QString contact = env.value(QStringLiteral("BRINMOOR_PUSH_CONTACT")).trimmed();
    if (!contact.isEmpty()) {
        const std::optional<QString> host = contactHost(contact);
        if (!host)
            return kPrefix + QStringLiteral("BRINMOOR_PUSH_CONTACT is not a mailto: address or an https: URL: ") +
                   contact;
        if (isLocalHost(*host))
            return kPrefix +
                   QStringLiteral("BRINMOOR_PUSH_CONTACT names a local address, which push services refuse: ") +
                   contact;
        settings.contact = contact;
    } else if (!publicURL.isEmpty()) {
        // The address phones use names whoever runs the relay, unless only this network
        // knows it.
        const QUrl url(publicURL);
        if (url.scheme() == QLatin1String("https") && !isLocalHost(url.host()))
            settings.contact =
                url.adjusted(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment).toString(QUrl::FullyEncoded);
    }

    const QString authorities = env.value(QStringLiteral("BRINMOOR_PUSH_CA")).trimmed();
    if (!authorities.isEmpty()) {
        QFile file(authorities);
        if (!file.open(QIODevice::ReadOnly))
            return kPrefix + QStringLiteral("BRINMOOR_PUSH_CA cannot be read: ") + authorities + QStringLiteral(": ") +
                   file.errorString();
        settings.extraAuthorities = QSslCertificate::fromData(file.readAll(), QSsl::Pem);
        if (settings.extraAuthorities.isEmpty())
            return kPrefix + QStringLiteral("BRINMOOR_PUSH_CA holds no PEM certificate: ") + authorities;
    }
    return settings;
}

} // namespace brinmoor::relay
