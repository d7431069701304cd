#pragma once

#include <QString>
#include <QtGlobal>

struct winsize;

namespace brinmoor {

// The system calls that Linux and macOS spell differently, in one place. Linux builds use
// the Linux calls (pipe2, SOCK_CLOEXEC, openpty from libutil, FICLONE and
// copy_file_range); macOS builds use its own (clonefile and fcopyfile); a build with
// BRINMOOR_PORTABLE_POSIX takes the macOS path on Linux, with plain POSIX where only macOS
// has the call (posix_openpt for the terminal, reads and writes for a file). Failures
// leave the reason in errno.
namespace Platform {

// A pipe whose ends are closed on exec; with `nonBlocking`, neither end blocks.
bool makePipe(int fds[2], bool nonBlocking = false);

// A socket closed on exec; -1 when there is none.
int makeSocket(int domain, int type, int protocol);

// A pair of connected sockets, both closed on exec.
bool makeSocketPair(int domain, int type, int protocol, int fds[2]);

// A pseudo-terminal with the given window: its controlling side and its terminal side,
// both closed on exec.
bool openTerminal(int* controller, int* terminal, const winsize& window);

// How a file's data was copied.
enum class FileCopy {
    Failed,
    Cloned,    // shared with the original until either changes (copy-on-write)
    InKernel,  // copied by the kernel without passing through the agent
    ReadWrite, // read and written
};

// Copies the regular file open for reading as `from` (`size` bytes, read from its start)
// to a new file `name` in the folder open as `toDir`, created readable and writable by
// the user alone (a clone may take the original's mode). `to` receives the new file's
// descriptor, open for its mode to be set, or -1.
FileCopy copyFile(int from, qint64 size, int toDir, const char* name, int* to);

// Whether process `pid` runs. Where the system tells when a process started (field 22 of
// /proc/PID/stat on Linux), a `started` that is not empty must match it too: the number
// may have gone to a newer process.
bool processRuns(qint64 pid, const QString& started);

// Whether another process holds a lock (flock) on the file: one that only tries a shared
// lock and lets it go at once.
bool fileLocked(const QString& path);

} // namespace Platform

} // namespace brinmoor
