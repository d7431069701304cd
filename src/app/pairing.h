#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace brinmoor {

class SettingsStore;

// What the phone scans to find this computer's server: its name, the server's LAN
// address, the agent id and the shared token.
struct PairingPayload {
    QString name;
    QString serverURL;
    QString agentId;
    QString token;

    // The JSON object with the four keys in this order, compact.
    QByteArray encoded() const;
    // Absent unless the JSON holds all four keys as strings.
    static std::optional<PairingPayload> decode(const QByteArray& json);
};

// One network interface address as the system lists it.
struct InterfaceAddress {
    bool up = false;
    bool loopback = false;
    bool ipv4 = false;
    QString numericHost; // empty when it could not be converted
};

namespace Pairing {

// The interface addresses in the order the system gives them (getifaddrs).
std::vector<InterfaceAddress> systemInterfaceAddresses();
// The first up, non-loopback IPv4 address that is not 127.0.0.1.
std::optional<QString> currentLANIPv4Address(const std::vector<InterfaceAddress>& addresses);

// The payload from the settings and the LAN address; absent without an address or
// without a token.
std::optional<PairingPayload> currentPairingPayload(const SettingsStore& defaults, const QString& hostName,
                                                    const std::optional<QString>& lanAddress);
// Brinmoor Web on this computer's server, "http://HOST:PORT/#token=TOKEN": the token
// rides in the fragment, which a browser never sends to the server. The LAN address when
// there is one (a phone opens it), else the loopback address.
QString webClientURL(const SettingsStore& defaults, const std::optional<QString>& lanAddress);
// "Server URL: …", "Agent ID: …" and "Token: …" on three lines.
QString pairingTooltip(const SettingsStore& defaults, const QString& hostName,
                       const std::optional<QString>& lanAddress);

// The QR symbol of the bytes at error correction level M: rows of modules, true for
// dark. Empty when the data does not fit.
std::vector<std::vector<bool>> qrModules(const QByteArray& data);
// The symbol drawn with Unicode half blocks, two module rows per text line, with a
// quiet zone of two modules.
QString terminalQRCode(const std::vector<std::vector<bool>>& modules);

} // namespace Pairing

} // namespace brinmoor
