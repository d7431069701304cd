// Command dispatch: decodes each frame and routes it. Frames are handled one at a
// time; a task runs on in the runner while later frames (cancel, approval, terminal)
// are handled.
#include "agent/agent_runtime.h"
#include "agent/task_output_answers.h"
#include "base/agent_error.h"
#include "base/diag.h"
#include "chat/chat_output.h"
#include "config/connection_settings.h"
#include "execution/execution_resolution.h"
#include "proposals/ai_task_resolution.h"
#include "proposals/codex_apply_task.h"
#include "protocol/agent_command.h"
#include "protocol/message_types.h"
#include "protocol/messages.h"
#include "protocol/task_assignment.h"
#include "sessions/desk_sessions.h"
#include "terminal/terminal_session_manager.h"

namespace brinmoor {

namespace {

// The files a "task.approval" names: absent without "files" (or null): all of them. One that
// is not a list of names names no file.
std::optional<QStringList> approvedFiles(const AgentCommand& command)
{
    const JSONValue* files = command.member(QStringLiteral("files"));
    if (!files || files->isNull())
        return std::nullopt;
    QStringList names;
    if (files->kind() != JSONValue::Kind::Array)
        return names;
    for (const JSONValue& item : files->arrayValue()) {
        const std::optional<QString> name = item.stringValue();
        if (!name)
            return QStringList();
        names.append(*name);
    }
    return names;
}

} // namespace

bool AgentRuntime::handleCommandData(const QByteArray& data, QString* error)
{
    const std::optional<AgentCommand> decoded = AgentCommand::decode(data, error);
    if (!decoded)
        return false;
    const AgentCommand& command = *decoded;

    if (command.type == QLatin1String("agent.hello"))
        diag(QStringLiteral("received agent.hello"));
    // The first frame from a connection's server says what it is.
    learnServer(command);
    if (command.type == QLatin1String("agent.hello")) {
        // Nothing else: what it announced is learnt.
    } else if ((command.type == QLatin1String("agent.ack") && m_features.ack) ||
               (command.type == QLatin1String("terminal.ack") && m_features.pacing)) {
        handleServerCommand(command);
    } else if (m_features.lines && MessageTypes::taskOutputCommands().contains(command.type)) {
        handleTaskOutputCommand(command);
    } else if (command.type == QLatin1String("task.assign")) {
        handleTaskAssign(command);
    } else if (command.type == QLatin1String("task.cancel")) {
        const QString taskId = command.taskId.value_or(QString());
        diag(QStringLiteral("task.cancel taskId=") + logValue(taskId));
        // The runner clears the task when the child has exited.
        if (command.taskId && command.taskId == currentTaskId())
            stopRunningProcessIfAny(true);
    } else if (command.type == QLatin1String("task.approval")) {
        if (command.taskId && command.taskId == m_approvals.pendingApprovalTaskId())
            m_approvals.resolvePendingApproval(
                command.stringMember(QStringLiteral("decision")) == QLatin1String("approve"), approvedFiles(command));
    } else if (command.type == QLatin1String("projects.list") && m_features.projects) {
        listProjects();
    } else if (m_features.sessions &&
               (MessageTypes::sessionsCommands().contains(command.type) ||
                command.type == MessageTypes::SessionsWatch || command.type == MessageTypes::SessionsUnwatch)) {
        handleSessionsCommand(command);
    } else if (command.type.startsWith(QLatin1String("terminal."))) {
        handleTerminalCommand(command);
    }
    // Any other type is ignored without a reply.
    return true;
}

void AgentRuntime::handleServerCommand(const AgentCommand& command)
{
    // The server's own word on the connection: what it has, and how far the clients that
    // pace a terminal have got.
    if (command.type == QLatin1String("agent.ack")) {
        if (const std::optional<qint64> seq = command.intMember(QStringLiteral("seq"))) {
            m_outbox.acknowledge(*seq);
            updateFlow();
        }
        return;
    }
    const std::optional<QString> sessionId = command.stringMember(QStringLiteral("sessionId"));
    if (sessionId && m_terminalSessionManager)
        m_terminalSessionManager->pace(*sessionId, command.intMember(QStringLiteral("offset")));
}

void AgentRuntime::handleTaskOutputCommand(const AgentCommand& command)
{
    const QString taskId = command.taskId.value_or(QString());
    if (command.type == QLatin1String("task.ack")) {
        m_taskPace.acknowledge(taskId, command.intMember(QStringLiteral("line")));
        return;
    }
    const QString readId = command.stringMember(QStringLiteral("readId")).value_or(QString());
    if (command.type == QLatin1String("tasks.list")) {
        sendJSON(TaskOutputAnswers::kept(readId, m_taskOutput.tasks()));
        return;
    }
    const qint64 count = command.intMember(QStringLiteral("count")).value_or(0);
    m_taskOutput.read(
        taskId, command.intMember(QStringLiteral("from")),
        int(std::clamp<qint64>(count, 0, TaskOutputStore::kMaxReadLines)),
        command.stringMember(QStringLiteral("match")).value_or(QString()),
        [this, taskId, readId](const OutputPage& page) { sendJSON(TaskOutputAnswers::output(taskId, readId, page)); });
}

void AgentRuntime::beginTaskOutput(const TaskAssignment& task)
{
    const auto bound = [this](const QString& key, const QString& variable, qint64 fallback) {
        bool ok = false;
        const qint64 value = settingOrEnvironment(m_defaults, key, m_env, variable).value_or(QString()).toLongLong(&ok);
        return ok && value >= 0 ? value : fallback;
    };
    m_taskOutput.setBounds(bound(QStringLiteral("taskOutputTasks"), QStringLiteral("BRINMOOR_TASK_OUTPUT_TASKS"),
                                 TaskOutputStore::kDefaultTasks),
                           bound(QStringLiteral("taskOutputBytes"), QStringLiteral("BRINMOOR_TASK_OUTPUT_BYTES"),
                                 TaskOutputStore::kDefaultBytes));
    KeptTask kept;
    kept.taskId = task.taskId;
    kept.kind = task.action;
    kept.projectPath = task.projectPath;
    kept.conversationId = m_task.conversationId;
    m_taskOutput.begin(kept);
    m_taskPace.begin(task.taskId);
}

void AgentRuntime::endTaskOutput(const QString& type, const QJsonObject& message)
{
    static const QStringList ends{QStringLiteral("task.finished"), QStringLiteral("task.failed"),
                                  QStringLiteral("task.cancelled")};
    if (!ends.contains(type))
        return;
    const QJsonValue exitCode = message.value(QStringLiteral("exitCode"));
    m_taskOutput.end(message.value(QStringLiteral("taskId")).toString(), type.mid(5),
                     exitCode.isDouble() ? std::optional<int>(exitCode.toInt()) : std::nullopt);
}

void AgentRuntime::handleTerminalCommand(const AgentCommand& command)
{
    const QString& type = command.type;
    const bool known = MessageTypes::terminalCommands().contains(type);
    const std::optional<QString> sessionId = command.stringMember(QStringLiteral("sessionId"));
    if (!known || !sessionId)
        return;
    // A number no integer can hold is bad input: refused, never clamped.
    if (const std::optional<QString> problem =
            command.outOfRangeMember({QStringLiteral("cols"), QStringLiteral("rows"), QStringLiteral("cursor")})) {
        diag(QStringLiteral("terminal.error sessionId=") + logValue(*sessionId) +
             QStringLiteral(" projectPath= message=") + *problem);
        sendJSON(Messages::terminalError(*sessionId, QString(), *problem));
        return;
    }
    const auto text = [&](const char* key) { return command.stringMember(QLatin1String(key)).value_or(QString()); };
    TerminalSessionManager& terminals = terminalSessionManager();
    if (type == QLatin1String("terminal.open")) {
        terminals.open(*sessionId, text("projectPath"), text("mode"), terminalReplaceFlag(command),
                       command.stringMember(QStringLiteral("replaceSessionId")));
    } else if (type == QLatin1String("terminal.attach")) {
        terminals.attach(*sessionId);
    } else if (type == QLatin1String("terminal.input")) {
        terminals.sendInput(*sessionId, text("dataBase64"));
    } else if (type == QLatin1String("terminal.complete")) {
        terminals.complete(*sessionId, text("line"), command.intMember(QStringLiteral("cursor")));
    } else if (type == QLatin1String("terminal.resize")) {
        // A missing size means the usual 80 by 24.
        terminals.resize(*sessionId, command.intMember(QStringLiteral("cols")).value_or(80),
                         command.intMember(QStringLiteral("rows")).value_or(24));
    } else if (type == QLatin1String("terminal.signal")) {
        terminals.signal(*sessionId, text("signal"));
    } else {
        terminals.close(*sessionId);
    }
}

void AgentRuntime::handleTaskAssign(const AgentCommand& command)
{
    const std::optional<TaskAssignment> task = TaskAssignment::from(command);
    if (!task)
        return;
    if (currentTaskId()) {
        sendJSON(Messages::taskFailed(task->taskId, QStringLiteral("agent is busy"), QStringLiteral("AGENT_BUSY"), 1));
        return;
    }
    try {
        // A number no integer can hold is bad input: refused, never clamped.
        if (const std::optional<QString> problem = command.outOfRangeMember({QStringLiteral("timeoutSec")}))
            throw runtimeError(13, *problem);
        diag(QStringLiteral("task.assign taskId=") + logValue(task->taskId) + QStringLiteral(" action=") +
             logValue(task->action) + QStringLiteral(" projectPath=") + logValue(task->projectPath) +
             QStringLiteral(" system=") + logValue(task->system.value_or(QString())) + QStringLiteral(" mode=") +
             logValue(task->mode.value_or(QString())) + QStringLiteral(" approvalMode=") +
             logValue(task->approvalMode.value_or(QString())) + QStringLiteral(" timeoutSec=") +
             QString::number(task->timeoutSec));
        if (task->timeoutSec < 0)
            throw runtimeError(13,
                               QStringLiteral("timeoutSec must not be negative: ") + QString::number(task->timeoutSec));
        // Two writers spoil a session: one a process at the desk holds is not continued.
        if (const QString open = deskSessionState(*task); !open.isEmpty()) {
            diag(QStringLiteral("task.assign refused taskId=") + logValue(task->taskId) +
                 QStringLiteral(" session open at the desk state=") + open);
            sendJSON(Messages::taskFailed(
                task->taskId,
                QStringLiteral("this session is open at the desk (%1); continue it there, or fork it").arg(open),
                QStringLiteral("SESSION_OPEN_AT_DESK"), 1));
            return;
        }
        m_task = {task->taskId, task->action, task->projectPath,
                  task->action == QLatin1String("chat") ? task->conversationId : QString(), false};
        beginTaskOutput(*task);
        routeTask(*task);
    } catch (const AgentError& error) {
        diag(QStringLiteral("task.assign failed taskId=") + logValue(task->taskId) + QStringLiteral(" error=") +
             logValue(error.message));
        sendJSON(Messages::taskFailed(task->taskId, error.message, QStringLiteral("AGENT_CONFIG_INVALID"), 1));
    }
}

void AgentRuntime::routeTask(const TaskAssignment& task)
{
    const AgentProfile profile = loadProfile();
    RunRequest request;
    request.taskId = task.taskId;
    request.timeoutSec = task.timeoutSec;
    request.sendStarted = true;
    request.requiresTTY = false;

    if (task.action == QLatin1String("chat")) {
        const ConnectionSettings connection = loadConnectionSettings();
        const ChatResolution resolved = ChatExecution::resolveChatExecution(
            profile, connection, m_chatSessions, task.system, task.projectPath, task.prompt, task.taskId,
            task.conversationId, task.approvalMode, temporaryFolder(),
            DeskSessions::Stores::of(m_env, m_machine.homeDirectory), m_features.sessions ? task.forkOf : QString());
        sendJSON(Messages::taskLog(task.taskId, QStringLiteral("workspace.resolve action=chat requestedProjectPath=") +
                                                    task.projectPath + QStringLiteral(" resolvedWorkingDir=") +
                                                    resolved.workingDir));
        // The command may carry the agent token (Codex's approval settings): never log it.
        QString loggedShell = resolved.shell;
        if (!connection.token.isEmpty())
            loggedShell.replace(connection.token, maskToken(connection.token));
        diag(QStringLiteral("task.assign resolved chat workingDir=") + logValue(resolved.workingDir) +
             QStringLiteral(" shell=") + logValue(loggedShell));
        request.shell = resolved.shell;
        request.workingDir = resolved.workingDir;
        const ChatJSONProvider provider = ExecutionResolution::normalizeAISystem(task.system) == QLatin1String("claude")
                                              ? ChatJSONProvider::claude
                                              : ChatJSONProvider::codex;
        request.output =
            std::make_shared<ChatOutput>(*this, m_chatSessions,
                                         ChatOutput::Chat{task.taskId, task.conversationId, task.projectPath, provider,
                                                          resolved.tokenFiles(), resolved.retry});
        m_runner->runTask(request);
        return;
    }

    if (task.action == QLatin1String("ai_task")) {
        const AITaskExecutionStrategy strategy =
            AITaskResolution::aiTaskExecutionStrategy(task.system, task.mode, task.approvalMode);
        const ResolvedExecution resolved =
            AITaskResolution::resolveAITaskExecution(profile, task.system, task.mode, task.projectPath, task.prompt);
        sendJSON(Messages::taskLog(
            task.taskId, QStringLiteral("workspace.resolve action=ai_task requestedProjectPath=") + task.projectPath +
                             QStringLiteral(" resolvedWorkingDir=") + resolved.workingDir + QStringLiteral(" system=") +
                             ExecutionResolution::normalizeAISystem(task.system) + QStringLiteral(" mode=") +
                             task.mode.value_or(QString()).trimmed().toLower() + QStringLiteral(" approvalMode=") +
                             ExecutionResolution::normalizeApprovalMode(task.approvalMode) +
                             QStringLiteral(" strategy=") + strategy.description()));
        diag(QStringLiteral("task.assign ai_task strategy=") + strategy.description() + QStringLiteral(" workingDir=") +
             logValue(resolved.workingDir));
        runAITask(task, resolved);
        return;
    }

    if (task.action == QLatin1String("shell")) {
        const ResolvedExecution resolved =
            ExecutionResolution::resolveShellExecution(profile, task.command, task.projectPath);
        sendJSON(Messages::taskLog(task.taskId, QStringLiteral("workspace.resolve action=shell requestedProjectPath=") +
                                                    task.projectPath + QStringLiteral(" resolvedWorkingDir=") +
                                                    resolved.workingDir));
        diag(QStringLiteral("task.assign resolved shell workingDir=") + logValue(resolved.workingDir) +
             QStringLiteral(" command=") + logValue(task.command));
        request.shell = resolved.shell;
        request.workingDir = resolved.workingDir;
        request.refreshCapabilitiesOnSuccess =
            ExecutionResolution::shouldRefreshCapabilitiesAfterShellTask(profile, resolved.workingDir);
        m_runner->runTask(request);
        return;
    }

    // The build actions, and any other action, which resolution accepts or refuses.
    const ResolvedExecution resolved = ExecutionResolution::resolveExecution(profile, task.action, task.projectPath);
    sendJSON(Messages::taskLog(task.taskId, QStringLiteral("workspace.resolve action=") + task.action +
                                                QStringLiteral(" requestedProjectPath=") + task.projectPath +
                                                QStringLiteral(" resolvedWorkingDir=") + resolved.workingDir));
    request.shell = resolved.shell;
    request.workingDir = resolved.workingDir;
    m_runner->runTask(request);
}

void AgentRuntime::runAITask(const TaskAssignment& task, const ResolvedExecution& resolved)
{
    const AITaskExecutionStrategy strategy =
        AITaskResolution::aiTaskExecutionStrategy(task.system, task.mode, task.approvalMode);
    if (strategy.isProposal()) {
        // The task is busy from here: the copy comes before any child runs.
        m_runner->setCurrentTaskId(task.taskId);
        auto* proposal = new CodexApplyTask(
            *this, *m_runner,
            {task.taskId, resolved.shell, resolved.workingDir, task.timeoutSec, strategy.requiresApproval}, this);
        proposal->start();
        return;
    }
    reportStatus(QStringLiteral("Running AI task ") + task.taskId.left(8));
    sendJSON(Messages::taskStarted(task.taskId));
    sendJSON(Messages::taskProgress(
        task.taskId, QStringLiteral("prepare"),
        QStringLiteral("AI task accepted (") + task.mode.value_or(QString()).toLower() + QLatin1Char(')'), 5));
    sendJSON(Messages::taskArtifact(task.taskId, QStringLiteral("prompt"), task.prompt, QStringLiteral("text/plain")));
    RunRequest request;
    request.taskId = task.taskId;
    request.shell = resolved.shell;
    request.workingDir = resolved.workingDir;
    request.timeoutSec = task.timeoutSec;
    request.sendStarted = false; // already announced
    m_runner->runTask(request);
}

} // namespace brinmoor
