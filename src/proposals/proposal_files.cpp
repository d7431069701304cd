#include "proposals/proposal_files.h"

#include "base/agent_error.h"
#include "proposals/workspace_diff.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

namespace brinmoor::ProposalFiles {

namespace {

const QString kDevNull = QStringLiteral("/dev/null");

// A "--- a/X" or "+++ b/X" name without its side; git ends a name that holds a blank
// with a tab.
QString sideName(const QString& text)
{
    QString name = text;
    if (name.endsWith(QLatin1Char('\t')))
        name.chop(1);
    if (name == kDevNull)
        return QString();
    return name.startsWith(QLatin1String("a/")) || name.startsWith(QLatin1String("b/")) ? name.mid(2) : name;
}

// "Binary files A and B differ": the two sides, by what is known of them.
void readBinaryLine(const QString& line, FileChange& change)
{
    static const QString start = QStringLiteral("Binary files ");
    static const QString end = QStringLiteral(" differ");
    const QString inner = line.mid(start.size(), line.size() - start.size() - end.size());
    if (inner.startsWith(kDevNull + QStringLiteral(" and "))) {
        change.newPath = sideName(inner.mid(kDevNull.size() + 5));
    } else if (inner.endsWith(QStringLiteral(" and ") + kDevNull)) {
        change.oldPath = sideName(inner.left(inner.size() - kDevNull.size() - 5));
    } else if (change.oldPath.isEmpty() && change.newPath.isEmpty()) {
        // "a/X and b/X": the same name on both sides.
        const qsizetype half = (inner.size() - 5) / 2;
        change.oldPath = sideName(inner.left(half));
        change.newPath = sideName(inner.mid(half + 5));
    }
}

FileChange readBlock(const QStringList& lines)
{
    FileChange change;
    change.block = lines.join(QLatin1Char('\n'));
    bool added = false;
    bool deleted = false;
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("new file mode")))
            added = true;
        else if (line.startsWith(QLatin1String("deleted file mode")))
            deleted = true;
        else if (line.startsWith(QLatin1String("rename from ")))
            change.oldPath = line.mid(12);
        else if (line.startsWith(QLatin1String("rename to ")))
            change.newPath = line.mid(10);
        else if (line.startsWith(QLatin1String("--- ")))
            change.oldPath = sideName(line.mid(4));
        else if (line.startsWith(QLatin1String("+++ ")))
            change.newPath = sideName(line.mid(4));
        else if (line.startsWith(QLatin1String("Binary files ")) && line.endsWith(QLatin1String(" differ"))) {
            change.binary = true;
            readBinaryLine(line, change);
        }
    }
    if (change.oldPath.isEmpty() && change.newPath.isEmpty()) {
        // An empty file, or a change of mode alone: the header's name ("diff --git a/X
        // b/X"), its old side for a deletion (git names the other in full).
        const QStringList pieces = lines.first().split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (pieces.size() >= 4)
            change.oldPath = change.newPath = sideName(pieces.at(deleted ? 2 : 3));
    }
    if (added)
        change.oldPath.clear();
    if (deleted)
        change.newPath.clear();
    change.name = change.newPath.isEmpty() ? change.oldPath : change.newPath;
    return change;
}

// Copies a file of the proposal copy over the project's, keeping its mode.
void copyIn(const QString& copy, const QString& workingDir, const QString& path)
{
    const QString source = copy + QLatin1Char('/') + path;
    const QString target = workingDir + QLatin1Char('/') + path;
    QDir().mkpath(QFileInfo(target).path());
    if (QFileInfo(target).exists() && !QFile::remove(target))
        throw runtimeError(11, QStringLiteral("cannot replace ") + path);
    if (!QFile::copy(source, target))
        throw runtimeError(11, QStringLiteral("cannot copy ") + path + QStringLiteral(" from the proposal"));
}

} // namespace

QList<FileChange> split(const QString& diff)
{
    QList<FileChange> changes;
    QStringList block;
    const auto flush = [&] {
        if (!block.isEmpty() && block.first().startsWith(QLatin1String("diff --git ")))
            changes.append(readBlock(block));
        block.clear();
    };
    for (const QString& line : diff.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("diff --git ")))
            flush();
        block.append(line);
    }
    flush();
    return changes;
}

QStringList unknownNames(const QList<FileChange>& changes, const QStringList& chosen)
{
    QSet<QString> known;
    for (const FileChange& change : changes)
        known.insert(change.name);
    QStringList unknown;
    for (const QString& name : chosen) {
        if (!known.contains(name) && !unknown.contains(name))
            unknown.append(name);
    }
    return unknown;
}

QList<FileChange> select(const QList<FileChange>& changes, const QStringList& chosen)
{
    QList<FileChange> selected;
    for (const FileChange& change : changes) {
        if (chosen.contains(change.name))
            selected.append(change);
    }
    return selected;
}

void apply(const QList<FileChange>& changes, const QString& workingDir, const QString& copy,
           const QString& temporaryFolder)
{
    QStringList blocks;
    for (const FileChange& change : changes) {
        if (!change.binary)
            blocks.append(change.block);
    }
    if (!blocks.isEmpty())
        WorkspaceDiff::applyProposalDiff(blocks.join(QLatin1Char('\n')), workingDir, temporaryFolder);
    for (const FileChange& change : changes) {
        if (!change.binary)
            continue;
        if (!change.oldPath.isEmpty() && change.oldPath != change.newPath &&
            !QFile::remove(workingDir + QLatin1Char('/') + change.oldPath))
            throw runtimeError(11, QStringLiteral("cannot remove ") + change.oldPath);
        if (!change.newPath.isEmpty())
            copyIn(copy, workingDir, change.newPath);
    }
}

} // namespace brinmoor::ProposalFiles
