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

    static ConnectionSettings load(const SettingsStore& defaults, const Environment& env);
};

// A token as logs and the user may see it: its first 4 characters, then "…".
QString maskToken(const QString& token);

// The first non-empty of the settings value and the environment variable.
std::optional<QString> settingOrEnvironment(const SettingsStore& defaults, const QString& key, const Environment& env,
                                            const QString& variable);

} // namespace brinmoor
