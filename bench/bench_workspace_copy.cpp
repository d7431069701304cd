// Proposal workspace copy and diff: a synthetic project of 20,000 files and 500 MB
// (with a .git folder and a build/ folder) copied by makeProposalWorkspaceCopy's copy
// and by `cp -a` in the same run, and the diff of a 10-file change.
//   bench_workspace_copy [--files N] [--mb M] [--dir PATH]
#include "proposals/workspace_copy.h"
#include "proposals/workspace_diff.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>

#include <cstdio>

using namespace brinmoor;

namespace {

void writeFile(const QString& path, qint64 size, QRandomGenerator& random)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return;
    QByteArray line;
    qint64 written = 0;
    while (written < size) {
        line = QByteArray::number(random.generate64(), 36) + " lorem ipsum dolor sit amet\n";
        file.write(line);
        written += line.size();
    }
}

double seconds(const QElapsedTimer& clock)
{
    return double(clock.nsecsElapsed()) / 1e9;
}

} // namespace

int main(int argc, char** argv)
{
    qint64 files = 20000;
    qint64 megabytes = 500;
    QString where = QDir::tempPath();
    for (int i = 1; i + 1 < argc; ++i) {
        const QByteArray arg = argv[i];
        if (arg == "--files")
            files = QByteArray(argv[i + 1]).toLongLong();
        else if (arg == "--mb")
            megabytes = QByteArray(argv[i + 1]).toLongLong();
        else if (arg == "--dir")
            where = QString::fromLocal8Bit(argv[i + 1]);
    }
    QTemporaryDir root(where + QStringLiteral("/bench-copy-XXXXXX"));
    const QString project = root.path() + QStringLiteral("/project");
    QRandomGenerator random(42);
    const qint64 perFile = megabytes * 1000 * 1000 / files;
    // Sources, version control objects and build output, a few hundred files a folder.
    QSet<QString> folders;
    for (qint64 i = 0; i < files; ++i) {
        const char* area = i % 10 < 6 ? "src" : (i % 10 < 8 ? ".git/objects" : "build");
        const QString folder = QStringLiteral("%1/%2/d%3").arg(project, QLatin1String(area)).arg(i / 200);
        if (!folders.contains(folder)) {
            QDir().mkpath(folder);
            folders.insert(folder);
        }
        writeFile(QStringLiteral("%1/f%2.txt").arg(folder).arg(i), perFile, random);
    }
    QProcess::execute(QStringLiteral("sync"), {});
    std::printf("workspace copy: %lld files, %lld MB in %s\n", static_cast<long long>(files),
                static_cast<long long>(megabytes), qPrintable(where));

    // Three rounds, each cp -a then ours, every copy removed and the disk synced before
    // the next, so that neither pays for the other's write-back: best of three each.
    const auto sync = [] { QProcess::execute(QStringLiteral("sync"), {}); };
    double cp = 1e9;
    double ours = 1e9;
    QString copy;
    WorkspaceCopy::CopyStats stats;
    for (int round = 0; round < 3; ++round) {
        const QString target = root.path() + QStringLiteral("/cp");
        sync();
        QElapsedTimer clock;
        clock.start();
        QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), project, target});
        cp = std::min(cp, seconds(clock));
        WorkspaceCopy::removeTree(target);
        if (!copy.isEmpty())
            WorkspaceCopy::removeTree(copy);
        sync();
        clock.restart();
        QString error;
        copy = WorkspaceCopy::copyProject(project, QStringLiteral("bench"), root.path(), &error);
        ours = std::min(ours, seconds(clock));
        stats = WorkspaceCopy::lastCopyStats();
        if (copy.isEmpty()) {
            std::printf("  copy failed: %s\n", qPrintable(error));
            return 1;
        }
    }
    std::printf("  cp -a               %.2f s (best of 3)\n", cp);
    std::printf("  proposal copy       %.2f s (best of 3)\n", ours);
    std::printf("  ratio               %.2f (at most 1.0 is the target)\n", ours / cp);
    std::printf("  files cloned        %lld, copied in the kernel %lld, read and written %lld\n",
                static_cast<long long>(stats.cloned), static_cast<long long>(stats.inKernel),
                static_cast<long long>(stats.readWrite));

    QElapsedTimer clock;
    for (int i = 0; i < 10; ++i) {
        const QString path = QStringLiteral("%1/src/d%2/f%3.txt").arg(copy).arg(i).arg(i * 200);
        QFile file(path);
        if (file.open(QIODevice::Append))
            file.write("a changed line\n");
    }
    clock.start();
    const QString diff = WorkspaceDiff::computeWorkspaceDiff(project, copy);
    const double diffSeconds = seconds(clock);
    std::printf("  diff of a 10-file change %.2f s (%lld files in the diff, build output filtered)\n", diffSeconds,
                static_cast<long long>(WorkspaceDiff::changedFiles(diff).size()));
    return 0;
}
