#pragma once

#include <QtGlobal>

namespace brinmoor {

// Makes sure that no process the agent started outlives it, however the agent ends:
// a clean stop, a crash or SIGKILL. A small reaper process, forked once at start, reads
// a pipe whose writing end only the agent holds; the agent tells it each process group
// it starts and each it has seen end. When the pipe closes because the agent is gone,
// the reaper sends SIGTERM to every group still registered, SIGKILL to what is left
// 2 s later, and exits. Until `start` is called (tests that run no agent program),
// registering does nothing.
namespace ProcessReaper {

// Forks the reaper; false when it could not. Called once, early, by the program.
bool start();
bool isRunning();
// The reaper's process id (0 without one), for tests.
qint64 pid();

// A process group the agent started (a task's child, a terminal's shell).
void watchGroup(qint64 processGroup);
// A group that is gone: the reaper must never signal that number again.
void forgetGroup(qint64 processGroup);

} // namespace ProcessReaper

} // namespace brinmoor
