#include "terminal/terminal_session_manager.h"

#include "base/diag.h"
#include "base/outgoing_flow.h"
#include "execution/child_process.h"
#include "execution/execution_resolution.h"
#include "protocol/messages.h"
#include "terminal/path_completion.h"
#include "terminal/pty_session.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <csignal>

namespace brinmoor {

namespace {

const QString kNotFound = QStringLiteral("Terminal session not found.");

// The echo of line-mode input: each whole line after a bold blue "›", its control
// characters shown as ^X so that no command can steer the terminal that shows it. What
// follows the last line end waits in `unfinished` for the rest of its line.
QString lineModeEcho(const QString& input, QString& unfinished)
{
    QString echo;
    QStringList lines = QString(unfinished + input).split(QLatin1Char('\n'));
    unfinished = lines.takeLast();
    for (QString line : std::as_const(lines)) {
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        QString shown;
        for (const QChar c : std::as_const(line)) {
            if (c.unicode() < 0x20 || c.unicode() == 0x7f)
                shown += QLatin1Char('^') + QChar(c.unicode() ^ 0x40);
            else
                shown += c;
        }
        echo += QStringLiteral("\x1b[1;34m\u203a\x1b[0m ") + shown + QStringLiteral("\r\n");
    }
    return echo;
}

} // namespace

TerminalWorkspace resolveTerminalWorkspacePath(const QString& repoRoot, const QString& projectPath)
{
    if (projectPath.startsWith(QLatin1Char('/')) && QFileInfo::exists(projectPath))
        return {projectPath, false};
    const QString direct = ExecutionResolution::joinPath(repoRoot, projectPath);
    if (QFileInfo::exists(direct))
        return {direct, false};
    const QString inProj =
        ExecutionResolution::joinPath(ExecutionResolution::joinPath(repoRoot, QStringLiteral("proj")), projectPath);
    if (QFileInfo::exists(inProj))
        return {inProj, false};
    return {repoRoot, true};
}

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
}

// Every session is a child: its destructor kills a shell that still runs, and the
// process object reaps it later, so nothing outlives the manager and nothing waits.
TerminalSessionManager::~TerminalSessionManager() = default;

void TerminalSessionManager::setExtended(bool extended)
{
    m_extended = extended;
    for (PtySession* session : m_sessions)
        session->setLargeChunks(extended);
}

QList<PtySession*> TerminalSessionManager::liveSessions() const
{
    QList<PtySession*> live;
    for (PtySession* session : m_sessions) {
        if (!session->isClosed())
            live.append(session);
    }
    std::sort(live.begin(), live.end(),
              [](const PtySession* a, const PtySession* b) { return a->startedAt < b->startedAt; });
    return live;
}

QStringList TerminalSessionManager::sessionIds() const
{
    QStringList ids;
    for (const PtySession* session : liveSessions())
        ids.append(session->sessionId());
    return ids;
}

QList<Messages::StateTerminal> TerminalSessionManager::openSessions() const
{
    QList<Messages::StateTerminal> open;
    for (const PtySession* session : liveSessions())
        open.append({session->sessionId(), session->projectPath(), session->isInteractive()});
    return open;
}

// --- opening a session ---

