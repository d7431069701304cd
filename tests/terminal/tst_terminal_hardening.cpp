// Terminal sessions under careless or hostile use: commands for sessions that are not
// there, folders that are not there, input the shell does not read, shells that will
// not end, and many sessions opened and ended; nothing may block the agent or stay
// behind.
#include "support/process_fixtures.h"
#include "support/terminal_fixture.h"
#include "support/test_support.h"
#include "terminal/pty_session.h"
#include "terminal/terminal_session_manager.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

// A fifo the shell blocks on until the test writes a line into it.
struct Gate {
    QString path;

    explicit Gate(const QString& folder) : path(folder + QStringLiteral("/gate")) { ::mkfifo(qPrintable(path), 0600); }

    // Opens the fifo without blocking (the shell may not have opened it yet) and writes.
    bool open(const QByteArray& line) const
    {
        int fd = -1;
        waitUntil([&] {
            fd = ::open(qPrintable(path), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return fd >= 0 || errno != ENXIO;
        });
        if (fd < 0)
            return false;
        const bool written = ::write(fd, line.constData(), size_t(line.size())) == line.size();
        ::close(fd);
        return written;
    }
};

// The shell's process id from the "terminal.open" line of an agent program's log.
qint64 shellPid(AgentProcess& agent, const QString& sessionId)
{
    const QRegularExpression line(QStringLiteral("^terminal\\.open(?:\\.interactive)? sessionId=") + sessionId +
                                  QStringLiteral(" .* pid=(\\d+)$"));
    for (const QString& text : agent.logTexts()) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch())
            return match.captured(1).toLongLong();
    }
    return 0;
}

} // namespace

