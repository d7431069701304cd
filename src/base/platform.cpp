#include "base/platform.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#if defined(__APPLE__)
#define BRINMOOR_MACOS_CALLS 1
#include <copyfile.h>
#include <sys/clonefile.h>
#include <util.h>
#elif defined(__linux__) && !defined(BRINMOOR_PORTABLE_POSIX)
#define BRINMOOR_LINUX_CALLS 1
#include <linux/fs.h>
#include <pty.h>
#endif

namespace brinmoor::Platform {

namespace {

[[maybe_unused]] bool setCloseOnExec(int fd)
{
    const int flags = ::fcntl(fd, F_GETFD);
    return flags >= 0 && ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

[[maybe_unused]] bool setNonBlocking(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Closes both ends and fails, keeping the errno of what went wrong.
bool closeBoth(int fds[2])
{
    const int error = errno;
    ::close(fds[0]);
    ::close(fds[1]);
    fds[0] = fds[1] = -1;
    errno = error;
    return false;
}

// What is left of `from` is read and written to `to`.
bool readAndWrite(int from, int to)
{
    char buffer[256 * 1024];
    while (true) {
        const ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n == 0)
            return true;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(to, buffer + done, size_t(n - done));
            if (w < 0) {
                if (errno == EINTR)
                    continue;
                return false;
            }
            done += w;
        }
    }
}

int createFile(int toDir, const char* name)
{
    return ::openat(toDir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

#if defined(BRINMOOR_LINUX_CALLS)

bool copyInKernel(int from, int to, qint64 size)
{
    qint64 left = size;
    while (left > 0) {
        const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, size_t(left), 0);
        if (n > 0)
            left -= n;
        else if (n == 0)
            break;
        else if (errno != EINTR)
            return false;
    }
    return left == 0;
}

#endif

} // namespace

bool makePipe(int fds[2], bool nonBlocking)
{
#if defined(BRINMOOR_LINUX_CALLS)
    return ::pipe2(fds, O_CLOEXEC | (nonBlocking ? O_NONBLOCK : 0)) == 0;
#else
    if (::pipe(fds) != 0)
        return false;
    for (int i = 0; i < 2; ++i) {
        if (!setCloseOnExec(fds[i]) || (nonBlocking && !setNonBlocking(fds[i])))
            return closeBoth(fds);
    }
    return true;
#endif
}

int makeSocket(int domain, int type, int protocol)
{
#if defined(BRINMOOR_LINUX_CALLS)
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
#else
    const int fd = ::socket(domain, type, protocol);
    if (fd >= 0 && !setCloseOnExec(fd)) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
#endif
}

bool makeSocketPair(int domain, int type, int protocol, int fds[2])
{
#if defined(BRINMOOR_LINUX_CALLS)
    return ::socketpair(domain, type | SOCK_CLOEXEC, protocol, fds) == 0;
#else
    if (::socketpair(domain, type, protocol, fds) != 0)
        return false;
    if (!setCloseOnExec(fds[0]) || !setCloseOnExec(fds[1]))
        return closeBoth(fds);
    return true;
#endif
}

bool openTerminal(int* controller, int* terminal, const winsize& window)
{
    int fds[2] = {-1, -1};
#if defined(BRINMOOR_LINUX_CALLS) || defined(BRINMOOR_MACOS_CALLS)
    winsize size = window;
    if (::openpty(&fds[0], &fds[1], nullptr, nullptr, &size) != 0)
        return false;
#else
    fds[0] = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (fds[0] < 0)
        return false;
    const char* name = nullptr;
    if (::grantpt(fds[0]) != 0 || ::unlockpt(fds[0]) != 0 || !(name = ::ptsname(fds[0]))) {
        const int error = errno;
        ::close(fds[0]);
        errno = error;
        return false;
    }
    fds[1] = ::open(name, O_RDWR | O_NOCTTY);
    if (fds[1] < 0 || ::ioctl(fds[1], TIOCSWINSZ, &window) != 0)
        return closeBoth(fds);
#endif
    if (!setCloseOnExec(fds[0]) || !setCloseOnExec(fds[1]))
        return closeBoth(fds);
    *controller = fds[0];
    *terminal = fds[1];
    return true;
}

FileCopy copyFile(int from, qint64 size, int toDir, const char* name, int* to)
{
#if defined(BRINMOOR_MACOS_CALLS)
    // A clone is made by name and takes the original's mode, which the caller sets again.
    if (::fclonefileat(from, toDir, name, 0) == 0) {
        *to = ::openat(toDir, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        return *to >= 0 ? FileCopy::Cloned : FileCopy::Failed;
    }
#endif
    *to = createFile(toDir, name);
    if (*to < 0)
        return FileCopy::Failed;
#if defined(BRINMOOR_LINUX_CALLS)
    // A clone shares the blocks until either side changes them.
    if (::ioctl(*to, FICLONE, from) == 0)
        return FileCopy::Cloned;
    // What the kernel did not copy is read and written from where it stopped.
    if (copyInKernel(from, *to, size))
        return FileCopy::InKernel;
#elif defined(BRINMOOR_MACOS_CALLS)
    Q_UNUSED(size)
    if (::fcopyfile(from, *to, nullptr, COPYFILE_DATA) == 0)
        return FileCopy::InKernel;
    // Some file systems refuse it: start over with reads and writes.
    if (::lseek(from, 0, SEEK_SET) != 0 || ::ftruncate(*to, 0) != 0 || ::lseek(*to, 0, SEEK_SET) != 0)
        return FileCopy::Failed;
#else
    Q_UNUSED(size)
#endif
    // Some file systems refuse both: read and write what is left.
    return readAndWrite(from, *to) ? FileCopy::ReadWrite : FileCopy::Failed;
}

bool processRuns(qint64 pid, const QString& started)
{
    if (pid <= 0 || (::kill(pid_t(pid), 0) != 0 && errno != EPERM))
        return false;
    if (started.isEmpty())
        return true;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true; // no /proc (macOS): the number is all there is
    // The fields after the program's name, which may hold spaces and parentheses.
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    // Field 22 of the line is the 20th after the name.
    return fields.size() > 19 && QString::fromLatin1(fields.at(19)) == started;
}

bool fileLocked(const QString& path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool locked = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd); // lets go of a lock it took
    return locked;
}

} // namespace brinmoor::Platform
