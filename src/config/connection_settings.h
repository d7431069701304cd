#pragma once

#include "config/machine.h"

#include <QString>

#include <optional>

namespace brinmoor {

class SettingsStore;

// Where the agent connects and who it is, read afresh at every use: the settings
// key first, then the environment, then the built-in default.
struct ConnectionSettings {
    QString serverURL;
    QString agentId;
    QString token;
    // How long a task runs on while the agent has no connection, before it is stopped.
    qint64 taskDisconnectGraceSec = 600;
    // A PEM file of certificate authorities to trust besides the system's ("tlsCA",
    // BRINMOOR_TLS_CA): a server whose certificate comes from a private authority
    // verifies like any other.
    QString tlsCA;
    // The certificate file of the server the agent started and pins, when it speaks TLS;
    // not a setting: the agent fills it in.
    QString pinnedCertificate;

    static ConnectionSettings load(const SettingsStore& defaults, const Environment& env);
};

// A token as logs and the user may see it: its first 4 characters, then "…".
QString maskToken(const QString& token);

// The first non-empty of the settings value and the environment variable.
std::optional<QString> settingOrEnvironment(const SettingsStore& defaults, const QString& key, const Environment& env,
                                            const QString& variable);

} // namespace brinmoor
