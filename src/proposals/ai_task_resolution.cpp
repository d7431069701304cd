#include "proposals/ai_task_resolution.h"

#include "base/agent_error.h"
#include "base/diag.h"
#include "chat/chat_execution.h"
#include "config/agent_profile.h"

namespace brinmoor {

QString AITaskExecutionStrategy::description() const
{
    if (kind == Kind::directCommand)
        return QStringLiteral("directCommand");
    return QStringLiteral("proposalApproval(requiresApproval: %1)")
        .arg(requiresApproval ? QStringLiteral("true") : QStringLiteral("false"));
}

namespace AITaskResolution {

const QString systemExecutionModeText = QStringLiteral(
    "System execution mode for this task:\n"
    "- You are running inside a disposable proposal workspace copy of the project.\n"
    "- Inspect the project and decide whether the user's request requires actual file changes.\n"
    "- If file changes are required, modify the relevant files in this workspace now using the "
    "available edit/write tools.\n"
    "- Do not only describe the patch or ask for write access. Make the edits directly in the sandbox copy.\n"
    "- Keep edits minimal and scoped to the latest request.\n"
    "- The system will compute a diff from your file changes and ask the user to approve that diff "
    "before anything is applied to the real project.\n"
    "- If you changed files, your final user-facing response must explain in normal chat language:\n"
    "  what you found, why this file or code path is the right place to edit, and what you changed.\n"
    "- Do not use a fixed template or generic placeholders.\n"
    "- If no file changes are required, leave the files untouched and answer the user directly in "
    "plain text with the reasoning that led to that conclusion.\n"
    "\n"
    "User request:\n");

const QString claudeTemplate = QStringLiteral("claude --dangerously-skip-permissions -p --verbose {{prompt}}");

AITaskExecutionStrategy aiTaskExecutionStrategy(const std::optional<QString>& system,
                                                const std::optional<QString>& mode,
                                                const std::optional<QString>& approvalMode)
{
    const QString normalizedSystem = ExecutionResolution::normalizeAISystem(system);
    const QString normalizedApproval = ExecutionResolution::normalizeApprovalMode(approvalMode);
    const QString normalizedMode = mode.value_or(QString()).trimmed().toLower();
    if (normalizedSystem == QLatin1String("codex") && normalizedMode == QLatin1String("apply"))
        return {AITaskExecutionStrategy::Kind::proposalApproval, normalizedApproval == QLatin1String("on_request")};
    return {AITaskExecutionStrategy::Kind::directCommand, false};
}

ResolvedExecution resolveAITaskExecution(const AgentProfile& profile, const std::optional<QString>& system,
                                         const std::optional<QString>& mode, const QString& projectPath,
                                         const QString& prompt)
{
    const QString normalizedMode = mode.value_or(QString()).trimmed().toLower();
    if (normalizedMode != QLatin1String("plan") && normalizedMode != QLatin1String("apply"))
        throw runtimeError(4, QStringLiteral("Unsupported mode: ") + mode.value_or(QString()));
    if (prompt.trimmed().isEmpty())
        throw runtimeError(6, QStringLiteral("Missing prompt"));
    if (projectPath.trimmed().isEmpty())
        throw runtimeError(5, QStringLiteral("Missing projectPath"));
    const QString projectArg = ExecutionResolution::normalizeProjectArg(projectPath);
    const QString normalizedSystem = ExecutionResolution::normalizeAISystem(system);

    QString command;
    QString fullPrompt = ChatExecution::workspaceScopedPrompt(projectPath, prompt);
    if (normalizedSystem == QLatin1String("claude")) {
        command = claudeTemplate;
    } else if (normalizedMode == QLatin1String("apply")) {
        command = ChatExecution::codexExecCommandTemplate(QStringLiteral("none"), QString());
        fullPrompt = systemExecutionModeText + fullPrompt;
    } else {
        command = profile.aiPlanTemplate;
    }
    command = ExecutionResolution::expandProjectPlaceholders(command, projectPath, projectArg);
    command.replace(QLatin1String("{{prompt}}"), ExecutionResolution::shellQuote(fullPrompt));

    const QString workingDir = ExecutionResolution::resolveWorkspacePath(profile.repoRoot, projectPath);
    diag(QStringLiteral("resolveAITaskExecution projectPath=") + logValue(projectPath) + QStringLiteral(" workspace=") +
         logValue(workingDir) + QStringLiteral(" mode=") + logValue(normalizedMode));
    return {command, workingDir};
}

} // namespace AITaskResolution

} // namespace brinmoor