void TerminalSessionManager::open(const QString& rawSessionId, const QString& rawProjectPath, const QString& mode,
                                  bool replace, const std::optional<QString>& replaceSessionId)
{
    const QString sessionId = rawSessionId.trimmed();
    const QString projectPath = rawProjectPath.trimmed();
    if (sessionId.isEmpty() || projectPath.isEmpty())
        return sendError(sessionId, projectPath, QStringLiteral("Missing terminal session id or project path."));
    if (!replace && m_sessionByProject.contains(projectPath)) {
        // A closed interactive session stays listed until it is replaced; our relay's
        // clients may open a new one in its place without saying "replace".
        const PtySession* listed = m_sessions.value(m_sessionByProject.value(projectPath));
        if (!m_extended || !listed || !listed->isClosed())
            return sendError(sessionId, projectPath,
                             QStringLiteral("Active terminal session already exists for this project."));
    }
    if (replace) {
        // Closing only starts the shutdown: the new session opens at once.
        const QString replaced = replaceSessionId && !replaceSessionId->trimmed().isEmpty()
                                     ? replaceSessionId->trimmed()
                                     : m_sessionByProject.value(projectPath);
        PtySession* old = m_sessions.value(replaced);
        if (old && !old->isClosed())
            closeSession(old);
    }
    const AgentProfile profile = m_profileProvider();
    // A missing folder starts the shell in the repository root.
    const TerminalWorkspace workspace = resolveTerminalWorkspacePath(profile.repoRoot, projectPath);
    auto* session = new PtySession(sessionId, projectPath, workspace.path, m_flow, m_diag, this);
    session->setLargeChunks(m_extended);
    start(session, mode.trimmed().toLower() == QLatin1String("interactive"), workspace.projectPathMissing, profile);
}

void TerminalSessionManager::start(PtySession* session, bool interactive, bool projectPathMissing,
                                   const AgentProfile& profile)
{
    connect(session, &PtySession::started, this,
            [this, session, projectPathMissing](qint64 pid) { announce(session, pid, projectPathMissing); });
    connect(session, &PtySession::failedToStart, this, [this, session](const QString& description) {
        clear(session);
        sendError(session->sessionId(), session->projectPath(),
                  QStringLiteral("Failed to launch terminal session: ") + description);
    });
    connect(session, &PtySession::output, this,
            [this, session](const QString& text) { sendOutput(*session, text, false); });
    connect(session, &PtySession::writeFailed, this, [this, session](const QString& description) {
        sendError(session->sessionId(), session->projectPath(),
                  QStringLiteral("Failed to write to terminal session: ") + description);
    });
    connect(session, &PtySession::exited, this, [this, session](int exitCode) { onExited(session, exitCode); });
    store(session);

    const PtySession::Launch launch{
        interactive ? PtySession::Mode::Interactive : PtySession::Mode::Line,
        terminalEnvironment(ChildProcess::childEnvironment().toStringList(), profile.repoRoot, session->projectPath())};
    QString error;
    if (!session->start(launch, &error)) {
        clear(session);
        sendError(session->sessionId(), session->projectPath(),
                  (interactive ? QStringLiteral("Failed to allocate interactive PTY: ")
                               : QStringLiteral("Failed to allocate PTY: ")) +
                      error);
    }
}

void TerminalSessionManager::announce(PtySession* session, qint64 pid, bool projectPathMissing)
{
    const QString& sessionId = session->sessionId();
    const QString& projectPath = session->projectPath();
    m_diag((session->isInteractive() ? QStringLiteral("terminal.open.interactive sessionId=")
                                     : QStringLiteral("terminal.open sessionId=")) +
           logValue(sessionId) + QStringLiteral(" projectPath=") + logValue(projectPath) + QStringLiteral(" pid=") +
           QString::number(pid));
    const bool sayMissing = m_extended && projectPathMissing;
    if (session->isInteractive()) {
        m_sendEvent(Messages::terminalOpened(sessionId, projectPath, true, sayMissing));
        return;
    }
    m_sendEvent(Messages::terminalOpened(sessionId, projectPath, false, sayMissing));
    // The greeting is not part of what a later attach replays.
    m_sendEvent(Messages::terminalOutput(sessionId, projectPath,
                                         QStringLiteral("[terminal started in ") + session->workingDir() +
                                             QStringLiteral("]\n[try: pwd, ls, codex, claude]\n")));
}

void TerminalSessionManager::onExited(PtySession* session, int exitCode)
{
    // A closed interactive session ends silently and stays listed until a new
    // session for its project replaces it.
    if (session->isInteractive() && session->isClosed())
        return;
    clear(session);
    m_sendEvent(Messages::terminalClosed(session->sessionId(), session->projectPath(), exitCode));
}

// --- commands on a session ---

