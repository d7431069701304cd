#include "terminal/pty_session.h"

#include "base/outgoing_flow.h"
#include "base/platform.h"
#include "base/process_group.h"

#include <QFile>
#include <QProcess>
#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace brinmoor {

namespace {

// After the shell exits, what is left in the terminal is read without waiting; a
// background job that keeps writing cannot hold the session open past this.
constexpr qsizetype kDrainLimit = 1024 * 1024;
constexpr qsizetype kReadSize = 64 * 1024;

QString errnoText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

PtySession::PtySession(const QString& sessionId, const QString& projectPath, const QString& workingDir,
                       OutgoingFlow* flow, std::function<void(const QString&)> diag, QObject* parent)
    : QObject(parent), currentDirectory(workingDir), startedAt(QDateTime::currentDateTimeUtc()), updatedAt(startedAt),
      m_sessionId(sessionId), m_projectPath(projectPath), m_workingDir(workingDir), m_flow(flow),
      m_diag(std::move(diag)), m_group(new ProcessGroup(this))
{
    m_clock.start();
}

PtySession::~PtySession()
{
    stopReading();
    closeMaster();
    // A shell still running is killed with its group by the group's owner, never waited for.
}

bool PtySession::start(const Launch& launch, QString* error)
{
    m_mode = launch.mode;
    int slave = -1;
    if (!openTerminal(&slave, error))
        return false;
    startShell(launch, slave);
    // The child is forked within start(); the parent's copy of its side goes at once.
    m_pid = m_group->id();
    ::close(slave);
    return true;
}

bool PtySession::openTerminal(int* slave, QString* error)
{
    winsize window{};
    window.ws_row = 24;
    window.ws_col = 80;
    if (!Platform::openTerminal(&m_master, slave, window)) {
        *error = errnoText(errno);
        m_master = -1;
        return false;
    }
    ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
    if (m_mode == Mode::Line)
        disableEcho(*slave);
    return true;
}

void PtySession::startShell(const Launch& launch, int slave)
{
    m_process = new QProcess;
    m_process->setProgram(QStringLiteral("/bin/zsh"));
    if (m_mode == Mode::Line) {
        m_process->setArguments({QStringLiteral("-f"), QStringLiteral("-c"),
                                 QStringLiteral("while IFS= read -r line; do eval \"$line\"; done")});
        m_process->setWorkingDirectory(m_workingDir);
    } else {
        m_process->setArguments({QStringLiteral("-l")});
    }
    m_process->setEnvironment(launch.environment);
    m_process->setInputChannelMode(QProcess::ForwardedInputChannel);
    m_process->setProcessChannelMode(QProcess::ForwardedChannels);
    // The terminal becomes the shell's controlling terminal, so an interrupt typed on
    // the phone reaches what runs in it. A login shell starts in its folder when it can
    // and in the agent's otherwise, where a line-mode shell fails to start.
    const QByteArray loginFolder = m_mode == Mode::Interactive ? QFile::encodeName(m_workingDir) : QByteArray();
    const auto setup = [slave, loginFolder] {
        ::ioctl(slave, TIOCSCTTY, 0);
        ::dup2(slave, STDIN_FILENO);
        ::dup2(slave, STDOUT_FILENO);
        ::dup2(slave, STDERR_FILENO);
        if (!loginFolder.isEmpty()) {
            [[maybe_unused]] const int changed = ::chdir(loginFolder.constData());
        }
    };
    // Reading starts with the shell, so that its "started" comes before any output; a
    // session closed in the meantime is not read at all.
    connect(m_process, &QProcess::started, this, [this] {
        if (!m_closed)
            watchMaster();
        Q_EMIT started(m_process->processId());
    });
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError failure) {
        if (failure != QProcess::FailedToStart)
            return;
        Q_EMIT failedToStart(m_process->errorString());
        if (m_released)
            deleteLater();
    });
    connect(m_process, &QProcess::finished, this,
            [this](int exitCode, QProcess::ExitStatus status) { onFinished(exitCode, status == QProcess::CrashExit); });
    // The shell leads a session and a process group of its own; should the agent go
    // first, the reaper ends that group.
    m_group->start(m_process, ProcessGroup::Leader::Session, setup);
}

void PtySession::watchMaster()
{
    m_reader = new QSocketNotifier(m_master, QSocketNotifier::Read, this);
    connect(m_reader, &QSocketNotifier::activated, this, &PtySession::onReadable);
    if (m_flow)
        connect(m_flow, &OutgoingFlow::resumed, this, &PtySession::updateReading);
    updateReading();
}

bool PtySession::isRunning() const
{
    return m_group->isRunning();
}

void PtySession::disableEcho(int fd)
{
    termios attributes{};
    if (::tcgetattr(fd, &attributes) != 0) {
        m_diag(QStringLiteral("terminal.pty tcgetattr failed: ") + errnoText(errno));
        return;
    }
    attributes.c_lflag &= ~tcflag_t(ECHO);
    if (::tcsetattr(fd, TCSANOW, &attributes) != 0)
        m_diag(QStringLiteral("terminal.pty tcsetattr failed: ") + errnoText(errno));
}

bool PtySession::write(const QByteArray& data, QString* error)
{
    // A program run in line mode may have switched echo on again.
    if (m_mode == Mode::Line && m_master >= 0)
        disableEcho(m_master);
    return enqueue(data, error);
}

bool PtySession::interrupt(QString* error)
{
    return enqueue(QByteArray(1, '\x03'), error);
}

