#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace brinmoor {

// A proposal's diff file by file, so that some files can be applied and others left.
namespace ProposalFiles {

// One file's change in a proposal's diff.
struct FileChange {
    // The file as the review names it: its new path, or its old one when it is deleted.
    QString name;
    QString oldPath; // empty for a new file
    QString newPath; // empty for a deleted one
    // git gave no lines for it ("Binary files … differ"): its content comes from the copy.
    bool binary = false;
    // Its "diff --git" block, lines joined with "\n".
    QString block;
};

// The changes of a diff as WorkspaceDiff makes it, in its order.
QList<FileChange> split(const QString& diff);

// The names of `chosen` that are none of the changes', in their order, once each.
QStringList unknownNames(const QList<FileChange>& changes, const QStringList& chosen);

// The changes `chosen` names, in the diff's order.
QList<FileChange> select(const QList<FileChange>& changes, const QStringList& chosen);

// Applies the changes to the project: the blocks with lines at once with `git apply`
// (nothing of them when one does not apply), then each binary file from the proposal
// copy (written, or removed when deleted or renamed away). Blocks while git runs and
// files are copied: call it off the event loop. Throws AgentError (code 11).
void apply(const QList<FileChange>& changes, const QString& workingDir, const QString& copy,
           const QString& temporaryFolder);

} // namespace ProposalFiles

} // namespace brinmoor
