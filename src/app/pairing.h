#pragma once

#include "config/local_server_settings.h"

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

// Where phones reach this computer's server: the public URL when one is set (without a
// trailing slash), otherwise SCHEME://LAN-ADDRESS:PORT, https when the server has a
// certificate; none without either. Every link handed to a phone starts with it.
std::optional<QString> serverURLForPhones(const SettingsStore& defaults, const LocalServerSettings& server,
                                          const std::optional<QString>& lanAddress);

// The payload from the settings and the LAN address (or the public URL); absent without
// either or without a token.
std::optional<PairingPayload> currentPairingPayload(const SettingsStore& defaults, const QString& hostName,
                                                    const std::optional<QString>& lanAddress,
                                                    const LocalServerSettings& server = {});
// Brinmoor Web on this computer's server, "SERVER-URL/#token=TOKEN": the token rides in
// the fragment, which a browser never sends to the server. SERVER-URL is the one phones
// are given (the public URL when there is one), on the LAN address when there is one (a
// phone opens it), else on the loopback address.
QString webClientURL(const SettingsStore& defaults, const std::optional<QString>& lanAddress,
                     const LocalServerSettings& server = {});
// "Server URL: …", "Agent ID: …" and "Token: …" on three lines.
QString pairingTooltip(const SettingsStore& defaults, const QString& hostName, const std::optional<QString>& lanAddress,
                       const LocalServerSettings& server = {});

// The QR symbol of the bytes at error correction level M: rows of modules, true for
// dark. Empty when the data does not fit.
std::vector<std::vector<bool>> qrModules(const QByteArray& data);
// The symbol drawn with Unicode half blocks, two module rows per text line, with a
// quiet zone of two modules.
QString terminalQRCode(const std::vector<std::vector<bool>>& modules);

} // namespace Pairing

} // namespace brinmoor
