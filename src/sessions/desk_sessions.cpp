#include "sessions/desk_sessions.h"

#include "execution/execution_resolution.h"
#include "sessions/claude_session_store.h"
#include "sessions/claude_transcripts.h"
#include "sessions/codex_rollouts.h"

namespace brinmoor::DeskSessions {

Stores Stores::of(const Environment& env, const QString& home)
{
    QString codex = env.value(QStringLiteral("CODEX_HOME"));
    if (codex.isEmpty() && !home.isEmpty())
        codex = home + QStringLiteral("/.codex");
    return {ClaudeSessionStore::configDirectory(env, home), codex};
}

QList<DeskSession> list(const Stores& stores, const QString& workingDir)
{
    QList<DeskSession> sessions;
    if (!stores.claude.isEmpty()) {
        const QHash<QString, QString> live = ClaudeTranscripts::liveSessions(stores.claude);
        for (DeskSession session : ClaudeTranscripts::list(stores.claude, workingDir, kListLimit)) {
            session.live = live.value(session.id);
            sessions.append(session);
        }
    }
    if (!stores.codex.isEmpty()) {
        for (DeskSession session : CodexRollouts::list(stores.codex, workingDir, kListLimit)) {
            session.live = liveState(stores, session.tool, session.id);
            sessions.append(session);
        }
    }
    std::stable_sort(sessions.begin(), sessions.end(),
                     [](const DeskSession& a, const DeskSession& b) { return a.updatedAt > b.updatedAt; });
    if (sessions.size() > kListLimit)
        sessions.resize(kListLimit);
    return sessions;
}

DeskSession find(const Stores& stores, const QString& tool, const QString& id)
{
    DeskSession session;
    if (tool == QLatin1String("claude") && !stores.claude.isEmpty())
        session = ClaudeTranscripts::find(stores.claude, id);
    else if (tool == QLatin1String("codex") && !stores.codex.isEmpty())
        session = CodexRollouts::find(stores.codex, id);
    if (!session.path.isEmpty())
        session.live = liveState(stores, tool, id);
    return session;
}

QString liveState(const Stores& stores, const QString& tool, const QString& id)
{
    if (tool == QLatin1String("claude"))
        return stores.claude.isEmpty() ? QString() : ClaudeTranscripts::liveSessions(stores.claude).value(id);
    if (tool == QLatin1String("codex") && !stores.codex.isEmpty() && CodexRollouts::isWritten(stores.codex, id))
        return QStringLiteral("busy");
    return {};
}

QList<SessionItem> items(const DeskSession& session)
{
    if (session.tool == QLatin1String("claude"))
        return ClaudeTranscripts::items(session.path);
    if (session.tool == QLatin1String("codex"))
        return CodexRollouts::items(session.path);
    return {};
}

QString resumeCommand(const DeskSession& session)
{
    const QString tool =
        session.tool == QLatin1String("codex") ? QStringLiteral("codex resume ") : QStringLiteral("claude --resume ");
    return QStringLiteral("cd ") + ExecutionResolution::shellQuote(session.cwd) + QStringLiteral(" && ") + tool +
           session.id;
}

Page page(const QList<SessionItem>& items, std::optional<qint64> before)
{
    Page page;
    page.total = items.size();
    const qsizetype end = before ? qBound<qsizetype>(0, *before, items.size()) : items.size();
    page.first = qMax<qsizetype>(0, end - kPageItems);
    for (qsizetype at = page.first; at < end; ++at)
        page.items.append(toJson(items.at(at)));
    return page;
}

QJsonObject toJson(const DeskSession& session)
{
    return {{QStringLiteral("tool"), session.tool},
            {QStringLiteral("id"), session.id},
            {QStringLiteral("title"), session.title},
            {QStringLiteral("updatedAt"), session.updatedAt.toString(Qt::ISODateWithMs)},
            {QStringLiteral("messages"), session.messages},
            {QStringLiteral("live"), session.live.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(session.live)},
            {QStringLiteral("startedBy"), session.startedByPhone ? QStringLiteral("phone") : QStringLiteral("desk")},
            {QStringLiteral("resumeCommand"), resumeCommand(session)}};
}

QJsonObject toJson(const SessionItem& item)
{
    QJsonObject object{{QStringLiteral("kind"), item.kind}, {QStringLiteral("text"), item.text}};
    if (!item.name.isEmpty())
        object.insert(QStringLiteral("name"), item.name);
    if (item.isError)
        object.insert(QStringLiteral("isError"), true);
    if (!item.at.isEmpty())
        object.insert(QStringLiteral("at"), item.at);
    return object;
}

} // namespace brinmoor::DeskSessions
