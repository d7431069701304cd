// A proposal applied file by file: real folders, a real copy, real git diff and apply.
#include "base/agent_error.h"
#include "proposals/proposal_files.h"
#include "proposals/workspace_copy.h"
#include "proposals/workspace_diff.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

namespace {

const QByteArray kLogo("\x89PNG\0\x01\x02old logo", 16);
const QByteArray kNewLogo("\x89PNG\0\x01\x02new logo!", 17);
const QByteArray kIcon("\0\0icon\0", 7);
const QByteArray kGone("\0gone\0", 6);
const QByteArray
    kLetter("Dear reader,\nthis letter has\nseveral lines\nso that a small edit\nstill reads as a rename.\n");

// "name old→new binary" for each change.
QStringList described(const QList<ProposalFiles::FileChange>& changes)
{
    QStringList lines;
    for (const ProposalFiles::FileChange& change : changes)
        lines.append(QStringLiteral("%1 %2→%3%4")
                         .arg(change.name, change.oldPath, change.newPath,
                              change.binary ? QStringLiteral(" binary") : QString()));
    return lines;
}

} // namespace

class TstProposalFiles : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_copy;
    QList<ProposalFiles::FileChange> m_changes;

    // A project whose name has a blank and a single quote.
    QString project() const { return m_dir.path() + QStringLiteral("/it's project"); }
    QString in(const QString& path) const { return project() + QLatin1Char('/') + path; }

    void apply(const QStringList& chosen)
    {
        ProposalFiles::apply(ProposalFiles::select(m_changes, chosen), project(), m_copy, m_dir.path());
    }