PtySession* TerminalSessionManager::liveSession(const QString& rawSessionId)
{
    const QString sessionId = rawSessionId.trimmed();
    PtySession* session = m_sessions.value(sessionId);
    if (session && !session->isClosed())
        return session;
    sendError(sessionId, QString(), kNotFound);
    return nullptr;
}

void TerminalSessionManager::attach(const QString& rawSessionId)
{
    const QString sessionId = rawSessionId.trimmed();
    const PtySession* session = m_sessions.value(sessionId);
    if (!session)
        return sendError(sessionId, QString(), kNotFound);
    QJsonObject attached = Messages::terminalAttached(session->sessionId(), session->projectPath());
    // Our relay's clients draw the replay at the width its newest output was made for.
    const std::optional<PtySession::WindowSize> size =
        m_extended && session->isInteractive() ? session->windowSize() : std::nullopt;
    if (size) {
        attached.insert(QStringLiteral("cols"), size->cols);
        attached.insert(QStringLiteral("rows"), size->rows);
    }
    m_sendEvent(attached);
    const QStringList chunks = session->buffer();
    for (const QString& chunk : chunks) {
        if (!chunk.isEmpty())
            sendOutput(*session, chunk, true);
    }
}

void TerminalSessionManager::sendInput(const QString& sessionId, const QString& base64)
{
    PtySession* session = liveSession(sessionId);
    if (!session)
        return;
    const QByteArray::FromBase64Result decoded =
        QByteArray::fromBase64Encoding(base64.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.isEmpty())
        return;
    QString error;
    if (!session->write(decoded.decoded, &error))
        return sendError(session->sessionId(), session->projectPath(),
                         QStringLiteral("Failed to write to terminal session: ") + error);
    const QByteArray& input = decoded.decoded;
    // A line-mode shell echoes nothing: our relay's clients see each command above its
    // output, as a terminal shows it, in a replay and on every page alike.
    if (m_extended && !session->isInteractive() && isValidUtf8(input))
        session->echo(lineModeEcho(QString::fromUtf8(input), session->unfinishedLine));
    if (isValidUtf8(input))
        session->currentDirectory =
            PathCompletion::directoryAfterInput(QString::fromUtf8(input), session->currentDirectory, QDir::homePath());
    session->touch();
}

void TerminalSessionManager::complete(const QString& sessionId, const QString& line, std::optional<qint64> cursor)
{
    // A completion asked for a session that is gone is not answered at all: the
    // phone's line editor simply offers nothing.
    const PtySession* session = m_sessions.value(sessionId.trimmed());
    if (!session || session->isClosed())
        return;
    const PathCompletion::Completion completion =
        PathCompletion::pathCompletion(line, cursor, session->currentDirectory, QDir::homePath());
    m_sendEvent(Messages::terminalCompletion(session->sessionId(), session->projectPath(), completion.replacementStart,
                                             completion.replacementEnd, completion.replacement,
                                             completion.suggestions));
}

void TerminalSessionManager::resize(const QString& sessionId, qint64 cols, qint64 rows)
{
    PtySession* session = liveSession(sessionId);
    if (!session)
        return;
    // A window size has 16 bits per side: a bigger request is refused, not cut.
    if (cols >= 65536 || rows >= 65536)
        return sendError(session->sessionId(), session->projectPath(),
                         QStringLiteral("Failed to resize terminal session: columns and rows must be below 65536"));
    QString error;
    if (!session->resize(quint16(std::max<qint64>(cols, 1)), quint16(std::max<qint64>(rows, 1)), &error))
        return sendError(session->sessionId(), session->projectPath(),
                         QStringLiteral("Failed to resize terminal session: ") + error);
    session->touch();
    // The message reports what was asked (floored at 0), not the window applied.
    m_sendEvent(Messages::terminalStatus(session->sessionId(), session->projectPath(), std::max<qint64>(cols, 0),
                                         std::max<qint64>(rows, 0)));
}

