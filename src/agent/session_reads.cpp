// The assistants' own sessions of a project, for a relay's clients ("sessions.list",
// "sessions.read"): found in the tools' stores on this computer, read off the loop, and
// answered to the client that asked (the relay's "readId").
#include "agent/agent_runtime.h"
#include "base/agent_error.h"
#include "base/diag.h"
#include "chat/chat_execution.h"
#include "execution/execution_resolution.h"
#include "protocol/agent_command.h"
#include "protocol/message_types.h"
#include "protocol/task_assignment.h"
#include "sessions/desk_sessions.h"
#include "sessions/session_watch.h"
#include "sessions/transcript_file.h"

#include <QFutureWatcher>
#include <QtConcurrent/QtConcurrentRun>

namespace brinmoor {

namespace {

constexpr std::size_t kMostWatchedSessions = 8;

QString noSuchSession(const QString& tool, const QString& id)
{
    return QStringLiteral("no %1 session %2 on this computer").arg(tool, id);
}

// "sessions.grew" of a session, without what it carries.
QJsonObject grew(const QString& tool, const QString& id)
{
    return {{QStringLiteral("type"), QStringLiteral("sessions.grew")},
            {QStringLiteral("tool"), tool},
            {QStringLiteral("id"), id}};
}

QJsonObject listed(const DeskSessions::Stores& stores, const QString& repoRoot, const QString& projectPath)
{
    QJsonArray sessions;
    try {
        const QString workingDir = ExecutionResolution::resolveWorkspacePath(repoRoot, projectPath);
        for (const DeskSession& session : DeskSessions::list(stores, workingDir))
            sessions.append(DeskSessions::toJson(session));
    } catch (const AgentError&) {
        // A folder that does not exist has no sessions.
    }
    return {{QStringLiteral("type"), QStringLiteral("sessions.listed")},
            {QStringLiteral("projectPath"), projectPath},
            {QStringLiteral("sessions"), sessions}};
}

QJsonObject history(const DeskSessions::Stores& stores, const QString& tool, const QString& id,
                    std::optional<qint64> before)
{
    QJsonObject answer{{QStringLiteral("type"), QStringLiteral("sessions.history")},
                       {QStringLiteral("tool"), tool},
                       {QStringLiteral("id"), id}};
    const DeskSession session = DeskSessions::find(stores, tool, id);
    if (session.path.isEmpty()) {
        answer.insert(QStringLiteral("error"), noSuchSession(tool, id));
        return answer;
    }
    const DeskSessions::Page page = DeskSessions::page(DeskSessions::items(session), before);
    answer.insert(QStringLiteral("session"), DeskSessions::toJson(session));
    answer.insert(QStringLiteral("first"), page.first);
    answer.insert(QStringLiteral("total"), page.total);
    answer.insert(QStringLiteral("items"), page.items);
    return answer;
}

} // namespace

void AgentRuntime::handleSessionsCommand(const AgentCommand& command)
{
    if (command.type == MessageTypes::SessionsWatch || command.type == MessageTypes::SessionsUnwatch) {
        const QString tool = command.stringMember(QStringLiteral("tool")).value_or(QString());
        const QString id = command.stringMember(QStringLiteral("id")).value_or(QString());
        if (command.type == MessageTypes::SessionsWatch)
            watchSession(tool, id);
        else
            m_sessionWatches.erase(tool + QLatin1Char(':') + id);
        return;
    }
    const std::optional<QString> readId = command.stringMember(QStringLiteral("readId"));
    const DeskSessions::Stores stores = DeskSessions::Stores::of(m_env, m_machine.homeDirectory);
    std::function<QJsonObject()> read;
    if (command.type == QLatin1String("sessions.list")) {
        const QString projectPath = command.stringMember(QStringLiteral("projectPath")).value_or(QString());
        read = [stores, repoRoot = loadProfile().repoRoot, projectPath] {
            return listed(stores, repoRoot, projectPath);
        };
    } else {
        const QString tool = command.stringMember(QStringLiteral("tool")).value_or(QString());
        const QString id = command.stringMember(QStringLiteral("id")).value_or(QString());
        const std::optional<qint64> before = command.intMember(QStringLiteral("before"));
        read = [stores, tool, id, before] { return history(stores, tool, id, before); };
    }
    auto* watcher = new QFutureWatcher<QJsonObject>(this);
    connect(watcher, &QFutureWatcher<QJsonObject>::finished, this, [this, watcher, readId] {
        QJsonObject answer = watcher->result();
        if (readId)
            answer.insert(QStringLiteral("readId"), *readId);
        // Said only to a server that asked for it; the connection may have changed since.
        if (m_features.sessions)
            sendJSON(answer);
        watcher->deleteLater();
    });
    watcher->setFuture(QtConcurrent::run(read));
}

void AgentRuntime::watchSession(const QString& tool, const QString& id)
{
    const QString key = tool + QLatin1Char(':') + id;
    if (m_sessionWatches.count(key))
        return;
    const DeskSessions::Stores stores = DeskSessions::Stores::of(m_env, m_machine.homeDirectory);
    using Found = std::pair<DeskSession, qint64>;
    auto* watcher = new QFutureWatcher<Found>(this);
    connect(watcher, &QFutureWatcher<Found>::finished, this, [this, watcher, key, tool, id] {
        watcher->deleteLater();
        const auto [session, size] = watcher->result();
        if (!m_features.sessions || m_sessionWatches.count(key))
            return;
        if (session.path.isEmpty()) {
            QJsonObject missing = grew(tool, id);
            missing.insert(QStringLiteral("error"), noSuchSession(tool, id));
            sendJSON(missing);
            return;
        }
        if (m_sessionWatches.size() >= kMostWatchedSessions) {
            diag(QStringLiteral("sessions.watch refused: ") + QString::number(kMostWatchedSessions) +
                 QStringLiteral(" sessions are watched already"));
            return;
        }
        diag(QStringLiteral("sessions.watch tool=") + tool + QStringLiteral(" id=") + logValue(id));
        auto watch = std::make_unique<SessionWatch>(session, size);
        connect(watch.get(), &SessionWatch::grew, this, [this, tool, id](const QList<SessionItem>& items) {
            QJsonArray added;
            for (const SessionItem& item : items)
                added.append(DeskSessions::toJson(item));
            QJsonObject message = grew(tool, id);
            message.insert(QStringLiteral("items"), added);
            sendJSON(message);
        });
        m_sessionWatches[key] = std::move(watch);
    });
    watcher->setFuture(QtConcurrent::run([stores, tool, id] {
        const DeskSession session = DeskSessions::find(stores, tool, id);
        TranscriptFile::Stat stat;
        TranscriptFile::stat(session.path, &stat);
        return Found{session, stat.size};
    }));
}

QString AgentRuntime::deskSessionState(const TaskAssignment& task) const
{
    // A copy of a session leaves the session as it is.
    if (!m_features.sessions || task.action != QLatin1String("chat") || task.conversationId.trimmed().isEmpty() ||
        !task.forkOf.isEmpty())
        return {};
    const DeskSessions::Stores stores = DeskSessions::Stores::of(m_env, m_machine.homeDirectory);
    const std::optional<QString> key = ChatExecution::scopedConversationKey(task.projectPath, task.conversationId);
    if (ExecutionResolution::normalizeAISystem(task.system) == QLatin1String("codex")) {
        const QString thread = key ? m_chatSessions.codexThreadID(*key).value_or(QString()) : QString();
        return DeskSessions::liveState(stores, QStringLiteral("codex"),
                                       thread.isEmpty() ? task.conversationId.trimmed() : thread);
    }
    return DeskSessions::liveState(stores, QStringLiteral("claude"),
                                   ChatExecution::claudeSessionID(task.conversationId.trimmed(), key));
}

} // namespace brinmoor