private Q_SLOTS:
    void init()
    {
        QDir(m_dir.path()).removeRecursively();
        test::writeFile(in(QStringLiteral("src/main.c")), "int main() {\n    return 0;\n}\n");
        test::writeFile(in(QStringLiteral("README")), "hello\n");
        test::writeFile(in(QStringLiteral("old.txt")), "moved as it is\n");
        test::writeFile(in(QStringLiteral("letter.txt")), kLetter);
        test::writeFile(in(QStringLiteral("logo.png")), kLogo);
        test::writeFile(in(QStringLiteral("assets/gone.bin")), kGone);
        test::writeFile(in(QStringLiteral("keep.c")), "same\n");
        QString error;
        m_copy = WorkspaceCopy::copyProject(project(), QStringLiteral("t"), m_dir.path(), &error);
        QVERIFY2(!m_copy.isEmpty(), qPrintable(error));
        const auto copied = [&](const QString& path) -> QString { return m_copy + QLatin1Char('/') + path; };
        test::writeFile(copied(QStringLiteral("src/main.c")), "int main() {\n    return 1;\n}\n");
        test::writeFile(copied(QStringLiteral("src/new file.c")), "// new\n");
        QVERIFY(QFile::remove(copied(QStringLiteral("README"))));
        QVERIFY(QFile::rename(copied(QStringLiteral("old.txt")), copied(QStringLiteral("moved/new.txt"))) ||
                (QDir().mkpath(copied(QStringLiteral("moved"))) &&
                 QFile::rename(copied(QStringLiteral("old.txt")), copied(QStringLiteral("moved/new.txt")))));
        QVERIFY(QFile::remove(copied(QStringLiteral("letter.txt"))));
        test::writeFile(copied(QStringLiteral("letters/letter.txt")), QByteArray(kLetter).replace("Dear", "Hello"));
        test::writeFile(copied(QStringLiteral("logo.png")), kNewLogo);
        test::writeFile(copied(QStringLiteral("assets/icon.png")), kIcon);
        QVERIFY(QFile::remove(copied(QStringLiteral("assets/gone.bin"))));
        m_changes = ProposalFiles::split(WorkspaceDiff::computeWorkspaceDiff(project(), m_copy));
    }

    void cleanup() { QVERIFY(WorkspaceCopy::removeTree(m_copy)); }

    void eachFileIsNamedAsTheReviewNamesIt()
    {
        QCOMPARE(described(m_changes), (QStringList{
                                           QStringLiteral("README README→"),
                                           QStringLiteral("assets/gone.bin assets/gone.bin→ binary"),
                                           QStringLiteral("assets/icon.png →assets/icon.png binary"),
                                           QStringLiteral("letters/letter.txt letter.txt→letters/letter.txt"),
                                           QStringLiteral("logo.png logo.png→logo.png binary"),
                                           QStringLiteral("moved/new.txt old.txt→moved/new.txt"),
                                           QStringLiteral("src/main.c src/main.c→src/main.c"),
                                           QStringLiteral("src/new file.c →src/new file.c"),
                                       }));
        // Each block is the diff's own text.
        QVERIFY(m_changes.at(6).block.startsWith(QStringLiteral("diff --git a/src/main.c b/src/main.c\n")));
        QVERIFY(m_changes.at(6).block.endsWith(QStringLiteral("+    return 1;\n }")));
        QCOMPARE(ProposalFiles::unknownNames(m_changes, {QStringLiteral("README"), QStringLiteral("nope.c"),
                                                         QStringLiteral("old.txt"), QStringLiteral("nope.c")}),
                 (QStringList{QStringLiteral("nope.c"), QStringLiteral("old.txt")}));
    }

    void onlyTheChosenFilesChange()
    {
        apply({QStringLiteral("src/main.c"), QStringLiteral("README"), QStringLiteral("moved/new.txt"),
               QStringLiteral("assets/icon.png"), QStringLiteral("assets/gone.bin")});
        // Chosen: changed, deleted, renamed, a new binary and a deleted one.
        QCOMPARE(test::readFile(in(QStringLiteral("src/main.c"))), QByteArray("int main() {\n    return 1;\n}\n"));
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("README"))));
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("old.txt"))));
        QCOMPARE(test::readFile(in(QStringLiteral("moved/new.txt"))), QByteArray("moved as it is\n"));
        QCOMPARE(test::readFile(in(QStringLiteral("assets/icon.png"))), kIcon);
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("assets/gone.bin"))));
        // Left: a new file, a renamed and edited one, a changed binary, and the untouched.
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("src/new file.c"))));
        QCOMPARE(test::readFile(in(QStringLiteral("letter.txt"))), kLetter);
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("letters"))));
        QCOMPARE(test::readFile(in(QStringLiteral("logo.png"))), kLogo);
        QCOMPARE(test::readFile(in(QStringLiteral("keep.c"))), QByteArray("same\n"));
        QCOMPARE(QDir(m_dir.path()).entryList({QStringLiteral("brinmoor-approved-*")}), QStringList());
    }

    void theOtherFilesChange()
    {
        apply({QStringLiteral("src/new file.c"), QStringLiteral("letters/letter.txt"), QStringLiteral("logo.png")});
        QCOMPARE(test::readFile(in(QStringLiteral("src/new file.c"))), QByteArray("// new\n"));
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("letter.txt"))));
        QCOMPARE(test::readFile(in(QStringLiteral("letters/letter.txt"))),
                 QByteArray(kLetter).replace("Dear", "Hello"));
        QCOMPARE(test::readFile(in(QStringLiteral("logo.png"))), kNewLogo);
        QCOMPARE(test::readFile(in(QStringLiteral("src/main.c"))), QByteArray("int main() {\n    return 0;\n}\n"));
        QCOMPARE(test::readFile(in(QStringLiteral("README"))), QByteArray("hello\n"));
        QCOMPARE(test::readFile(in(QStringLiteral("old.txt"))), QByteArray("moved as it is\n"));
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("assets/icon.png"))));
        QCOMPARE(test::readFile(in(QStringLiteral("assets/gone.bin"))), kGone);
    }

    void allOfThemMakeTheCopy()
    {
        ProposalFiles::apply(m_changes, project(), m_copy, m_dir.path());
        QCOMPARE(WorkspaceDiff::computeWorkspaceDiff(project(), m_copy), QString());
    }

    void aBlockThatDoesNotApplyChangesNothing()
    {
        test::writeFile(in(QStringLiteral("src/main.c")), "changed meanwhile\n");
        try {
            apply({QStringLiteral("src/main.c"), QStringLiteral("README"), QStringLiteral("assets/icon.png")});
            QFAIL("applied");
        } catch (const AgentError& error) {
            QCOMPARE(error.code, 11);
            QVERIFY2(error.message.contains(QStringLiteral("src/main.c")), qPrintable(error.message));
        }
        QCOMPARE(test::readFile(in(QStringLiteral("README"))), QByteArray("hello\n"));
        QVERIFY(!QFileInfo::exists(in(QStringLiteral("assets/icon.png"))));
    }
};

QTEST_GUILESS_MAIN(TstProposalFiles)
#include "tst_proposal_files.moc"
