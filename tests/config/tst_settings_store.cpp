#include "config/settings_store.h"
#include "support/test_support.h"

#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

class TstSettingsStore : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void memoryStoreKeepsTypes()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("serverPort"), 9000);
        store.setValue(QStringLiteral("launchAtLogin"), true);
        store.setValue(QStringLiteral("token"), QStringLiteral("abc"));
        QCOMPARE(store.value(QStringLiteral("serverPort")).typeId(), QMetaType::Int);
        QCOMPARE(store.integer(QStringLiteral("serverPort")), std::optional<qint64>(9000));
        QCOMPARE(store.boolean(QStringLiteral("launchAtLogin")), true);
        QCOMPARE(store.string(QStringLiteral("token")), std::optional<QString>(QStringLiteral("abc")));
        QCOMPARE(store.integer(QStringLiteral("token")), std::nullopt);
        QCOMPARE(store.string(QStringLiteral("absent")), std::nullopt);
    }

    void emptyStringCountsAsMissingForNonEmptyReads()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("token"), QString());
        QVERIFY(store.contains(QStringLiteral("token")));
        QCOMPARE(store.string(QStringLiteral("token")), std::optional<QString>(QString()));
        QCOMPARE(store.nonEmptyString(QStringLiteral("token")), std::nullopt);
    }

    void removeForgetsTheKey()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("createProjectRoot"), QStringLiteral("/x"));
        store.remove(QStringLiteral("createProjectRoot"));
        QVERIFY(!store.contains(QStringLiteral("createProjectRoot")));
    }

    void writtenValuesAreReadByANewStoreInstance()
    {
        QTemporaryDir configHome;
        const QString path = QSettingsStore::standardIniPath({{QStringLiteral("XDG_CONFIG_HOME"), configHome.path()}},
                                                             QStringLiteral("/nonexistent"));
        {
            QSettingsStore writer(path);
            writer.setValue(QStringLiteral("serverPort"), 9123);
            writer.setValue(QStringLiteral("launchAtLogin"), true);
            writer.setValue(QStringLiteral("projects"), QStringLiteral("/a/App,/b/Lib"));
            writer.sync();
        }
        QSettingsStore reader(path);
        QCOMPARE(reader.integer(QStringLiteral("serverPort")), std::optional<qint64>(9123));
        QCOMPARE(reader.boolean(QStringLiteral("launchAtLogin")), true);
        QCOMPARE(reader.string(QStringLiteral("projects")), std::optional<QString>(QStringLiteral("/a/App,/b/Lib")));
        QCOMPARE(reader.string(QStringLiteral("absent")), std::nullopt);
    }

    void iniFileLivesUnderTheConfigHomeWithOwnerOnlyMode()
    {
        QTemporaryDir configHome;
        const QString path = QSettingsStore::standardIniPath({{QStringLiteral("XDG_CONFIG_HOME"), configHome.path()}},
                                                             QStringLiteral("/home/x"));
        QCOMPARE(path, configHome.path() + QStringLiteral("/brinmoor/BrinmoorMacAgent.ini"));
        QSettingsStore store(path);
        QCOMPARE(test::fileMode(path), 0600);
        store.setValue(QStringLiteral("token"), QStringLiteral("secret"));
        store.sync();
        QCOMPARE(test::fileMode(path), 0600);
        QVERIFY(test::readFile(path).contains("token=secret"));
    }

    void configHomeDefaultsToDotConfig()
    {
        QCOMPARE(QSettingsStore::standardIniPath({}, QStringLiteral("/home/x")),
                 QStringLiteral("/home/x/.config/brinmoor/BrinmoorMacAgent.ini"));
        QCOMPARE(QSettingsStore::standardIniPath({{QStringLiteral("XDG_CONFIG_HOME"), QStringLiteral("rel")}},
                                                 QStringLiteral("/home/x")),
                 QStringLiteral("/home/x/.config/brinmoor/BrinmoorMacAgent.ini"));
    }
};

QTEST_GUILESS_MAIN(TstSettingsStore)
#include "tst_settings_store.moc"
