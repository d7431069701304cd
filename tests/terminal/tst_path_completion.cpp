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
        // An emoji takes two UTF-16 units; a combining mark is a code point of its own.
        QDir().mkpath(path(QStringLiteral("\U0001F600 smile/inner")));
        QDir().mkpath(path(QStringLiteral("pairs/\U0001F600\U0001F4C1")));
        QDir().mkpath(path(QStringLiteral("pairs/\U0001F600\U0001F4C2")));
        test::writeFile(path(QStringLiteral("Cafe\u0301/notes.txt")));
        test::writeFile(path(QStringLiteral("Cafe\u0301/nothing.txt")));
    }

    void firstTokenHandlesQuotesAndEscapes()
    {
        QCOMPARE(firstShellToken(QStringLiteral("'My Folder' rest")), QStringLiteral("My Folder"));
        QCOMPARE(firstShellToken(QStringLiteral("My\\ Folder rest")), QStringLiteral("My Folder"));
        QCOMPARE(firstShellToken(QStringLiteral("\"a b\"c\td")), QStringLiteral("a bc"));
        QCOMPARE(firstShellToken(QString()), QString());
    }

    void eitherQuoteSwitchesQuotingOnAndOff()
    {
        // The quote that opened need not be the one that closes.
        QCOMPARE(firstShellToken(QStringLiteral("\"it's here\" x")), QStringLiteral("its"));
        QCOMPARE(firstShellToken(QStringLiteral("'a\"b c")), QStringLiteral("ab"));
        QCOMPARE(firstShellToken(QStringLiteral("'My Folder\" x")), QStringLiteral("My Folder"));
        QCOMPARE(firstShellToken(QStringLiteral("\"a\\\"b c\" d")), QStringLiteral("a\"b c"));
        QCOMPARE(directoryAfterInput(QStringLiteral("cd 'My Folder\"\n"), m_dir.path(), QStringLiteral("/h")),
                 path(QStringLiteral("My Folder")));
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

    void aFolderThatCannotBeListedLeavesTheLineAsItWas()
    {
        const Completion missing =
            pathCompletion(QStringLiteral("ls nowhere/x\\ y"), 15, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(missing.suggestions, QStringList());
        QCOMPARE(missing.replacementStart, qsizetype(3));
        QCOMPARE(missing.replacementEnd, qsizetype(15));
        QCOMPARE(missing.replacement, QStringLiteral("nowhere/x\\ y"));
        // A file is no folder to list.
        const Completion file =
            pathCompletion(QStringLiteral("cat Docker.txt/a"), std::nullopt, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(file.suggestions, QStringList());
        QCOMPARE(file.replacement, QStringLiteral("Docker.txt/a"));
        QCOMPARE(file.replacementEnd, qsizetype(16));
        // Nothing that matches leaves it too.
        const Completion none = pathCompletion(QStringLiteral("ls My\\ Z"), 8, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(none.suggestions, QStringList());
        QCOMPARE(none.replacement, QStringLiteral("My\\ Z"));
    }

    void offsetsCountCodePoints()
    {
        // The word starts after seven code points (eight UTF-16 units) and ends after 12.
        const Completion after = pathCompletion(QStringLiteral("echo \U0001F600 \U0001F600\\ sm"), std::nullopt,
                                                m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(after.suggestions, QStringList{QStringLiteral("\U0001F600 smile/")});
        QCOMPARE(after.replacement, QStringLiteral("\U0001F600\\ smile/"));
        QCOMPARE(after.replacementStart, qsizetype(7));
        QCOMPARE(after.replacementEnd, qsizetype(12));
        // A cursor inside the line, after "cd 😀\ smile/in" (14 code points).
        const Completion inside =
            pathCompletion(QStringLiteral("cd \U0001F600\\ smile/in && ls"), 14, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(inside.replacement, QStringLiteral("\U0001F600\\ smile/inner/"));
        QCOMPARE(inside.replacementStart, qsizetype(3));
        QCOMPARE(inside.replacementEnd, qsizetype(14));
        // Two names whose second code points share their first UTF-16 unit: the common
        // prefix keeps code points whole, never half of a pair.
        const Completion pair =
            pathCompletion(QStringLiteral("ls pairs/\U0001F600"), 10, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(pair.suggestions,
                 (QStringList{QStringLiteral("\U0001F600\U0001F4C1/"), QStringLiteral("\U0001F600\U0001F4C2/")}));
        QCOMPARE(pair.replacement, QStringLiteral("pairs/\U0001F600"));
        QCOMPARE(pair.replacementEnd, qsizetype(10));
        // A combining mark is a code point of its own, though it draws no character of
        // its own: "cat Cafe\u0301/no" is 12.
        const Completion mark =
            pathCompletion(QStringLiteral("cat Cafe\u0301/no"), 12, m_dir.path(), QStringLiteral("/h"));
        QCOMPARE(mark.suggestions, (QStringList{QStringLiteral("notes.txt"), QStringLiteral("nothing.txt")}));
        QCOMPARE(mark.replacement, QStringLiteral("Cafe\u0301/not"));
        QCOMPARE(mark.replacementStart, qsizetype(4));
        QCOMPARE(mark.replacementEnd, qsizetype(12));
        QCOMPARE(commonPrefix({QStringLiteral("\U0001F600\U0001F4C1"), QStringLiteral("\U0001F600\U0001F4C2")}),
                 QStringLiteral("\U0001F600"));
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
