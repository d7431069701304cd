#include "agent_snapshot.h"

#include <algorithm>

#include <QJsonArray>

namespace brinmoor::relay {

namespace {

const QString kRunning = QStringLiteral("running");
const QString kAwaitingApproval = QStringLiteral("awaiting_approval");

QString text(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

bool isActive(const QString& status)
{
    return status == kRunning || status == kAwaitingApproval;
}

// A running chat's answer so far; a chat the relay did not hear from its start has said
// what it does not know.
void addAnswer(QJsonObject& task, const std::optional<ChatAnswers::Answer>& answer)
{
    task.insert(QStringLiteral("answer"), answer ? answer->text : QString());
    if (!answer || answer->cut)
        task.insert(QStringLiteral("answerCut"), true);
}

} // namespace

AgentSnapshot::Task& AgentSnapshot::task(const QString& taskId)
{
    for (Task& existing : m_tasks) {
        if (existing.taskId == taskId)
            return existing;
    }
    m_tasks.append(Task{taskId, QString(), QString(), QString(), kRunning, std::nullopt});
    return m_tasks.last();
}

const AgentSnapshot::Task* AgentSnapshot::find(const QString& taskId) const
{
    for (const Task& existing : m_tasks) {
        if (existing.taskId == taskId)
            return &existing;
    }
    return nullptr;
}

void AgentSnapshot::taskCreated(const QString& taskId, const QJsonObject& payload)
{
    Task& created = task(taskId);
    // A task without an action is a build, as the agent reads it.
    created.kind = payload.value(QStringLiteral("action")).toString(QStringLiteral("build_ios"));
    created.projectPath = text(payload, "projectPath");
    if (created.kind == QLatin1String("chat")) {
        created.conversationId = text(payload, "conversationId");
        m_answers.begin(taskId);
    }
}

void AgentSnapshot::taskWithdrawn(const QString& taskId)
{
    m_tasks.removeIf([&](const Task& known) { return known.taskId == taskId; });
}

void AgentSnapshot::observe(const QJsonObject& message)
{
    const QString type = text(message, "type");
    const QString taskId = text(message, "taskId");
    const std::optional<qint64> exitCode =
        message.value(QStringLiteral("exitCode")).isDouble()
            ? std::optional<qint64>(qint64(message.value(QStringLiteral("exitCode")).toDouble()))
            : std::nullopt;
    if (type == QLatin1String("task.started") && !taskId.isEmpty()) {
        // What the task says from here on is heard whole.
        if (isActive(task(taskId).status))
            m_answers.begin(taskId);
    } else if (type == QLatin1String("task.heartbeat") && !taskId.isEmpty()) {
        task(taskId);
    } else if (type == QLatin1String("task.chat.chunk") && runs(taskId)) {
        m_answers.chunk(taskId, text(message, "chunk"));
    } else if (type == QLatin1String("task.chat.final") && runs(taskId)) {
        m_answers.finalText(taskId, text(message, "text"));
    } else if (type == QLatin1String("task.awaiting_approval") && !taskId.isEmpty()) {
        Task& waiting = task(taskId);
        if (isActive(waiting.status))
            waiting.status = kAwaitingApproval;
        QJsonObject proposal = message;
        proposal.remove(QStringLiteral("type"));
        proposal.remove(QStringLiteral("agentId"));
        m_proposal = proposal;
    } else if (type == QLatin1String("task.finished") && !taskId.isEmpty()) {
        endTask(taskId, QStringLiteral("finished"), exitCode);
    } else if (type == QLatin1String("task.failed") && !taskId.isEmpty()) {
        endTask(taskId, QStringLiteral("failed"), exitCode);
    } else if (type == QLatin1String("task.cancelled") && !taskId.isEmpty()) {
        endTask(taskId, QStringLiteral("cancelled"), exitCode);
    } else if (type == QLatin1String("terminal.opened")) {
        openTerminal(text(message, "sessionId"), text(message, "projectPath"), text(message, "mode"));
    } else if (type == QLatin1String("terminal.closed")) {
        closeTerminal(text(message, "sessionId"));
    } else if (type == QLatin1String("agent.state")) {
        restate(message);
    }
}

void AgentSnapshot::endTask(const QString& taskId, const QString& status, std::optional<qint64> exitCode)
{
    Task& ended = task(taskId);
    // The first end counts: a cancelled task's child still reports its own status later.
    if (isActive(ended.status)) {
        ended.status = status;
        ended.exitCode = exitCode;
    }
    m_answers.end(taskId);
    if (m_proposal && text(*m_proposal, "taskId") == taskId)
        m_proposal.reset();
    forgetOldEndedTasks();
}

void AgentSnapshot::approvalSent(const QString& taskId)
{
    if (!m_proposal || text(*m_proposal, "taskId") != taskId)
        return;
    m_proposal.reset();
    for (Task& decided : m_tasks) {
        if (decided.taskId == taskId && decided.status == kAwaitingApproval)
            decided.status = kRunning;
    }
}

void AgentSnapshot::terminalClosing(const QString& sessionId)
{
    closeTerminal(sessionId);
}

void AgentSnapshot::restate(const QJsonObject& state)
{
    QStringList announced;
    for (const QJsonValue& value : state.value(QStringLiteral("tasks")).toArray()) {
        const QJsonObject object = value.toObject();
        const QString taskId = text(object, "taskId");
        if (taskId.isEmpty())
            continue;
        Task& running = task(taskId);
        running.kind = text(object, "kind");
        running.projectPath = text(object, "projectPath");
        running.conversationId = text(object, "conversationId");
        running.status = text(object, "status") == kAwaitingApproval ? kAwaitingApproval : kRunning;
        running.exitCode.reset();
        announced.append(taskId);
    }
    // What the relay thought running and the agent no longer runs ended without a word:
    // the agent started afresh.
    for (Task& known : m_tasks) {
        if (isActive(known.status) && !announced.contains(known.taskId)) {
            known.status = QStringLiteral("lost");
            m_answers.end(known.taskId);
        }
    }
    const QJsonValue proposal = state.value(QStringLiteral("proposal"));
    if (proposal.isObject())
        m_proposal = proposal.toObject();
    else
        m_proposal.reset();
    m_terminals.clear();
    for (const QJsonValue& value : state.value(QStringLiteral("terminals")).toArray()) {
        const QJsonObject object = value.toObject();
        openTerminal(text(object, "sessionId"), text(object, "projectPath"), text(object, "mode"));
    }
    forgetOldEndedTasks();
}

void AgentSnapshot::openTerminal(const QString& sessionId, const QString& projectPath, const QString& mode)
{
    if (sessionId.isEmpty())
        return;
    QString known;
    for (const Terminal& terminal : m_terminals) {
        if (terminal.sessionId == sessionId)
            known = terminal.mode;
    }
    // One live session per project: a new one replaces the project's old one. An attach
    // is answered without a mode, which keeps the one the session was opened with.
    m_terminals.removeIf([&](const Terminal& terminal) {
        return terminal.sessionId == sessionId || terminal.projectPath == projectPath;
    });
    const QString kept = !mode.isEmpty() ? mode : !known.isEmpty() ? known : QStringLiteral("line");
    m_terminals.append(Terminal{sessionId, projectPath, kept});
}

bool AgentSnapshot::hasTerminal(const QString& sessionId) const
{
    return std::any_of(m_terminals.cbegin(), m_terminals.cend(),
                       [&](const Terminal& terminal) { return terminal.sessionId == sessionId; });
}

void AgentSnapshot::closeTerminal(const QString& sessionId)
{
    m_terminals.removeIf([&](const Terminal& terminal) { return terminal.sessionId == sessionId; });
}

void AgentSnapshot::forgetOldEndedTasks()
{
    qsizetype ended = 0;
    for (const Task& known : m_tasks)
        ended += isActive(known.status) ? 0 : 1;
    for (qsizetype i = 0; ended > kEndedTasksKept && i < m_tasks.size();) {
        if (isActive(m_tasks[i].status)) {
            ++i;
            continue;
        }
        m_tasks.removeAt(i);
        --ended;
    }
}

bool AgentSnapshot::runs(const QString& taskId) const
{
    return std::any_of(m_tasks.cbegin(), m_tasks.cend(),
                       [&](const Task& known) { return known.taskId == taskId && isActive(known.status); });
}

QStringList AgentSnapshot::runningTaskIds() const
{
    QStringList running;
    for (const Task& known : m_tasks) {
        if (isActive(known.status))
            running.append(known.taskId);
    }
    return running;
}

QJsonObject AgentSnapshot::toJson() const
{
    QJsonArray tasks;
    for (const Task& known : m_tasks) {
        QJsonObject object{{QStringLiteral("taskId"), known.taskId},
                           {QStringLiteral("kind"), known.kind},
                           {QStringLiteral("projectPath"), known.projectPath},
                           {QStringLiteral("status"), known.status}};
        if (!known.conversationId.isEmpty())
            object.insert(QStringLiteral("conversationId"), known.conversationId);
        if (known.exitCode)
            object.insert(QStringLiteral("exitCode"), *known.exitCode);
        if (isActive(known.status) && known.kind == QLatin1String("chat"))
            addAnswer(object, m_answers.answer(known.taskId));
        tasks.append(object);
    }
    QJsonArray terminals;
    for (const Terminal& terminal : m_terminals) {
        terminals.append(QJsonObject{{QStringLiteral("sessionId"), terminal.sessionId},
                                     {QStringLiteral("projectPath"), terminal.projectPath},
                                     {QStringLiteral("mode"), terminal.mode}});
    }
    return QJsonObject{{QStringLiteral("tasks"), tasks},
                       {QStringLiteral("proposal"), m_proposal ? QJsonValue(*m_proposal) : QJsonValue()},
                       {QStringLiteral("terminals"), terminals}};
}

} // namespace brinmoor::relay
