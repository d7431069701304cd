#include "terminal/terminal_session_manager.h"

#include "base/outgoing_flow.h"
#include "protocol/messages.h"
#include "terminal/path_completion.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace brinmoor {

namespace {

// Reads gathered into one output chunk per wake-up; with 128 chunks kept for replay
// this bounds a session's replay buffer to a few megabytes.
constexpr qsizetype kChunkLimit = 16 * 1024;
// How long a write waits for a terminal that does not take input.
constexpr int kWriteTimeoutMilliseconds = 2000;

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

void setCloseOnExec(int fd)
{
    ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC);
}

// A waitpid status as a shell reports it: the exit status, or 128 + the signal.
int exitCodeFromStatus(int status)
{
    if ((status & 0x7f) == 0x7f)
        return 0; // stopped, not ended
    if ((status & 0x7f) != 0)
        return 128 + (status & 0x7f);
    return (status >> 8) & 0xff;
}

} // namespace

struct TerminalSessionManager::ManagedSession {
    QString sessionId;
    QString projectPath;
    QString workingDir;
    QProcess* process = nullptr;    // line mode
    std::optional<qint64> childPID; // interactive mode
    int masterFD = -1;
    QSocketNotifier* notifier = nullptr;
    Utf8StreamDecoder decoder;
    QDateTime startedAt;
    QDateTime updatedAt;
    QStringList buffer;
    QString currentDirectory;
};

QStringList terminalEnvironment(const QStringList& inherited, const QString& repoRoot, const QString& projectPath)
{
    QString path;
    QString term;
    QStringList environment;
    for (const QString& entry : inherited) {
        const QString name = entry.section(QLatin1Char('='), 0, 0);
        if (name == QLatin1String("PATH"))
            path = entry.mid(5);
        else if (name == QLatin1String("TERM"))
            term = entry.mid(5);
        else if (name != QLatin1String("BRINMOOR_REPO_ROOT") && name != QLatin1String("BRINMOOR_PROJECT_PATH"))
            environment.append(entry);
    }
    environment.append(QStringLiteral("PATH=/opt/homebrew/bin:/usr/local/bin:") + path);
    environment.append(QStringLiteral("TERM=") + (term.isEmpty() ? QStringLiteral("xterm-256color") : term));
    environment.append(QStringLiteral("BRINMOOR_REPO_ROOT=") + repoRoot);
    environment.append(QStringLiteral("BRINMOOR_PROJECT_PATH=") + projectPath);
    return environment;
}

TerminalSessionManager::TerminalSessionManager(std::function<AgentProfile()> profileProvider,
                                               std::function<void(const QJsonObject&)> sendEvent,
                                               std::function<void(const QString&)> diag, OutgoingFlow* flow,
                                               QObject* parent)
    : QObject(parent), m_profileProvider(std::move(profileProvider)), m_sendEvent(std::move(sendEvent)),
      m_diag(std::move(diag)), m_flow(flow)
{
    m_reaper = new QTimer(this);
    m_reaper->setInterval(50);
    connect(m_reaper, &QTimer::timeout, this, [this] {
        m_unreaped.erase(std::remove_if(m_unreaped.begin(), m_unreaped.end(),
                                        [](qint64 pid) { return ::waitpid(pid_t(pid), nullptr, WNOHANG) != 0; }),
                         m_unreaped.end());
        if (m_unreaped.isEmpty())
            m_reaper->stop();
    });
    if (m_flow) {
        // Output waits in the terminals while the socket is too far behind.
        connect(m_flow, &OutgoingFlow::resumed, this, &TerminalSessionManager::resumeAll);
    }
}

TerminalSessionManager::~TerminalSessionManager()
{
    // Nothing may outlive the manager: every shell is killed and reaped, every master closed.
    for (const std::shared_ptr<ManagedSession>& session : std::as_const(m_sessions)) {
        stopReading(*session);
        if (session->process) {
            session->process->disconnect(this);
            session->process->kill();
            session->process->waitForFinished(2000);
        }
        if (session->childPID && !m_unreaped.contains(*session->childPID)) {
            ::kill(pid_t(*session->childPID), SIGKILL);
            m_unreaped.append(*session->childPID);
        }
        if (session->masterFD >= 0)
            ::close(session->masterFD);
    }
    for (const qint64 pid : std::as_const(m_unreaped))
        ::waitpid(pid_t(pid), nullptr, 0);
}

