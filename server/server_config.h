#pragma once

#include "relay_server.h"

#include <QProcessEnvironment>

#include <variant>

namespace brinmoor::relay {

// The server's settings from its environment, or the one line that says why it cannot
// start.
std::variant<RelayConfig, QString> configFromEnvironment(const QProcessEnvironment& env);

} // namespace brinmoor::relay
