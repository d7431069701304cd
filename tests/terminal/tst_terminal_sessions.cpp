// Terminal sessions on real pseudo-terminals, driven through a loopback server.
#include "support/agent_fixture.h"
#include "support/test_support.h"
#include "terminal/terminal_session_manager.h"

#include <QDir>
#include <QJsonArray>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

QJsonObject terminal(const char* type, const QString& sessionId, const QJsonObject& more = {})
{
    QJsonObject payload = more;
    payload.insert(QStringLiteral("sessionId"), sessionId);
    return {{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("payload"), payload}};
}

QJsonObject input(const QString& sessionId, const QByteArray& bytes)
{
    return terminal("terminal.input", sessionId,
                    {{QStringLiteral("dataBase64"), QString::fromLatin1(bytes.toBase64())}});
}

} // namespace

class TstTerminalSessions : public QObject {
    Q_OBJECT

    int m_descriptorsAtStart = 0;

    // The output of one session joined, without replays.
    static QString output(AgentFixture& f, const QString& sessionId)
    {
        QString text;
        for (const QJsonObject& m : f.server.messages()) {
            if (m.value(QStringLiteral("type")) == QLatin1String("terminal.output") &&
                m.value(QStringLiteral("sessionId")).toString() == sessionId && !m.contains(QStringLiteral("snapshot")))
                text += m.value(QStringLiteral("data")).toString();
        }
        return text;
    }

    static bool waitForOutput(AgentFixture& f, const QString& sessionId, const QString& needle, int timeoutMs = 10000)
    {
        return waitUntil([&] { return output(f, sessionId).contains(needle); }, timeoutMs);
    }

    static std::optional<QJsonObject> waitForEvent(AgentFixture& f, const QString& type, const QString& sessionId,
                                                   int skip = 0)
    {
        return f.server.waitFor(
            [&](const QJsonObject& m) {
                return m.value(QStringLiteral("type")).toString() == type &&
                       m.value(QStringLiteral("sessionId")).toString() == sessionId;
            },
            10000, skip);
    }

    static void open(AgentFixture& f, const QString& sessionId, const QString& project, const QString& mode = QString(),
                     const QJsonObject& more = {})
    {
        QJsonObject payload = more;
        payload.insert(QStringLiteral("projectPath"), project);
        if (!mode.isEmpty())
            payload.insert(QStringLiteral("mode"), mode);
        f.server.send(terminal("terminal.open", sessionId, payload));
    }

private Q_SLOTS:
    void initTestCase() { m_descriptorsAtStart = openDescriptorCount(); }

    void lineModeRunsCommandsWithoutEcho()
    {
        AgentFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/App"));
        QVERIFY(f.connect());
        DiagRecorder log;
        open(f, QStringLiteral("s1"), QStringLiteral("App"));
        const std::optional<QJsonObject> opened =
            waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("s1"));
        QVERIFY(opened);
        QVERIFY(!opened->contains(QStringLiteral("mode")));
        QCOMPARE(opened->value(QStringLiteral("status")).toString(), QStringLiteral("running"));
        const QString workingDir = f.repo.path() + QStringLiteral("/App");
        QVERIFY(waitForOutput(f, QStringLiteral("s1"),
                              QStringLiteral("[terminal started in ") + workingDir +
                                  QStringLiteral("]\n[try: pwd, ls, codex, claude]\n")));
        QVERIFY(log.texts().first().startsWith(QStringLiteral("terminal.open sessionId=s1 projectPath=App pid=")));

