#include "base/agent_error.h"
#include "proposals/workspace_copy.h"
#include "proposals/workspace_diff.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::WorkspaceDiff;

namespace {

QString diffOf(const QString& original, const QString& proposal)
{
    try {
        return computeWorkspaceDiff(original, proposal);
    } catch (const AgentError& error) {
        return QStringLiteral("(error) ") + error.message;
    }
}

} // namespace

class TstWorkspaceDiff : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    // A project and its copy, in a folder whose name has a single quote.
    QString project() const { return m_dir.path() + QStringLiteral("/it's project"); }

private Q_SLOTS:
    void init()
    {
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(project());
        test::writeFile(project() + QStringLiteral("/src/main.c"), "int main() {\n    return 0;\n}\n");
        test::writeFile(project() + QStringLiteral("/README"), "hello\n");
        test::writeFile(project() + QStringLiteral("/.hidden"), "secret\n");
    }

    void identicalFoldersGiveAnEmptyDiff()
    {
        QString error;
        const QString copy = WorkspaceCopy::copyProject(project(), QStringLiteral("t"), m_dir.path(), &error);
        QVERIFY2(!copy.isEmpty(), qPrintable(error));
        QCOMPARE(diffOf(project(), copy), QString());
        QVERIFY(WorkspaceCopy::removeTree(copy));
    }

    void changesGiveRelativeHeadersAndApply()
    {
        QString error;
        const QString copy = WorkspaceCopy::copyProject(project(), QStringLiteral("t"), m_dir.path(), &error);
        test::writeFile(copy + QStringLiteral("/src/main.c"), "int main() {\n    return 1;\n}\n");
        test::writeFile(copy + QStringLiteral("/src/new.c"), "// new\n");
        QFile::remove(copy + QStringLiteral("/README"));
        test::writeFile(copy + QStringLiteral("/build/out.o"), "binary\n");
        test::writeFile(copy + QStringLiteral("/src/build/x.o"), "binary\n");
        const QString diff = diffOf(project(), copy);
        // git names a deleted file by the project's own path on both sides and a new one
        // by the copy's: only the a/ side of the one and the b/ side of the other become
        // relative. With a blank in the path git ends the ---/+++ names with a tab.
        QVERIFY2(diff.startsWith(QStringLiteral("diff --git a/README b") + project() + QStringLiteral("/README\n")),
                 qPrintable(diff));
        QVERIFY(diff.contains(QStringLiteral("--- a/README\t\n+++ /dev/null\n")));
        QVERIFY(diff.contains(QStringLiteral("diff --git a/src/main.c b/src/main.c\n")));
        QVERIFY(diff.contains(QStringLiteral("--- a/src/main.c\t\n+++ b/src/main.c\n")));
        QVERIFY(diff.contains(QStringLiteral(" b/src/new.c\nnew file mode 100644\n")));
        QVERIFY(!diff.contains(QStringLiteral("a") + project() + QLatin1Char('/')));
        QVERIFY(!diff.contains(QStringLiteral("build/")));
        QCOMPARE(changedFiles(diff), (QStringList{QStringLiteral("src/main.c"), QStringLiteral("src/new.c")}));

        applyProposalDiff(diff, project(), m_dir.path());
        QCOMPARE(test::readFile(project() + QStringLiteral("/src/main.c")),
                 QByteArray("int main() {\n    return 1;\n}\n"));
        QCOMPARE(test::readFile(project() + QStringLiteral("/src/new.c")), QByteArray("// new\n"));
        QVERIFY(!QFileInfo::exists(project() + QStringLiteral("/README")));
        // The patch file is gone.
        QCOMPARE(QDir(m_dir.path()).entryList({QStringLiteral("brinmoor-approved-*")}), QStringList());
        QVERIFY(WorkspaceCopy::removeTree(copy));
    }

    void buildOutputOnlyChangesFilterToNothing()
    {
        QString error;
        const QString copy = WorkspaceCopy::copyProject(project(), QStringLiteral("t"), m_dir.path(), &error);
        test::writeFile(copy + QStringLiteral("/build/a.o"), "x");
        test::writeFile(copy + QStringLiteral("/app/DerivedData/b"), "x");
        test::writeFile(copy + QStringLiteral("/.swiftpm/c"), "x");
        test::writeFile(copy + QStringLiteral("/.build/d"), "x");
        QCOMPARE(diffOf(project(), copy), QString());
        QVERIFY(WorkspaceCopy::removeTree(copy));
    }

    void ignoredPaths_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("ignored");
        QTest::newRow("build/") << QStringLiteral("build/x.o") << true;
        QTest::newRow("DerivedData/") << QStringLiteral("DerivedData/x") << true;
        QTest::newRow(".build/") << QStringLiteral(".build/x") << true;
        QTest::newRow(".swiftpm/") << QStringLiteral(".swiftpm/x") << true;
        QTest::newRow("deeper build") << QStringLiteral("app/build/x.o") << true;
        QTest::newRow("buildings") << QStringLiteral("buildings/a.txt") << false;
        QTest::newRow("mybuild") << QStringLiteral("mybuild/x") << false;
        QTest::newRow("Build") << QStringLiteral("Build/x") << false;
        QTest::newRow("empty") << QStringLiteral("  ") << false;
    }
    void ignoredPaths()
    {
        QFETCH(QString, path);
        QFETCH(bool, ignored);
        QCOMPARE(shouldIgnoreProposalPath(path), ignored);
    }

    void deletedFileIsNamedByItsASide()
    {
        const QStringList block{QStringLiteral("diff --git a/gone.txt b/dev/null"),
                                QStringLiteral("deleted file mode 100644"), QStringLiteral("--- a/gone.txt"),
                                QStringLiteral("+++ /dev/null")};
        QCOMPARE(proposalPath(block), std::optional<QString>(QStringLiteral("gone.txt")));
        QCOMPARE(changedFiles(block.join(QLatin1Char('\n'))), QStringList());
        QCOMPARE(proposalPath({QStringLiteral("diff --git a/x")}), std::nullopt);
        QCOMPARE(proposalPath({QStringLiteral("index 1..2")}), std::nullopt);
        QCOMPARE(proposalPath({QStringLiteral("diff --git a/my file b/my file")}),
                 std::optional<QString>(QStringLiteral("file")));
    }

    void textBeforeTheFirstHeaderDisappears()
    {
        QCOMPARE(filterIgnoredProposalDiff(QStringLiteral("noise\nmore\ndiff --git a/k b/k\n+x\n\n")),
                 QStringLiteral("diff --git a/k b/k\n+x\n\n"));
        QCOMPARE(filterIgnoredProposalDiff(QString()), QString());
    }

    void carriageReturnsNeverReachThePhone()
    {
        QCOMPARE(normalizeDiffOutput(QStringLiteral("diff --git a/p/x b/c/x\r\n-a\r+b\r\n"), QStringLiteral("/p"),
                                     QStringLiteral("/c")),
                 QStringLiteral("diff --git a/x b/x\n-a\n+b"));
    }

    void commandsQuoteProjectPaths()
    {
        QCOMPARE(diffCommand(QStringLiteral("/a/it's"), QStringLiteral("/t/c")),
                 QStringLiteral("git diff --no-index --relative --no-ext-diff --src-prefix=a/ --dst-prefix=b/ "
                                "'/a/it'\"'\"'s' '/t/c'"));
        QCOMPARE(applyCommand(QStringLiteral("/t/it's.patch")),
                 QStringLiteral("git apply --whitespace=nowarn --recount --unsafe-paths '/t/it'\"'\"'s.patch'"));
    }

    void diffWithoutFinalNewlineApplies()
    {
        const QString diff =
            QStringLiteral("diff --git a/README b/README\n--- a/README\n+++ b/README\n@@ -1 +1 @@\n-hello\n+bye");
        applyProposalDiff(diff, project(), m_dir.path());
        QCOMPARE(test::readFile(project() + QStringLiteral("/README")), QByteArray("bye\n"));
    }

    void failedApplyReportsGitsMessage()
    {
        try {
            applyProposalDiff(QStringLiteral("diff --git a/nope b/nope\n--- a/nope\n+++ b/nope\n@@ -1 +1 @@\n-x\n+y\n"),
                              project(), m_dir.path());
            QFAIL("no error");
        } catch (const AgentError& error) {
            QCOMPARE(error.code, 11);
            QCOMPARE(error.message, QStringLiteral("error: nope: No such file or directory"));
        }
        QCOMPARE(QDir(m_dir.path()).entryList({QStringLiteral("brinmoor-approved-*")}), QStringList());
    }

    void failedDiffReportsGitsMessage()
    {
        // git itself answers a missing folder with status 1, "differences": nothing to show.
        QCOMPARE(diffOf(project(), m_dir.path() + QStringLiteral("/missing")), QString());
        // A diff that cannot even start is a failure.
        QCOMPARE(diffOf(m_dir.path() + QStringLiteral("/missing"), project()),
                 QStringLiteral("(error) failed to launch process: chdir: No such file or directory"));
    }

    void copyKeepsLinksModesAndHiddenFiles()
    {
        QVERIFY(QFile::link(QStringLiteral("src/main.c"), project() + QStringLiteral("/link")));
        QVERIFY(QFile::link(QStringLiteral("/nonexistent/target"), project() + QStringLiteral("/dangling")));
        const QString script = test::writeFile(project() + QStringLiteral("/run.sh"), "#!/bin/sh\n");
        QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeGroup);
        QString error;
        const QString copy = WorkspaceCopy::copyProject(project(), QStringLiteral("task/1"), m_dir.path(), &error);
        QVERIFY2(!copy.isEmpty(), qPrintable(error));
        QVERIFY(copy.startsWith(m_dir.path() + QStringLiteral("/brinmoor-proposals/task_1-")));
        QCOMPARE(test::fileMode(m_dir.path() + QStringLiteral("/brinmoor-proposals")), 0700);
        QCOMPARE(test::fileMode(copy), 0700);
        QCOMPARE(QFileInfo(copy + QStringLiteral("/link")).symLinkTarget(), copy + QStringLiteral("/src/main.c"));
        QVERIFY(QFileInfo(copy + QStringLiteral("/dangling")).isSymLink());
        QCOMPARE(test::fileMode(copy + QStringLiteral("/run.sh")), 0710);
        QCOMPARE(test::readFile(copy + QStringLiteral("/.hidden")), QByteArray("secret\n"));
        const WorkspaceCopy::CopyStats stats = WorkspaceCopy::lastCopyStats();
        QCOMPARE(stats.files, qint64(4));
        QCOMPARE(stats.cloned + stats.inKernel + stats.readWrite, qint64(4));
        QVERIFY(WorkspaceCopy::removeTree(copy));
        QVERIFY(!QFileInfo::exists(copy));
    }

    void failedCopyLeavesNothing()
    {
        QString error;
        QCOMPARE(WorkspaceCopy::copyProject(m_dir.path() + QStringLiteral("/missing"), QStringLiteral("t"),
                                            m_dir.path(), &error),
                 QString());
        QVERIFY(error.startsWith(QStringLiteral("cannot open ") + m_dir.path() + QStringLiteral("/missing: ")));
        QCOMPARE(QDir(m_dir.path() + QStringLiteral("/brinmoor-proposals"))
                     .entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
                 QStringList());
    }
};

QTEST_GUILESS_MAIN(TstWorkspaceDiff)
#include "tst_workspace_diff.moc"
