// Terminal sessions on real pseudo-terminals, driven through a loopback server.
#include "support/terminal_fixture.h"
#include "support/test_support.h"
#include "terminal/pty_session.h"
#include "terminal/read_ahead_window.h"
#include "terminal/replay_buffer.h"
#include "terminal/terminal_session_manager.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

bool logged(const TerminalFixture& f, const QString& start)
{
    const QStringList texts = f.log.texts();
    return std::any_of(texts.begin(), texts.end(), [&](const QString& text) { return text.startsWith(start); });
}

} // namespace

class TstTerminalSessions : public QObject {
    Q_OBJECT

    int m_descriptorsAtStart = 0;

private Q_SLOTS:
    void initTestCase() { m_descriptorsAtStart = openDescriptorCount(); }

    // The shells of an earlier test are killed when its agent goes and reaped as the
    // loop runs on: each test starts without them.
    void init()
    {
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }));
    }

    void lineModeRunsCommandsWithoutEcho()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("s1"), QStringLiteral("App"));
        const std::optional<QJsonObject> opened =
            f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("s1"));
        QVERIFY(opened);
        QVERIFY(!opened->contains(QStringLiteral("mode")));
        QCOMPARE(opened->value(QStringLiteral("status")).toString(), QStringLiteral("running"));
        const QString workingDir = f.repo.path() + QStringLiteral("/App");
        QVERIFY(f.waitForOutput(QStringLiteral("s1"), QStringLiteral("[terminal started in ") + workingDir +
                                                          QStringLiteral("]\n[try: pwd, ls, codex, claude]\n")));
        QVERIFY(logged(f, QStringLiteral("terminal.open sessionId=s1 projectPath=App pid=")));

        f.type(QStringLiteral("s1"), "echo \"$BRINMOOR_PROJECT_PATH:$TERM:$BRINMOOR_REPO_ROOT\"; pwd\n");
        QVERIFY(f.waitForOutput(QStringLiteral("s1"), workingDir + QStringLiteral("\r\n")));
        const QString text = f.output(QStringLiteral("s1"));
        const QString term = qEnvironmentVariable("TERM", QStringLiteral("xterm-256color"));
        QVERIFY2(text.contains(QStringLiteral("App:") + (term.isEmpty() ? QStringLiteral("xterm-256color") : term) +
                               QLatin1Char(':') + f.repo.path() + QStringLiteral("\r\n")),
                 qPrintable(text));
        // The shell does not echo the command; the agent shows it once, above its output.
        QCOMPARE(text.count(QStringLiteral("echo \"$BRINMOOR")), 1);
        QVERIFY(text.contains(QStringLiteral("\x1b[1;34m\u203a\x1b[0m echo \"$BRINMOOR")));
    }

    void interactiveModeEchoesAndRunsALoginShell()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("i1"), QStringLiteral("Shell"), QStringLiteral(" Interactive "));
        const std::optional<QJsonObject> opened =
            f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("i1"));
        QVERIFY(opened);
        QCOMPARE(opened->value(QStringLiteral("mode")).toString(), QStringLiteral("interactive"));
        QVERIFY(logged(f, QStringLiteral("terminal.open.interactive sessionId=i1 projectPath=Shell pid=")));
        f.type(QStringLiteral("i1"), "echo mark-$((6*7))\n");
        // The typed line comes back (echo), then its result.
        QVERIFY(f.waitForOutput(QStringLiteral("i1"), QStringLiteral("echo mark-$((6*7))")));
        QVERIFY(f.waitForOutput(QStringLiteral("i1"), QStringLiteral("mark-42")));
        // The shell's first output (its prompt) comes after "terminal.opened".
        const QList<QJsonObject> events = f.server.messages();
        const auto first = std::find_if(events.begin(), events.end(), [](const QJsonObject& m) {
            return m.value(QStringLiteral("sessionId")) == QStringLiteral("i1");
        });
        QCOMPARE(first->value(QStringLiteral("type")).toString(), QStringLiteral("terminal.opened"));
        f.type(QStringLiteral("i1"), "echo \"at:$PWD\"\n");
        QVERIFY(
            f.waitForOutput(QStringLiteral("i1"), QStringLiteral("at:") + f.repo.path() + QStringLiteral("/Shell")));
        // Closing an interactive session is silent, also once its shell has gone.
        const qint64 pid = f.pidOf(QStringLiteral("i1"));
        QVERIFY(processExists(pid));
        f.send("terminal.close", QStringLiteral("i1"));
        QVERIFY(waitUntil([&] { return !processExists(pid); }));
        QVERIFY(f.barrier());
        QVERIFY(f.events(QStringLiteral("terminal.closed"), QStringLiteral("i1")).isEmpty());
    }

    void aClosedInteractiveSessionGivesWayToANewOneForTheRelay()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        TerminalSessionManager& manager = f.runtime->terminalSessionManager();
        QVERIFY(manager.isExtended());
        f.open(QStringLiteral("i1"), QStringLiteral("Q"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("i1")));
        f.send("terminal.close", QStringLiteral("i1"));
        QVERIFY(f.barrier());
        // The relay's clients open a new one without "replace".
        f.open(QStringLiteral("i2"), QStringLiteral("Q"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("i2")));
        QVERIFY(f.events(QStringLiteral("terminal.error"), QStringLiteral("i2")).isEmpty());
        f.type(QStringLiteral("i2"), "echo again-$((3+4))\n");
        QVERIFY(f.waitForOutput(QStringLiteral("i2"), QStringLiteral("again-7\r\n")));
        // A server that knows only the agent protocol: the closed session stays listed
        // until one replaces it.
        f.send("terminal.close", QStringLiteral("i2"));
        QVERIFY(f.barrier());
        manager.setExtended(false);
        f.open(QStringLiteral("i3"), QStringLiteral("Q"), QStringLiteral("interactive"));
        const std::optional<QJsonObject> error = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("i3"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Active terminal session already exists for this project."));
        // A live session refuses a second one either way.
        manager.setExtended(true);
        f.open(QStringLiteral("i4"), QStringLiteral("Q"), QStringLiteral("interactive"),
               {{QStringLiteral("replace"), true}});
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("i4")));
        f.open(QStringLiteral("i5"), QStringLiteral("Q"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("i5")));
    }

    void secondOpenWithoutReplaceIsRefused()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("a"), QStringLiteral("P"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("a")));
        f.open(QStringLiteral("b"), QStringLiteral("P"));
        const std::optional<QJsonObject> error = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("b"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("error")).toString(),
                 QStringLiteral("Active terminal session already exists for this project."));
        QCOMPARE(error->value(QStringLiteral("message")).toString(), error->value(QStringLiteral("error")).toString());
        QCOMPARE(error->value(QStringLiteral("projectPath")).toString(), QStringLiteral("P"));
        QVERIFY(f.log.contains(QStringLiteral(
            "terminal.error sessionId=b projectPath=P message=Active terminal session already exists for this project.")));
        // The first one still runs.
        f.type(QStringLiteral("a"), "echo still-here\n");
        QVERIFY(f.waitForOutput(QStringLiteral("a"), QStringLiteral("still-here")));
    }

    void replaceByIdClosesThatSessionAndOpensAtOnce()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("old"), QStringLiteral("X"));
        f.open(QStringLiteral("other"), QStringLiteral("Y"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("other")));
        f.open(QStringLiteral("new"), QStringLiteral("Y"), QString(),
               {{QStringLiteral("replace"), QStringLiteral("YES")},
                {QStringLiteral("replaceSessionId"), QStringLiteral("old")}});
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("new")));
        const std::optional<QJsonObject> closed =
            f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("old"));
        QVERIFY(closed);
        // The line-mode shell's termination status: SIGTERM's number.
        QCOMPARE(*closed, (QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.closed")},
                                       {QStringLiteral("sessionId"), QStringLiteral("old")},
                                       {QStringLiteral("projectPath"), QStringLiteral("X")},
                                       {QStringLiteral("exitCode"), 15}}));
        // "other" was not the one named, and keeps running.
        f.type(QStringLiteral("other"), "echo alive\n");
        QVERIFY(f.waitForOutput(QStringLiteral("other"), QStringLiteral("alive")));
    }

    void replayKeepsTheNewest128ChunksWithoutTheGreeting()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("r"), QStringLiteral("R"));
        QVERIFY(f.waitForOutput(QStringLiteral("r"), QStringLiteral("[try: pwd, ls, codex, claude]\n")));
        // Each line is printed only after the previous one has arrived, so each is read
        // apart: at least one chunk per line, 130 lines in all.
        for (int i = 1; i <= 130; ++i) {
            f.type(QStringLiteral("r"), "echo line" + QByteArray::number(i) + "\n");
            // The line the shell prints, after the agent's echo of the command.
            QVERIFY(f.waitForOutput(QStringLiteral("r"), QStringLiteral("\r\nline%1\r\n").arg(i)));
        }
        QStringList chunks = f.chunks(QStringLiteral("r"));
        chunks.removeFirst(); // the greeting
        QVERIFY2(chunks.size() >= 130, qPrintable(QString::number(chunks.size())));
        f.server.clearMessages();
        f.send("terminal.attach", QStringLiteral("r"));
        QVERIFY(f.barrier());
        const QList<QJsonObject> events = f.server.messages();
        QCOMPARE(events.first().value(QStringLiteral("type")).toString(), QStringLiteral("terminal.opened"));
        QCOMPARE(events.first().value(QStringLiteral("sessionId")).toString(), QStringLiteral("r"));
        QVERIFY(!events.first().contains(QStringLiteral("mode")));
        QStringList replayed;
        for (const QJsonObject& m : f.events(QStringLiteral("terminal.output"), QStringLiteral("r"))) {
            QCOMPARE(m.value(QStringLiteral("snapshot")), QJsonValue(true));
            replayed.append(m.value(QStringLiteral("data")).toString());
        }
        QCOMPARE(replayed, chunks.mid(chunks.size() - 128));
        QVERIFY(!replayed.join(QString()).contains(QStringLiteral("[terminal started")));
    }

    void aFloodIsReplayedFromItsNewestReads()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("big"), QStringLiteral("B"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("big")));
        f.type(QStringLiteral("big"), "head -c 3000000 /dev/zero | tr '\\0' x; echo; echo replay-$((40+2))\n");
        QVERIFY(f.waitForOutput(QStringLiteral("big"), QStringLiteral("replay-42"), 30000));
        const QStringList chunks = f.chunks(QStringLiteral("big"));
        f.server.clearMessages();
        f.send("terminal.attach", QStringLiteral("big"));
        QVERIFY(f.barrier());
        QStringList replayed;
        for (const QJsonObject& m : f.events(QStringLiteral("terminal.output"), QStringLiteral("big")))
            replayed.append(m.value(QStringLiteral("data")).toString());
        // Our relay's pages take pieces of up to 64 KiB.
        for (const QString& chunk : chunks)
            QVERIFY2(chunk.size() <= PtySession::kLargeChunkLimit, qPrintable(QString::number(chunk.size())));
        // The newest reads, whole, within the replay buffer's bounds.
        QCOMPARE(replayed, chunks.mid(chunks.size() - replayed.size()));
        QVERIFY(replayed.size() <= ReplayBuffer::kMaxReads);
        QVERIFY(replayed.join(QString()).size() <= ReplayBuffer::kMaxUnits);
        QVERIFY(replayed.join(QString()).contains(QStringLiteral("replay-42")));
    }

    void attachToAnUnknownSession()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.send("terminal.attach", QStringLiteral(" ghost "));
        const std::optional<QJsonObject> error =
            f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("ghost"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal session not found."));
        QCOMPARE(error->value(QStringLiteral("projectPath")).toString(), QString());
    }

    void resizeReportsTheRequestedSize()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("z"), QStringLiteral("Z"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("z")));
        f.send("terminal.resize", QStringLiteral("z"), {{QStringLiteral("cols"), 0}, {QStringLiteral("rows"), 0}});
        const std::optional<QJsonObject> status =
            f.waitForEvent(QStringLiteral("terminal.status"), QStringLiteral("z"));
        QVERIFY(status);
        QCOMPARE(status->value(QStringLiteral("status")).toString(), QStringLiteral("running"));
        QCOMPARE(status->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal ready (0x0)"));
        f.type(QStringLiteral("z"), "stty size\n");
        QVERIFY(f.waitForOutput(QStringLiteral("z"), QStringLiteral("1 1\r\n")));
        f.send("terminal.resize", QStringLiteral("z"), {{QStringLiteral("cols"), -5}, {QStringLiteral("rows"), 30.7}});
        const std::optional<QJsonObject> second =
            f.waitForEvent(QStringLiteral("terminal.status"), QStringLiteral("z"), 1);
        QVERIFY(second);
        QCOMPARE(second->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal ready (0x30)"));
    }

    void ctrlCInterruptsARunningSleep()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("c"), QStringLiteral("C"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("c")));
        f.type(QStringLiteral("c"), "sleep 30; echo slept\n");
        // The interrupt is for the sleep, so it goes once the sleep runs in the foreground.
        const qint64 shell = f.pidOf(QStringLiteral("c"));
        QVERIFY(waitUntil([&] {
            const QList<qint64> children = childProcesses(shell);
            return std::any_of(children.begin(), children.end(), [](qint64 pid) {
                return test::readFile(QStringLiteral("/proc/%1/comm").arg(pid)) == "sleep\n";
            });
        }));
        f.send("terminal.signal", QStringLiteral("c"), {{QStringLiteral("signal"), QStringLiteral(" CTRL_C ")}});
        f.type(QStringLiteral("c"), "echo after-$((1+1))\n");
        // Well within the sleep: only the interrupt lets the next command run this soon.
        QVERIFY2(f.waitForOutput(QStringLiteral("c"), QStringLiteral("after-2\r\n"), 15000),
                 qPrintable(f.output(QStringLiteral("c"))));
        QVERIFY(!f.output(QStringLiteral("c")).contains(QStringLiteral("\r\nslept")));
    }

    void ctrlCIsOneByteAndUnknownNamesDoNothing()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("b"), QStringLiteral("B"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("b")));
        // With signals off the terminal passes the byte on, and the shell prints it.
        f.type(QStringLiteral("b"), "stty -isig; echo ready; IFS= read -r x; print -rn -- \"$x\" | od -An -tx1\n");
        QVERIFY(f.waitForOutput(QStringLiteral("b"), QStringLiteral("ready\r\n")));
        f.send("terminal.signal", QStringLiteral("b"), {{QStringLiteral("signal"), QStringLiteral("stop")}});
        f.send("terminal.signal", QStringLiteral("b"), {{QStringLiteral("signal"), QStringLiteral("Ctrl_C")}});
        f.type(QStringLiteral("b"), "\n");
        QVERIFY(f.waitForOutput(QStringLiteral("b"), QStringLiteral(" 03\r\n")));
        // The empty line that ends the read is shown as entered.
        QCOMPARE(f.output(QStringLiteral("b")).section(QStringLiteral("ready\r\n"), 1),
                 QStringLiteral("\x1b[1;34m\u203a\x1b[0m \r\n 03\r\n"));
    }

    void lineModeInterruptReachesTheForegroundJob()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("l"), QStringLiteral("L"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("l")));
        f.type(QStringLiteral("l"), "echo ready-$((1+1)); sleep 30\n");
        QVERIFY(f.waitForOutput(QStringLiteral("l"), QStringLiteral("ready-2\r\n")));
        f.send("terminal.signal", QStringLiteral("l"), {{QStringLiteral("signal"), QStringLiteral("interrupt")}});
        // The interrupt ends the job; the line-mode shell, which has no job control,
        // ends with it, and reports SIGINT's number.
        const std::optional<QJsonObject> closed =
            f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("l"));
        QVERIFY(closed);
        QCOMPARE(closed->value(QStringLiteral("exitCode")), QJsonValue(2));
    }

    void aSessionIsReadNoFurtherThanItsSlowestReaderAllows()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("p"), QStringLiteral("P"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("p")));
        const auto pace = [](qint64 rendered) {
            return QJsonObject{
                {QStringLiteral("type"), QStringLiteral("terminal.ack")},
                {QStringLiteral("payload"), QJsonObject{{QStringLiteral("sessionId"), QStringLiteral("p")},
                                                        {QStringLiteral("offset"), rendered}}}};
        };
        // How far the session's live output has got.
        const auto newest = [&] {
            qint64 offset = 0;
            for (const QJsonObject& output : f.events(QStringLiteral("terminal.output"), QStringLiteral("p")))
                offset = std::max(offset, output.value(QStringLiteral("offset")).toInteger());
            return offset;
        };
        f.server.send(pace(0));
        f.type(QStringLiteral("p"), "yes\n");
        QVERIFY(waitUntil([&] { return newest() >= ReadAheadWindow::kMinimum; }));
        // Round trips through the agent, each giving its reader turns: it reads no further.
        for (int i = 0; i < 5; ++i)
            QVERIFY(f.barrier());
        const qint64 held = newest();
        QVERIFY2(held < ReadAheadWindow::kMinimum + 64 * 1024, qPrintable(QString::number(held)));
        // The reader has rendered it all: the terminal goes on.
        f.server.send(pace(held));
        QVERIFY(waitUntil([&] { return newest() >= held + ReadAheadWindow::kMinimum; }));
        // The connection is lost for a while and comes back with the pace from before it:
        // what the session gave meanwhile, never sent, does not hold it back.
        const qint64 before = newest();
        const quint16 port = f.server.port();
        f.server.close();
        const PtySession* session = f.runtime->terminalSessionManager().session(QStringLiteral("p"));
        QVERIFY(waitUntil([&] { return session->outputOffset() > before + 4 * ReadAheadWindow::kMinimum; }));
        f.server.setGreeting({pace(before)});
        QVERIFY(f.server.listen(port));
        QVERIFY(f.server.waitForConnections(2));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "agent.state"; }, 10000, 1));
        f.server.clearMessages();
        QVERIFY(waitUntil([&] { return newest() > before; }));
        f.send("terminal.close", QStringLiteral("p"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("p")));
    }

    void shellExitStatusAndKill()
    {
        const auto closed = [](const char* sessionId, const char* projectPath, int exitCode) {
            return QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.closed")},
                               {QStringLiteral("sessionId"), QLatin1String(sessionId)},
                               {QStringLiteral("projectPath"), QLatin1String(projectPath)},
                               {QStringLiteral("exitCode"), exitCode}};
        };
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("e"), QStringLiteral("E"));
        f.open(QStringLiteral("k"), QStringLiteral("K"), QStringLiteral("interactive"));
        f.open(QStringLiteral("lk"), QStringLiteral("LK"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("e")));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("k")));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("lk")));
        f.type(QStringLiteral("e"), "exit 3\n");
        const std::optional<QJsonObject> three = f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("e"));
        QVERIFY(three);
        QCOMPARE(*three, closed("e", "E", 3));
        // An interactive shell killed by a signal reports 128 plus its number, a
        // line-mode shell the number itself (its termination status).
        f.send("terminal.signal", QStringLiteral("k"), {{QStringLiteral("signal"), QStringLiteral("SIGKILL")}});
        const std::optional<QJsonObject> killed =
            f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("k"));
        QVERIFY(killed);
        QCOMPARE(*killed, closed("k", "K", 137));
        f.send("terminal.signal", QStringLiteral("lk"), {{QStringLiteral("signal"), QStringLiteral("kill")}});
        const std::optional<QJsonObject> lineKilled =
            f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("lk"));
        QVERIFY(lineKilled);
        QCOMPARE(*lineKilled, closed("lk", "LK", 9));
        // The interactive shell exiting by itself reports its status too.
        f.open(QStringLiteral("x"), QStringLiteral("X"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("x")));
        f.type(QStringLiteral("x"), "exit 3\n");
        const std::optional<QJsonObject> own = f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("x"));
        QVERIFY(own);
        QCOMPARE(*own, closed("x", "X", 3));
    }

    void theFolderOfATerminalFallsBackToTheRepositoryRoot()
    {
        QTemporaryDir dir;
        const QString repo = dir.path() + QStringLiteral("/repo");
        QDir().mkpath(repo + QStringLiteral("/App"));
        QDir().mkpath(repo + QStringLiteral("/proj/Old"));
        QDir().mkpath(dir.path() + QStringLiteral("/elsewhere"));
        test::writeFile(repo + QStringLiteral("/notes.txt"));
        const auto resolved = [&](const QString& projectPath) -> QString {
            const TerminalWorkspace workspace = resolveTerminalWorkspacePath(repo, projectPath);
            return workspace.path + (workspace.projectPathMissing ? QStringLiteral(" (missing)") : QString());
        };
        QCOMPARE(resolved(dir.path() + QStringLiteral("/elsewhere")), dir.path() + QStringLiteral("/elsewhere"));
        QCOMPARE(resolved(QStringLiteral("App")), repo + QStringLiteral("/App"));
        QCOMPARE(resolved(QStringLiteral("Old")), repo + QStringLiteral("/proj/Old"));
        // A file passes the existence test too.
        QCOMPARE(resolved(QStringLiteral("notes.txt")), repo + QStringLiteral("/notes.txt"));
        // An absolute path that is not there is looked for under the root as well.
        QCOMPARE(resolved(QStringLiteral("/App")), repo + QStringLiteral("/App"));
        QCOMPARE(resolved(QStringLiteral("Nowhere")), repo + QStringLiteral(" (missing)"));
        QCOMPARE(resolved(dir.path() + QStringLiteral("/gone")), repo + QStringLiteral(" (missing)"));
    }

    void theRelaysExtensionsGoOnlyToARelayThatAskedForThem()
    {
        const auto opened = [](const char* sessionId, const char* projectPath, bool interactive, bool missing) {
            QJsonObject message{{QStringLiteral("type"), QStringLiteral("terminal.opened")},
                                {QStringLiteral("sessionId"), QLatin1String(sessionId)},
                                {QStringLiteral("projectPath"), QLatin1String(projectPath)},
                                {QStringLiteral("status"), QStringLiteral("running")}};
            if (interactive)
                message.insert(QStringLiteral("mode"), QStringLiteral("interactive"));
            if (missing)
                message.insert(QStringLiteral("projectPathMissing"), true);
            return message;
        };
        TerminalFixture f;
        QVERIFY(f.connect());
        TerminalSessionManager& manager = f.runtime->terminalSessionManager();
        // The fixture's relay announced its extensions; the agent speaks plain to a
        // server that did not, and then neither "projectPathMissing" nor "offset" goes out.
        QVERIFY(manager.isExtended());
        manager.setExtended(false);
        f.open(QStringLiteral("pm"), QStringLiteral("Missing"), QString(), {}, false);
        f.open(QStringLiteral("pi"), QStringLiteral("MissingToo"), QStringLiteral("interactive"), {}, false);
        const std::optional<QJsonObject> plainLine =
            f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("pm"));
        const std::optional<QJsonObject> plainLogin =
            f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("pi"));
        QVERIFY(plainLine);
        QVERIFY(plainLogin);
        QCOMPARE(*plainLine, opened("pm", "Missing", false, false));
        QCOMPARE(*plainLogin, opened("pi", "MissingToo", true, false));
        f.type(QStringLiteral("pm"), "echo plain-$((1+1))\n");
        QVERIFY(f.waitForOutput(QStringLiteral("pm"), QStringLiteral("plain-2\r\n")));
        f.type(QStringLiteral("pi"), "echo plain-$((2+2))\n");
        QVERIFY(f.waitForOutput(QStringLiteral("pi"), QStringLiteral("plain-4\r\n")));
        for (const QJsonObject& m : f.server.messages()) {
            QVERIFY2(!m.contains(QStringLiteral("offset")), QJsonDocument(m).toJson().constData());
            QVERIFY2(!m.contains(QStringLiteral("projectPathMissing")), QJsonDocument(m).toJson().constData());
        }

        // Extended: the folder that was missing is said, and live output has its offset.
        manager.setExtended(true);
        QVERIFY(manager.isExtended());
        f.open(QStringLiteral("em"), QStringLiteral("Gone"), QString(), {}, false);
        f.open(QStringLiteral("ei"), QStringLiteral("GoneToo"), QStringLiteral("interactive"), {}, false);
        f.open(QStringLiteral("ep"), QStringLiteral("There"));
        const std::optional<QJsonObject> line = f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("em"));
        const std::optional<QJsonObject> login =
            f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("ei"));
        const std::optional<QJsonObject> there =
            f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("ep"));
        QVERIFY(line);
        QVERIFY(login);
        QVERIFY(there);
        QCOMPARE(*line, opened("em", "Gone", false, true));
        QCOMPARE(*login, opened("ei", "GoneToo", true, true));
        QCOMPARE(*there, opened("ep", "There", false, false));
        f.type(QStringLiteral("em"), "echo extended-$((1+1))\n");
        QVERIFY(f.waitForOutput(QStringLiteral("em"), QStringLiteral("extended-2\r\n")));
        const QList<QJsonObject> outputs = f.events(QStringLiteral("terminal.output"), QStringLiteral("em"));
        // The greeting has no offset; live output counts from its first piece on.
        QVERIFY(!outputs.first().contains(QStringLiteral("offset")));
        qint64 given = 0;
        for (const QJsonObject& output : outputs.mid(1)) {
            given += output.value(QStringLiteral("data")).toString().size();
            QCOMPARE(output.value(QStringLiteral("offset")), QJsonValue(given));
        }
        // The command first, as the agent echoes it in line mode to our relay.
        const QString echoed = QStringLiteral("\x1b[1;34m\u203a\x1b[0m echo extended-$((1+1))\r\n");
        QCOMPARE(f.output(QStringLiteral("em")).right(echoed.size() + 12), echoed + QStringLiteral("extended-2\r\n"));
        QCOMPARE(given, qint64(echoed.size() + QStringLiteral("extended-2\r\n").size()));
        // A replay has been counted already: no offset, extended or not.
        f.send("terminal.attach", QStringLiteral("em"));
        QVERIFY(f.barrier());
        const QList<QJsonObject> replayed = f.events(QStringLiteral("terminal.output"), QStringLiteral("em"));
        QCOMPARE(replayed.size(), outputs.size() + outputs.size() - 1);
        for (const QJsonObject& output : replayed.mid(outputs.size())) {
            QCOMPARE(output.value(QStringLiteral("snapshot")), QJsonValue(true));
            QVERIFY(!output.contains(QStringLiteral("offset")));
        }
        // An attach never says that a folder was missing.
        QCOMPARE(f.events(QStringLiteral("terminal.opened"), QStringLiteral("em")).last(),
                 opened("em", "Gone", false, false));

        // Plain again: the offsets stop.
        manager.setExtended(false);
        const qsizetype before = f.server.messages().size();
        f.type(QStringLiteral("em"), "echo plain-again\n");
        QVERIFY(f.waitForOutput(QStringLiteral("em"), QStringLiteral("plain-again\r\n")));
        for (const QJsonObject& m : f.server.messages().mid(before))
            QVERIFY2(!m.contains(QStringLiteral("offset")), QJsonDocument(m).toJson().constData());
    }

    void completionFollowsCdWithQuotesAndEscapes()
    {
        TerminalFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/W/My Folder/Documents"));
        test::writeFile(f.repo.path() + QStringLiteral("/W/My Folder/Docker.txt"));
        QVERIFY(f.connect());
        f.open(QStringLiteral("w"), QStringLiteral("W"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("w")));
        f.type(QStringLiteral("w"), "cd My\\ Folder\n");
        f.send("terminal.complete", QStringLiteral("w"),
               {{QStringLiteral("line"), QStringLiteral("ls Doc")}, {QStringLiteral("cursor"), 6}});
        const std::optional<QJsonObject> completion =
            f.waitForEvent(QStringLiteral("terminal.completion"), QStringLiteral("w"));
        QVERIFY(completion);
        QCOMPARE(completion->value(QStringLiteral("projectPath")).toString(), QStringLiteral("W"));
        QCOMPARE(completion->value(QStringLiteral("suggestions")).toArray(),
                 (QJsonArray{QStringLiteral("Docker.txt"), QStringLiteral("Documents/")}));
        QCOMPARE(completion->value(QStringLiteral("replacement")).toString(), QStringLiteral("Doc"));
        QCOMPARE(completion->value(QStringLiteral("replacementStart")), QJsonValue(3));
        QCOMPARE(completion->value(QStringLiteral("replacementEnd")), QJsonValue(6));
        // The shell really went there too.
        f.type(QStringLiteral("w"), "pwd\n");
        QVERIFY(f.waitForOutput(QStringLiteral("w"), QStringLiteral("/W/My Folder\r\n")));
        // Undecodable input is ignored without a word.
        f.send("terminal.input", QStringLiteral("w"), {{QStringLiteral("dataBase64"), QStringLiteral("@@@")}});
        QVERIFY(f.barrier());
        QVERIFY(f.events(QStringLiteral("terminal.error"), QStringLiteral("w")).isEmpty());
    }

    void completionWithoutACursorCountsCodePoints()
    {
        TerminalFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/U/\U0001F4C1 one"));
        QDir().mkpath(f.repo.path() + QStringLiteral("/U/\U0001F4C1 two"));
        QVERIFY(f.connect());
        f.open(QStringLiteral("u"), QStringLiteral("U"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("u")));
        // No cursor: the end of the line, seven code points (eight UTF-16 units).
        f.send("terminal.complete", QStringLiteral("u"),
               {{QStringLiteral("line"), QStringLiteral("ls \U0001F4C1\\ t")}});
        const std::optional<QJsonObject> completion =
            f.waitForEvent(QStringLiteral("terminal.completion"), QStringLiteral("u"));
        QVERIFY(completion);
        QCOMPARE(completion->value(QStringLiteral("suggestions")).toArray(),
                 QJsonArray{QStringLiteral("\U0001F4C1 two/")});
        QCOMPARE(completion->value(QStringLiteral("replacement")).toString(), QStringLiteral("\U0001F4C1\\ two/"));
        QCOMPARE(completion->value(QStringLiteral("replacementStart")), QJsonValue(3));
        QCOMPARE(completion->value(QStringLiteral("replacementEnd")), QJsonValue(7));
    }

    void missingIdOrProjectIsAnError()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("m"), QStringLiteral("  "), QString(), {}, false);
        const std::optional<QJsonObject> error = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("m"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Missing terminal session id or project path."));
        QCOMPARE(error->value(QStringLiteral("projectPath")).toString(), QString());
    }

    void anAttachSaysTheTerminalSizeWhereExtensionsWereAnnounced()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        TerminalSessionManager& manager = f.runtime->terminalSessionManager();
        f.open(QStringLiteral("w"), QStringLiteral("W"), QStringLiteral("interactive"));
        f.open(QStringLiteral("l"), QStringLiteral("L"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("w")));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("l")));
        f.send("terminal.resize", QStringLiteral("w"), {{QStringLiteral("cols"), 132}, {QStringLiteral("rows"), 40}});
        const auto attachedOf = [&](const QString& sessionId) {
            f.server.clearMessages();
            f.send("terminal.attach", sessionId);
            return f.barrier() ? f.events(QStringLiteral("terminal.opened"), sessionId).value(0) : QJsonObject();
        };
        // What the terminal is sized to now: the width of the output the replay ends with.
        QCOMPARE(attachedOf(QStringLiteral("w")),
                 QJsonObject({{QStringLiteral("type"), QStringLiteral("terminal.opened")},
                              {QStringLiteral("sessionId"), QStringLiteral("w")},
                              {QStringLiteral("projectPath"), QStringLiteral("W")},
                              {QStringLiteral("status"), QStringLiteral("running")},
                              {QStringLiteral("cols"), 132},
                              {QStringLiteral("rows"), 40}}));
        // A line-mode session has no window to say.
        QVERIFY(!attachedOf(QStringLiteral("l")).contains(QStringLiteral("cols")));
        // To a server that announced nothing, an attach is answered as ever.
        manager.setExtended(false);
        QCOMPARE(attachedOf(QStringLiteral("w")),
                 QJsonObject({{QStringLiteral("type"), QStringLiteral("terminal.opened")},
                              {QStringLiteral("sessionId"), QStringLiteral("w")},
                              {QStringLiteral("projectPath"), QStringLiteral("W")},
                              {QStringLiteral("status"), QStringLiteral("running")}}));
    }

    void aLineModeCommandIsShownAboveItsOutputToOurRelay()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        TerminalSessionManager& manager = f.runtime->terminalSessionManager();
        f.open(QStringLiteral("e"), QStringLiteral("E"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("e")));
        // Two lines at once, one with an escape that would colour the terminal, and a
        // piece of a line that is not one yet.
        f.type(QStringLiteral("e"), "echo one\nprint -r -- '\x1b[31mred'\necho tw");
        f.type(QStringLiteral("e"), "o\n");
        QVERIFY(f.waitForOutput(QStringLiteral("e"), QStringLiteral("red\r\ntwo\r\n")));
        const QString sign = QStringLiteral("\x1b[1;34m\u203a\x1b[0m ");
        const QString output = f.output(QStringLiteral("e"));
        // Each command before what it prints; the piece of a line waited for its end.
        const QStringList expected{sign + QStringLiteral("echo one\r\n"),
                                   sign + QStringLiteral("print -r -- '^[[31mred'\r\n"), QStringLiteral("one\r\n"),
                                   QStringLiteral("\x1b[31mred\r\n"), QStringLiteral("two\r\n")};
        QVERIFY(output.indexOf(sign + QStringLiteral("echo two\r\n")) < output.indexOf(QStringLiteral("two\r\n")));
        qsizetype at = 0;
        for (const QString& piece : expected) {
            const qsizetype found = output.indexOf(piece, at);
            QVERIFY2(found >= at, qPrintable(QString::fromLatin1(QJsonDocument(QJsonArray{piece, output}).toJson())));
            at = found + piece.size();
        }
        // A replay has the commands too.
        f.server.clearMessages();
        f.send("terminal.attach", QStringLiteral("e"));
        QVERIFY(f.barrier());
        QString replayed;
        for (const QJsonObject& m : f.events(QStringLiteral("terminal.output"), QStringLiteral("e")))
            replayed += m.value(QStringLiteral("data")).toString();
        QVERIFY(replayed.contains(sign + QStringLiteral("echo one\r\n")));
        // To a server that announced nothing, a line-mode shell echoes nothing, as ever.
        manager.setExtended(false);
        f.server.clearMessages();
        f.type(QStringLiteral("e"), "echo plain\n");
        QVERIFY(f.waitForOutput(QStringLiteral("e"), QStringLiteral("plain\r\n")));
        QCOMPARE(f.output(QStringLiteral("e")), QStringLiteral("plain\r\n"));
        QVERIFY(!f.output(QStringLiteral("e")).contains(QStringLiteral("\u203a")));
    }

    void sessionsSurviveAReconnection()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("s"), QStringLiteral("S"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("s")));
        f.type(QStringLiteral("s"), "echo before\n");
        QVERIFY(f.waitForOutput(QStringLiteral("s"), QStringLiteral("before")));
        f.server.closeClient();
        QVERIFY(f.server.waitForConnections(2));
        f.server.clearMessages();
        f.send("terminal.attach", QStringLiteral("s"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) {
            return m.value(QStringLiteral("snapshot")) == QJsonValue(true) &&
                   m.value(QStringLiteral("data")).toString().contains(QStringLiteral("before"));
        }));
    }

    void stopClosesEverySession()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("q1"), QStringLiteral("Q1"));
        f.open(QStringLiteral("q2"), QStringLiteral("Q2"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("q1")));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("q2")));
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
