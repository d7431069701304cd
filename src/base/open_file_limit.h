#pragma once

namespace brinmoor {

// Raises this process's soft limit on open files to its hard limit (macOS starts
// programs with 256, which a busy relay outgrows). Returns the soft limit in force
// afterwards, or -1 when it cannot be read.
long raiseOpenFileLimit();

// The soft limit on open files in force now, or -1 when it cannot be read.
long openFileLimit();

} // namespace brinmoor
