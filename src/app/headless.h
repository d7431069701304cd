#pragma once

namespace brinmoor {

// Runs the agent without widgets: the local server, the agent connection, status texts
// as log lines and the pairing details printed once. Ends on SIGINT or SIGTERM.
int runHeadless();

} // namespace brinmoor
