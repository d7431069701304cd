#include "support/loopback_server.h"
#include "support/plain_server.h"
#include "support/process_fixtures.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

QJsonObject shellTask(const QString& taskId, const QString& command)
{
    return {{QStringLiteral("type"), QStringLiteral("task.assign")},
            {QStringLiteral("taskId"), taskId},
            {QStringLiteral("payload"),
             QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")}, {QStringLiteral("command"), command}}}};
}

// The soft and hard "Max open files" of a running process.
std::pair<QString, QString> openFileLimits(qint64 pid)
{
    const QStringList lines =
        QString::fromUtf8(readFile(QStringLiteral("/proc/%1/limits").arg(pid))).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("Max open files"))) {
            const QStringList fields = line.mid(26).split(QLatin1Char(' '), Qt::SkipEmptyParts);
            return {fields.value(0), fields.value(1)};
        }
    }
    return {};
}

// Processes whose command line carries the marker, found anywhere on the machine: after
// the agent is gone they belong to no process of the test.
QList<qint64> markedProcesses(const QString& marker)
{
    QList<qint64> found;
    for (const qint64 pid : allProcesses()) {
        QByteArray cmdline = readFile(QStringLiteral("/proc/%1/cmdline").arg(pid));
        cmdline.replace('\0', ' ');
        if (cmdline.contains(marker.toUtf8()))
            found.append(pid);
    }
    return found;
}

// The processes below `root`: its children, their children, and so on.
QList<qint64> descendants(qint64 root)
{
    QList<qint64> found;
    QList<qint64> parents{root};
    while (!parents.isEmpty()) {
        const QList<qint64> children = childProcesses(parents.takeFirst());
        found += children;
        parents += children;
    }
    return found;
}

// The processes under the agent whose command line or environment holds the text: every
// one of them, its own reaper (a fork of it) and the approval tool included.
QStringList holders(qint64 agent, const QByteArray& text)
{
    QStringList found;
    for (const qint64 pid : descendants(agent)) {
        QByteArray cmdline = readFile(QStringLiteral("/proc/%1/cmdline").arg(pid));
        const QByteArray environ = readFile(QStringLiteral("/proc/%1/environ").arg(pid));
        if (cmdline.contains(text) || environ.contains(text))
            found.append(QString::fromUtf8(cmdline.replace('\0', ' ')));
    }
    return found;
}

} // namespace

