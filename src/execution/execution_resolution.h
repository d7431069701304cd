#pragma once

#include <QString>

#include <optional>

namespace brinmoor {

struct AgentProfile;
struct AgentError;

// What a task runs: the shell text and the folder it runs in.
struct ResolvedExecution {
    QString shell;
    QString workingDir;
};

// Turning what the server sent into a shell text and a working directory. The
// throwing functions throw AgentError (domain "AgentRuntime").
namespace ExecutionResolution {

// Wraps a value in single quotes; each ' inside becomes '"'"'.
QString shellQuote(const QString& value);

// Joins a folder and a name as a file URL appends a path component: one separator
// between them, no trailing one, nothing else standardised; an empty name gives the
// folder.
QString joinPath(const QString& base, const QString& component);

// Replaces "{{projectKey}}" and "{{projectPath}}" by the quoted project path and
// "{{projectArg}}" by the quoted project argument, in that order.
QString expandProjectPlaceholders(const QString& text, const QString& projectPath, const QString& projectArg);

// The project's folder name: trimmed, one trailing "/" dropped, last path component.
QString normalizeProjectArg(const QString& value);

// An existing absolute path, else repoRoot/projectArg, else repoRoot/proj/projectArg;
// throws code 12 when none exists.
QString resolveWorkspacePath(const QString& repoRoot, const QString& projectArg);

// What replaces "{{projectArg}}" in a build template.
QString buildProjectTemplateArgument(const QString& buildTemplate, const QString& projectPath);

// Where a build runs: the repository root for scripts inside it, else the project.
QString resolveBuildWorkingDir(const QString& repoRoot, const QString& buildTemplate, const QString& projectPath);

// A named build action.
ResolvedExecution resolveExecution(const AgentProfile& profile, const QString& action, const QString& projectPath);

// The "shell" action with a raw command, behind the shell preamble.
ResolvedExecution resolveShellExecution(const AgentProfile& profile, const QString& command,
                                        const QString& projectPath);

// "none" (also for "never") or "on_request".
QString normalizeApprovalMode(const std::optional<QString>& mode);
// "claude" or "codex".
QString normalizeAISystem(const std::optional<QString>& system);

// Whether a successful shell task ran in the folder where new projects are made.
bool shouldRefreshCapabilitiesAfterShellTask(const AgentProfile& profile, const QString& workingDir);

AgentError projectPathMissingError(const QString& projectArg);

} // namespace ExecutionResolution

} // namespace brinmoor
