#pragma once

#include "auth_guard.h"
#include "event_log.h"
#include "push_settings.h"
#include "relay_connection.h"
#include "tls_context.h"
#include "trusted_proxies.h"

#include <QHostAddress>
#include <QSslConfiguration>
#include <QStringList>

#include <optional>

namespace brinmoor::relay {

struct RelayConfig {
    QHostAddress bindAddress = QHostAddress::Any;
    quint16 port = 8080;
    QByteArray token;
    RelayLimits limits;
    int maxPacedSessions = 64; // terminal sessions one client may pace
    int approvalTimeoutMs = 600'000;
    int queueOfflineWaitMs = 600'000; // how long waiting tasks wait for an agent that went away
    int paceStallMs = 30'000;         // a client that owes an acknowledgement this long no longer paces
    QStringList allowedOrigins;       // besides the relay's own, normalized (the public URL's is one)
    QStringList allowedHosts;         // names and addresses Host may give besides the relay's own, normalized
                                      // (the public URL's host is one)
    GuessLimits guesses;
    EventLogLimits eventLog;
    TrustedProxies trustedProxies;
    TlsFiles tlsFiles;                    // read again on reload
    std::optional<QSslConfiguration> tls; // what the files held at start; none for plain HTTP
    PushSettings push;
};

} // namespace brinmoor::relay
