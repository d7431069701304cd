#include "support/loopback_server.h"
#include "support/test_support.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

// The agent as a user runs it, with its own config home, pointed at the test's server.
struct AgentProcess {
    QTemporaryDir configHome;
    QTemporaryDir repo;
    QProcess process;

    void start(const QString& serverURL)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome.path());
        env.insert(QStringLiteral("BRINMOOR_SERVER_URL"), serverURL);
        env.insert(QStringLiteral("BRINMOOR_AGENT_ID"), QStringLiteral("cli-agent"));
        env.insert(QStringLiteral("BRINMOOR_SHARED_TOKEN"), QStringLiteral("tok"));
        env.insert(QStringLiteral("BRINMOOR_REPO_ROOT"), repo.path());
        process.setProcessEnvironment(env);
        process.start(test::binDir() + QStringLiteral("/BrinmoorMacAgent"), {QStringLiteral("--agent-only")});
    }

    // The diag texts printed so far, without their time stamps.
    QStringList logTexts()
    {
        m_out += process.readAllStandardOutput();
        QStringList texts;
        static const QRegularExpression prefix(QStringLiteral("^\\[BrinmoorMacAgent\\]\\[[^\\]]+\\] "));
        for (const QString& line : QString::fromUtf8(m_out).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            texts.append(QString(line).remove(prefix));
        return texts;
    }

    QByteArray m_out;
};

QJsonObject shellTask(const QString& taskId, const QString& command)
{
    return {{QStringLiteral("type"), QStringLiteral("task.assign")},
            {QStringLiteral("taskId"), taskId},
            {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                    {QStringLiteral("command"), command}}}};
}

} // namespace

class TstAgentOnly : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void echoHelloAsAShellTask()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        QCOMPARE(server.lastAuthorization(), std::optional<QByteArray>("Bearer tok"));
        server.send(shellTask(QStringLiteral("t1"), QStringLiteral("echo hello")));
        QVERIFY(server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t1")));
        QCOMPARE(server.trace().split(QLatin1Char('\n')).mid(1),
                 (QStringList{QStringLiteral("task.log workspace.resolve action=shell requestedProjectPath= "
                                             "resolvedWorkingDir=") + agent.repo.path(),
                              QStringLiteral(R"({"taskId":"t1","type":"task.started"})"),
                              QStringLiteral("task.log hello"), QStringLiteral("task.log "),
                              QStringLiteral(R"({"exitCode":0,"taskId":"t1","type":"task.finished"})")}));
        QCOMPARE(server.messages().first().value(QStringLiteral("type")).toString(), QStringLiteral("agent.register"));

        ::kill(static_cast<pid_t>(agent.process.processId()), SIGTERM);
        QVERIFY(agent.process.waitForFinished(10000));
        QCOMPARE(agent.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(agent.process.exitCode(), 0);
        const QStringList log = agent.logTexts();
        QVERIFY2(log.contains(QStringLiteral("status Ready: cli-agent")), qPrintable(log.join('\n')));
        QCOMPARE(log.mid(log.indexOf(QStringLiteral("shutdown signal=15"))),
                 (QStringList{QStringLiteral("shutdown signal=15"), QStringLiteral("stop requested"),
                              QStringLiteral("status Stopped"), QStringLiteral("shutdown complete")}));
    }

    void sigintStopsARunningTaskTree()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        server.send(shellTask(QStringLiteral("t"), QStringLiteral("trap '' TERM; sleep 300 & echo pid=$!; sleep 300")));
        const std::optional<QJsonObject> line =
            server.waitFor([](const QJsonObject& m) { return m.value("line").toString().startsWith("pid="); });
        QVERIFY(line);
        const qint64 grandchild = line->value(QStringLiteral("line")).toString().mid(4).toLongLong();
        QVERIFY(processAlive(grandchild));

        ::kill(static_cast<pid_t>(agent.process.processId()), SIGINT);
        QVERIFY(agent.process.waitForFinished(15000));
        QCOMPARE(agent.process.exitCode(), 0);
        // What ignored SIGTERM was killed before the agent left.
        QVERIFY(waitUntil([&] { return !processAlive(grandchild); }, 2000));
        const QStringList log = agent.logTexts();
        QVERIFY(log.contains(QStringLiteral("stopRunningProcessIfAny terminating taskId=t")));
        QVERIFY(log.contains(QStringLiteral("runTask process terminated taskId=t exitCode=9")));
    }
};

QTEST_GUILESS_MAIN(TstAgentOnly)
#include "tst_agent_only.moc"
