#include "app/pairing.h"

#include "config/runtime_defaults.h"
#include "config/settings_store.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <qrencode.h>
#include <sys/socket.h>

namespace brinmoor {

QByteArray PairingPayload::encoded() const
{
    // Written by hand so that the keys keep their order: name, serverURL, agentId, token.
    const auto string = [](const QString& value) {
        return QJsonDocument(QJsonObject{{QStringLiteral("v"), value}}).toJson(QJsonDocument::Compact).mid(5).chopped(1);
    };
    return "{\"name\":" + string(name) + ",\"serverURL\":" + string(serverURL) + ",\"agentId\":" + string(agentId) +
           ",\"token\":" + string(token) + "}";
}

std::optional<PairingPayload> PairingPayload::decode(const QByteArray& json)
{
    const QJsonObject object = QJsonDocument::fromJson(json).object();
    for (const char* key : {"name", "serverURL", "agentId", "token"}) {
        if (!object.value(QLatin1String(key)).isString())
            return std::nullopt;
    }
    return PairingPayload{
        object.value(QStringLiteral("name")).toString(), object.value(QStringLiteral("serverURL")).toString(),
        object.value(QStringLiteral("agentId")).toString(), object.value(QStringLiteral("token")).toString()};
}

namespace Pairing {

namespace {

QString agentIdFor(const SettingsStore& defaults, const QString& hostName)
{
    return defaults.nonEmptyString(QStringLiteral("agentId")).value_or(RuntimeDefaults::agentIdFromHostName(hostName));
}

QString portText(const SettingsStore& defaults)
{
    return QString::number(defaults.integer(QStringLiteral("serverPort")).value_or(0));
}

} // namespace

std::vector<InterfaceAddress> systemInterfaceAddresses()
{
    std::vector<InterfaceAddress> addresses;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return addresses;
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        InterfaceAddress address;
        address.up = entry->ifa_flags & IFF_UP;
        address.loopback = entry->ifa_flags & IFF_LOOPBACK;
        address.ipv4 = entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET;
        if (address.ipv4) {
            char host[1025];
            if (::getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host, sizeof host, nullptr, 0, NI_NUMERICHOST) == 0)
                address.numericHost = QString::fromLatin1(host);
        }
        addresses.push_back(address);
    }
    ::freeifaddrs(list);
    return addresses;
}

std::optional<QString> currentLANIPv4Address(const std::vector<InterfaceAddress>& addresses)
{
    for (const InterfaceAddress& address : addresses) {
        if (!address.up || address.loopback || !address.ipv4 || address.numericHost.isEmpty())
            continue;
        if (address.numericHost != QLatin1String("127.0.0.1"))
            return address.numericHost;
    }
    return std::nullopt;
}

std::optional<QString> serverURLForPhones(const SettingsStore& defaults, const LocalServerSettings& server,
                                          const std::optional<QString>& lanAddress)
{
    if (!server.publicURL.isEmpty()) {
        QString url = server.publicURL;
        while (url.endsWith(QLatin1Char('/')))
            url.chop(1);
        return url;
    }
    if (!lanAddress)
        return std::nullopt;
    return server.scheme() + QStringLiteral("://") + *lanAddress + QLatin1Char(':') + portText(defaults);
}

std::optional<PairingPayload> currentPairingPayload(const SettingsStore& defaults, const QString& hostName,
                                                    const std::optional<QString>& lanAddress,
                                                    const LocalServerSettings& server)
{
    const std::optional<QString> serverURL = serverURLForPhones(defaults, server, lanAddress);
    if (!serverURL)
        return std::nullopt;
    const QString token = defaults.string(QStringLiteral("token")).value_or(QString());
    if (token.isEmpty())
        return std::nullopt;
    return PairingPayload{hostName.isEmpty() ? QStringLiteral("My Mac") : hostName, *serverURL,
                          agentIdFor(defaults, hostName), token};
}

QString webClientURL(const SettingsStore& defaults, const std::optional<QString>& lanAddress,
                     const LocalServerSettings& server)
{
    const QString token = defaults.string(QStringLiteral("token")).value_or(QString());
    return serverURLForPhones(defaults, server, lanAddress.value_or(QStringLiteral("127.0.0.1"))).value_or(QString()) +
           QStringLiteral("/#token=") + QString::fromLatin1(QUrl::toPercentEncoding(token));
}

QString pairingTooltip(const SettingsStore& defaults, const QString& hostName, const std::optional<QString>& lanAddress,
                       const LocalServerSettings& server)
{
    if (const std::optional<PairingPayload> payload = currentPairingPayload(defaults, hostName, lanAddress, server)) {
        return QStringLiteral("Server URL: ") + payload->serverURL + QStringLiteral("\nAgent ID: ") + payload->agentId +
               QStringLiteral("\nToken: ") + payload->token;
    }
    // Without a LAN address the details still let the user connect by hand.
    return QStringLiteral("Server URL: ") +
           serverURLForPhones(defaults, server, QStringLiteral("127.0.0.1")).value_or(QString()) +
           QStringLiteral("\nAgent ID: ") + agentIdFor(defaults, hostName) + QStringLiteral("\nToken: ") +
           defaults.string(QStringLiteral("token")).value_or(QString());
}

std::vector<std::vector<bool>> qrModules(const QByteArray& data)
{
    QRcode* code =
        QRcode_encodeData(int(data.size()), reinterpret_cast<const unsigned char*>(data.constData()), 0, QR_ECLEVEL_M);
    if (!code)
        return {};
    std::vector<std::vector<bool>> modules(size_t(code->width), std::vector<bool>(size_t(code->width)));
    for (int y = 0; y < code->width; ++y) {
        for (int x = 0; x < code->width; ++x)
            modules[size_t(y)][size_t(x)] = code->data[y * code->width + x] & 1;
    }
    QRcode_free(code);
    return modules;
}

QString terminalQRCode(const std::vector<std::vector<bool>>& modules)
{
    if (modules.empty())
        return QString();
    constexpr int kQuiet = 2;
    const int size = int(modules.size());
    const auto dark = [&](int y, int x) {
        y -= kQuiet;
        x -= kQuiet;
        return y >= 0 && x >= 0 && y < size && x < size && modules[size_t(y)][size_t(x)];
    };
    QString text;
    for (int y = 0; y < size + 2 * kQuiet; y += 2) {
        for (int x = 0; x < size + 2 * kQuiet; ++x) {
            const bool top = dark(y, x);
            const bool bottom = dark(y + 1, x);
            text += top && bottom ? QChar(0x2588) : top ? QChar(0x2580) : bottom ? QChar(0x2584) : QChar(u' ');
        }
        text += QLatin1Char('\n');
    }
    return text;
}

} // namespace Pairing

} // namespace brinmoor
