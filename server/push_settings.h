#pragma once

#include <QList>
#include <QSslCertificate>
#include <QString>

namespace brinmoor::relay {

// Where pushes come from and who they name.
struct PushSettings {
    QString stateFolder;
    // The VAPID subject: a mailto: address or an https: origin; empty turns pushes off.
    QString contact;
    QList<QSslCertificate> extraAuthorities;
};

} // namespace brinmoor::relay

#include <QProcessEnvironment>

#include <variant>

namespace brinmoor::relay {

// The push settings of the relay's environment (BRINMOOR_STATE_DIR, BRINMOOR_PUSH_CONTACT,
// BRINMOOR_PUSH_CA; the contact falls back to the https origin of `publicURL`), or the
// line that says why they cannot be used.
std::variant<PushSettings, QString> pushSettingsFromEnvironment(const QProcessEnvironment& env,
                                                                const QString& publicURL);

// Whether a host (a name or an address) is one push services cannot take for a contact:
// localhost, a .local or single-label name, a loopback, private or link-local address.
bool isLocalHost(const QString& host);

} // namespace brinmoor::relay
