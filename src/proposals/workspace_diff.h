#pragma once

#include "execution/shell_execution_result.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

// Turning the difference between a project and its proposal copy into the unified
// diff the phone reviews, and the text work around `git diff` and `git apply`.
namespace WorkspaceDiff {

// "git diff --no-index …" of the project against its copy.
QString diffCommand(const QString& original, const QString& proposal);
// "git apply … <patch>".
QString applyCommand(const QString& patchPath);

// The diff as the phone sees it: from git's standard output, carriage returns made
// line feeds, trimmed, header and rename paths made relative, build output dropped.
QString normalizeDiffOutput(const QString& output, const QString& original, const QString& proposal);

// Drops the blocks of ignored or unreadable paths and any text before the first block.
QString filterIgnoredProposalDiff(const QString& diff);
// The path of a block, from its "diff --git" header (the "a/" side for a deletion).
std::optional<QString> proposalPath(const QStringList& block);
// Build output: under DerivedData/, build/, .build/ or .swiftpm/ at any depth.
bool shouldIgnoreProposalPath(const QString& path);
// The paths named by "+++ b/" lines, first occurrence each; deletions are not listed.
QStringList changedFiles(const QString& unifiedDiff);

// The message of a failed git run: its trimmed output, or the fallback.
QString failureMessage(const QString& combinedOutput, const QString& fallback);

// These block while git runs: call them off the event loop. They throw AgentError.
// The filtered diff of the project against its copy (code 10 when git fails).
QString computeWorkspaceDiff(const QString& original, const QString& proposal);
// Writes the diff to a patch file in the temporary folder, runs git apply in the
// project and removes the patch file (code 11 when git fails).
void applyProposalDiff(const QString& diff, const QString& workingDir, const QString& temporaryFolder);
// Runs a shell text to completion with /bin/zsh -lc, output kept apart.
ShellExecutionResult runShellBlocking(const QString& shell, const QString& workingDir);

} // namespace WorkspaceDiff

} // namespace brinmoor
