#include "execution/child_process.h"

#include "base/outgoing_flow.h"
#include "base/platform.h"
#include "base/process_group.h"
#include "base/secret_environment.h"
#include "execution/execution_resolution.h"

#include <QProcess>
#include <QSocketNotifier>

#include <cerrno>
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
    if (!Platform::makePipe(fds))
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

ChildProcess::ChildProcess(OutgoingFlow* flow, QObject* parent) : QObject(parent), m_group(new ProcessGroup(this))
{
    alsoWaitFor(flow);
    m_readBuffer.resize(kReadChunk);
}

ChildProcess::~ChildProcess()
{
    closePipe(m_out);
    closePipe(m_err);
    // A child still running is killed with its group by the group's owner, never waited for.
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
    auto* process = new QProcess(this);
    process->setProgram(command.program);
    process->setArguments(command.arguments);
    process->setWorkingDirectory(launch.workingDir);
    process->setProcessEnvironment(childEnvironment());
    process->setStandardInputFile(QProcess::nullDevice());
    // Our own pipes replace QProcess's, so reading can pause without QProcess
    // buffering behind our back.
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    connect(process, &QProcess::started, this, &ChildProcess::onStarted);
    connect(process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError failure) {
        if (failure == QProcess::FailedToStart)
            onFailedToStart();
    });
    connect(process, &QProcess::finished, this,
            [this](int exitCode, QProcess::ExitStatus status) { onFinished(exitCode, status); });

    const int outWrite = outFds[1];
    const int errWrite = merged ? outFds[1] : errFds[1];
    m_out.fd = outFds[0];
    m_err.fd = errFds[0];
    m_running = true;
    m_starting = true;
    m_group->start(process, ProcessGroup::Leader::Group, [outWrite, errWrite] {
        ::dup2(outWrite, STDOUT_FILENO);
        ::dup2(errWrite, STDERR_FILENO);
    });
    m_starting = false;
    closeFd(outFds[1]);
    closeFd(errFds[1]);
    m_pid = m_group->id();
    if (!m_group->isRunning()) {
        // Not even forked: the reason is known at once.
        m_running = false;
        if (error)
            *error = process->errorString();
        closePipe(m_out);
        closePipe(m_err);
        return false;
    }
    return true;
}

void ChildProcess::onStarted()
{
    // Reading starts with the program, so that its "started" comes before any output.
    const auto watch = [this](Pipe& pipe, bool isError) {
        if (!pipe.open())
            return;
        ::fcntl(pipe.fd, F_SETFL, ::fcntl(pipe.fd, F_GETFL) | O_NONBLOCK);
        pipe.notifier = new QSocketNotifier(pipe.fd, QSocketNotifier::Read, this);
        connect(pipe.notifier, &QSocketNotifier::activated, this,
                [this, &pipe, isError] { onReadable(pipe, isError); });
    };
    watch(m_out, false);
    watch(m_err, true);
    for (const QPointer<OutgoingFlow>& flow : std::as_const(m_flows))
        connect(flow, &OutgoingFlow::resumed, this, &ChildProcess::resume);
    if (isHeldBack())
        pause();
    Q_EMIT started();
}

void ChildProcess::onFailedToStart()
{
    if (!m_running || m_starting)
        return; // a failure within start() is its answer
    m_running = false;
    closePipe(m_out);
    closePipe(m_err);
    Q_EMIT failedToStart(m_group->process()->errorString());
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
    m_group->endRest(kGroupGraceMilliseconds);
    Q_EMIT exited(exitCode);
}

void ChildProcess::terminateTree(int graceMilliseconds)
{
    m_group->stop(graceMilliseconds);
}

void ChildProcess::kill()
{
    m_group->kill();
}

} // namespace brinmoor