bool PtySession::enqueue(const QByteArray& data, QString* error)
{
    if (m_master < 0) {
        *error = errnoText(EBADF);
        return false;
    }
    if (m_pendingInput.size() + data.size() > kMaxPendingInput) {
        *error = errnoText(ENOBUFS);
        return false;
    }
    m_pendingInput.append(data);
    return flushInput(error);
}

bool PtySession::flushInput(QString* error)
{
    qsizetype written = 0;
    while (written < m_pendingInput.size()) {
        const ssize_t n =
            ::write(m_master, m_pendingInput.constData() + written, size_t(m_pendingInput.size() - written));
        if (n >= 0) {
            written += n;
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            // The terminal's input queue is full: the rest goes when it has room.
            m_pendingInput.remove(0, written);
            if (!m_writer) {
                m_writer = new QSocketNotifier(m_master, QSocketNotifier::Write, this);
                connect(m_writer, &QSocketNotifier::activated, this, [this] {
                    QString failure;
                    if (!flushInput(&failure))
                        Q_EMIT writeFailed(failure);
                });
            }
            m_writer->setEnabled(true);
            return true;
        }
        *error = errnoText(errno);
        break;
    }
    const bool complete = written >= m_pendingInput.size();
    m_pendingInput.clear();
    if (m_writer)
        m_writer->setEnabled(false);
    return complete;
}

bool PtySession::resize(quint16 cols, quint16 rows, QString* error)
{
    winsize window{};
    window.ws_col = cols;
    window.ws_row = rows;
    if (m_master < 0 || ::ioctl(m_master, TIOCSWINSZ, &window) != 0) {
        *error = errnoText(m_master < 0 ? EBADF : errno);
        return false;
    }
    return true;
}

std::optional<PtySession::WindowSize> PtySession::windowSize() const
{
    winsize window{};
    if (m_master < 0 || ::ioctl(m_master, TIOCGWINSZ, &window) != 0)
        return std::nullopt;
    return WindowSize{window.ws_col, window.ws_row};
}

bool PtySession::sendSignal(int signal)
{
    return m_group->signalLeader(signal);
}

void PtySession::close(int graceMilliseconds)
{
    m_closed = true;
    stopReading();
    if (!isRunning())
        return;
    m_group->stop(graceMilliseconds);
    if (m_mode == Mode::Interactive)
        closeMaster();
}

void PtySession::release()
{
    m_released = true;
    if (!isRunning())
        deleteLater();
}

void PtySession::onReadable()
{
    if (!mayRead()) {
        updateReading();
        return;
    }
    // The master reports the end of the shell's side as end of file or EIO; the
    // session ends when the process object reports the shell's exit.
    bool ended = false;
    readAvailable(m_chunkLimit, &ended);
    if (ended)
        stopReading();
    else
        updateReading();
}

qsizetype PtySession::readAvailable(qsizetype limit, bool* ended)
{
    QByteArray data;
    char buffer[kReadSize];
    while (data.size() < limit) {
        const ssize_t n = ::read(m_master, buffer, size_t(std::min<qsizetype>(kReadSize, limit - data.size())));
        if (n > 0) {
            data.append(buffer, n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        *ended = n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
        break;
    }
    deliver(data);
    return data.size();
}

void PtySession::deliver(const QByteArray& data)
{
    if (data.isEmpty())
        return;
    // A character cut by the read waits for the next one; a read that is not UTF-8
    // at all is dropped.
    const std::optional<QString> text = m_decoder.decode(data.constData(), data.size());
    if (text)
        keep(*text);
}

void PtySession::echo(const QString& text)
{
    keep(text);
}

void PtySession::keep(const QString& text)
{
    if (text.isEmpty())
        return;
    m_buffer.keep(text);
    m_outputOffset += text.size();
    touch();
    Q_EMIT output(text);
}

void PtySession::onFinished(int exitCode, bool crashed)
{
    // Deliver what the shell wrote before it ended, without waiting for jobs that
    // outlive it, then let the terminal go.
    bool ended = !m_reader;
    for (qsizetype drained = 0; !ended && drained < kDrainLimit;) {
        const qsizetype read = readAvailable(m_chunkLimit, &ended);
        if (read < m_chunkLimit)
            break;
        drained += read;
    }
    stopReading();
    closeMaster();
    m_group->forget();
    // A crashed child's exit code is the number of the signal that ended it. The
    // line-mode shell reports its termination status as it is (9 for SIGKILL); the
    // login shell reports 128 plus the signal, as a shell reports a killed job.
    Q_EMIT exited(crashed && m_mode == Mode::Interactive ? 128 + exitCode : exitCode);
    if (m_released)
        deleteLater();
}

void PtySession::stopReading()
{
    if (m_reader) {
        m_reader->setEnabled(false);
        m_reader->deleteLater();
        m_reader = nullptr;
    }
}

void PtySession::closeMaster()
{
    if (m_writer) {
        m_writer->setEnabled(false);
        m_writer->deleteLater();
        m_writer = nullptr;
    }
    m_pendingInput.clear();
    if (m_master >= 0) {
        ::close(m_master);
        m_master = -1;
    }
}

void PtySession::pace(std::optional<qint64> rendered)
{
    m_rendered = rendered ? std::optional<qint64>(std::max(*rendered, m_renderedFloor)) : std::nullopt;
    if (m_rendered)
        m_window.rendered(*m_rendered, m_clock.elapsed());
    else
        m_window.reset();
    updateReading();
}

bool PtySession::mayRead() const
{
    if (m_flow && m_flow->isBlocked())
        return false;
    return !m_rendered || m_outputOffset - *m_rendered < m_window.size();
}

void PtySession::updateReading()
{
    if (m_reader && m_reader->isEnabled() != mayRead())
        m_reader->setEnabled(mayRead());
}

} // namespace brinmoor
