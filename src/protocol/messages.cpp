#include "protocol/messages.h"

#include <QJsonArray>

namespace brinmoor::Messages {

namespace {

QJsonObject typed(const char* type, const QString& taskId)
{
    return QJsonObject{{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("taskId"), taskId}};
}

QJsonObject terminalEvent(const char* type, const QString& sessionId, const QString& projectPath)
{
    return QJsonObject{{QStringLiteral("type"), QLatin1String(type)},
                       {QStringLiteral("sessionId"), sessionId},
                       {QStringLiteral("projectPath"), projectPath}};
}

QJsonObject proposalMessage(const char* type, const QString& taskId, const Proposal& proposal)
{
    QJsonObject message = typed(type, taskId);
    message.insert(QStringLiteral("proposalId"), proposal.proposalId);
    message.insert(QStringLiteral("proposalSummary"), proposal.summary);
    message.insert(QStringLiteral("proposalCommentary"), proposal.commentary);
    message.insert(QStringLiteral("proposalDiff"), proposal.diff);
    message.insert(QStringLiteral("proposalFiles"), QJsonArray::fromStringList(proposal.files));
    if (proposal.fileChoice)
        message.insert(QStringLiteral("fileChoice"), true);
    return message;
}

} // namespace

QJsonObject agentRegister(const Registration& profile)
{
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("agent.register")},
        {QStringLiteral("profiles"), QJsonArray{profile.profileId}},
        {QStringLiteral("projects"), QJsonArray::fromStringList(profile.projects)},
        {QStringLiteral("createProjectRoot"), profile.createProjectRoot.value_or(QString())},
        {QStringLiteral("actions"), QJsonArray::fromStringList(profile.actions)},
        {QStringLiteral("taskKinds"),
         QJsonArray{QStringLiteral("build"), QStringLiteral("ai_task"), QStringLiteral("chat"), QStringLiteral("shell"),
                    QStringLiteral("terminal_session")}},
        {QStringLiteral("buildTemplate"), profile.buildTemplate},
        {QStringLiteral("repoRoot"), profile.repoRoot},
        {QStringLiteral("supportsApproval"), true},
    };
}

QJsonObject taskHeartbeat(const QString& taskId)
{
    return typed("task.heartbeat", taskId);
}

QJsonObject agentStream(qint64 first, qint64 next)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("agent.stream")},
                       {QStringLiteral("first"), first},
                       {QStringLiteral("next"), next}};
}

QJsonObject agentState(const QList<StateTask>& tasks, const std::optional<QJsonObject>& proposal,
                       const QList<StateTerminal>& terminals)
{
    QJsonArray taskList;
    for (const StateTask& task : tasks) {
        QJsonObject object{{QStringLiteral("taskId"), task.taskId},
                           {QStringLiteral("kind"), task.kind},
                           {QStringLiteral("projectPath"), task.projectPath},
                           {QStringLiteral("status"),
                            task.awaitingApproval ? QStringLiteral("awaiting_approval") : QStringLiteral("running")}};
        if (!task.conversationId.isEmpty())
            object.insert(QStringLiteral("conversationId"), task.conversationId);
        taskList.append(object);
    }
    QJsonArray terminalList;
    for (const StateTerminal& terminal : terminals) {
        terminalList.append(QJsonObject{
            {QStringLiteral("sessionId"), terminal.sessionId},
            {QStringLiteral("projectPath"), terminal.projectPath},
            {QStringLiteral("mode"), terminal.interactive ? QStringLiteral("interactive") : QStringLiteral("line")}});
    }
    QJsonObject message{{QStringLiteral("type"), QStringLiteral("agent.state")},
                        {QStringLiteral("tasks"), taskList},
                        {QStringLiteral("terminals"), terminalList}};
    if (proposal)
        message.insert(QStringLiteral("proposal"), *proposal);
    return message;
}

QJsonObject taskStarted(const QString& taskId)
{
    return typed("task.started", taskId);
}

QJsonObject taskLog(const QString& taskId, const QString& line)
{
    QJsonObject message = typed("task.log", taskId);
    message.insert(QStringLiteral("line"), line);
    return message;
}

