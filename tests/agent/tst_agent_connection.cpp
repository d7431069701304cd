#include "agent/agent_runtime.h"
#include "support/agent_fixture.h"

#include <QJsonArray>
#include <QTcpServer>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

class TstAgentConnection : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void defaultSocketURL()
    {
        QCOMPARE(agentSocketURL(QStringLiteral("http://127.0.0.1:8080"), QStringLiteral("mac-agent"))->toString(),
                 QStringLiteral("ws://127.0.0.1:8080/v1/ws/agent?agentId=mac-agent"));
    }

    void httpsGivesWssAndKeepsHostAndPort()
    {
        QCOMPARE(
            agentSocketURL(QStringLiteral("https://relay.example:9443/ignored?x=1"), QStringLiteral("a b"))->toString(),
            QStringLiteral("wss://relay.example:9443/v1/ws/agent?agentId=a b"));
        QCOMPARE(agentSocketURL(QStringLiteral("HTTPS://h"), QStringLiteral("x"))->scheme(), QStringLiteral("wss"));
        QCOMPARE(agentSocketURL(QStringLiteral("ftp://h:1"), QStringLiteral("x"))->scheme(), QStringLiteral("ws"));
    }

    void unparsableServerURLHasNoSocketURL()
    {
        QVERIFY(!agentSocketURL(QStringLiteral("not a url"), QStringLiteral("x")));
        QVERIFY(!agentSocketURL(QString(), QStringLiteral("x")));
    }

    void connectRegistersWithTheProfile()
    {
        AgentFixture f;
        DiagRecorder log;
        QVERIFY(f.connect());
        QCOMPARE(f.server.lastRequestURL().path(), QStringLiteral("/v1/ws/agent"));
        QCOMPARE(f.server.lastRequestURL().query(), QStringLiteral("agentId=test-agent"));
        QCOMPARE(f.server.lastAuthorization(), std::optional<QByteArray>("Bearer secret-token"));
        const QJsonObject reg = f.server.messagesOfType(QStringLiteral("agent.register")).first();
        QCOMPARE(reg.value(QStringLiteral("profiles")).toArray(), QJsonArray{QStringLiteral("ios-local")});
        QCOMPARE(reg.value(QStringLiteral("repoRoot")).toString(), f.repo.path());
        QCOMPARE(reg.value(QStringLiteral("createProjectRoot")).toString(), QString());
        QCOMPARE(f.statuses, QStringList{QStringLiteral("Connected as test-agent")});
        const QString url = QStringLiteral("ws://127.0.0.1:%1/v1/ws/agent?agentId=test-agent").arg(f.server.port());
        // The register opens the connection, and comes again in the relay's numbered stream.
        const QString registered = QStringLiteral("register profile=ios-local actions=[\"build_ios\", \"ai_task\", "
                                                  "\"chat\", \"shell\", \"terminal_session\"] projects=[]");
        QVERIFY(waitUntil([&] { return log.texts().size() >= 6; }));
        QCOMPARE(
            log.texts(),
            (QStringList{
                QStringLiteral("start requested"),
                QStringLiteral("connected serverURL=") + url + QStringLiteral(" agentId=test-agent"), registered,
                QStringLiteral("received agent.hello"),
                QStringLiteral(
                    "server.extensions features=seq,ack,grace,state,pacing,end,projects,files,lines,sessions seq=0"),
                registered}));
        QCOMPARE(f.server.preludes().size(), 1);
        QCOMPARE(f.server.preludes().first(), reg);
        QCOMPARE(f.server.streams().size(), 1);
    }

    void emptyTokenSendsNoAuthorizationHeader()
    {
        AgentFixture f{QString()};
        QVERIFY(f.connect());
        QCOMPARE(f.server.lastAuthorization(), std::nullopt);
    }

    void failedConnectIsRetriedEvery3Seconds()
    {
        AgentFixture f;
        // A port that refuses connections: listen, note it, close.
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        const quint16 port = probe.serverPort();
        probe.close();
        f.settings.setValue(QStringLiteral("serverURL"), QStringLiteral("http://127.0.0.1:%1").arg(port));
        QElapsedTimer clock;
        clock.start();
        f.runtime->start();
        QVERIFY(waitUntil([&] { return f.statuses.size() >= 1; }));
        QCOMPARE(f.statuses.first(), QStringLiteral("Reconnect in 3s: Connection refused"));
        QVERIFY(clock.elapsed() < 1500);
        // Point the agent at the real server: the next attempt, 3 s later, connects.
        f.settings.setValue(QStringLiteral("serverURL"), f.server.serverURL());
        QVERIFY(f.server.waitForType(QStringLiteral("agent.register"), 6000));
        QVERIFY2(clock.elapsed() >= 2900, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(f.statuses.last(), QStringLiteral("Connected as test-agent"));
    }

    void invalidServerURLIsRetried()
    {
        AgentFixture f;
        f.settings.setValue(QStringLiteral("serverURL"), QStringLiteral("::nonsense"));
        f.runtime->start();
        QVERIFY(waitUntil([&] { return !f.statuses.isEmpty(); }));
        QCOMPARE(f.statuses.first(), QStringLiteral("Reconnect in 3s: invalid server URL: ::nonsense"));
    }

    void frameThatIsNotJsonMakesTheAgentReconnect()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.server.sendText(QStringLiteral("this is not json"));
        QVERIFY(f.server.waitForConnections(2));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "agent.register"; }, 5000, 1));
        QCOMPARE(f.statuses, (QStringList{QStringLiteral("Connected as test-agent"),
                                          QStringLiteral("Disconnected: frame is not valid JSON: illegal value"),
                                          QStringLiteral("Connected as test-agent")}));
    }

    void unknownTypeGetsNoReplyAndChangesNothing()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.server.send({{QStringLiteral("type"), QStringLiteral("something.else")}, {QStringLiteral("taskId"), "x"}});
        f.server.send({{QStringLiteral("type"), QStringLiteral("agent.hello")}});
        // The hello is handled after the unknown frame; nothing answered either: the
        // registration and the state are all the agent said.
        DiagRecorder log;
        QVERIFY(waitUntil([&] { return log.contains(QStringLiteral("received agent.hello")); }));
        QCOMPARE(f.server.messages().size(), 2);
        QCOMPARE(f.server.connectionCount(), 1);
        QVERIFY(!f.runtime->currentTaskId());
    }

    void serverClosingTheConnectionReconnectsAtOnce()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.server.closeClient();
        QVERIFY(f.server.waitForConnections(2, 2000));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "agent.register"; }, 5000, 1));
        QCOMPARE(f.statuses.at(1), QStringLiteral("Disconnected: connection closed by the server (code 1000)"));
    }

    void heartbeatsOnlyWhileATaskRuns()
    {
        AgentFixture f(QStringLiteral("secret-token"), {.heartbeatMilliseconds = 20});
        QVERIFY(f.connect());
        // The heartbeat timer, started first, has fired at least four times by now.
        waitForTimerTicks(20, 5);
        QCOMPARE(f.server.messagesOfType(QStringLiteral("task.heartbeat")).size(), 0);
        // While a task runs, every beat names it.
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 300"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "task.heartbeat"; }, 5000, 2));
        for (const QJsonObject& beat : f.server.messagesOfType(QStringLiteral("task.heartbeat")))
            QCOMPARE(beat, (QJsonObject{{QStringLiteral("type"), QStringLiteral("task.heartbeat")},
                                        {QStringLiteral("taskId"), QStringLiteral("t")}}));
    }

    void stopClosesWithGoingAwayAndReportsStopped()
    {
        AgentFixture f(QStringLiteral("secret-token"), {.reconnectMilliseconds = 20});
        QVERIFY(f.connect());
        DiagRecorder log;
        f.runtime->stop();
        QVERIFY(waitUntil([&] { return f.server.lastCloseCode().has_value(); }));
        QCOMPARE(*f.server.lastCloseCode(), 1001);
        QCOMPARE(f.statuses.last(), QStringLiteral("Stopped"));
        QCOMPARE(log.texts(), QStringList{QStringLiteral("stop requested")});
        // Stopped means stopped: no reconnect, however often the reconnect timer could have fired.
        waitForTimerTicks(20, 5);
        QCOMPARE(f.server.connectionCount(), 1);
    }

    void sendWithoutSocketIsDroppedSilently()
    {
        AgentFixture f;
        DiagRecorder log;
        f.runtime->sendJSON(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.log")}});
        QCOMPARE(log.texts(), QStringList{});
        QCOMPARE(f.statuses, QStringList{});
    }

    void reloadConfigurationSendsRegisterAgain()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.settings.setValue(QStringLiteral("createProjectRoot"), QStringLiteral("/new/root"));
        f.runtime->reloadConfiguration();
        const std::optional<QJsonObject> second =
            f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "agent.register"; }, 5000, 1);
        QVERIFY(second);
        QCOMPARE(second->value(QStringLiteral("createProjectRoot")).toString(), QStringLiteral("/new/root"));
    }

    void stopAnswersAPendingApprovalWithNo()
    {
        AgentFixture f;
        QList<bool> answers;
        f.runtime->approvals().waitForApproval(QStringLiteral("t"), 60,
                                               [&](bool approved) { answers.append(approved); });
        f.runtime->stop();
        QCOMPARE(answers, QList<bool>{false});
        QVERIFY(!f.runtime->approvals().hasPendingApproval());
    }
};

QTEST_GUILESS_MAIN(TstAgentConnection)
#include "tst_agent_connection.moc"