        f.server.send(input(QStringLiteral("s1"), "echo \"$BRINMOOR_PROJECT_PATH:$TERM:$BRINMOOR_REPO_ROOT\"; pwd\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("s1"), workingDir + QStringLiteral("\r\n")));
        const QString text = output(f, QStringLiteral("s1"));
        const QString term = qEnvironmentVariable("TERM", QStringLiteral("xterm-256color"));
        QVERIFY2(text.contains(QStringLiteral("App:") + (term.isEmpty() ? QStringLiteral("xterm-256color") : term) +
                               QLatin1Char(':') + f.repo.path() + QStringLiteral("\r\n")),
                 qPrintable(text));
        // The command itself is not echoed back.
        QVERIFY(!text.contains(QStringLiteral("echo \"$BRINMOOR")));
    }

    void interactiveModeEchoesAndRunsALoginShell()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        DiagRecorder log;
        open(f, QStringLiteral("i1"), QStringLiteral("Nowhere"), QStringLiteral(" Interactive "));
        const std::optional<QJsonObject> opened =
            waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("i1"));
        QVERIFY(opened);
        QCOMPARE(opened->value(QStringLiteral("mode")).toString(), QStringLiteral("interactive"));
        QVERIFY(log.texts().first().startsWith(
            QStringLiteral("terminal.open.interactive sessionId=i1 projectPath=Nowhere pid=")));
        f.server.send(input(QStringLiteral("i1"), "echo mark-$((6*7))\n"));
        // The typed line comes back (echo), then its result.
        QVERIFY(waitForOutput(f, QStringLiteral("i1"), QStringLiteral("echo mark-$((6*7))")));
        QVERIFY(waitForOutput(f, QStringLiteral("i1"), QStringLiteral("mark-42")));
        // A project that does not exist starts in the repository root.
        f.server.send(input(QStringLiteral("i1"), "echo \"at:$PWD\"\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("i1"), QStringLiteral("at:") + f.repo.path()));
        // Closing an interactive session is silent.
        f.server.send(terminal("terminal.close", QStringLiteral("i1")));
        QTest::qWait(600);
        QVERIFY(f.server.messagesOfType(QStringLiteral("terminal.closed")).isEmpty());
    }

    void secondOpenWithoutReplaceIsRefused()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("a"), QStringLiteral("P"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("a")));
        DiagRecorder log;
        open(f, QStringLiteral("b"), QStringLiteral("P"));
        const std::optional<QJsonObject> error = waitForEvent(f, QStringLiteral("terminal.error"), QStringLiteral("b"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("error")).toString(),
                 QStringLiteral("Active terminal session already exists for this project."));
        QCOMPARE(error->value(QStringLiteral("message")).toString(), error->value(QStringLiteral("error")).toString());
        QCOMPARE(error->value(QStringLiteral("projectPath")).toString(), QStringLiteral("P"));
        QVERIFY(log.contains(QStringLiteral(
            "terminal.error sessionId=b projectPath=P message=Active terminal session already exists for this project.")));
        // The first one still runs.
        f.server.send(input(QStringLiteral("a"), "echo still-here\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("a"), QStringLiteral("still-here")));
    }

    void replaceByIdClosesThatSessionAndOpensAtOnce()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("old"), QStringLiteral("X"));
        open(f, QStringLiteral("other"), QStringLiteral("Y"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("other")));
        open(f, QStringLiteral("new"), QStringLiteral("Y"), QString(),
             {{QStringLiteral("replace"), QStringLiteral("YES")},
              {QStringLiteral("replaceSessionId"), QStringLiteral("old")}});
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("new")));
        const std::optional<QJsonObject> closed =
            waitForEvent(f, QStringLiteral("terminal.closed"), QStringLiteral("old"));
        QVERIFY(closed);
        QCOMPARE(closed->value(QStringLiteral("exitCode")).toInt(), 143);
        // "other" was not the one named, and keeps running.
        f.server.send(input(QStringLiteral("other"), "echo alive\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("other"), QStringLiteral("alive")));
    }

    void replayKeepsTheNewest128ChunksWithoutTheGreeting()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("r"), QStringLiteral("R"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("r")));
        // Lines printed apart mostly arrive as chunks of their own; on a busy machine some
        // are read together, so the shell prints more until there are over 128 chunks.
        QStringList chunks;
        for (int round = 1; round <= 6 && chunks.size() < 129; ++round) {
            // The quotes keep the echoed command line from matching what the shell prints.
            const QByteArray end = "round" + QByteArray::number(round) + "-done";
            f.server.send(
                input(QStringLiteral("r"), "for i in {1..130}; do echo line$i; sleep 0.01; done; echo \"round\"" +
                                               QByteArray::number(round) + "\"-done\"\n"));
            QVERIFY(waitForOutput(f, QStringLiteral("r"), QString::fromLatin1(end + "\r\n")));
            chunks.clear();
            for (const QJsonObject& m : f.server.messagesOfType(QStringLiteral("terminal.output")))
                chunks.append(m.value(QStringLiteral("data")).toString());
            chunks.removeFirst(); // the greeting
        }
        QVERIFY2(chunks.size() >= 129, qPrintable(QString::number(chunks.size())));
        f.server.clearMessages();
        f.server.send(terminal("terminal.attach", QStringLiteral("r")));
        QVERIFY(waitUntil([&] { return f.server.messagesOfType(QStringLiteral("terminal.output")).size() >= 128; }));
        QTest::qWait(200);
        const QList<QJsonObject> events = f.server.messages();
        QCOMPARE(events.first().value(QStringLiteral("type")).toString(), QStringLiteral("terminal.opened"));
        QVERIFY(!events.first().contains(QStringLiteral("mode")));
        QStringList replayed;
        for (const QJsonObject& m : f.server.messagesOfType(QStringLiteral("terminal.output"))) {
            QCOMPARE(m.value(QStringLiteral("snapshot")), QJsonValue(true));
            replayed.append(m.value(QStringLiteral("data")).toString());
        }
        QCOMPARE(replayed, chunks.mid(chunks.size() - 128));
        QVERIFY(!replayed.join(QString()).contains(QStringLiteral("[terminal started")));
    }

    void attachToAnUnknownSession()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.server.send(terminal("terminal.attach", QStringLiteral(" ghost ")));
        const std::optional<QJsonObject> error =
            waitForEvent(f, QStringLiteral("terminal.error"), QStringLiteral("ghost"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal session not found."));
        QCOMPARE(error->value(QStringLiteral("projectPath")).toString(), QString());
    }

    void resizeReportsTheRequestedSize()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("z"), QStringLiteral("Z"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("z")));
        f.server.send(terminal("terminal.resize", QStringLiteral("z"),
                               {{QStringLiteral("cols"), 0}, {QStringLiteral("rows"), 0}}));
        const std::optional<QJsonObject> status =
            waitForEvent(f, QStringLiteral("terminal.status"), QStringLiteral("z"));
        QVERIFY(status);
        QCOMPARE(status->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal ready (0x0)"));
        f.server.send(input(QStringLiteral("z"), "stty size\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("z"), QStringLiteral("1 1\r\n")));
        f.server.send(terminal("terminal.resize", QStringLiteral("z"),
                               {{QStringLiteral("cols"), -5}, {QStringLiteral("rows"), 30.7}}));
        const std::optional<QJsonObject> second =
            waitForEvent(f, QStringLiteral("terminal.status"), QStringLiteral("z"), 1);
        QVERIFY(second);
        QCOMPARE(second->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal ready (0x30)"));
        f.server.send(terminal("terminal.resize", QStringLiteral("z"),
                               {{QStringLiteral("cols"), 70000}, {QStringLiteral("rows"), 2}}));
        const std::optional<QJsonObject> error = waitForEvent(f, QStringLiteral("terminal.error"), QStringLiteral("z"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Failed to resize terminal session: columns and rows must be below 65536"));
    }

    void ctrlCInterruptsARunningSleep()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("c"), QStringLiteral("C"), QStringLiteral("interactive"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("c")));
        f.server.send(input(QStringLiteral("c"), "sleep 30; echo slept\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("c"), QStringLiteral("sleep 30; echo slept")));
        QTest::qWait(300);
        // An unknown name does nothing.
        f.server.send(
            terminal("terminal.signal", QStringLiteral("c"), {{QStringLiteral("signal"), QStringLiteral("stop")}}));
        QElapsedTimer clock;
        clock.start();
        f.server.send(
            terminal("terminal.signal", QStringLiteral("c"), {{QStringLiteral("signal"), QStringLiteral(" CTRL_C ")}}));
        f.server.send(input(QStringLiteral("c"), "echo after-$((1+1))\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("c"), QStringLiteral("after-2"), 5000));
        QVERIFY(clock.elapsed() < 5000);
        QVERIFY(!output(f, QStringLiteral("c")).contains(QStringLiteral("\r\nslept")));
    }

    void lineModeInterruptReachesTheForegroundJob()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("l"), QStringLiteral("L"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("l")));
        f.server.send(input(QStringLiteral("l"), "sleep 30\n"));
        QTest::qWait(300);
        f.server.send(terminal("terminal.signal", QStringLiteral("l"),
                               {{QStringLiteral("signal"), QStringLiteral("interrupt")}}));
        // The interrupt ends the job; the line-mode shell, which has no job control,
        // ends with it.
        const std::optional<QJsonObject> closed =
            waitForEvent(f, QStringLiteral("terminal.closed"), QStringLiteral("l"));
        QVERIFY(closed);
        QCOMPARE(closed->value(QStringLiteral("exitCode")).toInt(), 130);
    }

    void shellExitStatusAndKill()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("e"), QStringLiteral("E"));
        open(f, QStringLiteral("k"), QStringLiteral("K"), QStringLiteral("interactive"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("e")));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("k")));
        f.server.send(input(QStringLiteral("e"), "exit 3\n"));
        const std::optional<QJsonObject> three =
            waitForEvent(f, QStringLiteral("terminal.closed"), QStringLiteral("e"));
        QVERIFY(three);
        QCOMPARE(three->value(QStringLiteral("exitCode")), QJsonValue(3));
        f.server.send(
            terminal("terminal.signal", QStringLiteral("k"), {{QStringLiteral("signal"), QStringLiteral("SIGKILL")}}));
        const std::optional<QJsonObject> killed =
            waitForEvent(f, QStringLiteral("terminal.closed"), QStringLiteral("k"));
        QVERIFY(killed);
        QCOMPARE(killed->value(QStringLiteral("exitCode")), QJsonValue(137));
        // The interactive shell exiting by itself reports its status too.
        open(f, QStringLiteral("x"), QStringLiteral("X"), QStringLiteral("interactive"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("x")));
        f.server.send(input(QStringLiteral("x"), "exit 3\n"));
        const std::optional<QJsonObject> own = waitForEvent(f, QStringLiteral("terminal.closed"), QStringLiteral("x"));
        QVERIFY(own);
        QCOMPARE(own->value(QStringLiteral("exitCode")), QJsonValue(3));
    }

    void completionFollowsCdWithQuotesAndEscapes()
    {
        AgentFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/W/My Folder/Documents"));
        test::writeFile(f.repo.path() + QStringLiteral("/W/My Folder/Docker.txt"));
        QVERIFY(f.connect());
        open(f, QStringLiteral("w"), QStringLiteral("W"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("w")));
        f.server.send(input(QStringLiteral("w"), "cd My\\ Folder\n"));
        f.server.send(terminal("terminal.complete", QStringLiteral("w"),
                               {{QStringLiteral("line"), QStringLiteral("ls Doc")}, {QStringLiteral("cursor"), 6}}));
        const std::optional<QJsonObject> completion =
            waitForEvent(f, QStringLiteral("terminal.completion"), QStringLiteral("w"));
        QVERIFY(completion);
        QCOMPARE(completion->value(QStringLiteral("suggestions")).toArray(),
                 (QJsonArray{QStringLiteral("Docker.txt"), QStringLiteral("Documents/")}));
        QCOMPARE(completion->value(QStringLiteral("replacement")).toString(), QStringLiteral("Doc"));
        QCOMPARE(completion->value(QStringLiteral("replacementStart")), QJsonValue(3));
        QCOMPARE(completion->value(QStringLiteral("replacementEnd")), QJsonValue(6));
        // The shell really went there too.
        f.server.send(input(QStringLiteral("w"), "pwd\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("w"), QStringLiteral("/W/My Folder\r\n")));
        // An unknown session gets nothing.
        f.server.send(
            terminal("terminal.complete", QStringLiteral("nope"), {{QStringLiteral("line"), QStringLiteral("ls")}}));
        f.server.send(terminal("terminal.resize", QStringLiteral("nope"), {{QStringLiteral("cols"), 1}}));
        f.server.send(input(QStringLiteral("nope"), "x"));
        f.server.send(terminal("terminal.close", QStringLiteral("nope")));
        f.server.send(
            terminal("terminal.input", QStringLiteral("w"), {{QStringLiteral("dataBase64"), QStringLiteral("@@@")}}));
        QTest::qWait(300);
        QCOMPARE(f.server.messagesOfType(QStringLiteral("terminal.error")).size(), 0);
    }

    void missingIdOrProjectIsAnError()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("m"), QStringLiteral("  "));
        const std::optional<QJsonObject> error = waitForEvent(f, QStringLiteral("terminal.error"), QStringLiteral("m"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Missing terminal session id or project path."));
    }

    void sessionsSurviveAReconnection()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("s"), QStringLiteral("S"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("s")));
        f.server.send(input(QStringLiteral("s"), "echo before\n"));
        QVERIFY(waitForOutput(f, QStringLiteral("s"), QStringLiteral("before")));
        f.server.closeClient();
        QVERIFY(f.server.waitForConnections(2));
        f.server.clearMessages();
        f.server.send(terminal("terminal.attach", QStringLiteral("s")));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) {
            return m.value(QStringLiteral("snapshot")) == QJsonValue(true) &&
                   m.value(QStringLiteral("data")).toString().contains(QStringLiteral("before"));
        }));
    }

    void stopClosesEverySession()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        open(f, QStringLiteral("q1"), QStringLiteral("Q1"));
        open(f, QStringLiteral("q2"), QStringLiteral("Q2"), QStringLiteral("interactive"));
        QVERIFY(waitForEvent(f, QStringLiteral("terminal.opened"), QStringLiteral("q2")));
        QCOMPARE(childProcesses().size(), 2);
        f.runtime->stop();
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
    }

    void nothingIsLeftBehind()
    {
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 5000));
        QVERIFY(waitUntil([&] { return openDescriptorCount() <= m_descriptorsAtStart; }, 5000));
        QCOMPARE(openDescriptorCount(), m_descriptorsAtStart);
    }
};

QTEST_GUILESS_MAIN(TstTerminalSessions)
#include "tst_terminal_sessions.moc"
