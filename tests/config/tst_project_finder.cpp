// The projects found under a repository root: real folders, links and marker files.
#include "config/project_finder.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

namespace {

// "path name markers…" for each project, in order.
QStringList described(const QList<Messages::FoundProject>& projects)
{
    QStringList lines;
    for (const Messages::FoundProject& project : projects)
        lines.append(project.path + QLatin1Char(' ') + project.name + QLatin1Char(' ') +
                     project.markers.join(QLatin1Char(',')));
    return lines;
}

} // namespace

class TstProjectFinder : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    QString root() const { return m_dir.path() + QStringLiteral("/repo"); }
    QString at(const QString& path) const { return root() + QLatin1Char('/') + path; }

private Q_SLOTS:
    void init()
    {
        QDir(m_dir.path()).removeRecursively();
        QVERIFY(QDir().mkpath(root()));
    }

    void foldersWithMarkersAreProjects()
    {
        QVERIFY(QDir().mkpath(at(QStringLiteral("App/.git"))));
        test::writeFile(at(QStringLiteral("App/Package.swift")));
        test::writeFile(at(QStringLiteral("web/package.json")), "{}");
        QVERIFY(QDir().mkpath(at(QStringLiteral("Phone/Phone.xcodeproj"))));
        test::writeFile(at(QStringLiteral("tool/Cargo.toml")));
        test::writeFile(at(QStringLiteral("tool/Makefile")));
        // No marker; a marker one level down does not count; a file is no folder.
        test::writeFile(at(QStringLiteral("notes/todo.txt")));
        test::writeFile(at(QStringLiteral("deep/inner/go.mod")));
        test::writeFile(at(QStringLiteral("CMakeLists.txt")));
        // A name that only ends like a marker's is none.
        test::writeFile(at(QStringLiteral("odd/.xcodeproj")));
        QCOMPARE(
            described(ProjectFinder::find(root())),
            (QStringList{QStringLiteral("App App .git,Package.swift"), QStringLiteral("Phone Phone *.xcodeproj"),
                         QStringLiteral("tool tool Makefile,Cargo.toml"), QStringLiteral("web web package.json")}));
    }

    void everyMarkerCounts()
    {
        for (const QString& marker : ProjectFinder::markers()) {
            const QString folder = m_dir.path() + QStringLiteral("/one");
            QDir(folder).removeRecursively();
            test::writeFile(folder + QLatin1Char('/') + QString(marker).replace(QLatin1Char('*'), QStringLiteral("X")));
            QCOMPARE(ProjectFinder::markersOf(folder), QStringList{marker});
        }
        QCOMPARE(ProjectFinder::markers().size(), 20);
    }

    void theProjFolderIsLookedInToo()
    {
        test::writeFile(at(QStringLiteral("proj/Tool/go.mod")));
        test::writeFile(at(QStringLiteral("proj/plain/readme")));
        test::writeFile(at(QStringLiteral("Beta/setup.py")));
        test::writeFile(at(QStringLiteral("alpha/pyproject.toml")));
        // Sorted by name, letter case aside, wherever the folder is.
        QCOMPARE(described(ProjectFinder::find(root())),
                 (QStringList{QStringLiteral("alpha alpha pyproject.toml"), QStringLiteral("Beta Beta setup.py"),
                              QStringLiteral("proj/Tool Tool go.mod")}));
        // "proj" itself is a project when it is marked as one.
        test::writeFile(at(QStringLiteral("proj/Makefile")));
        QCOMPARE(described(ProjectFinder::find(root())),
                 (QStringList{QStringLiteral("alpha alpha pyproject.toml"), QStringLiteral("Beta Beta setup.py"),
                              QStringLiteral("proj proj Makefile"), QStringLiteral("proj/Tool Tool go.mod")}));
    }

    void hiddenFoldersAreSkipped()
    {
        QVERIFY(QDir().mkpath(at(QStringLiteral(".cache/.git"))));
        test::writeFile(at(QStringLiteral(".hidden/package.json")));
        test::writeFile(at(QStringLiteral("proj/.secret/Cargo.toml")));
        test::writeFile(at(QStringLiteral("Shown/Gemfile")));
        QCOMPARE(described(ProjectFinder::find(root())), QStringList{QStringLiteral("Shown Shown Gemfile")});
    }

    void linksAreNotFollowedOutOfTheRoot()
    {
        const QString outside = m_dir.path() + QStringLiteral("/outside");
        test::writeFile(outside + QStringLiteral("/Elsewhere/pom.xml"));
        test::writeFile(outside + QStringLiteral("/pom.xml"));
        test::writeFile(at(QStringLiteral("Real/build.gradle")));
        QVERIFY(QFile::link(outside, at(QStringLiteral("Away"))));
        QVERIFY(QFile::link(at(QStringLiteral("Real")), at(QStringLiteral("Alias"))));
        // A "proj" that leads out of the root is not looked in.
        QVERIFY(QFile::link(outside, at(QStringLiteral("proj"))));
        // A link within the root is followed; the folder it leads to is listed once, where it is.
        QCOMPARE(described(ProjectFinder::find(root())), QStringList{QStringLiteral("Real Real build.gradle")});
        QVERIFY(QDir().mkpath(at(QStringLiteral("inner/Linked/.git"))));
        QVERIFY(QFile::link(at(QStringLiteral("inner/Linked")), at(QStringLiteral("Linked"))));
        QCOMPARE(described(ProjectFinder::find(root())),
                 (QStringList{QStringLiteral("Linked Linked .git"), QStringLiteral("Real Real build.gradle")}));
    }

    void atMostTheBound()
    {
        for (int i = 0; i < 12; ++i)
            test::writeFile(at(QStringLiteral("p%1/Makefile").arg(i, 2, 10, QLatin1Char('0'))));
        const QList<Messages::FoundProject> found = ProjectFinder::find(root(), 5);
        QCOMPARE(described(found), (QStringList{QStringLiteral("p00 p00 Makefile"), QStringLiteral("p01 p01 Makefile"),
                                                QStringLiteral("p02 p02 Makefile"), QStringLiteral("p03 p03 Makefile"),
                                                QStringLiteral("p04 p04 Makefile")}));
        QCOMPARE(ProjectFinder::find(root()).size(), 12);
        for (int i = 0; i < 500; ++i)
            test::writeFile(at(QStringLiteral("q%1/Makefile").arg(i, 3, 10, QLatin1Char('0'))));
        const QList<Messages::FoundProject> many = ProjectFinder::find(root());
        QCOMPARE(many.size(), 500);
        QCOMPARE(many.last().path, QStringLiteral("q487"));
    }

    void aRootThatIsNotThereHasNone()
    {
        QCOMPARE(ProjectFinder::find(m_dir.path() + QStringLiteral("/missing")).size(), 0);
        QCOMPARE(ProjectFinder::find(QString()).size(), 0);
    }
};

QTEST_GUILESS_MAIN(TstProjectFinder)
#include "tst_project_finder.moc"
