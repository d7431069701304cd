#pragma once

#include "config/machine.h"

#include <QString>

namespace brinmoor {

// Starting the agent when the user logs in: an XDG autostart entry on Linux, the
// system's login items on macOS.
namespace LaunchAtLogin {

// Registers (or unregisters) the agent; false with the reason when the system refused.
bool setEnabled(bool enabled, const Environment& env, const Machine& machine, QString* error);

// Where the Linux autostart entry lives: $XDG_CONFIG_HOME/autostart (default ~/.config).
QString autostartEntryPath(const Environment& env, const QString& home);

// The autostart entry that starts the program at the path.
QString autostartEntry(const QString& executablePath);

} // namespace LaunchAtLogin

} // namespace brinmoor