void appendJsonString(QString& out, QStringView text)
{
    static constexpr char16_t hex[] = u"0123456789abcdef";
    out.append(QLatin1Char('"'));
    const char16_t* data = text.utf16();
    const qsizetype size = text.size();
    qsizetype runStart = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t c = data[i];
        if (c >= 0x20 && c != u'"' && c != u'\\')
            continue;
        out.append(QStringView(data + runStart, i - runStart));
        runStart = i + 1;
        switch (c) {
        case u'"': out.append(QLatin1String("\\\"")); break;
        case u'\\': out.append(QLatin1String("\\\\")); break;
        case u'\n': out.append(QLatin1String("\\n")); break;
        case u'\r': out.append(QLatin1String("\\r")); break;
        case u'\t': out.append(QLatin1String("\\t")); break;
        case u'\b': out.append(QLatin1String("\\b")); break;
        case u'\f': out.append(QLatin1String("\\f")); break;
        default: {
            const char16_t escape[] = {u'\\', u'u', u'0', u'0', hex[(c >> 4) & 0xF], hex[c & 0xF]};
            out.append(QStringView(escape, 6));
        }
        }
    }
    out.append(QStringView(data + runStart, size - runStart));
    out.append(QLatin1Char('"'));
}

QString taskLogText(QStringView taskId, QStringView line, std::optional<qint64> number)
{
    QString out;
    out.reserve(line.size() + taskId.size() + 64);
    out.append(QLatin1String("{\"line\":"));
    appendJsonString(out, line);
    if (number) {
        out.append(QLatin1String(",\"number\":"));
        out.append(QString::number(*number));
    }
    out.append(QLatin1String(",\"taskId\":"));
    appendJsonString(out, taskId);
    out.append(QLatin1String(",\"type\":\"task.log\"}"));
    return out;
}

QString terminalOutputText(QStringView sessionId, QStringView projectPath, QStringView data, bool snapshot,
                           std::optional<qint64> offset)
{
    QString out;
    out.reserve(data.size() + data.size() / 8 + sessionId.size() + projectPath.size() + 100);
    out.append(QLatin1String("{\"data\":"));
    appendJsonString(out, data);
    if (offset) {
        out.append(QLatin1String(",\"offset\":"));
        out.append(QString::number(*offset));
    }
    out.append(QLatin1String(",\"projectPath\":"));
    appendJsonString(out, projectPath);
    out.append(QLatin1String(",\"sessionId\":"));
    appendJsonString(out, sessionId);
    if (snapshot)
        out.append(QLatin1String(",\"snapshot\":true"));
    out.append(QLatin1String(",\"type\":\"terminal.output\"}"));
    return out;
}

QJsonObject taskCommentary(const QString& taskId, const QString& text)
{
    QJsonObject message = typed("task.commentary", taskId);
    message.insert(QStringLiteral("text"), text);
    message.insert(QStringLiteral("replace"), true);
    return message;
}

QJsonObject taskChatChunk(const QString& taskId, const QString& conversationId, const QString& chunk)
{
    QJsonObject message = typed("task.chat.chunk", taskId);
    message.insert(QStringLiteral("conversationId"), conversationId);
    message.insert(QStringLiteral("chunk"), chunk);
    return message;
}

QJsonObject taskChatFinal(const QString& taskId, const QString& conversationId, const QString& text)
{
    QJsonObject message = typed("task.chat.final", taskId);
    message.insert(QStringLiteral("conversationId"), conversationId);
    message.insert(QStringLiteral("text"), text);
    return message;
}

QJsonObject taskChatError(const QString& taskId, const QString& conversationId, const QString& text)
{
    QJsonObject message = typed("task.chat.error", taskId);
    message.insert(QStringLiteral("conversationId"), conversationId);
    message.insert(QStringLiteral("message"), text);
    return message;
}

QJsonObject taskFinished(const QString& taskId)
{
    QJsonObject message = typed("task.finished", taskId);
    message.insert(QStringLiteral("exitCode"), 0);
    return message;
}

QJsonObject taskFailed(const QString& taskId, const QString& error, const QString& errorCode, qint64 exitCode)
{
    QJsonObject message = typed("task.failed", taskId);
    message.insert(QStringLiteral("error"), error);
    message.insert(QStringLiteral("errorCode"), errorCode);
    message.insert(QStringLiteral("exitCode"), exitCode);
    return message;
}

QJsonObject taskCancelled(const QString& taskId, qint64 exitCode)
{
    QJsonObject message = typed("task.cancelled", taskId);
    message.insert(QStringLiteral("exitCode"), exitCode);
    return message;
}

