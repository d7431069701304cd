#include "execution/child_process.h"

#include "base/outgoing_flow.h"
#include "base/process_reaper.h"
#include "base/secret_environment.h"
#include "execution/execution_resolution.h"

#include <QCoreApplication>
#include <QProcess>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace brinmoor {

namespace {

constexpr qsizetype kReadChunk = 256 * 1024;
// A read of short lines is many messages (a 64 KiB read of `seq` is about a megabyte of
// them), and what the pipe holds when the child exits is read at once: both are how far
// a paced task's output may overshoot its pace, so both stay small for one.
constexpr qsizetype kPacedReadChunk = 64 * 1024;
// A bigger pipe means fewer wake-ups for a chatty child; a paced one's stays small.
constexpr int kPipeSize = 1024 * 1024;
constexpr int kPacedPipeSize = 256 * 1024;
// After the child exits, what is left in the pipes is read without waiting; a
// background grandchild that keeps writing cannot hold the task open past this.
constexpr qsizetype kDrainLimit = 16 * 1024 * 1024;

bool makePipe(int fds[2], int size)
{
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
#ifdef F_SETPIPE_SZ
    ::fcntl(fds[0], F_SETPIPE_SZ, size);
#endif
    return true;
}

void closeFd(int& fd)
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

} // namespace

QProcessEnvironment ChildProcess::childEnvironment()
{
    // The relay token is the agent's alone: no task, assistant or tool it starts sees it.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char* name : SecretEnvironment::kVariables)
        env.remove(QLatin1String(name));
    return env;
}

ChildProcess::CommandLine ChildProcess::commandLine(const QString& shell, bool requiresTTY)
{
    if (!requiresTTY)
        return {QStringLiteral("/bin/zsh"), {QStringLiteral("-lc"), shell}};
#ifdef Q_OS_MACOS
    return {
        QStringLiteral("/usr/bin/script"),
        {QStringLiteral("-q"), QStringLiteral("/dev/null"), QStringLiteral("/bin/zsh"), QStringLiteral("-lc"), shell}};
#else
    // util-linux script takes the command as one string and runs it with a shell;
    // -e passes the command's exit status on.
    return {QStringLiteral("/usr/bin/script"),
            {QStringLiteral("-q"), QStringLiteral("-e"), QStringLiteral("-c"),
             QStringLiteral("/bin/zsh -lc ") + ExecutionResolution::shellQuote(shell), QStringLiteral("/dev/null")}};
#endif
}

ChildProcess::ChildProcess(OutgoingFlow* flow, QObject* parent) : QObject(parent)
{
    alsoWaitFor(flow);
    m_readBuffer.resize(kReadChunk);
}

ChildProcess::~ChildProcess()
{
    closePipe(m_out);
    closePipe(m_err);
    if (m_process) {
        m_process->disconnect(this);
        if (m_process->state() != QProcess::NotRunning) {
            // Never block the loop: kill the group and let the process object reap it.
            signalGroup(m_pid, SIGKILL);
            ProcessReaper::forgetGroup(m_pid);
            QProcess* process = m_process;
            process->setParent(nullptr);
            QObject::connect(process, &QProcess::finished, process, &QObject::deleteLater);
        } else {
            delete m_process;
        }
    }
}

bool ChildProcess::start(const Launch& launch, QString* error)
{
    int outFds[2] = {-1, -1};
    int errFds[2] = {-1, -1};
    const bool merged = launch.channels == Channels::Merged;
    const int pipeSize = m_flows.size() > 1 ? kPacedPipeSize : kPipeSize;
    if (!makePipe(outFds, pipeSize) || (!merged && !makePipe(errFds, pipeSize))) {
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        closeFd(outFds[0]);
        closeFd(outFds[1]);
        return false;
    }

    const CommandLine command = commandLine(launch.shell, launch.requiresTTY);
    m_process = new QProcess(this);
    m_process->setProgram(command.program);
    m_process->setArguments(command.arguments);
    m_process->setWorkingDirectory(launch.workingDir);
    m_process->setProcessEnvironment(childEnvironment());
    m_process->setStandardInputFile(QProcess::nullDevice());
    // Our own pipes replace QProcess's, so reading can pause without QProcess
    // buffering behind our back.
    m_process->setProcessChannelMode(QProcess::ForwardedChannels);
    const int outWrite = outFds[1];
    const int errWrite = merged ? outFds[1] : errFds[1];
    m_process->setChildProcessModifier([outWrite, errWrite] {
        ::setpgid(0, 0);
        ::dup2(outWrite, STDOUT_FILENO);
        ::dup2(errWrite, STDERR_FILENO);
    });
    connect(m_process, &QProcess::finished, this,
            [this](int exitCode, QProcess::ExitStatus status) { onFinished(exitCode, status); });

    m_process->start();
    const bool started = m_process->waitForStarted(30000);
    closeFd(outFds[1]);
    closeFd(errFds[1]);
    if (!started) {
        if (error)
            *error = m_process->errorString();
        closeFd(outFds[0]);
        closeFd(errFds[0]);
        m_process->disconnect(this);
        return false;
    }
    m_pid = m_process->processId();
    m_running = true;
    ProcessReaper::watchGroup(m_pid);

    const auto watch = [this](Pipe& pipe, int fd, bool isError) {
        pipe.fd = fd;
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        pipe.notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        connect(pipe.notifier, &QSocketNotifier::activated, this,
                [this, &pipe, isError] { onReadable(pipe, isError); });
    };
    watch(m_out, outFds[0], false);
    if (!merged)
        watch(m_err, errFds[0], true);
    for (const QPointer<OutgoingFlow>& flow : std::as_const(m_flows))
        connect(flow, &OutgoingFlow::resumed, this, &ChildProcess::resume);
    if (isHeldBack())
        pause();
    return true;
}

