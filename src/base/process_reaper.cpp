#include "base/process_reaper.h"

#include "base/platform.h"

#include <QMutex>
#include <QMutexLocker>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace brinmoor::ProcessReaper {

namespace {

// Everything below runs in the forked reaper, where only async-signal-safe calls are
// allowed: read, write, kill, close, nanosleep, _exit. No allocation.
constexpr int kMaxGroups = 4096;

void pause(long milliseconds)
{
    timespec delay{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (::nanosleep(&delay, &delay) != 0 && errno == EINTR) {
    }
}

bool anyAlive(const std::int32_t* groups, int count)
{
    for (int i = 0; i < count; ++i) {
        if (groups[i] > 0 && ::kill(-groups[i], 0) == 0)
            return true;
    }
    return false;
}

[[noreturn]] void runReaper(int readEnd)
{
    // The reaper outlives the agent's terminal and its signals: only the pipe ends it.
    ::signal(SIGINT, SIG_IGN);
    ::signal(SIGTERM, SIG_IGN);
    ::signal(SIGHUP, SIG_IGN);
    ::signal(SIGPIPE, SIG_IGN);
    ::setpgid(0, 0);
    // Hold nothing of the agent's but the pipe: no socket or file stays open because of it.
    for (int fd = 0; fd < 3; ++fd) {
        if (fd != readEnd)
            ::close(fd);
    }
#ifdef SYS_close_range
    if (readEnd > 3)
        ::syscall(SYS_close_range, 3u, unsigned(readEnd - 1), 0u);
    ::syscall(SYS_close_range, unsigned(readEnd + 1), ~0u, 0u);
#else
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = 3; fd < limit; ++fd) {
        if (fd != readEnd)
            ::close(fd);
    }
#endif

    static std::int32_t groups[kMaxGroups];
    int count = 0;
    std::int32_t record = 0;
    std::size_t filled = 0;
    while (true) {
        const ssize_t n = ::read(readEnd, reinterpret_cast<char*>(&record) + filled, sizeof record - filled);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break; // the agent is gone
        filled += std::size_t(n);
        if (filled < sizeof record)
            continue;
        filled = 0;
        if (record > 0) {
            int slot = 0;
            while (slot < count && groups[slot] != 0)
                ++slot;
            if (slot == count && count < kMaxGroups)
                ++count;
            if (slot < count)
                groups[slot] = record;
        } else if (record < 0) {
            for (int i = 0; i < count; ++i) {
                if (groups[i] == -record)
                    groups[i] = 0;
            }
        }
    }
    for (int i = 0; i < count; ++i) {
        if (groups[i] > 0)
            ::kill(-groups[i], SIGTERM);
    }
    for (int waited = 0; waited < 2000 && anyAlive(groups, count); waited += 50)
        pause(50);
    for (int i = 0; i < count; ++i) {
        if (groups[i] > 0)
            ::kill(-groups[i], SIGKILL);
    }
    ::_exit(0);
}

QMutex& mutex()
{
    static QMutex m;
    return m;
}

int g_writeEnd = -1;
qint64 g_pid = 0;

void send(std::int32_t record)
{
    QMutexLocker locker(&mutex());
    if (g_writeEnd < 0)
        return;
    // Four bytes are written whole (a pipe write under PIPE_BUF is atomic).
    while (::write(g_writeEnd, &record, sizeof record) < 0 && errno == EINTR) {
    }
}

} // namespace

bool start()
{
    QMutexLocker locker(&mutex());
    if (g_writeEnd >= 0)
        return true;
    int fds[2];
    // Close-on-exec: no child of the agent keeps the pipe open after the agent is gone.
    if (!Platform::makePipe(fds))
        return false;
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    if (pid == 0) {
        ::close(fds[1]);
        runReaper(fds[0]);
    }
    ::close(fds[0]);
    g_writeEnd = fds[1];
    g_pid = pid;
    return true;
}

bool isRunning()
{
    QMutexLocker locker(&mutex());
    return g_writeEnd >= 0;
}

qint64 pid()
{
    QMutexLocker locker(&mutex());
    return g_pid;
}

void watchGroup(qint64 processGroup)
{
    if (processGroup > 0 && processGroup <= INT32_MAX)
        send(std::int32_t(processGroup));
}

void forgetGroup(qint64 processGroup)
{
    if (processGroup > 0 && processGroup <= INT32_MAX)
        send(-std::int32_t(processGroup));
}

} // namespace brinmoor::ProcessReaper
