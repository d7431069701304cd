#pragma once

#include <QString>

namespace brinmoor {

// The computer's name as its user sees it: the localized computer name on macOS,
// the static host name on Linux. Empty when the system does not say.
QString localizedHostName();

} // namespace brinmoor