void TerminalSessionManager::signal(const QString& sessionId, const QString& signalName)
{
    PtySession* session = liveSession(sessionId);
    if (!session)
        return;
    const QString name = signalName.trimmed().toLower();
    if (name == QLatin1String("interrupt") || name == QLatin1String("sigint") || name == QLatin1String("ctrl_c")) {
        QString error;
        if (!session->interrupt(&error))
            sendError(session->sessionId(), session->projectPath(),
                      QStringLiteral("Failed to send interrupt: ") + error);
    } else if (name == QLatin1String("terminate") || name == QLatin1String("sigterm")) {
        session->sendSignal(SIGTERM);
    } else if (name == QLatin1String("kill") || name == QLatin1String("sigkill")) {
        session->sendSignal(SIGKILL);
    }
    // Any other name is ignored.
}

void TerminalSessionManager::close(const QString& sessionId)
{
    if (PtySession* session = liveSession(sessionId))
        closeSession(session);
}

void TerminalSessionManager::pace(const QString& sessionId, std::optional<qint64> rendered)
{
    // A session that is gone has nothing left to pace.
    if (PtySession* session = m_sessions.value(sessionId.trimmed()))
        session->pace(rendered);
}

void TerminalSessionManager::releasePaces()
{
    for (PtySession* session : std::as_const(m_sessions))
        session->pace(std::nullopt);
}

void TerminalSessionManager::countOutputAsRendered()
{
    for (PtySession* session : std::as_const(m_sessions))
        session->countOutputAsRendered();
}

void TerminalSessionManager::closeSession(PtySession* session)
{
    if (!session->isRunning()) {
        clear(session);
        m_sendEvent(Messages::terminalClosed(session->sessionId(), session->projectPath(), std::nullopt));
        return;
    }
    // A line-mode shell's end reports "terminal.closed" with its status; an
    // interactive one's is silent.
    session->close(kKillGraceMilliseconds);
}

// --- the maps and the events ---

void TerminalSessionManager::store(PtySession* session)
{
    // A session under the same id is closed and forgotten; a closed session still
    // listed for the project was kept only until this one replaces it.
    if (PtySession* sameId = m_sessions.value(session->sessionId())) {
        if (!sameId->isClosed())
            closeSession(sameId);
        clear(sameId);
    }
    PtySession* previous = m_sessions.value(m_sessionByProject.value(session->projectPath()));
    if (previous && previous->isClosed())
        clear(previous);
    m_sessions.insert(session->sessionId(), session);
    m_sessionByProject.insert(session->projectPath(), session->sessionId());
}

void TerminalSessionManager::clear(PtySession* session)
{
    const QString& sessionId = session->sessionId();
    if (m_sessions.value(sessionId) == session) {
        m_sessions.remove(sessionId);
        // A replacement opened for the same project keeps its mapping.
        if (m_sessionByProject.value(session->projectPath()) == sessionId)
            m_sessionByProject.remove(session->projectPath());
    }
    session->release();
}

void TerminalSessionManager::sendOutput(const PtySession& session, const QString& text, bool snapshot)
{
    // Live output says how far the session has got, for our relay's clients that pace
    // it; a replay is output they have been counted for already.
    const std::optional<qint64> offset =
        m_extended && !snapshot ? std::optional<qint64>(session.outputOffset()) : std::nullopt;
    if (sendSerialized)
        sendSerialized(
            Messages::terminalOutputText(session.sessionId(), session.projectPath(), text, snapshot, offset));
    else
        m_sendEvent(Messages::terminalOutput(session.sessionId(), session.projectPath(), text, snapshot, offset));
}

void TerminalSessionManager::sendError(const QString& sessionId, const QString& projectPath, const QString& message)
{
    m_diag(QStringLiteral("terminal.error sessionId=") + logValue(sessionId) + QStringLiteral(" projectPath=") +
           logValue(projectPath) + QStringLiteral(" message=") + logValue(message));
    m_sendEvent(Messages::terminalError(sessionId, projectPath, message));
}

} // namespace brinmoor