class TstAgentOnly : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void raisesItsOpenFileLimitToTheHardLimit()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        // Started with only 64 descriptors allowed, as a stingy system would.
        agent.process.setChildProcessModifier([] {
            rlimit limit{};
            ::getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = 64;
            ::setrlimit(RLIMIT_NOFILE, &limit);
        });
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        const auto [soft, hard] = openFileLimits(agent.process.processId());
        QVERIFY(!hard.isEmpty());
        QCOMPARE(soft, hard);
        QVERIFY(hard != QLatin1String("64"));
    }

    void echoHelloAsAShellTask()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        QCOMPARE(server.lastAuthorization(), std::optional<QByteArray>("Bearer " + agent.token.toUtf8()));
        server.send(shellTask(QStringLiteral("t1"), QStringLiteral("echo hello")));
        QVERIFY(server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t1")));
        // After the registration and the agent's state:
        QCOMPARE(
            server.trace().split(QLatin1Char('\n')).mid(2),
            (QStringList{QStringLiteral("task.log workspace.resolve action=shell requestedProjectPath= "
                                        "resolvedWorkingDir=") +
                             agent.repo.path(),
                         QStringLiteral(R"({"taskId":"t1","type":"task.started"})"), QStringLiteral("task.log hello"),
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

    // A reader's walk through one chat: the phone asks Claude something in a project,
    // the agent runs the (fake) tool there, streams its answer, and finishes.
    void chatRoundTripWithAFakeClaude()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        QTemporaryDir fake;
        QTemporaryDir tmp;
        // What the fake `claude` prints: an init line, the answer as the model writes it
        // (two text deltas), the assembled message, and the result.
        test::writeFile(
            fake.path() + QStringLiteral("/claude.stream"),
            R"({"type":"system","subtype":"init","session_id":"s1"})"
            "\n"
            R"({"type":"stream_event","event":{"type":"message_start","message":{"id":"msg_1","content":[]}}})"
            "\n"
            R"({"type":"stream_event","event":{"type":"content_block_start","index":0,"content_block":{"type":"text","text":""}}})"
            "\n"
            R"({"type":"stream_event","event":{"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Two"}}})"
            "\n"
            R"({"type":"stream_event","event":{"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":" files."}}})"
            "\n"
            R"({"type":"assistant","message":{"id":"msg_1","content":[{"type":"text","text":"Two files."}]}})"
            "\n"
            R"({"type":"stream_event","event":{"type":"content_block_stop","index":0}})"
            "\n"
            R"({"type":"result","subtype":"success","is_error":false,"result":"Two files."})"
            "\n");
        AgentProcess agent;
        QDir().mkpath(agent.repo.path() + QStringLiteral("/App"));
        QProcessEnvironment extra;
        extra.insert(QStringLiteral("PATH"), fakeToolsDir() + QLatin1Char(':') + qEnvironmentVariable("PATH"));
        extra.insert(QStringLiteral("BRINMOOR_FAKE_DIR"), fake.path());
        extra.insert(QStringLiteral("TMPDIR"), tmp.path());
        extra.insert(QStringLiteral("BRINMOOR_MCP_APPROVER_PATH"), fake.path() + QStringLiteral("/no-approver"));
        agent.start(server.serverURL(), extra);
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));

        server.send(
            {{QStringLiteral("type"), QStringLiteral("task.assign")},
             {QStringLiteral("taskId"), QStringLiteral("chat-1")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("chat")},
                                                     {QStringLiteral("system"), QStringLiteral("claude")},
                                                     {QStringLiteral("projectPath"), QStringLiteral("App")},
                                                     {QStringLiteral("prompt"), QStringLiteral("How many files?")},
                                                     {QStringLiteral("conversationId"), QStringLiteral("conv-7")}}}});
        QVERIFY(server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("chat-1")));
        // After the registration and the agent's state:
        QCOMPARE(
            server.trace().split(QLatin1Char('\n')).mid(2),
            (QStringList{
                QStringLiteral("task.log workspace.resolve action=chat requestedProjectPath=App "
                               "resolvedWorkingDir=") +
                    agent.repo.path() + QStringLiteral("/App"),
                QStringLiteral(R"({"taskId":"chat-1","type":"task.started"})"),
                QStringLiteral(
                    R"({"chunk":"Two","conversationId":"conv-7","taskId":"chat-1","type":"task.chat.chunk"})"),
                QStringLiteral(
                    R"({"chunk":" files.","conversationId":"conv-7","taskId":"chat-1","type":"task.chat.chunk"})"),
                QStringLiteral(
                    R"({"conversationId":"conv-7","taskId":"chat-1","text":"Two files.","type":"task.chat.final"})"),
                QStringLiteral(R"({"exitCode":0,"taskId":"chat-1","type":"task.finished"})")}));
        // Without an approval tool Claude runs without permission prompts, in a new session.
        QCOMPARE(fakeToolArguments(fake.path(), QStringLiteral("claude"), 1).mid(0, 4),
                 (QStringList{QStringLiteral("--session-id"), QStringLiteral("351c4514-b54d-5e04-ae70-6cc4757a966a"),
                              QStringLiteral("--dangerously-skip-permissions"), QStringLiteral("-p")}));
        ::kill(static_cast<pid_t>(agent.process.processId()), SIGTERM);
        QVERIFY(agent.process.waitForFinished(10000));
        QCOMPARE(agent.process.exitCode(), 0);
    }

    void noChildOfTheAgentSeesTheToken()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        QTemporaryDir fake;
        QTemporaryDir tmp;
        AgentProcess agent;
        agent.token = QStringLiteral("relay-secret-5f0c1d2e");
        const QByteArray token = agent.token.toUtf8();
        QDir().mkpath(agent.repo.path() + QStringLiteral("/App"));
        const QString gate = fake.path() + QStringLiteral("/go");
        // Both assistants wait until the test has looked at them.
        for (const QString& tool : {QStringLiteral("claude"), QStringLiteral("codex")}) {
            test::writeFile(fake.path() + QLatin1Char('/') + tool + QStringLiteral(".script"),
                            "until [[ -e " + gate.toUtf8() + " ]]; do sleep 0.05; done\n");
        }
        // The login shell that looks for an assistant on the PATH waits on a pipe until
        // the test has looked at it; every other zsh goes on at once.
        QTemporaryDir dotdir;
        const QByteArray pipe = QFile::encodeName(dotdir.path() + QStringLiteral("/gate"));
        QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);
        test::writeFile(dotdir.path() + QStringLiteral("/.zshenv"),
                        "[[ $ZSH_EXECUTION_STRING == 'whence -p -- '* ]] && read -r _ < " + pipe + "\n");
        QProcessEnvironment extra;
        extra.insert(QStringLiteral("PATH"), fakeToolsDir() + QLatin1Char(':') + qEnvironmentVariable("PATH"));
        extra.insert(QStringLiteral("BRINMOOR_FAKE_DIR"), fake.path());
        extra.insert(QStringLiteral("TMPDIR"), tmp.path());
        extra.insert(QStringLiteral("ZDOTDIR"), dotdir.path());
        agent.start(server.serverURL(), extra);
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        const qint64 pid = agent.process.processId();
        // Started with the token in its environment, the agent keeps it out of what /proc
        // shows of it, and so of its reaper, a fork of it.
        QVERIFY(!readFile(QStringLiteral("/proc/%1/environ").arg(pid)).contains(token));
        QCOMPARE(holders(pid, token), QStringList());

        // A shell task.
        server.send(shellTask(QStringLiteral("t"), QStringLiteral("echo started; sleep 300")));
        QVERIFY(server.waitFor([](const QJsonObject& m) { return m.value("line").toString() == "started"; }));
        QCOMPARE(holders(pid, token), QStringList());
        server.send({{QStringLiteral("type"), QStringLiteral("task.cancel")}, {QStringLiteral("taskId"), "t"}});
        QVERIFY(server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("t")));

        // A terminal.
        server.send(
            {{QStringLiteral("type"), QStringLiteral("terminal.open")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("sessionId"), QStringLiteral("s")},
                                                     {QStringLiteral("projectPath"), QStringLiteral("App")},
                                                     {QStringLiteral("mode"), QStringLiteral("interactive")}}}});
        QVERIFY(server.waitForType(QStringLiteral("terminal.opened")));
        QVERIFY(waitUntil([&] { return descendants(pid).size() >= 2; }));
        QCOMPARE(holders(pid, token), QStringList());

        // Chats with both assistants, asking the phone through the approval tool.
        for (const QString& system : {QStringLiteral("claude"), QStringLiteral("codex")}) {
            const QString taskId = QStringLiteral("chat-") + system;
            server.send({{QStringLiteral("type"), QStringLiteral("task.assign")},
                         {QStringLiteral("taskId"), taskId},
                         {QStringLiteral("payload"),
                          QJsonObject{{QStringLiteral("action"), QStringLiteral("chat")},
                                      {QStringLiteral("system"), system},
                                      {QStringLiteral("projectPath"), QStringLiteral("App")},
                                      {QStringLiteral("prompt"), QStringLiteral("Hi")},
                                      {QStringLiteral("approvalMode"), QStringLiteral("on_request")}}}});
            // The probe for the assistant, held on the pipe.
            const auto probing = [&] {
                for (const qint64 child : descendants(pid)) {
                    if (readFile(QStringLiteral("/proc/%1/cmdline").arg(child))
                            .contains(QByteArray(QByteArray("whence -p -- '") + system.toUtf8() + '\'')))
                        return true;
                }
                return false;
            };
            QVERIFY(waitUntil(probing));
            QCOMPARE(holders(pid, token), QStringList());
            QFile release(QFile::decodeName(pipe));
            QVERIFY(release.open(QIODevice::WriteOnly));
            release.close();
            QVERIFY(waitUntil([&] { return QFile::exists(fake.path() + QLatin1Char('/') + system + ".1.args"); }));
            QCOMPARE(holders(pid, token), QStringList());
            test::writeFile(gate);
            QVERIFY(server.waitForTask(QStringLiteral("task.finished"), taskId));
            QFile::remove(gate);
        }
        QVERIFY(agent.stop());
    }

    void nothingOutlivesAnAgentKilledWithSigkill()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        const QString marker = QStringLiteral("brinmoor-orphan-%1").arg(QCoreApplication::applicationPid());
        // Background children, one of them deaf to SIGTERM, and the task's own child.
        server.send(shellTask(QStringLiteral("t"), QStringLiteral("sh -c 'sleep 300; : %1' & "
                                                                  "sh -c 'trap \"\" TERM; sleep 300; : %1' & "
                                                                  "echo started; sh -c 'sleep 300; : %1'")
                                                       .arg(marker)));
        QVERIFY(server.waitFor([](const QJsonObject& m) { return m.value("line").toString() == "started"; }));
        QVERIFY(waitUntil([&] { return markedProcesses(marker).size() == 3; }));

        ::kill(static_cast<pid_t>(agent.process.processId()), SIGKILL);
        QVERIFY(agent.process.waitForFinished(10000));
        QVERIFY2(waitUntil([&] { return markedProcesses(marker).isEmpty(); }, 6000),
                 qPrintable(QStringLiteral("left: %1 process(es)").arg(markedProcesses(marker).size())));
    }

    void backgroundChildrenEndWithTheirTask()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        const QString marker = QStringLiteral("brinmoor-leftover-%1").arg(QCoreApplication::applicationPid());
        server.send(shellTask(QStringLiteral("t"), QStringLiteral("sh -c 'sleep 300; : %1' & "
                                                                  "sh -c 'trap \"\" TERM; sleep 300; : %1' & "
                                                                  "echo done")
                                                       .arg(marker)));
        QVERIFY(server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        // SIGTERM at once, SIGKILL 5 s later for the one that ignores it.
        QVERIFY2(waitUntil([&] { return markedProcesses(marker).isEmpty(); }, 8000),
                 qPrintable(QStringLiteral("left: %1 process(es)").arg(markedProcesses(marker).size())));
        QVERIFY(agent.stop());
    }

    void sigtermWithTheRelayEndsTheTaskAsACancellationFirst()
    {
        // The relay takes one end per task: it hears the running task's end before the
        // agent goes.
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        server.send(shellTask(QStringLiteral("t"), QStringLiteral("echo started; sleep 300")));
        QVERIFY(server.waitFor([](const QJsonObject& m) { return m.value("line").toString() == "started"; }));
        ::kill(static_cast<pid_t>(agent.process.processId()), SIGTERM);
        QVERIFY(agent.process.waitForFinished(15000));
        QCOMPARE(agent.process.exitCode(), 0);
        QVERIFY(server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("t")));
        QVERIFY(waitUntil([&] { return server.lastCloseCode().has_value(); }));
        QCOMPARE(server.messagesOfType(QStringLiteral("task.cancelled"), QStringLiteral("t")),
                 (QList<QJsonObject>{{{QStringLiteral("type"), QStringLiteral("task.cancelled")},
                                      {QStringLiteral("taskId"), QStringLiteral("t")},
                                      {QStringLiteral("exitCode"), 130}}}));
        QVERIFY(server.messagesOfType(QStringLiteral("task.failed"), QStringLiteral("t")).isEmpty());
        QCOMPARE(*server.lastCloseCode(), 1001);
        const QStringList log = agent.logTexts();
        const qsizetype cancel = log.indexOf(QStringLiteral("shutdown.cancel taskId=t"));
        QVERIFY2(cancel > 0 && log.indexOf(QStringLiteral("shutdown signal=15")) == cancel - 1,
                 qPrintable(log.join('\n')));
        QVERIFY(log.indexOf(QStringLiteral("stop requested")) > cancel);
        QCOMPARE(log.last(), QStringLiteral("shutdown complete"));
    }

    void sigtermWithAPlainServerStopsTheTaskWithoutAWord()
    {
        // A server that knows only the agent protocol: the connection closes first, and the
        // task's process is stopped after it.
        PlainServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        server.assign(QStringLiteral("t"), shellTask(QStringLiteral("t"), QStringLiteral("echo started; sleep 300"))
                                               .value(QStringLiteral("payload"))
                                               .toObject());
        QVERIFY(server.waitFor([](const QJsonObject& m) { return m.value("line").toString() == "started"; }));
        ::kill(static_cast<pid_t>(agent.process.processId()), SIGTERM);
        QVERIFY(agent.process.waitForFinished(15000));
        QCOMPARE(agent.process.exitCode(), 0);
        // The socket closed before the task was stopped: its end had nowhere to go.
        QVERIFY(waitUntil([&] { return server.endedAt(1) > 0; }));
        QVERIFY(server.messages(QStringLiteral("task.cancelled"), QStringLiteral("t")).isEmpty());
        QVERIFY(server.messages(QStringLiteral("task.failed"), QStringLiteral("t")).isEmpty());
        const QStringList log = agent.logTexts();
        QVERIFY(!log.contains(QStringLiteral("shutdown.cancel taskId=t")));
        QVERIFY(log.indexOf(QStringLiteral("stop requested")) <
                log.indexOf(QStringLiteral("stopRunningProcessIfAny terminating taskId=t")));
        QVERIFY2(server.violations().isEmpty(), qPrintable(server.violations().join('\n')));
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
