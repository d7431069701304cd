#include "chat/chat_execution.h"

#include "base/agent_error.h"
#include "base/diag.h"
#include "config/agent_profile.h"
#include "config/connection_settings.h"
#include "sessions/claude_session_store.h"
#include "sessions/codex_rollouts.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace brinmoor {

using ExecutionResolution::shellQuote;

namespace ChatExecution {

const QString workspaceRules =
    QStringLiteral("\n\nWorkspace rules:\n"
                   "- Treat only this project path as the active workspace for this request.\n"
                   "- Do not rely on memory or context from any other project or repository.\n"
                   "- Do not state file paths, repo structure, sandbox limits, or write restrictions unless "
                   "they are confirmed from this workspace or runtime.\n"
                   "- If something about the current workspace is unconfirmed, say that explicitly.\n"
                   "\nUser request:\n");

const QString systemPolicy =
    QStringLiteral("System policy for this task:\n"
                   "- Before any command execution or any file modification, call the MCP tool "
                   "`request_permission` from server `approver`.\n"
                   "- Treat shell commands, file writes, file edits, notebook edits, and patch application "
                   "as approval-gated actions.\n"
                   "- Pass the pending tool name in `tool_name` and the intended arguments in `tool_input`.\n"
                   "- If the MCP tool denies the request, do not perform that action and explain that it "
                   "was rejected.\n"
                   "\nUser request:\n");

namespace {

// A value inside a TOML double-quoted string.
QString tomlEscaped(const QString& value)
{
    QString escaped = value;
    escaped.replace(QLatin1String("\\"), QLatin1String("\\\\"));
    escaped.replace(QLatin1String("\""), QLatin1String("\\\""));
    return escaped;
}

// A task id becomes part of a file name: anything but letters, digits, ".", "_" and
// "-" is replaced, so an id cannot point outside the folder.
QString fileNameSafe(const QString& text)
{
    QString safe = text;
    for (QChar& c : safe) {
        const char16_t u = c.unicode();
        const bool allowed = (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z') || (u >= u'0' && u <= u'9') ||
                             u == u'.' || u == u'_' || u == u'-';
        if (!allowed)
            c = QLatin1Char('_');
    }
    if (safe.isEmpty() || safe == QLatin1String(".") || safe == QLatin1String(".."))
        safe.prepend(QLatin1Char('_'));
    return safe;
}

// The namespace of the session ids made from conversation keys; fixed for good, so a
// conversation keeps its session across agent versions.
const QUuid sessionNamespace(QStringLiteral("67c547cf-08d0-4f2c-8808-fca36f829ffd"));

const QString kStreamJson = QStringLiteral("--output-format stream-json");

const QString kClaudeWithoutApproval =
    QStringLiteral("claude --dangerously-skip-permissions -p --verbose --output-format stream-json {{prompt}}");

} // namespace

std::optional<QString> scopedConversationKey(const QString& projectPath, const QString& conversationId)
{
    const QString path = projectPath.trimmed();
    const QString conversation = conversationId.trimmed();
    if (path.isEmpty() || conversation.isEmpty())
        return std::nullopt;
    return path + QStringLiteral("::") + conversation;
}

bool isSessionUUID(const QString& text)
{
    return ClaudeSessionStore::isSessionId(text);
}

QString claudeSessionID(const QString& conversationId, const std::optional<QString>& scopedKey)
{
    if (isSessionUUID(conversationId) || !scopedKey)
        return conversationId;
    return QUuid::createUuidV5(sessionNamespace, scopedKey->toUtf8()).toString(QUuid::WithoutBraces);
}

QString workspaceScopedPrompt(const QString& projectPath, const QString& userPrompt)
{
    const QString path = projectPath.trimmed();
    if (path.isEmpty())
        return userPrompt;
    return QStringLiteral("Confirmed active project path for this request:\n") + path + workspaceRules + userPrompt;
}

QString codexExecCommandTemplate(const QString& approvalMode, const QString& resumeThreadID)
{
    const QString base = approvalMode == QLatin1String("on_request") ? QStringLiteral("codex -a on-request exec")
                                                                     : QStringLiteral("codex exec");
    if (!resumeThreadID.isEmpty())
        return base + QStringLiteral(" resume --json --skip-git-repo-check ") + shellQuote(resumeThreadID) +
               QStringLiteral(" {{prompt}}");
    return base + QLatin1Char(' ') +
           (approvalMode == QLatin1String("none") ? QStringLiteral("--full-auto ") : QString()) +
           QStringLiteral("--json --skip-git-repo-check --color never {{prompt}}");
}

namespace {

// What the approval tool needs to trust a server over TLS that the system does not: the
// extra authorities, and the certificate of the server the agent pins.
QList<QPair<QString, QString>> approverTlsEnvironment(const ConnectionSettings& connection)
{
    QList<QPair<QString, QString>> variables;
    if (!connection.tlsCA.isEmpty())
        variables.append({QStringLiteral("BRINMOOR_TLS_CA"), connection.tlsCA});
    if (!connection.pinnedCertificate.isEmpty())
        variables.append({QStringLiteral("BRINMOOR_TLS_PINNED_CERT"), connection.pinnedCertificate});
    return variables;
}

} // namespace

QString codexMCPConfigOverrides(const QString& taskId, const QString& approverPath,
                                const ConnectionSettings& connection, const QString& tokenFilePath)
{
    QStringList assignments = {
        QStringLiteral("mcp_servers.approver.command=\"") + tomlEscaped(approverPath) + QLatin1Char('"'),
        QStringLiteral("mcp_servers.approver.args=[]"),
        QStringLiteral("mcp_servers.approver.env.BRINMOOR_SERVER_URL=\"") + tomlEscaped(connection.serverURL) +
            QLatin1Char('"'),
        QStringLiteral("mcp_servers.approver.env.BRINMOOR_TASK_ID=\"") + tomlEscaped(taskId) + QLatin1Char('"'),
        QStringLiteral("mcp_servers.approver.env.BRINMOOR_TOKEN_FILE=\"") + tomlEscaped(tokenFilePath) +
            QLatin1Char('"'),
    };
    for (const auto& [variable, value] : approverTlsEnvironment(connection)) {
        assignments.append(QStringLiteral("mcp_servers.approver.env.") + variable + QStringLiteral("=\"") +
                           tomlEscaped(value) + QLatin1Char('"'));
    }
    // `codex exec` runs with the approval policy "never" and refuses every MCP call that
    // needs approval; the approval tool is the approval.
    assignments.append(QStringLiteral("mcp_servers.approver.tools.request_permission.approval_mode=\"approve\""));
    QString overrides;
    for (const QString& assignment : assignments)
        overrides += QStringLiteral(" -c ") + shellQuote(assignment);
    return overrides;
}

namespace {

// Writes a file that holds the token: owner-only from its first byte, never through a
// link someone else left in a shared folder. Throws AgentError with `what` in its text.
QString writeOwnerOnlyFile(const QString& path, const QByteArray& content, const QString& what)
{
    const QByteArray native = QFile::encodeName(path);
    ::unlink(native.constData());
    const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        throw runtimeError(14, QStringLiteral("failed to write ") + what + QLatin1Char(' ') + path +
                                   QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(errno)));
    qsizetype written = 0;
    while (written < content.size()) {
        const ssize_t n = ::write(fd, content.constData() + written, size_t(content.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int error = errno;
            ::close(fd);
            ::unlink(native.constData());
            throw runtimeError(14, QStringLiteral("failed to write ") + what + QLatin1Char(' ') + path +
                                       QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(error)));
        }
        written += n;
    }
    ::close(fd);
    return path;
}

} // namespace

QString writeMCPConfig(const QString& taskId, const QString& approverPath, const ConnectionSettings& connection,
                       const QString& tokenFilePath, const QString& folder)
{
    QJsonObject env{{QStringLiteral("BRINMOOR_SERVER_URL"), connection.serverURL},
                    {QStringLiteral("BRINMOOR_TASK_ID"), taskId},
                    {QStringLiteral("BRINMOOR_TOKEN_FILE"), tokenFilePath}};
    for (const auto& [variable, value] : approverTlsEnvironment(connection))
        env.insert(variable, value);
    const QJsonObject config{
        {QStringLiteral("mcpServers"),
         QJsonObject{{QStringLiteral("approver"), QJsonObject{{QStringLiteral("command"), approverPath},
                                                              {QStringLiteral("args"), QJsonArray()},
                                                              {QStringLiteral("env"), env}}}}}};
    return writeOwnerOnlyFile(
        folder + QStringLiteral("/brinmoor-mcp-") + fileNameSafe(taskId) + QStringLiteral(".json"),
        QJsonDocument(config).toJson(QJsonDocument::Indented), QStringLiteral("MCP configuration"));
}

QString writeTokenFile(const QString& taskId, const ConnectionSettings& connection, const QString& folder)
{
    return writeOwnerOnlyFile(folder + QStringLiteral("/brinmoor-token-") + fileNameSafe(taskId),
                              connection.token.toUtf8() + '\n', QStringLiteral("the token file"));
}

bool approvalServerAvailable(const QString& approverPath)
{
    const QFileInfo info(approverPath);
    return !approverPath.isEmpty() && info.isFile() && info.isExecutable();
}

ChatResolution resolveChatExecution(const AgentProfile& profile, const ConnectionSettings& connection,
                                    const ChatSessions& sessions, const std::optional<QString>& requestedSystem,
                                    const QString& projectPath, const QString& prompt, const QString& taskId,
                                    const QString& conversationId, const std::optional<QString>& requestedApprovalMode,
                                    const QString& temporaryFolder, const DeskSessions::Stores& stores,
                                    const QString& forkOf)
{
    if (projectPath.trimmed().isEmpty())
        throw runtimeError(7, QStringLiteral("Missing projectPath"));
    if (prompt.trimmed().isEmpty())
        throw runtimeError(8, QStringLiteral("Missing prompt"));
    const QString projectArg = ExecutionResolution::normalizeProjectArg(projectPath);
    const QString workingDir = ExecutionResolution::resolveWorkspacePath(profile.repoRoot, projectPath);
    const QString system = ExecutionResolution::normalizeAISystem(requestedSystem);
    const QString approvalMode = ExecutionResolution::normalizeApprovalMode(requestedApprovalMode);
    const bool approvalAvailable = approvalServerAvailable(profile.mcpApproverPath);
    const std::optional<QString> scopedKey = scopedConversationKey(projectPath, conversationId);

    ChatResolution resolution;
    QString command;
    if (system == QLatin1String("codex")) {
        QString threadId = scopedKey ? sessions.codexThreadID(*scopedKey).value_or(QString()) : QString();
        if (threadId.isEmpty() && !stores.codex.isEmpty() &&
            !CodexRollouts::rolloutOf(stores.codex, conversationId.trimmed()).isEmpty())
            threadId = conversationId.trimmed();
        const bool gated = approvalMode == QLatin1String("on_request") && approvalAvailable;
        if (gated)
            resolution.tokenFilePath = writeTokenFile(taskId, connection, temporaryFolder);
        // The command of a new thread (empty id) or of one that goes on.
        const auto codexCommand = [&](const QString& thread) -> QString {
            if (!gated)
                return codexExecCommandTemplate(approvalMode, thread);
            const QString base =
                thread.isEmpty() ? QStringLiteral("codex exec --json --skip-git-repo-check --color never {{prompt}}")
                                 : QStringLiteral("codex exec resume --json --skip-git-repo-check ") +
                                       shellQuote(thread) + QStringLiteral(" {{prompt}}");
            // What the phone allows must be able to happen: `codex exec` would otherwise
            // run in a read-only sandbox.
            return base +
                   codexMCPConfigOverrides(taskId, profile.mcpApproverPath, connection, *resolution.tokenFilePath) +
                   QStringLiteral(" -c ") + shellQuote(QStringLiteral("sandbox_mode=\"workspace-write\""));
        };
        // A copy of another thread: `codex exec fork` takes what `codex exec resume` takes,
        // and the thread codex makes of it goes on as any thread does.
        command = codexCommand(threadId.isEmpty() && !forkOf.isEmpty() ? forkOf : threadId);
        if (threadId.isEmpty() && !forkOf.isEmpty())
            command.replace(QLatin1String(" resume --json"), QStringLiteral(" fork --json"));
        // codex may have lost the thread (its sessions removed, another CODEX_HOME): the
        // conversation then goes on in a new one.
        if (!threadId.isEmpty())
            resolution.retry = ChatRetry{codexCommand(QString()), QStringLiteral("no rollout found"),
                                         QStringLiteral("[codex.retry] the thread is gone; starting a new one")};
        if (gated)
            diag(QStringLiteral("resolveChatExecution using Codex MCP approval approverPath=") +
                 profile.mcpApproverPath);
        else
            diag(QStringLiteral("resolveChatExecution using native Codex approvalMode=") + approvalMode);
    } else {
        if (approvalMode == QLatin1String("none")) {
            diag(QStringLiteral("resolveChatExecution approvalMode=none, running Claude chat without MCP approval"));
            command = kClaudeWithoutApproval;
        } else if (!approvalAvailable) {
            diag(QStringLiteral("resolveChatExecution MCPApprovalServer not found at ") + profile.mcpApproverPath +
                 QStringLiteral(", falling back to Claude --dangerously-skip-permissions"));
            command = kClaudeWithoutApproval;
        } else if (profile.claudeChatTemplate.contains(QLatin1String("{{mcpConfigPath}}"))) {
            resolution.tokenFilePath = writeTokenFile(taskId, connection, temporaryFolder);
            const QString configPath =
                writeMCPConfig(taskId, profile.mcpApproverPath, connection, *resolution.tokenFilePath, temporaryFolder);
            resolution.mcpConfigPath = configPath;
            command = profile.claudeChatTemplate;
            command.replace(QLatin1String("{{mcpConfigPath}}"), shellQuote(configPath));
            diag(QStringLiteral("resolveChatExecution using Claude MCP approval approverPath=") +
                 profile.mcpApproverPath);
        } else {
            // The user's own template without an approval hook runs as it is.
            command = profile.claudeChatTemplate;
        }
        // The answer streams as the model writes it (dropped where the installed claude
        // does not know the option).
        if (command.contains(kStreamJson) && !command.contains(QLatin1String("--include-partial-messages")))
            command.replace(kStreamJson, kStreamJson + QStringLiteral(" --include-partial-messages"));
        // The conversation id is the Claude session id: created by the first message,
        // resumed by the next ones. claude's own store says whether it exists: a first
        // message that failed may have created it, and the agent may have restarted.
        if (!conversationId.isEmpty() && !command.contains(QLatin1String("--session-id")) &&
            !command.contains(QLatin1String("--resume")) && command.startsWith(QLatin1String("claude "))) {
            const QString session = claudeSessionID(conversationId, scopedKey);
            const bool exists = stores.claude.isEmpty()
                                    ? scopedKey && sessions.hasEstablishedChatSession(*scopedKey)
                                    : ClaudeSessionStore::hasSession(stores.claude, workingDir, session);
            const auto withSession = [&](const QString& option) {
                return QString(command).insert(7, option + shellQuote(session) + QLatin1Char(' '));
            };
            if (!exists)
                resolution.retry =
                    ChatRetry{withSession(QStringLiteral("--resume ")), QStringLiteral("is already in use"),
                              QStringLiteral("[claude.retry] the session exists already; continuing it with --resume")};
            command = withSession(exists ? QStringLiteral("--resume ") : QStringLiteral("--session-id "));
            // The first message of a copy of another session: claude copies it into this one.
            if (!exists && !forkOf.isEmpty())
                command.insert(7,
                               QStringLiteral("--resume ") + shellQuote(forkOf) + QStringLiteral(" --fork-session "));
        }
    }

    QString fullPrompt = workspaceScopedPrompt(projectPath, prompt);
    if (system == QLatin1String("codex") && command.contains(QLatin1String("mcp_servers.approver.command")))
        fullPrompt = systemPolicy + fullPrompt;
    const auto expand = [&](QString text) {
        text = ExecutionResolution::expandProjectPlaceholders(text, projectPath, projectArg);
        return text.replace(QLatin1String("{{prompt}}"), shellQuote(fullPrompt));
    };
    command = expand(command);
    if (resolution.retry)
        resolution.retry->shell = expand(resolution.retry->shell);

    diag(QStringLiteral("resolveChatExecution projectPath=") + logValue(projectPath) + QStringLiteral(" workspace=") +
         logValue(workingDir) + QStringLiteral(" system=") + system + QStringLiteral(" approvalMode=") + approvalMode);
    resolution.shell = command;
    resolution.workingDir = workingDir;
    return resolution;
}

} // namespace ChatExecution

} // namespace brinmoor