class TstTerminalHardening : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The shells of an earlier test are killed when its agent goes and reaped as the
    // loop runs on: each test starts without them.
    void init()
    {
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }));
    }

    void commandsForAMissingOrClosedSessionAreAnswered()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("gone"), QStringLiteral("G"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("gone")));
        f.send("terminal.close", QStringLiteral("gone"));
        for (const QString& id : {QStringLiteral("ghost"), QStringLiteral("gone")}) {
            f.type(id, "ls\n");
            f.send("terminal.resize", id, {{QStringLiteral("cols"), 100}, {QStringLiteral("rows"), 40}});
            f.send("terminal.signal", id, {{QStringLiteral("signal"), QStringLiteral("interrupt")}});
            f.send("terminal.close", id);
        }
        QVERIFY(f.barrier());
        for (const QString& id : {QStringLiteral("ghost"), QStringLiteral("gone")}) {
            const QList<QJsonObject> errors = f.events(QStringLiteral("terminal.error"), id);
            QCOMPARE(errors.size(), 4);
            for (const QJsonObject& error : errors) {
                QCOMPARE(error.value(QStringLiteral("error")).toString(),
                         QStringLiteral("Terminal session not found."));
                QCOMPARE(error.value(QStringLiteral("message")).toString(),
                         QStringLiteral("Terminal session not found."));
                QCOMPARE(error.value(QStringLiteral("projectPath")).toString(), QString());
            }
            QCOMPARE(f.log.texts().count(QStringLiteral("terminal.error sessionId=") + id +
                                         QStringLiteral(" projectPath= message=Terminal session not found.")),
                     4);
        }
        QVERIFY(f.events(QStringLiteral("terminal.status"), QStringLiteral("gone")).isEmpty());
        QVERIFY(f.events(QStringLiteral("terminal.closed"), QStringLiteral("gone")).isEmpty());
        // A closed interactive session stays listed until it is replaced: attach still
        // shows it, and to a server that knows only the agent protocol the project cannot
        // be opened again without replacing it (our relay's clients can).
        f.send("terminal.attach", QStringLiteral("gone"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("gone"), 1));
        f.runtime->terminalSessionManager().setExtended(false);
        f.open(QStringLiteral("again"), QStringLiteral("G"));
        const std::optional<QJsonObject> refused =
            f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("again"));
        QVERIFY(refused);
        QCOMPARE(refused->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Active terminal session already exists for this project."));
        f.open(QStringLiteral("again"), QStringLiteral("G"), QString(), {{QStringLiteral("replace"), true}});
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("again")));
        f.send("terminal.attach", QStringLiteral("gone"));
        QVERIFY(f.barrier());
        QCOMPARE(f.events(QStringLiteral("terminal.error"), QStringLiteral("gone")).size(), 5);
    }

    void aCompletionForAMissingOrClosedSessionIsNotAnswered()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("gone"), QStringLiteral("G"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("gone")));
        f.send("terminal.close", QStringLiteral("gone"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("gone")));
        QVERIFY(f.barrier());
        for (const QString& id : {QStringLiteral(" ghost "), QStringLiteral("gone")}) {
            const qsizetype messagesBefore = f.server.messages().size();
            const qsizetype linesBefore = f.log.texts().size();
            f.send("terminal.complete", id, {{QStringLiteral("line"), QStringLiteral("ls ")}});
            QVERIFY(f.barrier());
            // Between the completion and the round trip's answer nothing came: the
            // answer is the only message, its diag line the only line.
            const QList<QJsonObject> after = f.server.messages().mid(messagesBefore);
            QCOMPARE(after.size(), 1);
            QCOMPARE(after[0].value(QStringLiteral("type")).toString(), QStringLiteral("terminal.error"));
            QVERIFY(after[0].value(QStringLiteral("sessionId")).toString().startsWith(QStringLiteral("barrier-")));
            const QStringList lines = f.log.texts().mid(linesBefore);
            QCOMPARE(lines.size(), 1);
            QVERIFY2(lines[0].startsWith(QStringLiteral("terminal.error sessionId=barrier-")), qPrintable(lines[0]));
        }
        // A live session is still answered.
        f.open(QStringLiteral("live"), QStringLiteral("L"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("live")));
        f.send("terminal.complete", QStringLiteral("live"), {{QStringLiteral("line"), QStringLiteral("ls ")}});
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.completion"), QStringLiteral("live")));
    }

    void aProjectPathThatDoesNotExistStartsTheShellInTheRepositoryRoot()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("keep"), QStringLiteral("Keep"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("keep")));
        const QString repo = f.repo.path();
        const qsizetype linesBefore = f.log.texts().size();
        f.open(QStringLiteral("n"), QStringLiteral(" Nowhere "), QStringLiteral("interactive"), {}, false);
        f.open(QStringLiteral("r"), QStringLiteral("/gone/away"), QString(),
               {{QStringLiteral("replace"), true}, {QStringLiteral("replaceSessionId"), QStringLiteral("keep")}},
               false);
        const std::optional<QJsonObject> login = f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("n"));
        const std::optional<QJsonObject> line = f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("r"));
        QVERIFY(login);
        QVERIFY(line);
        // The fixture's relay announced its extensions, so it is told that the folder
        // was missing.
        QCOMPARE(*login, (QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.opened")},
                                      {QStringLiteral("sessionId"), QStringLiteral("n")},
                                      {QStringLiteral("projectPath"), QStringLiteral("Nowhere")},
                                      {QStringLiteral("status"), QStringLiteral("running")},
                                      {QStringLiteral("mode"), QStringLiteral("interactive")},
                                      {QStringLiteral("projectPathMissing"), true}}));
        QCOMPARE(*line, (QJsonObject{{QStringLiteral("type"), QStringLiteral("terminal.opened")},
                                     {QStringLiteral("sessionId"), QStringLiteral("r")},
                                     {QStringLiteral("projectPath"), QStringLiteral("/gone/away")},
                                     {QStringLiteral("status"), QStringLiteral("running")},
                                     {QStringLiteral("projectPathMissing"), true}}));
        // The line-mode greeting names the repository root.
        const std::optional<QJsonObject> greeting =
            f.waitForEvent(QStringLiteral("terminal.output"), QStringLiteral("r"));
        QVERIFY(greeting);
        QCOMPARE(greeting->value(QStringLiteral("data")).toString(),
                 QStringLiteral("[terminal started in ") + repo + QStringLiteral("]\n[try: pwd, ls, codex, claude]\n"));
        // Both shells really are there, and still see the project path as it was sent.
        f.type(QStringLiteral("r"), "echo \"at:$PWD:$BRINMOOR_PROJECT_PATH\"\n");
        QVERIFY(f.waitForOutput(QStringLiteral("r"), QStringLiteral("at:") + repo + QStringLiteral(":/gone/away\r\n")));
        f.type(QStringLiteral("n"), "echo \"at:$PWD:$BRINMOOR_PROJECT_PATH\"\n");
        QVERIFY(f.waitForOutput(QStringLiteral("n"), QStringLiteral("at:") + repo + QStringLiteral(":Nowhere\r\n")));
        // The session named for replacement was closed: its shell ended on SIGTERM.
        const std::optional<QJsonObject> closed =
            f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("keep"));
        QVERIFY(closed);
        QCOMPARE(closed->value(QStringLiteral("exitCode")), QJsonValue(15));
        f.type(QStringLiteral("keep"), "echo kept\n");
        QVERIFY(f.barrier());
        QCOMPARE(f.events(QStringLiteral("terminal.error"), QStringLiteral("keep")).size(), 1);
        QVERIFY(f.events(QStringLiteral("terminal.error"), QStringLiteral("n")).isEmpty());
        QVERIFY(f.events(QStringLiteral("terminal.error"), QStringLiteral("r")).isEmpty());
        // The log has the two opens and nothing about the missing folders.
        QStringList lines = f.log.texts().mid(linesBefore);
        lines.removeIf([](const QString& text) {
            return text.startsWith(QStringLiteral("terminal.error sessionId=barrier-")) ||
                   text.startsWith(QStringLiteral("terminal.error sessionId=keep "));
        });
        QCOMPARE(lines, (QStringList{QStringLiteral("terminal.open.interactive sessionId=n projectPath=Nowhere pid=%1")
                                         .arg(f.pidOf(QStringLiteral("n"))),
                                     QStringLiteral("terminal.open sessionId=r projectPath=/gone/away pid=%1")
                                         .arg(f.pidOf(QStringLiteral("r")))}));
    }

    void aReplacedSessionIsClosedBeforeTheNewFolderIsResolved()
    {
        QTemporaryDir repo;
        QList<QJsonObject> events;
        QStringList lines;
        bool replacedWasClosed = false;
        int profiles = 0;
        TerminalSessionManager* managerPointer = nullptr;
        TerminalSessionManager manager(
            [&] {
                // The profile is read to resolve the folder: the session being replaced
                // must have been closed by then.
                if (++profiles == 2)
                    replacedWasClosed = managerPointer->session(QStringLiteral("old"))->isClosed();
                AgentProfile profile;
                profile.repoRoot = repo.path();
                return profile;
            },
            [&](const QJsonObject& event) { events.append(event); }, [&](const QString& line) { lines.append(line); },
            nullptr);
        managerPointer = &manager;
        // Until told otherwise, the manager speaks the plain protocol.
        QVERIFY(!manager.isExtended());
        QDir().mkpath(repo.path() + QStringLiteral("/P"));
        manager.open(QStringLiteral("old"), QStringLiteral("P"), QString(), false, std::nullopt);
        QVERIFY(waitUntil([&] { return !manager.sessionIds().isEmpty() && !events.isEmpty(); }));
        QVERIFY(waitUntil([&] { return events.size() >= 2; }));
        manager.open(QStringLiteral("new"), QStringLiteral("Gone"), QString(), true, QStringLiteral("old"));
        QCOMPARE(profiles, 2);
        QVERIFY(replacedWasClosed);
        QVERIFY(waitUntil([&] {
            return std::any_of(events.begin(), events.end(), [](const QJsonObject& e) {
                return e.value(QStringLiteral("type")) == QStringLiteral("terminal.closed") &&
                       e.value(QStringLiteral("sessionId")) == QStringLiteral("old");
            });
        }));
        QVERIFY(waitUntil([&] {
            return std::any_of(events.begin(), events.end(), [](const QJsonObject& e) {
                return e.value(QStringLiteral("type")) == QStringLiteral("terminal.opened") &&
                       e.value(QStringLiteral("sessionId")) == QStringLiteral("new");
            });
        }));
        QCOMPARE(manager.session(QStringLiteral("new"))->workingDir(), repo.path());
        for (const QJsonObject& event : std::as_const(events)) {
            QVERIFY(!event.contains(QStringLiteral("projectPathMissing")));
            QVERIFY(!event.contains(QStringLiteral("offset")));
        }
        QCOMPARE(manager.sessionIds(), QStringList{QStringLiteral("new")});
        manager.close(QStringLiteral("new"));
        QVERIFY(waitUntil([&] { return manager.sessionIds().isEmpty() && childProcesses().isEmpty(); }));
    }

    void aShellThatCannotStartIsReported()
    {
        TerminalFixture f;
        test::writeFile(f.repo.path() + QStringLiteral("/notes.txt"));
        QVERIFY(f.connect());
        // The folder exists as a name but is a file: the line-mode shell cannot enter it.
        f.open(QStringLiteral("f"), QStringLiteral("notes.txt"), QString(), {}, false);
        const std::optional<QJsonObject> error = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("f"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Failed to launch terminal session: chdir: Not a directory"));
        QVERIFY(f.events(QStringLiteral("terminal.opened"), QStringLiteral("f")).isEmpty());
        // The session is gone with it, so the project can be opened again.
        f.send("terminal.close", QStringLiteral("f"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("f"), 1));
        // A login shell starts in the agent's own folder instead.
        f.open(QStringLiteral("g"), QStringLiteral("notes.txt"), QStringLiteral("interactive"), {}, false);
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("g")));
        f.type(QStringLiteral("g"), "echo \"at:$PWD:\"\n");
        QVERIFY(
            f.waitForOutput(QStringLiteral("g"), QStringLiteral("at:") + QDir::currentPath() + QStringLiteral(":")));
    }

    void aTerminalThatCannotBeAllocatedIsReported()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        QDir().mkpath(f.repo.path() + QStringLiteral("/P"));
        QDir().mkpath(f.repo.path() + QStringLiteral("/I"));
        // No descriptor left: the lowest free one is at the limit.
        rlimit saved{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &saved), 0);
        const int lowestFree = ::dup(0);
        ::close(lowestFree);
        rlimit tight = saved;
        tight.rlim_cur = rlim_t(lowestFree);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &tight), 0);
        f.open(QStringLiteral("p"), QStringLiteral("P"));
        f.open(QStringLiteral("i"), QStringLiteral("I"), QStringLiteral("interactive"));
        const std::optional<QJsonObject> line = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("p"));
        const std::optional<QJsonObject> login = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("i"));
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &saved), 0);
        QVERIFY(line);
        QVERIFY(login);
        QCOMPARE(line->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Failed to allocate PTY: Too many open files"));
        QCOMPARE(login->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Failed to allocate interactive PTY: Too many open files"));
        // Nothing of them is left: the project opens now.
        f.open(QStringLiteral("p"), QStringLiteral("P"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("p")));
    }

    void resizeBeyondSixteenBitsIsRefusedAndTheAgentGoesOn()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        f.open(QStringLiteral("z"), QStringLiteral("Z"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("z")));
        f.send("terminal.resize", QStringLiteral("z"), {{QStringLiteral("cols"), 70000}, {QStringLiteral("rows"), 2}});
        f.send("terminal.resize", QStringLiteral("z"), {{QStringLiteral("cols"), 2}, {QStringLiteral("rows"), 65536}});
        f.send("terminal.resize", QStringLiteral("z"), {{QStringLiteral("cols"), 65535}, {QStringLiteral("rows"), 7}});
        const std::optional<QJsonObject> status =
            f.waitForEvent(QStringLiteral("terminal.status"), QStringLiteral("z"));
        QVERIFY(status);
        QCOMPARE(status->value(QStringLiteral("message")).toString(), QStringLiteral("Terminal ready (65535x7)"));
        const QList<QJsonObject> errors = f.events(QStringLiteral("terminal.error"), QStringLiteral("z"));
        QCOMPARE(errors.size(), 2);
        for (const QJsonObject& error : errors)
            QCOMPARE(error.value(QStringLiteral("message")).toString(),
                     QStringLiteral("Failed to resize terminal session: columns and rows must be below 65536"));
        f.type(QStringLiteral("z"), "stty size\n");
        QVERIFY(f.waitForOutput(QStringLiteral("z"), QStringLiteral("7 65535\r\n")));
    }

    void inputTheShellDoesNotReadWaitsWithoutBlockingTheAgent()
    {
        TerminalFixture f;
        const Gate gate(f.repo.path());
        QVERIFY(f.connect());
        f.open(QStringLiteral("q"), QStringLiteral("Q"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("q")));
        f.type(QStringLiteral("q"), "read -r word < " + gate.path.toUtf8() + "; echo \"gate-$word\"\n");
        // About 600 KB of commands: far more than the terminal holds while the shell
        // waits at the gate, so most of it waits in the agent.
        constexpr int kLines = 12000;
        for (int first = 1; first <= kLines; first += 100) {
            QByteArray lines;
            for (int i = first; i < first + 100; ++i)
                lines += "echo n" + QByteArray::number(i) + " # " + QByteArray(30, '-') + "\n";
            f.type(QStringLiteral("q"), lines);
        }
        // The agent answers at once meanwhile.
        f.send("terminal.resize", QStringLiteral("q"), {{QStringLiteral("cols"), 90}, {QStringLiteral("rows"), 30}});
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.status"), QStringLiteral("q")));
        // What would make the waiting input pass its limit of 1 MiB is refused, whole.
        f.type(QStringLiteral("q"), "echo refused\n" + QByteArray(700 * 1024, '#') + "\n");
        const std::optional<QJsonObject> error = f.waitForEvent(QStringLiteral("terminal.error"), QStringLiteral("q"));
        QVERIFY(error);
        QCOMPARE(error->value(QStringLiteral("message")).toString(),
                 QStringLiteral("Failed to write to terminal session: No buffer space available"));
        QVERIFY(gate.open("open\n"));
        QVERIFY(f.waitForOutput(QStringLiteral("q"), QStringLiteral("n%1\r\n").arg(kLines), 60000));
        // Every queued command ran once, in order, and none of the refused input did.
        QStringList expected{QStringLiteral("gate-open")};
        for (int i = 1; i <= kLines; ++i)
            expected.append(QStringLiteral("n%1").arg(i));
        QString text = f.output(QStringLiteral("q"));
        text = text.mid(text.indexOf(QStringLiteral("gate-open")));
        QCOMPARE(text.split(QStringLiteral("\r\n"), Qt::SkipEmptyParts), expected);
    }

    void aClosedShellThatIgnoresSigtermIsKilledAfterTheGrace()
    {
        TerminalFixture f;
        const Gate gate(f.repo.path());
        QVERIFY(f.connect());
        f.open(QStringLiteral("t"), QStringLiteral("T"), QStringLiteral("interactive"));
        QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("t")));
        f.type(QStringLiteral("t"),
               "trap '' TERM HUP; echo trapped-$((1+2)); read -r x < " + gate.path.toUtf8() + "\n");
        QVERIFY(f.waitForOutput(QStringLiteral("t"), QStringLiteral("trapped-3\r\n")));
        const qint64 pid = f.pidOf(QStringLiteral("t"));
        int ticks = 0;
        QTimer ticker;
        ticker.setInterval(50);
        connect(&ticker, &QTimer::timeout, this, [&] { ++ticks; });
        ticker.start();
        f.send("terminal.close", QStringLiteral("t"));
        QVERIFY(f.barrier());
        // Neither SIGTERM nor the hang-up ended it.
        QVERIFY(processExists(pid));
        QVERIFY(waitUntil([&] { return !processExists(pid); }, 20000));
        // The loop ran on through the grace time: blocked, it would have let the timer
        // fire only a time or two.
        QVERIFY2(ticks >= 20, qPrintable(QString::number(ticks)));
        QVERIFY(f.barrier());
        QVERIFY(f.events(QStringLiteral("terminal.closed"), QStringLiteral("t")).isEmpty());
    }

    void openCloseAndKillCyclesLeaveNothingBehind()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        const int descriptors = openDescriptorCount();
        const QJsonObject replace{{QStringLiteral("replace"), true}};
        for (int round = 0; round < 4; ++round) {
            f.open(QStringLiteral("line"), QStringLiteral("A"), QString(), replace);
            f.open(QStringLiteral("login"), QStringLiteral("B"), QStringLiteral("interactive"), replace);
            f.open(QStringLiteral("killed"), QStringLiteral("C"), QStringLiteral("interactive"), replace);
            QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("line"), round));
            QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("login"), round));
            QVERIFY(f.waitForEvent(QStringLiteral("terminal.opened"), QStringLiteral("killed"), round));
            QCOMPARE(childProcesses().size(), 3);
            f.send("terminal.close", QStringLiteral("line"));
            f.send("terminal.close", QStringLiteral("login"));
            f.send("terminal.signal", QStringLiteral("killed"), {{QStringLiteral("signal"), QStringLiteral("kill")}});
            QVERIFY(f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("line"), round));
            QVERIFY(f.waitForEvent(QStringLiteral("terminal.closed"), QStringLiteral("killed"), round));
            QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }));
        }
        QVERIFY(f.barrier());
        QCOMPARE(f.events(QStringLiteral("terminal.error"), QStringLiteral("login")).size(), 0);
        QVERIFY(waitUntil([&] { return openDescriptorCount() == descriptors; }));
    }

    void shellsGoWithTheAgentAndNeverSeeItsToken()
    {
        LoopbackServer server;
        QVERIFY(server.listen());
        AgentProcess agent;
        QDir().mkpath(agent.repo.path() + QStringLiteral("/A"));
        QDir().mkpath(agent.repo.path() + QStringLiteral("/B"));
        const Gate gate(agent.repo.path());
        agent.start(server.serverURL());
        QVERIFY(server.waitForType(QStringLiteral("agent.register")));
        const QStringList sessions{QStringLiteral("line"), QStringLiteral("login")};
        server.send(TerminalFixture::command("terminal.open", sessions[0], {{QStringLiteral("projectPath"), "A"}}));
        server.send(
            TerminalFixture::command("terminal.open", sessions[1],
                                     {{QStringLiteral("projectPath"), "B"}, {QStringLiteral("mode"), "interactive"}}));
        // Shells deaf to the hang-up and to SIGTERM, waiting where no terminal reaches them.
        for (const QString& session : sessions) {
            QVERIFY(server.waitFor([&](const QJsonObject& m) {
                return m.value(QStringLiteral("type")) == QStringLiteral("terminal.opened") &&
                       m.value(QStringLiteral("sessionId")) == session;
            }));
            server.send(TerminalFixture::input(session, "trap '' HUP TERM; echo held-$((3*3)); read -r x < " +
                                                            gate.path.toUtf8() + "\n"));
            QVERIFY(server.waitFor([&](const QJsonObject& m) {
                return m.value(QStringLiteral("sessionId")) == session &&
                       m.value(QStringLiteral("data")).toString().contains(QStringLiteral("held-9\r\n"));
            }));
        }
        QList<qint64> shells;
        for (const QString& session : sessions) {
            const qint64 pid = shellPid(agent, session);
            QVERIFY(processAlive(pid));
            shells.append(pid);
            const QList<QByteArray> environment =
                test::readFile(QStringLiteral("/proc/%1/environ").arg(pid)).split('\0');
            QVERIFY(environment.contains("BRINMOOR_REPO_ROOT=" + agent.repo.path().toUtf8()));
            for (const QByteArray& entry : environment)
                QVERIFY2(!entry.startsWith("BRINMOOR_SHARED_TOKEN=") && !entry.startsWith("BRINMOOR_TOKEN="),
                         entry.constData());
        }
        ::kill(pid_t(agent.process.processId()), SIGKILL);
        QVERIFY(agent.process.waitForFinished(10000));
        QVERIFY(waitUntil([&] { return std::none_of(shells.begin(), shells.end(), processAlive); }, 10000));
    }

    void aCharacterCutBetweenReadsArrivesWhole()
    {
        TerminalFixture f;
        QVERIFY(f.connect());
        // The bytes as the shell wrote them, without the agent's echo of each command.
        f.runtime->terminalSessionManager().setExtended(false);
        f.open(QStringLiteral("u"), QStringLiteral("U"));
        QVERIFY(f.waitForOutput(QStringLiteral("u"), QStringLiteral("[try: pwd, ls, codex, claude]\n")));
        // "a" and the first byte of "é"; the second byte comes only once "a" has arrived.
        f.type(QStringLiteral("u"), "printf 'a\\303'\n");
        QVERIFY(f.waitForOutput(QStringLiteral("u"), QStringLiteral("]\na")));
        f.type(QStringLiteral("u"), "printf '\\251b\\n'\n");
        QVERIFY(f.waitForOutput(QStringLiteral("u"), QStringLiteral("\r\n")));
        const QStringList chunks = f.chunks(QStringLiteral("u"));
        QCOMPARE(chunks.at(1), QStringLiteral("a"));
        QCOMPARE(chunks.mid(2).join(QString()), QStringLiteral("\u00e9b\r\n"));
    }
};

QTEST_GUILESS_MAIN(TstTerminalHardening)
#include "tst_terminal_hardening.moc"
