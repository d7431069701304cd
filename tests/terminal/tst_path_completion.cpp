#include "support/test_support.h"
#include "terminal/path_completion.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::PathCompletion;

class TstPathCompletion : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString path(const QString& name) const { return m_dir.path() + QLatin1Char('/') + name; }

private Q_SLOTS:
    void initTestCase()
    {
        QDir().mkpath(path(QStringLiteral("Documents")));
        test::writeFile(path(QStringLiteral("Docker.txt")));
        QDir().mkpath(path(QStringLiteral("My Folder/inner")));
        QDir().mkpath(path(QStringLiteral("src")));
        test::writeFile(path(QStringLiteral("file10.txt")));
        test::writeFile(path(QStringLiteral("file9.txt")));
        test::writeFile(path(QStringLiteral(".hidden")));
    }

    void firstTokenHandlesQuotesAndEscapes()
    {
        QCOMPARE(firstShellToken(QStringLiteral("'My Folder' rest")), QStringLiteral("My Folder"));
        QCOMPARE(firstShellToken(QStringLiteral("My\\ Folder rest")), QStringLiteral("My Folder"));
        QCOMPARE(firstShellToken(QStringLiteral("\"a b\"c\td")), QStringLiteral("a bc"));
        QCOMPARE(firstShellToken(QString()), QString());
    }

    void resolvePathForms()
    {
        QCOMPARE(resolvePath(QString(), QStringLiteral("/base"), QStringLiteral("/home/u")), QStringLiteral("/base"));
        QCOMPARE(resolvePath(QStringLiteral("~"), QStringLiteral("/base"), QStringLiteral("/home/u")),
                 QStringLiteral("/home/u"));
        QCOMPARE(resolvePath(QStringLiteral("~/x/../y"), QStringLiteral("/b"), QStringLiteral("/home/u")),
                 QStringLiteral("/home/u/y"));
        QCOMPARE(resolvePath(QStringLiteral("/abs//p/."), QStringLiteral("/b"), QStringLiteral("/h")),
                 QStringLiteral("/abs/p"));
        QCOMPARE(resolvePath(QStringLiteral("../x"), QStringLiteral("/b/c"), QStringLiteral("/h")),
                 QStringLiteral("/b/x"));
    }

    void cdMovesTheCompletionBase()
    {
        const QString home = path(QStringLiteral("src"));
        QCOMPARE(directoryAfterInput(QStringLiteral("cd src\n"), m_dir.path(), home), path(QStringLiteral("src")));
        QCOMPARE(directoryAfterInput(QStringLiteral("cd nowhere\n"), m_dir.path(), home), m_dir.path());
        QCOMPARE(directoryAfterInput(QStringLiteral("cd\r\n"), m_dir.path(), home), home);
        QCOMPARE(directoryAfterInput(QStringLiteral("cd 'My Folder'\n"), m_dir.path(), home),
                 path(QStringLiteral("My Folder")));
        QCOMPARE(directoryAfterInput(QStringLiteral("cd My\\ Folder\rcd inner\n"), m_dir.path(), home),
                 path(QStringLiteral("My Folder/inner")));
        QCOMPARE(directoryAfterInput(QStringLiteral("echo x; cd src\n  pushd src\n"), m_dir.path(), home),
                 m_dir.path());
    }

    void dockerTxtBeforeDocumentsWithCommonPrefix()
    {
        const Completion c = pathCompletion(QStringLiteral("ls Doc"), 6, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(c.suggestions, (QStringList{QStringLiteral("Docker.txt"), QStringLiteral("Documents/")}));
        QCOMPARE(c.replacement, QStringLiteral("Doc"));
        QCOMPARE(c.replacementStart, qsizetype(3));
        QCOMPARE(c.replacementEnd, qsizetype(6));
    }

    void digitsCompareAsNumbers()
    {
        const Completion c = pathCompletion(QStringLiteral("cat fi"), 6, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(c.suggestions, (QStringList{QStringLiteral("file9.txt"), QStringLiteral("file10.txt")}));
        QCOMPARE(c.replacement, QStringLiteral("file"));
    }

    void singleMatchWithABlankIsEscaped()
    {
        const Completion c = pathCompletion(QStringLiteral("cd My"), 5, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(c.suggestions, QStringList{QStringLiteral("My Folder/")});
        QCOMPARE(c.replacement, QStringLiteral("My\\ Folder/"));
        const Completion deeper =
            pathCompletion(QStringLiteral("ls My\\ Folder/in"), 16, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(deeper.replacementStart, qsizetype(3));
        QCOMPARE(deeper.replacement, QStringLiteral("My\\ Folder/inner/"));
    }

    void hiddenEntriesOnlyForADotPrefix()
    {
        QVERIFY(!pathCompletion(QStringLiteral("ls "), 3, m_dir.path(), QStringLiteral("/h"))
                     .suggestions.contains(QStringLiteral(".hidden")));
        QCOMPARE(pathCompletion(QStringLiteral("ls .h"), 5, m_dir.path(), QStringLiteral("/h")).suggestions,
                 QStringList{QStringLiteral(".hidden")});
    }

    void unreadableDirectoryGivesNoSuggestions()
    {
        const Completion c = pathCompletion(QStringLiteral("ls nowhere/x"), 12, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(c.suggestions, QStringList());
    }

    void cursorIsClampedIntoTheLine()
    {
        const Completion c = pathCompletion(QStringLiteral("ls Doc"), 99, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(c.replacementEnd, qsizetype(6));
        QCOMPARE(pathCompletion(QStringLiteral("ls Doc"), -4, m_dir.path(), QStringLiteral("/h")).replacementEnd,
                 qsizetype(0));
    }

    void helpers()
    {
        QCOMPARE(pathTokenStart(QStringLiteral("a b\\ c")), qsizetype(2));
        QCOMPARE(pathTokenStart(QStringLiteral("abc")), qsizetype(0));
        QCOMPARE(commonPrefix({}), QString());
        QCOMPARE(commonPrefix({QStringLiteral("abc")}), QStringLiteral("abc"));
        QCOMPARE(commonPrefix({QStringLiteral("abc"), QStringLiteral("abd"), QStringLiteral("x")}), QString());
    }
};

QTEST_GUILESS_MAIN(TstPathCompletion)
#include "tst_path_completion.moc"