QJsonObject taskProgress(const QString& taskId, const QString& phase, const QString& text, qint64 percent)
{
    QJsonObject message = typed("task.progress", taskId);
    message.insert(QStringLiteral("phase"), phase);
    message.insert(QStringLiteral("message"), text);
    message.insert(QStringLiteral("percent"), percent);
    return message;
}

QJsonObject taskArtifact(const QString& taskId, const QString& kind, const QString& summary, const QString& mimeType)
{
    QJsonObject message = typed("task.artifact", taskId);
    message.insert(QStringLiteral("kind"), kind);
    message.insert(QStringLiteral("summary"), summary);
    message.insert(QStringLiteral("mimeType"), mimeType);
    return message;
}

QJsonObject taskProposalReady(const QString& taskId, const Proposal& proposal)
{
    return proposalMessage("task.proposal_ready", taskId, proposal);
}

QJsonObject taskAwaitingApproval(const QString& taskId, const Proposal& proposal)
{
    return proposalMessage("task.awaiting_approval", taskId, proposal);
}

QJsonObject projectsListed(const QList<FoundProject>& projects)
{
    QJsonArray list;
    for (const FoundProject& project : projects) {
        list.append(QJsonObject{{QStringLiteral("path"), project.path},
                                {QStringLiteral("name"), project.name},
                                {QStringLiteral("markers"), QJsonArray::fromStringList(project.markers)}});
    }
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("projects.listed")}, {QStringLiteral("projects"), list}};
}

QJsonObject terminalOpened(const QString& sessionId, const QString& projectPath, bool interactive,
                           bool projectPathMissing)
{
    QJsonObject message = terminalEvent("terminal.opened", sessionId, projectPath);
    message.insert(QStringLiteral("status"), QStringLiteral("running"));
    if (interactive)
        message.insert(QStringLiteral("mode"), QStringLiteral("interactive"));
    if (projectPathMissing)
        message.insert(QStringLiteral("projectPathMissing"), true);
    return message;
}

QJsonObject terminalAttached(const QString& sessionId, const QString& projectPath)
{
    // An attach is answered with "terminal.opened" without a mode.
    return terminalOpened(sessionId, projectPath, false);
}

QJsonObject terminalOutput(const QString& sessionId, const QString& projectPath, const QString& data, bool snapshot,
                           std::optional<qint64> offset)
{
    QJsonObject message = terminalEvent("terminal.output", sessionId, projectPath);
    message.insert(QStringLiteral("data"), data);
    if (snapshot)
        message.insert(QStringLiteral("snapshot"), true);
    if (offset)
        message.insert(QStringLiteral("offset"), *offset);
    return message;
}

QJsonObject terminalStatus(const QString& sessionId, const QString& projectPath, qint64 cols, qint64 rows)
{
    QJsonObject message = terminalEvent("terminal.status", sessionId, projectPath);
    message.insert(QStringLiteral("status"), QStringLiteral("running"));
    message.insert(QStringLiteral("message"), QStringLiteral("Terminal ready (%1x%2)").arg(cols).arg(rows));
    return message;
}

QJsonObject terminalCompletion(const QString& sessionId, const QString& projectPath, qint64 replacementStart,
                               qint64 replacementEnd, const QString& replacement, const QStringList& suggestions)
{
    QJsonObject message = terminalEvent("terminal.completion", sessionId, projectPath);
    message.insert(QStringLiteral("replacementStart"), replacementStart);
    message.insert(QStringLiteral("replacementEnd"), replacementEnd);
    message.insert(QStringLiteral("replacement"), replacement);
    message.insert(QStringLiteral("suggestions"), QJsonArray::fromStringList(suggestions));
    return message;
}

QJsonObject terminalClosed(const QString& sessionId, const QString& projectPath, std::optional<qint64> exitCode)
{
    QJsonObject message = terminalEvent("terminal.closed", sessionId, projectPath);
    if (exitCode)
        message.insert(QStringLiteral("exitCode"), *exitCode);
    return message;
}

QJsonObject terminalError(const QString& sessionId, const QString& projectPath, const QString& text)
{
    QJsonObject message = terminalEvent("terminal.error", sessionId, projectPath);
    message.insert(QStringLiteral("error"), text);
    message.insert(QStringLiteral("message"), text);
    return message;
}

} // namespace brinmoor::Messages
