#include "execution/execution_resolution.h"

#include "base/agent_error.h"
#include "base/diag.h"
#include "config/agent_profile.h"

#include <QDir>
#include <QFileInfo>

namespace brinmoor::ExecutionResolution {

namespace {

// A template that runs a script inside the repository gets the full project path
// and runs in the repository root.
bool runsRepositoryScript(const QString& trimmedTemplate)
{
    return trimmedTemplate.startsWith(QLatin1String("./")) || trimmedTemplate.contains(QLatin1String(" ./")) ||
           trimmedTemplate.contains(QLatin1String("deploy.sh"));
}

// Standardised like a file path: "." and ".." resolved, no trailing "/".
QString standardizedPath(const QString& path)
{
    return QDir::cleanPath(path);
}

} // namespace

QString joinPath(const QString& base, const QString& component)
{
    if (component.isEmpty())
        return base;
    QString left = base;
    while (left.endsWith(QLatin1Char('/')) && left.size() > 1)
        left.chop(1);
    QString right = component;
    while (right.startsWith(QLatin1Char('/')))
        right.remove(0, 1);
    // As a file URL joins them: the result names the folder without a trailing "/".
    while (right.endsWith(QLatin1Char('/')))
        right.chop(1);
    if (left == QLatin1String("/"))
        return left + right;
    return right.isEmpty() ? left : left + QLatin1Char('/') + right;
}

QString shellQuote(const QString& value)
{
    QString quoted = value;
    quoted.replace(QLatin1String("'"), QLatin1String("'\"'\"'"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

QString expandProjectPlaceholders(const QString& text, const QString& projectPath, const QString& projectArg)
{
    QString expanded = text;
    expanded.replace(QLatin1String("{{projectKey}}"), shellQuote(projectPath));
    expanded.replace(QLatin1String("{{projectPath}}"), shellQuote(projectPath));
    expanded.replace(QLatin1String("{{projectArg}}"), shellQuote(projectArg));
    return expanded;
}

QString normalizeProjectArg(const QString& value)
{
    QString text = value.trimmed();
    if (text.isEmpty())
        return text;
    if (text.endsWith(QLatin1Char('/')))
        text.chop(1);
    const QString component = text.mid(text.lastIndexOf(QLatin1Char('/')) + 1);
    return component.isEmpty() ? text : component;
}

AgentError projectPathMissingError(const QString& projectArg)
{
    return runtimeError(12, QStringLiteral("Project path does not exist: ") + projectArg);
}

QString resolveWorkspacePath(const QString& repoRoot, const QString& projectArg)
{
    if (projectArg.startsWith(QLatin1Char('/')) && QFileInfo::exists(projectArg))
        return projectArg;
    const QString direct = joinPath(repoRoot, projectArg);
    const QString inProj = joinPath(joinPath(repoRoot, QStringLiteral("proj")), projectArg);
    if (QFileInfo::exists(direct))
        return direct;
    if (QFileInfo::exists(inProj))
        return inProj;
    diag(QStringLiteral("resolveWorkspacePath failed projectArg=") + logValue(projectArg) +
         QStringLiteral(" repoRoot=") + repoRoot + QStringLiteral(" direct=") + logValue(direct) +
         QStringLiteral(" inProj=") + logValue(inProj));
    throw projectPathMissingError(projectArg);
}

QString buildProjectTemplateArgument(const QString& buildTemplate, const QString& projectPath)
{
    if (runsRepositoryScript(buildTemplate.trimmed()))
        return projectPath;
    return normalizeProjectArg(projectPath);
}

QString resolveBuildWorkingDir(const QString& repoRoot, const QString& buildTemplate, const QString& projectPath)
{
    const QString trimmed = buildTemplate.trimmed();
    if (trimmed.isEmpty() || runsRepositoryScript(trimmed))
        return repoRoot;
    return resolveWorkspacePath(repoRoot, projectPath);
}

ResolvedExecution resolveExecution(const AgentProfile& profile, const QString& action, const QString& projectPath)
{
    if (!profile.actions.contains(action))
        throw runtimeError(1, QStringLiteral("Unsupported action: ") + action);
    if (projectPath.trimmed().isEmpty())
        throw runtimeError(2, QStringLiteral("Missing projectPath"));
    const QString projectArg = buildProjectTemplateArgument(profile.buildTemplate, projectPath);
    // Every action needs the repository's deploy script, whatever the template says.
    if (!QFileInfo::exists(joinPath(profile.repoRoot, QStringLiteral("deploy.sh"))))
        throw runtimeError(3, QStringLiteral("deploy.sh not found in repoRoot: ") + profile.repoRoot);
    const QString shell = expandProjectPlaceholders(profile.buildTemplate, projectPath, projectArg);
    const QString workingDir = resolveBuildWorkingDir(profile.repoRoot, profile.buildTemplate, projectPath);
    diag(QStringLiteral("resolveExecution action=") + logValue(action) + QStringLiteral(" projectPath=") +
         logValue(projectPath) + QStringLiteral(" workingDir=") + logValue(workingDir));
    return {shell, workingDir};
}

ResolvedExecution resolveShellExecution(const AgentProfile& profile, const QString& command, const QString& projectPath)
{
    if (command.trimmed().isEmpty())
        throw runtimeError(9, QStringLiteral("shell action requires non-empty command"));
    const QString projectArg = normalizeProjectArg(projectPath);
    const QString workingDir = resolveWorkspacePath(profile.repoRoot, projectPath);
    diag(QStringLiteral("resolveShellExecution projectPath=") + logValue(projectPath) + QStringLiteral(" workingDir=") +
         logValue(workingDir) + QStringLiteral(" command=") + logValue(command));
    // Without a configured root the variable is still exported, as an empty value.
    const QString shell = QStringLiteral("export PATH=\"/opt/homebrew/bin:/usr/local/bin:$HOME/.local/bin:$HOME/"
                                         "bin:$HOME/.claude/bin:$PATH\"; ") +
                          QStringLiteral("export BRINMOOR_REPO_ROOT=") + shellQuote(profile.repoRoot) +
                          QStringLiteral("; ") + QStringLiteral("export BRINMOOR_CREATE_PROJECT_ROOT=") +
                          shellQuote(profile.createProjectRoot.value_or(QString())) + QStringLiteral("; ") +
                          expandProjectPlaceholders(command, projectPath, projectArg);
    return {shell, workingDir};
}

QString normalizeApprovalMode(const std::optional<QString>& mode)
{
    // Only "none" skips the approval step; anything else, "never" included, asks.
    const QString normalized = mode ? mode->trimmed().toLower() : QString();
    if (normalized == QLatin1String("none"))
        return QStringLiteral("none");
    return QStringLiteral("on_request");
}

QString normalizeAISystem(const std::optional<QString>& system)
{
    if (system && system->trimmed().toLower() == QLatin1String("claude"))
        return QStringLiteral("claude");
    return QStringLiteral("codex");
}

bool shouldRefreshCapabilitiesAfterShellTask(const AgentProfile& profile, const QString& workingDir)
{
    if (!profile.createProjectRoot)
        return false;
    return standardizedPath(workingDir) == standardizedPath(*profile.createProjectRoot);
}

} // namespace brinmoor::ExecutionResolution
