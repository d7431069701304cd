#pragma once

namespace brinmoor {

// Raises the soft limit of open files to the hard limit: every connection, pipe and
// terminal takes descriptors, and some systems start programs with very few (macOS
// gives 256). Returns the soft limit in force afterwards.
long raiseOpenFileLimit();

} // namespace brinmoor
