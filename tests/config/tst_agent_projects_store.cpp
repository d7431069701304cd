#include "config/agent_projects_store.h"
#include "config/settings_store.h"
#include "support/test_support.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

class TstAgentProjectsStore : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_app;
    QString m_lib;

    QString path(const QString& name) const { return m_dir.path() + QLatin1Char('/') + name; }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_app = test::makeProject(path(QStringLiteral("a/App")), true);
        m_lib = test::makeProject(path(QStringLiteral("b/Lib")));
    }

    void cleanup()
    {
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
    }

    void blanksCommasAndDuplicatesKeepTwoFolders()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("projects"), QStringLiteral(" %1 , ,%1,%2").arg(m_app, m_lib));
        QCOMPARE(AgentProjectsStore::loadConfigured(store, {}), (QStringList{m_app, m_lib}));
    }

    void namedEntryGivesItsPath()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("projects"), QString(QStringLiteral("Demo=") + m_app));
        QCOMPARE(AgentProjectsStore::loadConfigured(store, {}), QStringList{m_app});
    }

    void entryWithTwoEqualsSignsIsIgnored()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("projects"), QStringLiteral("x=y=%1,%2").arg(m_app, m_lib));
        QCOMPARE(AgentProjectsStore::loadConfigured(store, {}), QStringList{m_lib});
    }

    void packageSwiftAloneIsAProject()
    {
        QVERIFY(AgentProjectsStore::holdsProject(m_lib));
        QVERIFY(!AgentProjectsStore::containsXcodeProject(m_lib));
        const QString workspace = path(QStringLiteral("w"));
        QDir().mkpath(workspace + QStringLiteral("/Main.xcworkspace"));
        QVERIFY(AgentProjectsStore::containsXcodeProject(workspace));
    }

    void aFolderNamedPackageSwiftIsNoProject()
    {
        QTemporaryDir dir;
        QDir().mkpath(dir.path() + QStringLiteral("/App/Package.swift"));
        QVERIFY(!AgentProjectsStore::holdsProject(dir.path() + QStringLiteral("/App")));
        test::writeFile(dir.path() + QStringLiteral("/Lib/Package.swift"), "// swift-tools-version:5.9\n");
        QVERIFY(AgentProjectsStore::holdsProject(dir.path() + QStringLiteral("/Lib")));
    }

    void folderWithoutMarkerIsDroppedEvenIfConfigured()
    {
        const QString plain = path(QStringLiteral("plain"));
        QDir().mkpath(plain);
        MemorySettingsStore store;
        store.setValue(QStringLiteral("projects"), QString(plain + QLatin1Char(',') + m_lib));
        QCOMPARE(AgentProjectsStore::loadConfigured(store, {}), QStringList{m_lib});
    }

    void deletedFolderDisappearsWithoutError()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("projects"), QString(m_app + QLatin1Char(',') + m_lib));
        QVERIFY(QDir(m_app).removeRecursively());
        QCOMPARE(AgentProjectsStore::loadConfigured(store, {}), QStringList{m_lib});
    }

    void resultIsSortedNotInOrderOfAdding()
    {
        MemorySettingsStore store;
        AgentProjectsStore::save({m_lib, m_app}, store);
        QCOMPARE(store.string(QStringLiteral("projects")), m_app + QLatin1Char(',') + m_lib);
        QCOMPARE(store.syncCount(), 1);
        QCOMPARE(AgentProjectsStore::loadConfigured(store, {}), (QStringList{m_app, m_lib}));
    }

    void environmentIsUsedWhenTheKeyIsAbsent()
    {
        MemorySettingsStore store;
        const Environment env{{QStringLiteral("BRINMOOR_PROJECTS"), m_lib}};
        QCOMPARE(AgentProjectsStore::loadConfigured(store, env), QStringList{m_lib});
        // A stored list, even an emptied one, wins over the environment.
        AgentProjectsStore::save({}, store);
        QCOMPARE(AgentProjectsStore::loadConfigured(store, env), QStringList{});
    }

    void normalizeTrimsDedupsAndSorts()
    {
        QCOMPARE(AgentProjectsStore::normalize({QStringLiteral(" /b\n"), QStringLiteral("/a"), QStringLiteral(""),
                                                QStringLiteral("/b"), QStringLiteral("  ")}),
                 (QStringList{QStringLiteral("/a"), QStringLiteral("/b")}));
    }

    void discoverProjectsListsProjectFoldersInsideTheRoot()
    {
        const QString root = path(QStringLiteral("root"));
        const QString one = test::makeProject(root + QStringLiteral("/One"));
        test::makeProject(root + QStringLiteral("/.Hidden"));
        QDir().mkpath(root + QStringLiteral("/NotAProject"));
        test::writeFile(root + QStringLiteral("/file.txt"));
        QCOMPARE(AgentProjectsStore::discoverProjects(root), QStringList{one});
        QCOMPARE(AgentProjectsStore::discoverProjects(std::nullopt), QStringList{});
        QCOMPARE(AgentProjectsStore::discoverProjects(path(QStringLiteral("missing"))), QStringList{});
    }

    void managedProjectPathTakesTheLastSuccessLine()
    {
        const QString prefix = QStringLiteral("__QUENDARIX_SUCCESS__");
        QCOMPARE(
            AgentProjectsStore::managedProjectPath(
                QStringLiteral("x\n__QUENDARIX_SUCCESS__ /p/One\nmid\n__QUENDARIX_SUCCESS__  /p/Two \nend"), prefix),
            std::optional<QString>(QStringLiteral("/p/Two")));
        QCOMPARE(AgentProjectsStore::managedProjectPath(QStringLiteral("nothing here"), prefix), std::nullopt);
        QCOMPARE(AgentProjectsStore::managedProjectPath(QStringLiteral("__QUENDARIX_SUCCESS__   \n"), prefix),
                 std::nullopt);
    }

    void createProjectRootIsTrimmedAndRemovedWhenEmpty()
    {
        MemorySettingsStore store;
        CreateProjectRootStore::save(QStringLiteral("  /r  "), store);
        QCOMPARE(store.string(QStringLiteral("createProjectRoot")), QStringLiteral("/r"));
        QCOMPARE(CreateProjectRootStore::load(store, {}), std::optional<QString>(QStringLiteral("/r")));
        CreateProjectRootStore::save(QStringLiteral("   "), store);
        QVERIFY(!store.contains(QStringLiteral("createProjectRoot")));
        QCOMPARE(store.syncCount(), 2);
        QCOMPARE(CreateProjectRootStore::load(store, {}), std::nullopt);
        QCOMPARE(CreateProjectRootStore::load(
                     store, {{QStringLiteral("BRINMOOR_CREATE_PROJECT_ROOT"), QStringLiteral(" /e ")}}),
                 std::optional<QString>(QStringLiteral("/e")));
        CreateProjectRootStore::save(std::nullopt, store);
        QVERIFY(!store.contains(QStringLiteral("createProjectRoot")));
    }
};

QTEST_GUILESS_MAIN(TstAgentProjectsStore)
#include "tst_agent_projects_store.moc"