QString TerminalSessionManager::resolveWorkspacePath(const QString& repoRoot, const QString& projectPath)
{
    if (projectPath.startsWith(QLatin1Char('/')) && QFileInfo::exists(projectPath))
        return projectPath;
    const QString direct = QDir::cleanPath(repoRoot + QLatin1Char('/') + projectPath);
    if (QFileInfo::exists(direct))
        return direct;
    const QString inProj = QDir::cleanPath(repoRoot + QStringLiteral("/proj/") + projectPath);
    if (QFileInfo::exists(inProj))
        return inProj;
    return repoRoot;
}

std::shared_ptr<TerminalSessionManager::ManagedSession> TerminalSessionManager::find(const QString& sessionId) const
{
    return m_sessions.value(sessionId.trimmed());
}

void TerminalSessionManager::open(const QString& rawSessionId, const QString& rawProjectPath, const QString& mode,
                                  bool replace, const std::optional<QString>& replaceSessionId)
{
    const QString sessionId = rawSessionId.trimmed();
    const QString projectPath = rawProjectPath.trimmed();
    if (sessionId.isEmpty() || projectPath.isEmpty())
        return sendError(sessionId, projectPath, QStringLiteral("Missing terminal session id or project path."));
    if (!replace) {
        if (m_sessionByProject.contains(projectPath))
            return sendError(sessionId, projectPath,
                             QStringLiteral("Active terminal session already exists for this project."));
    } else if (replaceSessionId && !replaceSessionId->trimmed().isEmpty()) {
        close(*replaceSessionId);
    } else if (m_sessionByProject.contains(projectPath)) {
        close(m_sessionByProject.value(projectPath));
    }
    const AgentProfile profile = m_profileProvider();
    const QString workingDir = resolveWorkspacePath(profile.repoRoot, projectPath);
    if (mode.trimmed().toLower() == QLatin1String("interactive"))
        openInteractive(sessionId, projectPath, workingDir, profile);
    else
        openLineMode(sessionId, projectPath, workingDir, profile);
}

void TerminalSessionManager::openLineMode(const QString& sessionId, const QString& projectPath,
                                          const QString& workingDir, const AgentProfile& profile)
{
    int master = -1;
    int slave = -1;
    winsize window{};
    window.ws_row = 24;
    window.ws_col = 80;
    if (::openpty(&master, &slave, nullptr, nullptr, &window) != 0)
        return sendError(sessionId, projectPath, QStringLiteral("Failed to allocate PTY: ") + errnoText());
    setCloseOnExec(master);
    setCloseOnExec(slave);
    configurePtyForRemoteInput(slave);

    auto* process = new QProcess(this);
    process->setProgram(QStringLiteral("/bin/zsh"));
    process->setArguments({QStringLiteral("-f"), QStringLiteral("-c"),
                           QStringLiteral("while IFS= read -r line; do eval \"$line\"; done")});
    process->setWorkingDirectory(workingDir);
    process->setEnvironment(terminalEnvironment(QProcess::systemEnvironment(), profile.repoRoot, projectPath));
    process->setInputChannelMode(QProcess::ForwardedInputChannel);
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    // The terminal becomes the shell's controlling terminal, so an interrupt typed on
    // the phone reaches what runs in it.
    process->setChildProcessModifier([slave] {
        ::setsid();
        ::ioctl(slave, TIOCSCTTY, 0);
        ::dup2(slave, STDIN_FILENO);
        ::dup2(slave, STDOUT_FILENO);
        ::dup2(slave, STDERR_FILENO);
    });

    const std::shared_ptr<ManagedSession> session = startSession(sessionId, projectPath, workingDir, master);
    session->process = process;

    std::weak_ptr<ManagedSession> weak = session;
    connect(process, &QProcess::finished, this, [this, weak](int exitCode, QProcess::ExitStatus status) {
        const std::shared_ptr<ManagedSession> ended = weak.lock();
        if (!ended)
            return;
        // Show what the shell wrote before it ended, then forget the session.
        if (ended->notifier)
            onMasterReadable(ended);
        stopReading(*ended);
        clear(ended->sessionId);
        const int code = status == QProcess::CrashExit ? 128 + exitCode : exitCode;
        m_sendEvent(Messages::terminalClosed(ended->sessionId, ended->projectPath, code));
        ended->process->deleteLater();
    });

    process->start();
    if (!process->waitForStarted(30000)) {
        const QString error = process->errorString();
        process->disconnect(this);
        stopReading(*session);
        ::close(slave);
        clear(sessionId);
        process->deleteLater();
        return sendError(sessionId, projectPath, QStringLiteral("Failed to launch terminal session: ") + error);
    }
    ::close(slave);
    m_diag(QStringLiteral("terminal.open sessionId=") + sessionId + QStringLiteral(" projectPath=") + projectPath +
           QStringLiteral(" pid=") + QString::number(process->processId()));
    m_sendEvent(Messages::terminalOpened(sessionId, projectPath, false));
    // The greeting is not part of what a later attach replays.
    m_sendEvent(Messages::terminalOutput(sessionId, projectPath,
                                         QStringLiteral("[terminal started in ") + workingDir +
                                             QStringLiteral("]\n[try: pwd, ls, codex, claude]\n")));
}

