#pragma once

#include "config/agent_profile.h"
#include "protocol/messages.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QStringList>

#include <functional>
#include <optional>

namespace brinmoor {

class OutgoingFlow;
class PtySession;

// Terminal sessions for the phone: an interactive login shell or a line-mode shell,
// each a PtySession. One live session per project; output is kept for replay (the
// newest reads, a ReplayBuffer) so that a phone that reconnects can attach again. Everything runs
// on the event loop, which serialises all access, so no lock guards the maps.
class TerminalSessionManager : public QObject {
    Q_OBJECT

public:
    static constexpr int kKillGraceMilliseconds = 3000;

    TerminalSessionManager(std::function<AgentProfile()> profileProvider,
                           std::function<void(const QJsonObject&)> sendEvent, std::function<void(const QString&)> diag,
                           OutgoingFlow* flow, QObject* parent = nullptr);
    ~TerminalSessionManager() override;

    void open(const QString& sessionId, const QString& projectPath, const QString& mode, bool replace,
              const std::optional<QString>& replaceSessionId);
    void attach(const QString& sessionId);
    void sendInput(const QString& sessionId, const QString& base64);
    // The cursor counts Unicode code points; without one it is at the end of the line.
    void complete(const QString& sessionId, const QString& line, std::optional<qint64> cursor);
    void resize(const QString& sessionId, qint64 cols, qint64 rows);
    void signal(const QString& sessionId, const QString& signal);
    void close(const QString& sessionId);
    // The server says how far the slowest client pacing the session has rendered its
    // output; without an offset nobody paces it.
    void pace(const QString& sessionId, std::optional<qint64> rendered);
    // The connection is gone, and with it every pace.
    void releasePaces();
    // A connection is back: what the sessions gave before it counts as rendered.
    void countOutputAsRendered();

    // When set, output goes out through it already serialised (the fast path).
    std::function<void(const QString& json)> sendSerialized;

    // Whether the server announced our relay's extensions. Only then does live output
    // carry "offset" and does "terminal.opened" say "projectPathMissing": a server
    // that knows only the plain protocol never sees members it did not ask for.
    void setExtended(bool extended);
    bool isExtended() const { return m_extended; }

    // The ids of the sessions not closed yet, for closing them all when the agent stops.
    QStringList sessionIds() const;
    // The session of that id, closed or not; null when there is none.
    const PtySession* session(const QString& sessionId) const { return m_sessions.value(sessionId); }
    // The sessions not closed yet, as the agent restates them, in the order they opened.
    QList<Messages::StateTerminal> openSessions() const;

private:
    void start(PtySession* session, bool interactive, bool projectPathMissing, const AgentProfile& profile);
    void announce(PtySession* session, qint64 pid, bool projectPathMissing);
    void onExited(PtySession* session, int exitCode);
    // The session a command names, unless it is closed; otherwise the phone hears
    // "Terminal session not found." (a completion looks its session up without it).
    PtySession* liveSession(const QString& sessionId);
    void closeSession(PtySession* session);
    void store(PtySession* session);
    void clear(PtySession* session);
    void sendOutput(const PtySession& session, const QString& text, bool snapshot);
    QList<PtySession*> liveSessions() const;
    void sendError(const QString& sessionId, const QString& projectPath, const QString& message);

    std::function<AgentProfile()> m_profileProvider;
    std::function<void(const QJsonObject&)> m_sendEvent;
    std::function<void(const QString&)> m_diag;
    QPointer<OutgoingFlow> m_flow;
    QHash<QString, PtySession*> m_sessions;
    QHash<QString, QString> m_sessionByProject;
    bool m_extended = false;
};

// Where a terminal for a project starts.
struct TerminalWorkspace {
    QString path;
    // The project's folder was not found and the shell starts in the repository root.
    bool projectPathMissing = false;
};

// An absolute path that exists, else repoRoot/projectPath, else
// repoRoot/proj/projectPath, else the repository root itself: unlike a task, a
// terminal is never refused for a missing folder. Anything that exists counts, a
// file too (the shell then fails to enter it).
TerminalWorkspace resolveTerminalWorkspacePath(const QString& repoRoot, const QString& projectPath);

// Environment changes every terminal shell gets: PATH prefixed with the Homebrew and
// local folders, TERM defaulted, the repository root and the project path exported.
QStringList terminalEnvironment(const QStringList& inherited, const QString& repoRoot, const QString& projectPath);

} // namespace brinmoor
