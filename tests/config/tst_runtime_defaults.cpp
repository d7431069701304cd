#include "config/runtime_defaults.h"
#include "config/settings_store.h"
#include "support/test_support.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

namespace {

Machine machineIn(const QString& dir, const QString& hostName = QStringLiteral("Studio Mac Mini"))
{
    Machine machine;
    machine.executablePath = dir + QStringLiteral("/bin/BrinmoorMacAgent");
    machine.currentDirectory = dir;
    machine.homeDirectory = dir + QStringLiteral("/home");
    machine.hostName = hostName;
    return machine;
}

} // namespace

class TstRuntimeDefaults : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void emptyStoreAndEnvironmentGetEveryDefault()
    {
        QTemporaryDir dir;
        test::writeFile(dir.path() + QStringLiteral("/deploy.sh"));
        MemorySettingsStore store;
        RuntimeDefaults::ensure(store, {}, machineIn(dir.path()));

        QCOMPARE(store.string(QStringLiteral("profileId")), QStringLiteral("ios-local"));
        QCOMPARE(store.string(QStringLiteral("repoRoot")), dir.path());
        QCOMPARE(store.string(QStringLiteral("agentId")), QStringLiteral("studio-mac-mini"));
        const QString token = store.string(QStringLiteral("token")).value_or(QString());
        QVERIFY2(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(token).hasMatch(), qPrintable(token));
        QCOMPARE(store.value(QStringLiteral("serverPort")), QVariant(qint64(8080)));
        QCOMPARE(store.string(QStringLiteral("serverURL")), QStringLiteral("http://127.0.0.1:8080"));
        QCOMPARE(store.syncCount(), 1);
    }

    void hostNameStudioMacMiniGivesStudioMacMini()
    {
        QCOMPARE(RuntimeDefaults::agentIdFromHostName(QStringLiteral("Studio Mac Mini")),
                 QStringLiteral("studio-mac-mini"));
    }

    void onlyBlanksBecomeDashes()
    {
        QCOMPARE(RuntimeDefaults::agentIdFromHostName(QStringLiteral("Dev\tMac\nMini") + QChar(0x00A0) +
                                                      QStringLiteral("Pro Max")),
                 QStringLiteral("dev\tmac\nmini") + QChar(0x00A0) + QStringLiteral("pro-max"));
    }

    void missingHostNameGivesMacAgent()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        RuntimeDefaults::ensure(store, {}, machineIn(dir.path(), QString()));
        QCOMPARE(store.string(QStringLiteral("agentId")), QStringLiteral("mac-agent"));
    }

    void environmentFillsMissingSettings()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        const Environment env{{QStringLiteral("BRINMOOR_PROFILE_ID"), QStringLiteral("p1")},
                              {QStringLiteral("BRINMOOR_REPO_ROOT"), QStringLiteral("/repo")},
                              {QStringLiteral("BRINMOOR_AGENT_ID"), QStringLiteral("Agent 7")},
                              {QStringLiteral("BRINMOOR_SHARED_TOKEN"), QStringLiteral("tok")},
                              {QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("9000")},
                              {QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("https://h:1")}};
        RuntimeDefaults::ensure(store, env, machineIn(dir.path()));
        QCOMPARE(store.string(QStringLiteral("profileId")), QStringLiteral("p1"));
        QCOMPARE(store.string(QStringLiteral("repoRoot")), QStringLiteral("/repo"));
        // The environment's agent id is taken as it is.
        QCOMPARE(store.string(QStringLiteral("agentId")), QStringLiteral("Agent 7"));
        QCOMPARE(store.string(QStringLiteral("token")), QStringLiteral("tok"));
        QCOMPARE(store.integer(QStringLiteral("serverPort")), std::optional<qint64>(9000));
        QCOMPARE(store.string(QStringLiteral("serverURL")), QStringLiteral("https://h:1"));
    }

    void emptyEnvironmentValuesCountAsAbsent()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        const Environment env{{QStringLiteral("BRINMOOR_PROFILE_ID"), QString()},
                              {QStringLiteral("BRINMOOR_SERVER_PORT"), QString()},
                              {QStringLiteral("BRINMOOR_SERVER_URL"), QString()}};
        RuntimeDefaults::ensure(store, env, machineIn(dir.path()));
        QCOMPARE(store.string(QStringLiteral("profileId")), QStringLiteral("ios-local"));
        QCOMPARE(store.integer(QStringLiteral("serverPort")), std::optional<qint64>(8080));
        QCOMPARE(store.string(QStringLiteral("serverURL")), QStringLiteral("http://127.0.0.1:8080"));
    }

    void storedServerPortZeroIsReplaced()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        store.setValue(QStringLiteral("serverPort"), 0);
        RuntimeDefaults::ensure(store, {{QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("9100")}},
                                machineIn(dir.path()));
        QCOMPARE(store.integer(QStringLiteral("serverPort")), std::optional<qint64>(9100));
        QCOMPARE(store.string(QStringLiteral("serverURL")), QStringLiteral("http://127.0.0.1:9100"));
    }

    void storedServerPortIsKept()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        store.setValue(QStringLiteral("serverPort"), 9200);
        RuntimeDefaults::ensure(store, {{QStringLiteral("BRINMOOR_SERVER_PORT"), QStringLiteral("9100")}},
                                machineIn(dir.path()));
        QCOMPARE(store.integer(QStringLiteral("serverPort")), std::optional<qint64>(9200));
        QCOMPARE(store.string(QStringLiteral("serverURL")), QStringLiteral("http://127.0.0.1:9200"));
    }

    void portTextParsing_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("port");
        QTest::newRow("plus sign") << QStringLiteral("+9000") << qint64(9000);
        QTest::newRow("trailing letter") << QStringLiteral("80a") << qint64(8080);
        QTest::newRow("minus sign") << QStringLiteral("-5") << qint64(-5);
        QTest::newRow("blank around") << QStringLiteral(" 9000") << qint64(8080);
        QTest::newRow("decimal point") << QStringLiteral("90.5") << qint64(8080);
        QTest::newRow("empty") << QString() << qint64(8080);
    }
    void portTextParsing()
    {
        QFETCH(QString, text);
        QFETCH(qint64, port);
        QTemporaryDir dir;
        MemorySettingsStore store;
        RuntimeDefaults::ensure(store, {{QStringLiteral("BRINMOOR_SERVER_PORT"), text}}, machineIn(dir.path()));
        QCOMPARE(store.value(QStringLiteral("serverPort")), QVariant(port));
    }

    void storedEmptyTokenIsReplaced()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        store.setValue(QStringLiteral("token"), QString());
        RuntimeDefaults::ensure(store, {}, machineIn(dir.path()));
        QCOMPARE(store.string(QStringLiteral("token"))->size(), 32);
    }

    void storedTokenIsNeverChanged()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        store.setValue(QStringLiteral("token"), QStringLiteral("mine"));
        RuntimeDefaults::ensure(store, {{QStringLiteral("BRINMOOR_SHARED_TOKEN"), QStringLiteral("env")}},
                                machineIn(dir.path()));
        QCOMPARE(store.string(QStringLiteral("token")), QStringLiteral("mine"));
    }

    void storedServerURLIsKept()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        store.setValue(QStringLiteral("serverURL"), QStringLiteral("http://10.0.0.2:1"));
        RuntimeDefaults::ensure(store, {{QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("http://e")}},
                                machineIn(dir.path()));
        QCOMPARE(store.string(QStringLiteral("serverURL")), QStringLiteral("http://10.0.0.2:1"));
    }

    void secondEnsureChangesNothing()
    {
        QTemporaryDir dir;
        MemorySettingsStore store;
        RuntimeDefaults::ensure(store, {}, machineIn(dir.path()));
        const QString token = *store.string(QStringLiteral("token"));
        RuntimeDefaults::ensure(store, {}, machineIn(dir.path()));
        QCOMPARE(store.string(QStringLiteral("token")), token);
    }

    void defaultRepoRootFindsDeployScriptFourLevelsUp()
    {
        QTemporaryDir dir;
        test::writeFile(dir.path() + QStringLiteral("/deploy.sh"));
        Machine machine = machineIn(dir.path() + QStringLiteral("/elsewhere"));
        machine.executablePath = dir.path() + QStringLiteral("/a/b/c/d/BrinmoorMacAgent"); // directory a/b/c/d
        QCOMPARE(RuntimeDefaults::defaultRepoRoot(machine), dir.path());
    }

    void defaultRepoRootFindsDeployScriptFiveLevelsUp()
    {
        QTemporaryDir dir;
        test::writeFile(dir.path() + QStringLiteral("/deploy.sh"));
        Machine machine = machineIn(dir.path() + QStringLiteral("/elsewhere"));
        machine.executablePath = dir.path() + QStringLiteral("/a/b/c/d/e/BrinmoorMacAgent");
        QCOMPARE(RuntimeDefaults::defaultRepoRoot(machine), dir.path());
    }

    void defaultRepoRootFallsBackToCurrentDirectory()
    {
        QTemporaryDir dir;
        Machine machine = machineIn(dir.path());
        machine.executablePath = dir.path() + QStringLiteral("/x/BrinmoorMacAgent");
        QCOMPARE(RuntimeDefaults::defaultRepoRoot(machine), dir.path());
    }
};

QTEST_GUILESS_MAIN(TstRuntimeDefaults)
#include "tst_runtime_defaults.moc"
