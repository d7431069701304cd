#include "app/agent_status_controller.h"
#include "app/launch_at_login.h"
#include "app/pairing.h"
#include "app/sleep_watcher.h"
#include "config/settings_store.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QFileInfo>

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

InterfaceAddress address(bool up, bool loopback, bool ipv4, const char* host)
{
    return {up, loopback, ipv4, QString::fromLatin1(host)};
}

} // namespace

class TstPairing : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void onlyLoopbackGivesNoAddress()
    {
        QCOMPARE(Pairing::currentLANIPv4Address({address(true, true, true, "127.0.0.1")}), std::nullopt);
        QCOMPARE(Pairing::currentLANIPv4Address({}), std::nullopt);
    }

    void firstUpNonLoopbackIPv4Wins()
    {
        QCOMPARE(Pairing::currentLANIPv4Address(
                     {address(true, true, true, "127.0.0.1"), address(false, false, true, "10.0.0.9"),
                      address(true, false, false, "fe80::1"), address(true, false, true, "127.0.0.1"),
                      address(true, false, true, "192.168.1.20"), address(true, false, true, "10.0.0.5")}),
                 std::optional<QString>(QStringLiteral("192.168.1.20")));
    }

    void systemListIsReadable() { QVERIFY(!Pairing::systemInterfaceAddresses().empty()); }

    void payloadNeedsAnAddressAndAToken()
    {
        MemorySettingsStore settings;
        settings.setValue(QStringLiteral("serverPort"), 8081);
        QCOMPARE(Pairing::currentPairingPayload(settings, QStringLiteral("Dev Mac Mini"), QStringLiteral("10.1.2.3")),
                 std::nullopt);
        settings.setValue(QStringLiteral("token"), QStringLiteral("tok"));
        QCOMPARE(Pairing::currentPairingPayload(settings, QStringLiteral("Dev Mac Mini"), std::nullopt), std::nullopt);
        const std::optional<PairingPayload> payload =
            Pairing::currentPairingPayload(settings, QStringLiteral("Dev Mac Mini"), QStringLiteral("10.1.2.3"));
        QVERIFY(payload);
        QCOMPARE(payload->name, QStringLiteral("Dev Mac Mini"));
        QCOMPARE(payload->serverURL, QStringLiteral("http://10.1.2.3:8081"));
        QCOMPARE(payload->agentId, QStringLiteral("dev-mac-mini"));
        QCOMPARE(payload->token, QStringLiteral("tok"));
        QCOMPARE(
            payload->encoded(),
            QByteArray(
                "{\"name\":\"Dev Mac Mini\",\"serverURL\":\"http://10.1.2.3:8081\",\"agentId\":\"dev-mac-mini\",\"token\":\"tok\"}"));
        settings.setValue(QStringLiteral("agentId"), QStringLiteral("stored"));
        QCOMPARE(Pairing::currentPairingPayload(settings, QString(), QStringLiteral("10.1.2.3"))->agentId,
                 QStringLiteral("stored"));
        QCOMPARE(Pairing::currentPairingPayload(settings, QString(), QStringLiteral("10.1.2.3"))->name,
                 QStringLiteral("My Mac"));
    }

    void payloadRoundTripsThroughJsonWithExactlyFourKeys()
    {
        const PairingPayload payload{QStringLiteral("n \"q\""), QStringLiteral("http://h:1"), QStringLiteral("a"),
                                     QStringLiteral("t")};
        QCOMPARE(QJsonDocument::fromJson(payload.encoded()).object().keys(),
                 (QStringList{QStringLiteral("agentId"), QStringLiteral("name"), QStringLiteral("serverURL"),
                              QStringLiteral("token")}));
        const std::optional<PairingPayload> back = PairingPayload::decode(payload.encoded());
        QVERIFY(back);
        QCOMPARE(back->name, payload.name);
        QCOMPARE(PairingPayload::decode("{\"name\":\"n\",\"serverURL\":\"u\",\"agentId\":\"a\"}").has_value(), false);
    }

    void tooltipAlwaysShowsTheToken()
    {
        MemorySettingsStore settings;
        settings.setValue(QStringLiteral("serverPort"), 8080);
        settings.setValue(QStringLiteral("token"), QStringLiteral("tok"));
        QCOMPARE(Pairing::pairingTooltip(settings, QStringLiteral("Box"), std::nullopt),
                 QStringLiteral("Server URL: http://127.0.0.1:8080\nAgent ID: box\nToken: tok"));
        QCOMPARE(Pairing::pairingTooltip(settings, QStringLiteral("Box"), QStringLiteral("10.0.0.2")),
                 QStringLiteral("Server URL: http://10.0.0.2:8080\nAgent ID: box\nToken: tok"));
        settings.setValue(QStringLiteral("token"), QString());
        QCOMPARE(Pairing::pairingTooltip(settings, QStringLiteral("Box"), QStringLiteral("10.0.0.2")),
                 QStringLiteral("Server URL: http://127.0.0.1:8080\nAgent ID: box\nToken: "));
    }

    void phonesAreGivenThePublicURLOrHttpsWithACertificate()
    {
        MemorySettingsStore settings;
        settings.setValue(QStringLiteral("serverPort"), 8080);
        settings.setValue(QStringLiteral("token"), QStringLiteral("tok"));
        LocalServerSettings server;
        server.publicURL = QStringLiteral("https://mymac.tailnet.ts.net:8443/");
        // The public URL needs no LAN address.
        const std::optional<PairingPayload> payload =
            Pairing::currentPairingPayload(settings, QStringLiteral("Box"), std::nullopt, server);
        QVERIFY(payload);
        QCOMPARE(payload->serverURL, QStringLiteral("https://mymac.tailnet.ts.net:8443"));
        QCOMPARE(Pairing::pairingTooltip(settings, QStringLiteral("Box"), QStringLiteral("10.0.0.2"), server),
                 QStringLiteral("Server URL: https://mymac.tailnet.ts.net:8443\nAgent ID: box\nToken: tok"));

        LocalServerSettings tls;
        tls.tlsCertificate = QStringLiteral("/etc/brinmoor/cert.pem");
        tls.tlsKey = QStringLiteral("/etc/brinmoor/key.pem");
        QCOMPARE(Pairing::serverURLForPhones(settings, tls, QStringLiteral("10.0.0.2")),
                 std::optional<QString>(QStringLiteral("https://10.0.0.2:8080")));
        QCOMPARE(Pairing::serverURLForPhones(settings, tls, std::nullopt), std::nullopt);
        QCOMPARE(Pairing::pairingTooltip(settings, QStringLiteral("Box"), std::nullopt, tls),
                 QStringLiteral("Server URL: https://127.0.0.1:8080\nAgent ID: box\nToken: tok"));
        settings.setValue(QStringLiteral("token"), QString());
        QCOMPARE(Pairing::currentPairingPayload(settings, QStringLiteral("Box"), std::nullopt, server), std::nullopt);
        QCOMPARE(Pairing::pairingTooltip(settings, QStringLiteral("Box"), std::nullopt, server),
                 QStringLiteral("Server URL: https://mymac.tailnet.ts.net:8443\nAgent ID: box\nToken: "));
    }

    void webClientLinkCarriesTheTokenInItsFragment()
    {
        MemorySettingsStore settings;
        settings.setValue(QStringLiteral("serverPort"), 8080);
        settings.setValue(QStringLiteral("token"), QStringLiteral("tok"));
        QCOMPARE(Pairing::webClientURL(settings, QStringLiteral("10.0.0.2")),
                 QStringLiteral("http://10.0.0.2:8080/#token=tok"));
        QCOMPARE(Pairing::webClientURL(settings, std::nullopt), QStringLiteral("http://127.0.0.1:8080/#token=tok"));
        settings.setValue(QStringLiteral("token"), QStringLiteral("a b&c#d"));
        QCOMPARE(Pairing::webClientURL(settings, std::nullopt),
                 QStringLiteral("http://127.0.0.1:8080/#token=a%20b%26c%23d"));
        // The link starts as the server URL phones are given.
        LocalServerSettings server;
        server.publicURL = QStringLiteral("https://mymac.tailnet.ts.net:8443");
        QCOMPARE(Pairing::webClientURL(settings, std::nullopt, server),
                 QStringLiteral("https://mymac.tailnet.ts.net:8443/#token=a%20b%26c%23d"));
        server = LocalServerSettings{};
        server.tlsCertificate = QStringLiteral("/etc/brinmoor/cert.pem");
        QCOMPARE(Pairing::webClientURL(settings, QStringLiteral("10.0.0.2"), server),
                 QStringLiteral("https://10.0.0.2:8080/#token=a%20b%26c%23d"));
    }

    void qrCodeDrawnWithHalfBlocks()
    {
        const std::vector<std::vector<bool>> modules = Pairing::qrModules("{\"name\":\"x\"}");
        QVERIFY(modules.size() >= 21);
        // The finder pattern's corner module is dark.
        QVERIFY(modules[0][0]);
        const QString text = Pairing::terminalQRCode(modules);
        const QStringList lines = text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), int((modules.size() + 4 + 1) / 2));
        QCOMPARE(lines.first().size(), qsizetype(modules.size() + 4));
        QVERIFY(text.contains(QChar(0x2580)) && text.contains(QChar(0x2584)) && text.contains(QChar(0x2588)));
    }

    void networkTitleWithAndWithoutAddress()
    {
        QTemporaryDir dir;
        MemorySettingsStore settings;
        settings.setValue(QStringLiteral("token"), QStringLiteral("tok"));
        settings.setValue(QStringLiteral("agentId"), QStringLiteral("mini"));
        settings.setValue(QStringLiteral("serverPort"), 8080);
        Machine machine;
        machine.currentDirectory = dir.path();
        machine.hostName = QStringLiteral("Mini");
        AgentStatusController controller(settings, {}, machine);
        controller.lanAddress = [] { return std::optional<QString>(); };
        QCOMPARE(controller.networkTitle(), QStringLiteral("LAN: Unavailable"));
        controller.lanAddress = [] { return std::optional<QString>(QStringLiteral("10.1.2.3")); };
        QCOMPARE(controller.networkTitle(), QStringLiteral("LAN: http://10.1.2.3:8080 \u2022 mini"));
        // A public URL is what phones use, with or without a LAN address.
        settings.setValue(QStringLiteral("publicURL"), QStringLiteral("https://mini.tailnet.ts.net"));
        QCOMPARE(controller.networkTitle(), QStringLiteral("LAN: https://mini.tailnet.ts.net \u2022 mini"));
        controller.lanAddress = [] { return std::optional<QString>(); };
        QCOMPARE(controller.networkTitle(), QStringLiteral("LAN: https://mini.tailnet.ts.net \u2022 mini"));
        QCOMPARE(controller.pairingTooltip(),
                 QStringLiteral("Server URL: https://mini.tailnet.ts.net\nAgent ID: mini\nToken: tok"));
        QCOMPARE(controller.statusTitle(), QStringLiteral("Server: Starting"));
        QCOMPARE(controller.detailsTitle(), QStringLiteral("Agent: Starting"));
    }

    void toggleOpenAtLoginTwiceRestoresThePreference()
    {
        QTemporaryDir dir;
        MemorySettingsStore settings;
        Machine machine;
        machine.currentDirectory = dir.path();
        machine.homeDirectory = dir.path() + QStringLiteral("/home");
        machine.executablePath = QStringLiteral("/opt/it's \"here\"/BrinmoorMacAgent");
        const Environment env{{QStringLiteral("XDG_CONFIG_HOME"), dir.path() + QStringLiteral("/config")}};
        AgentStatusController controller(settings, env, machine);
        const QString entry = dir.path() + QStringLiteral("/config/autostart/brinmoor-agent.desktop");
        QVERIFY(!controller.launchAtLogin());
        QCOMPARE(controller.toggleLaunchAtLogin(), std::nullopt);
        QVERIFY(controller.launchAtLogin());
        QVERIFY(QFileInfo::exists(entry));
        QVERIFY(QString::fromUtf8(test::readFile(entry))
                    .contains(QStringLiteral("Exec=\"/opt/it's \\\"here\\\"/BrinmoorMacAgent\"\n")));
        QCOMPARE(controller.toggleLaunchAtLogin(), std::nullopt);
        QVERIFY(!controller.launchAtLogin());
        QVERIFY(!QFileInfo::exists(entry));
        QCOMPARE(LaunchAtLogin::autostartEntryPath({}, QStringLiteral("/home/u")),
                 QStringLiteral("/home/u/.config/autostart/brinmoor-agent.desktop"));
    }

    void openAtLoginFailureKeepsThePreference()
    {
        QTemporaryDir dir;
        test::writeFile(dir.path() + QStringLiteral("/config"), "a file where the folder should be");
        MemorySettingsStore settings;
        Machine machine;
        machine.currentDirectory = dir.path();
        AgentStatusController controller(
            settings, {{QStringLiteral("XDG_CONFIG_HOME"), dir.path() + QStringLiteral("/config")}}, machine);
        const std::optional<QString> error = controller.toggleLaunchAtLogin();
        QCOMPARE(error, std::optional<QString>(QStringLiteral("cannot create ") + dir.path() +
                                               QStringLiteral("/config/autostart")));
        QVERIFY(!controller.launchAtLogin());
    }

    void projectFolderActions()
    {
        QTemporaryDir dir;
        const QString a = test::makeProject(dir.path() + QStringLiteral("/a/Alpha"));
        const QString b = test::makeProject(dir.path() + QStringLiteral("/b/Beta"), true);
        MemorySettingsStore settings;
        Machine machine;
        machine.currentDirectory = dir.path();
        AgentStatusController controller(settings, {}, machine);
        QCOMPARE(controller.projectMenuTitle(), QStringLiteral("Projects: Not set"));
        QCOMPARE(controller.projectMenuTooltip(), QString());
        QVERIFY(!controller.canClearProjects());
        QCOMPARE(controller.currentProjectURL(), std::nullopt);
        QCOMPARE(controller.createProjectRootTitle(), QStringLiteral("New Project Folder: Not set"));
        QVERIFY(!controller.canClearCreateProjectRoot());

        // Nothing chosen (a cancelled panel) changes nothing.
        controller.addProjectFolders({});
        QCOMPARE(controller.projectMenuTitle(), QStringLiteral("Projects: Not set"));

        controller.addProjectFolders({b, a});
        QCOMPARE(controller.projectMenuTitle(), QStringLiteral("Projects: 2"));
        QCOMPARE(controller.projectMenuTooltip(), a + QLatin1Char('\n') + b);
        QCOMPARE(controller.projectEntries().size(), 2);
        QCOMPARE(controller.projectEntries().first().title, QStringLiteral("Alpha"));
        QCOMPARE(controller.currentProjectURL(), std::optional<QString>(a));
        QVERIFY(controller.canClearProjects());

        controller.removeProjectFolder(a);
        QCOMPARE(controller.configuredProjects(), QStringList{b});
        controller.clearProjectFolderOverride();
        QCOMPARE(controller.configuredProjects(), QStringList());

        controller.setCreateProjectRoot(dir.path() + QStringLiteral("/new/"));
        QCOMPARE(controller.createProjectRootTitle(), QStringLiteral("New Project Folder: new"));
        QCOMPARE(controller.createProjectRootTooltip(), dir.path() + QStringLiteral("/new/"));
        QVERIFY(controller.canClearCreateProjectRoot());
        controller.clearCreateProjectRoot();
        QCOMPARE(controller.createProjectRootTitle(), QStringLiteral("New Project Folder: Not set"));
    }

    void sleepWatcherReportsTheLoginManagersSignal()
    {
        SleepWatcher watcher; // without a system bus it simply watches nothing
        QSignalSpy sleeping(&watcher, &SleepWatcher::willSleep);
        QSignalSpy waking(&watcher, &SleepWatcher::didWake);
        watcher.onPrepareForSleep(true);
        watcher.onPrepareForSleep(false);
        QCOMPARE(sleeping.count(), 1);
        QCOMPARE(waking.count(), 1);
    }

    void wakeRestartsAndRewritesThePortAndURL()
    {
        qputenv("BRINMOOR_SERVER_PATH", "/nonexistent/brinmoor-server");
        QTemporaryDir dir;
        MemorySettingsStore settings;
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        const int free = probe.serverPort();
        probe.close();
        settings.setValue(QStringLiteral("serverPort"), free);
        settings.setValue(QStringLiteral("serverURL"), QStringLiteral("http://elsewhere:1"));
        Machine machine;
        machine.currentDirectory = dir.path();
        machine.executablePath = dir.path() + QStringLiteral("/BrinmoorMacAgent");
        QStringList seen; // outlives the controller, which reports while it stops
        AgentStatusController controller(settings, {}, machine);
        connect(&controller, &AgentStatusController::serverStatusChanged, this,
                [&](const QString& t) { seen.append(QStringLiteral("server ") + t); });
        connect(&controller, &AgentStatusController::runtimeStatusChanged, this,
                [&](const QString& t) { seen.append(QStringLiteral("agent ") + t); });
        controller.didWake();
        QCOMPARE(seen.mid(0, 2), (QStringList{QStringLiteral("agent Waking"), QStringLiteral("server Reconnecting")}));
        QVERIFY(waitUntil([&] { return seen.contains(QStringLiteral("server Bundled server not found")); }));
        QCOMPARE(settings.integer(QStringLiteral("serverPort")), std::optional<qint64>(free));
        QCOMPARE(settings.string(QStringLiteral("serverURL")),
                 std::optional<QString>(QStringLiteral("http://127.0.0.1:%1").arg(free)));
        seen.clear();
        controller.refreshConnection();
        QCOMPARE(seen.mid(0, 2),
                 (QStringList{QStringLiteral("server Refreshing"), QStringLiteral("agent Refreshing")}));
        controller.willSleep();
        QCOMPARE(controller.detailsTitle(), QStringLiteral("Agent: Sleeping"));
        controller.stopAgent();
        QCOMPARE(controller.statusTitle(), QStringLiteral("Server: Stopped"));
        QCOMPARE(controller.detailsTitle(), QStringLiteral("Agent: Stopped"));
        qunsetenv("BRINMOOR_SERVER_PATH");
    }
};

QTEST_GUILESS_MAIN(TstPairing)
#include "tst_pairing.moc"
