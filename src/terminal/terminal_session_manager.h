#pragma once

#include "base/utf8_stream_decoder.h"
#include "config/agent_profile.h"

#include <QDateTime>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

class QProcess;
class QSocketNotifier;
class QTimer;

namespace brinmoor {

class OutgoingFlow;

// Terminal sessions for the phone on pseudo-terminals: an interactive login shell
// (`/bin/zsh -l` under forkpty) or a line-mode shell (`/bin/zsh -f` reading lines on an
// openpty pair, echo off). One live session per project; output is kept for replay
// (the newest 128 reads) so that a phone that reconnects can attach again. Every
// master is read through the event loop, never by a thread per session; the loop
// serialises all access, so no lock guards the maps.
class TerminalSessionManager : public QObject {
    Q_OBJECT

public:
    static constexpr int kMaxBufferedChunks = 128;
    static constexpr int kKillGraceMilliseconds = 3000;

    TerminalSessionManager(std::function<AgentProfile()> profileProvider,
                           std::function<void(const QJsonObject&)> sendEvent, std::function<void(const QString&)> diag,
                           OutgoingFlow* flow, QObject* parent = nullptr);
    ~TerminalSessionManager() override;

    void open(const QString& sessionId, const QString& projectPath, const QString& mode, bool replace,
              const std::optional<QString>& replaceSessionId);
    void attach(const QString& sessionId);
    void sendInput(const QString& sessionId, const QString& base64);
    void complete(const QString& sessionId, const QString& line, qint64 cursor);
    void resize(const QString& sessionId, qint64 cols, qint64 rows);
    void signal(const QString& sessionId, const QString& signal);
    void close(const QString& sessionId);

    // When set, output goes out through it already serialised (the fast path).
    std::function<void(const QString& json)> sendSerialized;

    // The ids of every session, for closing them all when the agent stops.
    QStringList sessionIds() const { return m_sessions.keys(); }

    // Where a shell starts: an existing absolute path, repoRoot/path, repoRoot/proj/path,
    // else the repository root itself.
    static QString resolveWorkspacePath(const QString& repoRoot, const QString& projectPath);

private:
    struct ManagedSession;

    void openLineMode(const QString& sessionId, const QString& projectPath, const QString& workingDir,
                      const AgentProfile& profile);
    void openInteractive(const QString& sessionId, const QString& projectPath, const QString& workingDir,
                         const AgentProfile& profile);
    void configurePtyForRemoteInput(int fd);
    void store(const std::shared_ptr<ManagedSession>& session);
    void appendOutput(const QString& text, const QString& sessionId);
    void clear(const QString& sessionId);
    void touch(const QString& sessionId);
    // Writes everything; false with the reason when the terminal does not take it.
    bool writeAll(const QByteArray& data, int fd, QString* error);
    void sendError(const QString& sessionId, const QString& projectPath, const QString& message);
    void updateCurrentDirectoryIfNeeded(const QByteArray& input, const QString& sessionId);
    std::shared_ptr<ManagedSession> find(const QString& sessionId) const;

    // A new session on its master, stored and read from.
    std::shared_ptr<ManagedSession> startSession(const QString& sessionId, const QString& projectPath,
                                                 const QString& workingDir, int masterFD);
    void watchMaster(const std::shared_ptr<ManagedSession>& session);
    void onMasterReadable(const std::shared_ptr<ManagedSession>& session);
    void stopReading(ManagedSession& session);
    void onInteractiveEnd(const std::shared_ptr<ManagedSession>& session);
    void pauseAll();
    void sendOutput(const ManagedSession& session, const QString& text, bool snapshot);
    void resumeAll();

    std::function<AgentProfile()> m_profileProvider;
    std::function<void(const QJsonObject&)> m_sendEvent;
    std::function<void(const QString&)> m_diag;
    QPointer<OutgoingFlow> m_flow;
    QHash<QString, std::shared_ptr<ManagedSession>> m_sessions;
    QHash<QString, QString> m_sessionByProject;
    // Interactive shells that were closed or ended, reaped when they exit.
    QList<qint64> m_unreaped;
    QTimer* m_reaper = nullptr;
};

// Environment changes every terminal shell gets: PATH prefixed with the Homebrew and
// local folders, TERM defaulted, the repository root and the project path exported.
QStringList terminalEnvironment(const QStringList& inherited, const QString& repoRoot, const QString& projectPath);

} // namespace brinmoor
