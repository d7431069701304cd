#pragma once

namespace brinmoor {

// Runs the agent connection alone (no local server, no tray) until SIGINT or SIGTERM.
int runAgentOnly();

} // namespace brinmoor