void TerminalSessionManager::openInteractive(const QString& sessionId, const QString& projectPath,
                                             const QString& workingDir, const AgentProfile& profile)
{
    // Everything the child needs is prepared before the fork: after it, only calls that
    // are safe in a forked copy of a threaded program are made.
    const QStringList environment = terminalEnvironment(QProcess::systemEnvironment(), profile.repoRoot, projectPath);
    std::vector<QByteArray> envStorage;
    envStorage.reserve(size_t(environment.size()));
    for (const QString& entry : environment)
        envStorage.push_back(entry.toLocal8Bit());
    std::vector<char*> envp;
    for (QByteArray& entry : envStorage)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    const QByteArray directory = QFile::encodeName(workingDir);
    char shell[] = "/bin/zsh";
    char arg0[] = "zsh";
    char arg1[] = "-l";
    char* argv[] = {arg0, arg1, nullptr};

    int master = -1;
    winsize window{};
    window.ws_row = 24;
    window.ws_col = 80;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, &window);
    if (pid < 0)
        return sendError(sessionId, projectPath, QStringLiteral("Failed to allocate interactive PTY: ") + errnoText());
    if (pid == 0) {
        [[maybe_unused]] const int changed = ::chdir(directory.constData());
        ::execve(shell, argv, envp.data());
        ::_exit(127);
    }
    setCloseOnExec(master);

    startSession(sessionId, projectPath, workingDir, master)->childPID = pid;
    m_diag(QStringLiteral("terminal.open.interactive sessionId=") + sessionId + QStringLiteral(" projectPath=") +
           projectPath + QStringLiteral(" pid=") + QString::number(pid));
    m_sendEvent(Messages::terminalOpened(sessionId, projectPath, true));
}

std::shared_ptr<TerminalSessionManager::ManagedSession> TerminalSessionManager::startSession(const QString& sessionId,
                                                                                             const QString& projectPath,
                                                                                             const QString& workingDir,
                                                                                             int masterFD)
{
    auto session = std::make_shared<ManagedSession>();
    session->sessionId = sessionId;
    session->projectPath = projectPath;
    session->workingDir = workingDir;
    session->masterFD = masterFD;
    session->startedAt = session->updatedAt = QDateTime::currentDateTimeUtc();
    session->currentDirectory = workingDir;
    store(session);
    watchMaster(session);
    return session;
}

void TerminalSessionManager::watchMaster(const std::shared_ptr<ManagedSession>& session)
{
    ::fcntl(session->masterFD, F_SETFL, ::fcntl(session->masterFD, F_GETFL) | O_NONBLOCK);
    session->notifier = new QSocketNotifier(session->masterFD, QSocketNotifier::Read, this);
    std::weak_ptr<ManagedSession> weak = session;
    connect(session->notifier, &QSocketNotifier::activated, this, [this, weak] {
        if (const std::shared_ptr<ManagedSession> live = weak.lock())
            onMasterReadable(live);
    });
    if (m_flow && m_flow->isBlocked())
        session->notifier->setEnabled(false);
}

