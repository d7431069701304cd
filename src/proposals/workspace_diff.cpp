#include "proposals/workspace_diff.h"

#include "base/agent_error.h"
#include "execution/child_process.h"
#include "execution/execution_resolution.h"

#include <QFile>
#include <QProcess>
#include <QSaveFile>
#include <QUuid>

#include <QSet>

namespace brinmoor::WorkspaceDiff {

using ExecutionResolution::shellQuote;

namespace {

const QStringList kIgnoredPrefixes = {QStringLiteral("DerivedData/"), QStringLiteral("build/"),
                                      QStringLiteral(".build/"), QStringLiteral(".swiftpm/")};
const QStringList kIgnoredInfixes = {QStringLiteral("/DerivedData/"), QStringLiteral("/build/"),
                                     QStringLiteral("/.build/"), QStringLiteral("/.swiftpm/")};

QString withLeadingSlash(const QString& path)
{
    return path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
}

} // namespace

QString diffCommand(const QString& original, const QString& proposal)
{
    return QStringLiteral("git diff --no-index --relative --no-ext-diff --src-prefix=a/ --dst-prefix=b/ ") +
           shellQuote(original) + QLatin1Char(' ') + shellQuote(proposal);
}

QString applyCommand(const QString& patchPath)
{
    return QStringLiteral("git apply --whitespace=nowarn --recount --unsafe-paths ") + shellQuote(patchPath);
}

QString normalizeDiffOutput(const QString& output, const QString& original, const QString& proposal)
{
    QString text = output;
    text.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    text.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    text = text.trimmed();
    text.replace(QLatin1Char('a') + withLeadingSlash(original) + QLatin1Char('/'), QLatin1String("a/"));
    text.replace(QLatin1Char('b') + withLeadingSlash(proposal) + QLatin1Char('/'), QLatin1String("b/"));
    // A renamed file's lines name both folders in full.
    text.replace(QStringLiteral("\nrename from ") + withLeadingSlash(original) + QLatin1Char('/'),
                 QLatin1String("\nrename from "));
    text.replace(QStringLiteral("\nrename to ") + withLeadingSlash(proposal) + QLatin1Char('/'),
                 QLatin1String("\nrename to "));
    return filterIgnoredProposalDiff(text);
}

QString filterIgnoredProposalDiff(const QString& diff)
{
    if (diff.isEmpty())
        return diff;
    QStringList kept;
    QStringList block;
    const auto flush = [&] {
        if (!block.isEmpty()) {
            const std::optional<QString> path = proposalPath(block);
            if (path && !shouldIgnoreProposalPath(*path))
                kept.append(block.join(QLatin1Char('\n')));
        }
        block.clear();
    };
    const QStringList lines = diff.split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("diff --git ")))
            flush();
        block.append(line);
    }
    flush();
    return kept.join(QLatin1Char('\n'));
}

std::optional<QString> proposalPath(const QStringList& block)
{
    for (const QString& line : block) {
        if (!line.startsWith(QLatin1String("diff --git ")))
            continue;
        const QStringList pieces = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (pieces.size() < 4)
            return std::nullopt;
        const QString destination = pieces.at(3);
        if (destination != QLatin1String("b/dev/null"))
            return destination.startsWith(QLatin1String("b/")) ? destination.mid(2) : destination;
        const QString source = pieces.at(2);
        return source.startsWith(QLatin1String("a/")) ? source.mid(2) : source;
    }
    return std::nullopt;
}

bool shouldIgnoreProposalPath(const QString& path)
{
    const QString trimmed = path.trimmed();
    if (trimmed.isEmpty())
        return false;
    for (const QString& prefix : kIgnoredPrefixes) {
        if (trimmed.startsWith(prefix))
            return true;
    }
    for (const QString& infix : kIgnoredInfixes) {
        if (trimmed.contains(infix))
            return true;
    }
    return false;
}

QStringList changedFiles(const QString& unifiedDiff)
{
    QStringList files;
    QSet<QString> seen;
    const QStringList lines = unifiedDiff.split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (!line.startsWith(QLatin1String("+++ b/")))
            continue;
        const QString path = line.mid(6);
        if (!seen.contains(path)) {
            seen.insert(path);
            files.append(path);
        }
    }
    return files;
}

QString failureMessage(const QString& combinedOutput, const QString& fallback)
{
    const QString trimmed = combinedOutput.trimmed();
    return trimmed.isEmpty() ? fallback : trimmed;
}

ShellExecutionResult runShellBlocking(const QString& shell, const QString& workingDir)
{
    const ChildProcess::CommandLine command = ChildProcess::commandLine(shell, false);
    QProcess process;
    process.setProgram(command.program);
    process.setArguments(command.arguments);
    process.setWorkingDirectory(workingDir);
    process.setProcessEnvironment(ChildProcess::childEnvironment());
    process.setStandardInputFile(QProcess::nullDevice());
    process.start();
    // A command that cannot start reports 127, as a shell does, so callers that accept
    // 1 as success (git diff) still see the failure.
    if (!process.waitForStarted(30000))
        return {127, QString(), QStringLiteral("failed to launch process: ") + process.errorString()};
    process.waitForFinished(-1);
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

QString computeWorkspaceDiff(const QString& original, const QString& proposal)
{
    const ShellExecutionResult result = runShellBlocking(diffCommand(original, proposal), original);
    // git diff --no-index says "there are differences" with 1.
    if (result.exitCode >= 2 || result.exitCode < 0)
        throw runtimeError(10, failureMessage(result.combinedOutput(), QStringLiteral("git diff failed")));
    return normalizeDiffOutput(result.standardOutput, original, proposal);
}

void applyProposalDiff(const QString& diff, const QString& workingDir, const QString& temporaryFolder)
{
    const QString patch = temporaryFolder + QStringLiteral("/brinmoor-approved-") +
                          QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".patch");
    QSaveFile file(patch);
    const QByteArray content = (diff.endsWith(QLatin1Char('\n')) ? diff : diff + QLatin1Char('\n')).toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.commit())
        throw runtimeError(11, QStringLiteral("cannot write ") + patch + QStringLiteral(": ") + file.errorString());
    const ShellExecutionResult result = runShellBlocking(applyCommand(patch), workingDir);
    QFile::remove(patch);
    if (result.exitCode != 0)
        throw runtimeError(11, failureMessage(result.combinedOutput(), QStringLiteral("git apply failed")));
}

} // namespace brinmoor::WorkspaceDiff
