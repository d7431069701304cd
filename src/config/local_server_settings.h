#pragma once

#include "config/machine.h"

#include <QList>
#include <QPair>
#include <QString>

namespace brinmoor {

class SettingsStore;

// What the agent tells the server it starts beside itself besides port and token, and
// how phones reach that server: its certificate and key for TLS, the URL phones use when
// it is not the LAN address, the reverse proxies it trusts, the further names it
// answers to, and whom push services may contact about its pushes. Read afresh at every start: the settings key first, then the environment.
struct LocalServerSettings {
    QString tlsCertificate; // "tlsCert", BRINMOOR_TLS_CERT: PEM chain
    QString tlsKey;         // "tlsKey", BRINMOOR_TLS_KEY: PEM key
    QString publicURL;      // "publicURL", BRINMOOR_PUBLIC_URL, e.g. https://mymac.tailnet.ts.net:8443
    QString trustedProxies; // "trustedProxies", BRINMOOR_TRUSTED_PROXIES
    QString allowedHosts;   // "allowedHosts", BRINMOOR_ALLOWED_HOSTS
    QString pushContact;    // "pushContact", BRINMOOR_PUSH_CONTACT: mailto: or https:, named in every push

    // A certificate is given: the server speaks HTTPS and WSS only.
    bool tls() const { return !tlsCertificate.isEmpty(); }
    // "https" with TLS, else "http".
    QString scheme() const;
    // The environment variables the server reads, each with its value (empty: unset).
    QList<QPair<QString, QString>> serverEnvironment() const;

    static LocalServerSettings load(const SettingsStore& defaults, const Environment& env);
};

} // namespace brinmoor