void TerminalSessionManager::onMasterReadable(const std::shared_ptr<ManagedSession>& session)
{
    if (m_flow && m_flow->isBlocked()) {
        pauseAll();
        return;
    }
    QByteArray data;
    bool ended = false;
    char buffer[65536];
    while (data.size() < kChunkLimit) {
        const ssize_t n = ::read(session->masterFD, buffer, sizeof buffer);
        if (n > 0) {
            data.append(buffer, n);
            continue;
        }
        // The master reports the end of the shell's side as end of file or EIO.
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
            ended = true;
        break;
    }
    if (!data.isEmpty()) {
        // A character cut by the read waits for the next one; bytes that are not
        // UTF-8 at all are dropped.
        const std::optional<QString> text = session->decoder.decode(data.constData(), data.size());
        if (text && !text->isEmpty()) {
            appendOutput(*text, session->sessionId);
            sendOutput(*session, *text, false);
        }
    }
    if (ended) {
        stopReading(*session);
        // A line-mode shell's end is reported by its process; an interactive one's here.
        if (session->childPID)
            onInteractiveEnd(session);
        return;
    }
    if (m_flow && m_flow->isBlocked())
        pauseAll();
}

void TerminalSessionManager::onInteractiveEnd(const std::shared_ptr<ManagedSession>& session)
{
    const pid_t pid = pid_t(*session->childPID);
    int status = 0;
    pid_t reaped = ::waitpid(pid, &status, WNOHANG);
    // The shell closes its terminal just before it exits: give it a moment.
    for (int i = 0; reaped == 0 && i < 200; ++i) {
        ::usleep(1000);
        reaped = ::waitpid(pid, &status, WNOHANG);
    }
    int exitCode = 0;
    if (reaped == pid) {
        exitCode = exitCodeFromStatus(status);
    } else {
        m_unreaped.append(pid);
        m_reaper->start();
    }
    clear(session->sessionId);
    m_sendEvent(Messages::terminalClosed(session->sessionId, session->projectPath, exitCode));
}

void TerminalSessionManager::sendOutput(const ManagedSession& session, const QString& text, bool snapshot)
{
    if (sendSerialized)
        sendSerialized(Messages::terminalOutputText(session.sessionId, session.projectPath, text, snapshot));
    else
        m_sendEvent(Messages::terminalOutput(session.sessionId, session.projectPath, text, snapshot));
}

void TerminalSessionManager::stopReading(ManagedSession& session)
{
    if (session.notifier) {
        session.notifier->setEnabled(false);
        session.notifier->deleteLater();
        session.notifier = nullptr;
    }
}

void TerminalSessionManager::pauseAll()
{
    for (const std::shared_ptr<ManagedSession>& session : std::as_const(m_sessions)) {
        if (session->notifier)
            session->notifier->setEnabled(false);
    }
}

void TerminalSessionManager::resumeAll()
{
    for (const std::shared_ptr<ManagedSession>& session : std::as_const(m_sessions)) {
        if (session->notifier)
            session->notifier->setEnabled(true);
    }
}

void TerminalSessionManager::configurePtyForRemoteInput(int fd)
{
    termios attributes{};
    if (::tcgetattr(fd, &attributes) != 0) {
        m_diag(QStringLiteral("terminal.pty tcgetattr failed: ") + errnoText());
        return;
    }
    attributes.c_lflag &= ~tcflag_t(ECHO);
    if (::tcsetattr(fd, TCSANOW, &attributes) != 0)
        m_diag(QStringLiteral("terminal.pty tcsetattr failed: ") + errnoText());
}

void TerminalSessionManager::store(const std::shared_ptr<ManagedSession>& session)
{
    m_sessions.insert(session->sessionId, session);
    m_sessionByProject.insert(session->projectPath, session->sessionId);
}

