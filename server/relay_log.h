#pragma once

#include <QString>

namespace brinmoor::relay {

// The server's one logger: a line on standard output, flushed at once so that the agent
// hosting the server relays it as it happens.
void diag(const QString& text);

} // namespace brinmoor::relay
