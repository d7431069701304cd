#pragma once

#include "config/machine.h"

#include <QString>

#include <optional>

namespace brinmoor {

class SettingsStore;

// Seeds the settings once at start, so that later reads find a value for every
// connection setting.
namespace RuntimeDefaults {

// Writes every missing connection setting, then flushes the store.
void ensure(SettingsStore& defaults, const Environment& env);
void ensure(SettingsStore& defaults, const Environment& env, const Machine& machine);

// The first of four and five levels above the executable, and the current directory,
// that holds a deploy.sh; the current directory when none does.
QString defaultRepoRoot();
QString defaultRepoRoot(const Machine& machine);

// The agent id made from a host name: blanks become "-", lower case; "mac-agent"
// when there is no name.
QString agentIdFromHostName(const QString& hostName);

// A decimal port text with an optional sign; absent when it is not a valid integer.
std::optional<qint64> parsePort(const QString& text);

} // namespace RuntimeDefaults

} // namespace brinmoor