void TerminalSessionManager::clear(const QString& sessionId)
{
    const std::shared_ptr<ManagedSession> removed = m_sessions.take(sessionId);
    if (!removed)
        return;
    // A replacement opened for the same project keeps its mapping.
    if (m_sessionByProject.value(removed->projectPath) == sessionId)
        m_sessionByProject.remove(removed->projectPath);
    stopReading(*removed);
    if (removed->masterFD >= 0) {
        ::close(removed->masterFD);
        removed->masterFD = -1;
    }
}

void TerminalSessionManager::appendOutput(const QString& text, const QString& sessionId)
{
    const std::shared_ptr<ManagedSession> session = m_sessions.value(sessionId);
    if (!session)
        return;
    if (session->buffer.size() >= kMaxBufferedChunks)
        session->buffer.erase(session->buffer.begin(), session->buffer.end() - (kMaxBufferedChunks - 1));
    session->buffer.append(text);
    session->updatedAt = QDateTime::currentDateTimeUtc();
}

void TerminalSessionManager::touch(const QString& sessionId)
{
    if (const std::shared_ptr<ManagedSession> session = m_sessions.value(sessionId))
        session->updatedAt = QDateTime::currentDateTimeUtc();
}

bool TerminalSessionManager::writeAll(const QByteArray& data, int fd, QString* error)
{
    qsizetype written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + written, size_t(data.size() - written));
        if (n >= 0) {
            written += n;
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            // The terminal's input queue is full: wait a little for the shell to read.
            pollfd ready{fd, POLLOUT, 0};
            if (::poll(&ready, 1, kWriteTimeoutMilliseconds) > 0)
                continue;
            errno = EAGAIN;
        }
        *error = errnoText();
        return false;
    }
    return true;
}

void TerminalSessionManager::sendError(const QString& sessionId, const QString& projectPath, const QString& message)
{
    m_diag(QStringLiteral("terminal.error sessionId=") + sessionId + QStringLiteral(" projectPath=") + projectPath +
           QStringLiteral(" message=") + message);
    m_sendEvent(Messages::terminalError(sessionId, projectPath, message));
}

void TerminalSessionManager::attach(const QString& rawSessionId)
{
    const QString sessionId = rawSessionId.trimmed();
    const std::shared_ptr<ManagedSession> session = find(sessionId);
    if (!session)
        return sendError(sessionId, QString(), QStringLiteral("Terminal session not found."));
    m_sendEvent(Messages::terminalAttached(session->sessionId, session->projectPath));
    const QStringList chunks = session->buffer;
    for (const QString& chunk : chunks) {
        if (!chunk.isEmpty())
            sendOutput(*session, chunk, true);
    }
}

void TerminalSessionManager::sendInput(const QString& sessionId, const QString& base64)
{
    const std::shared_ptr<ManagedSession> session = find(sessionId);
    if (!session || session->masterFD < 0)
        return;
    const QByteArray::FromBase64Result decoded =
        QByteArray::fromBase64Encoding(base64.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.isEmpty())
        return;
    if (!session->childPID)
        configurePtyForRemoteInput(session->masterFD);
    QString error;
    if (!writeAll(decoded.decoded, session->masterFD, &error))
        return sendError(session->sessionId, session->projectPath,
                         QStringLiteral("Failed to write to terminal session: ") + error);
    updateCurrentDirectoryIfNeeded(decoded.decoded, session->sessionId);
    touch(session->sessionId);
}

void TerminalSessionManager::updateCurrentDirectoryIfNeeded(const QByteArray& input, const QString& sessionId)
{
    const std::shared_ptr<ManagedSession> session = m_sessions.value(sessionId);
    if (!session || !Utf8StreamDecoder::isValid(input.constData(), input.size()))
        return;
    session->currentDirectory =
        PathCompletion::directoryAfterInput(QString::fromUtf8(input), session->currentDirectory, QDir::homePath());
}

void TerminalSessionManager::complete(const QString& sessionId, const QString& line, qint64 cursor)
{
    const std::shared_ptr<ManagedSession> session = find(sessionId);
    if (!session)
        return;
    const PathCompletion::Completion completion =
        PathCompletion::pathCompletion(line, qsizetype(cursor), session->currentDirectory, QDir::homePath());
    m_sendEvent(Messages::terminalCompletion(session->sessionId, session->projectPath, completion.replacementStart,
                                             completion.replacementEnd, completion.replacement,
                                             completion.suggestions));
}