bool ChildProcess::isRunning() const
{
    return m_running;
}

void ChildProcess::onReadable(Pipe& pipe, bool isError)
{
    if (isHeldBack()) {
        pause();
        return;
    }
    if (!readOnce(pipe, isError))
        closePipe(pipe);
    if (isHeldBack())
        pause();
}

bool ChildProcess::readOnce(Pipe& pipe, bool isError)
{
    const ssize_t n = ::read(pipe.fd, m_readBuffer.data(), static_cast<size_t>(m_readBuffer.size()));
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    if (n == 0)
        return false;
    deliver(pipe, n, isError);
    return true;
}

void ChildProcess::deliver(Pipe& pipe, qsizetype size, bool isError)
{
    // Undecodable output is dropped; an incomplete character waits for the next read.
    const std::optional<QString> text = pipe.decoder.decode(m_readBuffer.constData(), size);
    if (!text || text->isEmpty())
        return;
    if (isError)
        Q_EMIT standardError(*text);
    else
        Q_EMIT standardOutput(*text);
}

void ChildProcess::closePipe(Pipe& pipe)
{
    if (pipe.notifier) {
        pipe.notifier->setEnabled(false);
        pipe.notifier->deleteLater();
        pipe.notifier = nullptr;
    }
    closeFd(pipe.fd);
}

void ChildProcess::alsoWaitFor(OutgoingFlow* flow)
{
    if (!flow)
        return;
    if (!m_flows.isEmpty())
        m_readBuffer.resize(kPacedReadChunk); // read as paced
    m_flows.append(flow);
}

bool ChildProcess::hasOutputComing() const
{
    if (isHeldBack())
        return true;
    for (const Pipe* pipe : {&m_out, &m_err}) {
        int unread = 0;
        if (pipe->open() && ::ioctl(pipe->fd, FIONREAD, &unread) == 0 && unread > 0)
            return true;
    }
    return false;
}

bool ChildProcess::isHeldBack() const
{
    for (const QPointer<OutgoingFlow>& flow : m_flows) {
        if (flow && flow->isBlocked())
            return true;
    }
    return false;
}

void ChildProcess::pause()
{
    if (m_paused)
        return;
    m_paused = true;
    for (Pipe* pipe : {&m_out, &m_err}) {
        if (pipe->notifier)
            pipe->notifier->setEnabled(false);
    }
}

void ChildProcess::resume()
{
    if (!m_paused || isHeldBack())
        return;
    m_paused = false;
    for (Pipe* pipe : {&m_out, &m_err}) {
        if (pipe->notifier)
            pipe->notifier->setEnabled(true);
    }
}

void ChildProcess::onFinished(int exitCode, int exitStatus)
{
    Q_UNUSED(exitStatus) // a crashed child's exit code is the signal's number
    m_running = false;
    // Deliver what the child wrote before it exited, without waiting for writers
    // that outlive it.
    qsizetype drained = 0;
    for (auto [pipe, isError] : {std::pair{&m_out, false}, std::pair{&m_err, true}}) {
        while (pipe->open() && drained < kDrainLimit) {
            const ssize_t n = ::read(pipe->fd, m_readBuffer.data(), static_cast<size_t>(m_readBuffer.size()));
            if (n <= 0)
                break;
            drained += n;
            deliver(*pipe, n, isError);
        }
        closePipe(*pipe);
    }
    // What the child left running in its group (`sleep 100 &`) ends with it.
    if (signalGroup(m_pid, 0))
        terminateTree(kGroupGraceMilliseconds);
    else
        ProcessReaper::forgetGroup(m_pid);
    Q_EMIT exited(exitCode);
}

void ChildProcess::terminateTree(int graceMilliseconds)
{
    const qint64 group = m_pid;
    if (group <= 0)
        return;
    signalGroup(group, SIGTERM);
    // The check outlives this object: what ignores SIGTERM is killed even when the
    // task has been cleaned up in the meantime. Until then the reaper knows the group,
    // should the agent itself go first.
    QTimer::singleShot(graceMilliseconds, Qt::PreciseTimer, QCoreApplication::instance(), [group] {
        signalGroup(group, SIGKILL);
        ProcessReaper::forgetGroup(group);
    });
}

bool ChildProcess::signalGroup(qint64 processGroup, int signal)
{
    if (processGroup <= 0)
        return false;
    return ::kill(static_cast<pid_t>(-processGroup), signal) == 0;
}

} // namespace brinmoor