void TerminalSessionManager::resize(const QString& sessionId, qint64 cols, qint64 rows)
{
    const std::shared_ptr<ManagedSession> session = find(sessionId);
    if (!session || session->masterFD < 0)
        return;
    // A window size has 16 bits per side: a bigger request is refused, not cut.
    if (cols >= 65536 || rows >= 65536)
        return sendError(session->sessionId, session->projectPath,
                         QStringLiteral("Failed to resize terminal session: columns and rows must be below 65536"));
    winsize window{};
    window.ws_col = static_cast<unsigned short>(std::max<qint64>(cols, 1));
    window.ws_row = static_cast<unsigned short>(std::max<qint64>(rows, 1));
    if (::ioctl(session->masterFD, TIOCSWINSZ, &window) != 0)
        return sendError(session->sessionId, session->projectPath,
                         QStringLiteral("Failed to resize terminal session: ") + errnoText());
    touch(session->sessionId);
    // The message reports what was asked (floored at 0), not the window applied.
    m_sendEvent(Messages::terminalStatus(session->sessionId, session->projectPath, std::max<qint64>(cols, 0),
                                         std::max<qint64>(rows, 0)));
}

void TerminalSessionManager::signal(const QString& sessionId, const QString& signalName)
{
    const std::shared_ptr<ManagedSession> session = find(sessionId);
    if (!session)
        return;
    const QString name = signalName.trimmed().toLower();
    if (name == QLatin1String("interrupt") || name == QLatin1String("sigint") || name == QLatin1String("ctrl_c")) {
        // Through the terminal: its line discipline interrupts the foreground job.
        QString error;
        if (session->masterFD < 0 || !writeAll(QByteArray(1, '\x03'), session->masterFD, &error))
            sendError(session->sessionId, session->projectPath, QStringLiteral("Failed to send interrupt: ") + error);
    } else if (name == QLatin1String("terminate") || name == QLatin1String("sigterm")) {
        if (session->childPID)
            ::kill(pid_t(*session->childPID), SIGTERM);
        else if (session->process && session->process->state() != QProcess::NotRunning)
            session->process->terminate();
    } else if (name == QLatin1String("kill") || name == QLatin1String("sigkill")) {
        if (session->childPID)
            ::kill(pid_t(*session->childPID), SIGKILL);
        else if (session->process && session->process->state() != QProcess::NotRunning)
            ::kill(pid_t(session->process->processId()), SIGKILL);
    }
}

void TerminalSessionManager::close(const QString& sessionId)
{
    const std::shared_ptr<ManagedSession> session = find(sessionId);
    if (!session)
        return;
    stopReading(*session);
    if (session->process) {
        if (session->process->state() != QProcess::NotRunning) {
            // The process's end clears the session and reports "terminal.closed".
            session->process->terminate();
            QPointer<QProcess> process = session->process;
            QTimer::singleShot(kKillGraceMilliseconds, Qt::PreciseTimer, this, [process] {
                if (process && process->state() != QProcess::NotRunning)
                    ::kill(pid_t(process->processId()), SIGKILL);
            });
        }
        return;
    }
    if (!session->childPID) {
        clear(session->sessionId);
        m_sendEvent(Messages::terminalClosed(session->sessionId, session->projectPath, std::nullopt));
        return;
    }
    // An interactive session ends silently: no "terminal.closed", and it stays listed
    // until a new session replaces it. Its terminal is let go and the shell reaped.
    const pid_t pid = pid_t(*session->childPID);
    ::kill(pid, SIGTERM);
    QTimer::singleShot(kKillGraceMilliseconds, Qt::PreciseTimer, this, [pid] {
        if (::kill(pid, 0) == 0)
            ::kill(pid, SIGKILL);
    });
    if (session->masterFD >= 0) {
        ::close(session->masterFD);
        session->masterFD = -1;
    }
    m_unreaped.append(pid);
    m_reaper->start();
}

} // namespace brinmoor
