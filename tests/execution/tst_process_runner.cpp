#include "base/diag.h"
#include "execution/process_runner.h"
#include "support/agent_fixture.h"
#include "support/recording_task_host.h"
#include "support/test_support.h"

#include <QDir>
#include <QElapsedTimer>
#include <QHash>
#include <QJsonArray>
#include <QTest>

#include <csignal>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

QString resolveLine(const AgentFixture& f)
{
    return QStringLiteral("task.log workspace.resolve action=shell requestedProjectPath=") + f.repo.path() +
           QStringLiteral(" resolvedWorkingDir=") + f.repo.path();
}

// A relay that does not number task output: each read is cut into lines as it came.
ServerFeatures perRead()
{
    ServerFeatures features = ServerFeatures::all();
    features.lines = false;
    return features;
}

} // namespace

class TstProcessRunner : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void echoHelloRoundTrip()
    {
        AgentFixture f;
        f.server.setFeatures(perRead());
        QVERIFY(f.connect());
        DiagRecorder log;
        f.shell(QStringLiteral("t1"), QStringLiteral("echo hello"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t1")));
        QCOMPARE(f.taskTrace(QStringLiteral("t1")),
                 (QStringList{resolveLine(f), QStringLiteral("task.started"), QStringLiteral("task.log hello"),
                              QStringLiteral("task.log "), QStringLiteral("task.finished 0")}));
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
        QCOMPARE(f.statuses.last(), QStringLiteral("Ready: test-agent"));
        const QStringList texts = log.texts();
        const QString repo = f.repo.path();
        QCOMPARE(texts.at(0), QStringLiteral("task.assign taskId=t1 action=shell projectPath=") + repo +
                                  QStringLiteral(" system= mode= approvalMode= timeoutSec=1200"));
        QCOMPARE(texts.at(1),
                 QStringLiteral("resolveShellExecution projectPath=%1 workingDir=%1 command=echo hello").arg(repo));
        QCOMPARE(texts.at(2), QStringLiteral("task.assign resolved shell workingDir=%1 command=echo hello").arg(repo));
        QCOMPARE(texts.at(3), QStringLiteral("Running task t1 workingDir=%1 timeoutSec=1200").arg(repo));
        QVERIFY2(QRegularExpression(QStringLiteral("^runTask process started taskId=t1 pid=\\d+$"))
                     .match(texts.at(4))
                     .hasMatch(),
                 qPrintable(texts.at(4)));
        QCOMPARE(texts.at(5), QStringLiteral("runTask process terminated taskId=t1 exitCode=0"));
        QCOMPARE(texts.size(), 6);
    }

    void outputReadInOnePieceYieldsAFinalEmptyLine()
    {
        AgentFixture f;
        f.server.setFeatures(perRead());
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("printf 'a\\nb\\n'"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 (QStringList{QStringLiteral("task.log a"), QStringLiteral("task.log b"), QStringLiteral("task.log "),
                              QStringLiteral("task.finished 0")}));
    }

    void standardErrorLinesAreTaskLogs()
    {
        AgentFixture f;
        f.server.setFeatures(perRead());
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("echo oops >&2"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 (QStringList{QStringLiteral("task.log oops"), QStringLiteral("task.log "),
                              QStringLiteral("task.finished 0")}));
    }

    // To our relay, lines are numbered and whole: a line cut by reads arrives as one, a
    // read's last newline gives no empty line, and a blank line the program printed stays.
    void numberedLinesArriveWhole()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"),
                QStringLiteral("printf 'a\\nhal'; printf 'f li'; printf 'ne\\n\\nend'; print -u2 oops"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QStringList numbered;
        for (const QJsonObject& m : f.server.messagesOfType(QStringLiteral("task.log"), QStringLiteral("t"))) {
            if (m.contains(QStringLiteral("number")))
                numbered.append(QString::number(m.value(QStringLiteral("number")).toInteger()) + QLatin1Char(' ') +
                                m.value(QStringLiteral("line")).toString());
        }
        QCOMPARE(numbered, (QStringList{u"1 a"_qs, u"2 half line"_qs, u"3 "_qs, u"4 oops"_qs, u"5 end"_qs}));
    }

    // A writer that a busy computer keeps from its next write for a moment still gives
    // whole lines.
    void aLineWhoseWriterPausesArrivesWhole()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("printf '1\\n12'; sleep 0.3; printf '345\\n6\\n'"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QStringList lines;
        for (const QJsonObject& m : f.server.messagesOfType(QStringLiteral("task.log"), QStringLiteral("t"))) {
            if (m.contains(QStringLiteral("number")))
                lines.append(m.value(QStringLiteral("line")).toString());
        }
        QCOMPARE(lines, (QStringList{u"1"_qs, u"12345"_qs, u"6"_qs}));
    }

    // A line without its newline is shown once a second passes with no more of it.
    void aLineWithoutItsNewlineIsShownSoon()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("printf 'Password: '; sleep 3; print done"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) {
            return m.value(QStringLiteral("line")).toString() == QLatin1String("Password: ");
        }));
        QVERIFY(f.server.messagesOfType(QStringLiteral("task.finished"), QStringLiteral("t")).isEmpty());
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(f.server.messagesOfType(QStringLiteral("task.log"), QStringLiteral("t"))
                     .last()
                     .value(QStringLiteral("line")),
                 QJsonValue(QStringLiteral("done")));
    }

    void nonZeroExitFailsWithTheStatus()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("exit 3"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 QStringList{QStringLiteral("task.failed COMMAND_EXIT_NONZERO 3 command exited with status 3")});
    }

    void multiByteCharactersCutByReadsAreKept()
    {
        AgentFixture f;
        f.server.setFeatures(perRead());
        QVERIFY(f.connect());
        PieceWriter pieces(f.repo.path() + QStringLiteral("/pieces"));
        QVERIFY(f.startCat(QStringLiteral("t"), pieces));
        // Each read ends inside a character, which waits for the next read.
        QVERIFY(pieces.write("a\xc3"));
        QVERIFY(pieces.write("\xa9"
                             "b\xe2\x9c"));
        QVERIFY(pieces.write("\x93"
                             "c\xf0\x9f"));
        QVERIFY(pieces.write("\x98\x80\n"));
        pieces.finish();
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 (QStringList{QStringLiteral("task.log a"), QStringLiteral("task.log éb"),
                              QStringLiteral("task.log ✓c"), QStringLiteral("task.log 😀"), QStringLiteral("task.log "),
                              QStringLiteral("task.finished 0")}));
    }

    void readWithInvalidBytesIsDropped()
    {
        AgentFixture f;
        f.server.setFeatures(perRead());
        QVERIFY(f.connect());
        PieceWriter pieces(f.repo.path() + QStringLiteral("/pieces"));
        QVERIFY(f.startCat(QStringLiteral("t"), pieces));
        QVERIFY(pieces.write("ok\n"));
        QVERIFY(pieces.write("bad\xff\xfe\n"));
        QVERIFY(pieces.write("after\n"));
        pieces.finish();
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(
            f.taskTrace(QStringLiteral("t")).mid(2),
            (QStringList{QStringLiteral("task.log ok"), QStringLiteral("task.log "), QStringLiteral("task.log after"),
                         QStringLiteral("task.log "), QStringLiteral("task.finished 0")}));
    }

    void timeLimitEndsInCancelledNeverFinished()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 30"), 1);
        QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("t"), 8000));
        // The relay takes one end per task (a server that knows only the agent protocol
        // hears the stopped process's own end too).
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2), QStringList{QStringLiteral("task.cancelled 130")});
    }

    void aCancelEndsTheTaskOnceItsProcessHasExited()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("echo started; sleep 30"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("line") == "started"; }));
        DiagRecorder log;
        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.cancel")}, {QStringLiteral("taskId"), QStringLiteral("t")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("t")));
        // The end is said once the process is gone: the agent is free at once.
        QVERIFY(!f.runtime->currentTaskId());
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 (QStringList{QStringLiteral("task.log started"), QStringLiteral("task.cancelled 130")}));
        QCOMPARE(log.texts().mid(0, 2), (QStringList{QStringLiteral("task.cancel taskId=t"),
                                                     QStringLiteral("stopRunningProcessIfAny terminating taskId=t")}));
    }

    void everyTaskEndsOnceAndTheNextIsNeverRefusedAfterIt()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        // Cancelled while it runs, and then a task at once: 200 times.
        for (int i = 0; i < 200; ++i) {
            const QString taskId = QStringLiteral("c%1").arg(i);
            f.shell(taskId, QStringLiteral("echo up; sleep 30"));
            QVERIFY(f.server.waitFor(
                [&](const QJsonObject& m) { return m.value("taskId") == taskId && m.value("line") == "up"; }));
            f.server.send(
                {{QStringLiteral("type"), QStringLiteral("task.cancel")}, {QStringLiteral("taskId"), taskId}});
            QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), taskId));
        }
        // A task that ends by itself, and the next one sent the moment its end arrives.
        for (int i = 0; i < 200; ++i) {
            const QString taskId = QStringLiteral("e%1").arg(i);
            f.shell(taskId, i % 2 ? QStringLiteral("true") : QStringLiteral("exit 3"));
            QVERIFY(f.server.waitFor([&](const QJsonObject& m) {
                const QString type = m.value(QStringLiteral("type")).toString();
                return m.value("taskId") == taskId &&
                       (type == QLatin1String("task.finished") || type == QLatin1String("task.failed"));
            }));
        }
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
        QHash<QString, int> ends;
        for (const QJsonObject& m : f.server.messages()) {
            const QString type = m.value(QStringLiteral("type")).toString();
            if (type == QLatin1String("task.finished") || type == QLatin1String("task.failed") ||
                type == QLatin1String("task.cancelled"))
                ++ends[m.value(QStringLiteral("taskId")).toString()];
        }
        QCOMPARE(ends.size(), 400);
        for (auto it = ends.cbegin(); it != ends.cend(); ++it)
            QVERIFY2(it.value() == 1, qPrintable(it.key()));
        QVERIFY(f.server.messagesOfType(QStringLiteral("task.failed")).size() == 100);
        for (const QJsonObject& failed : f.server.messagesOfType(QStringLiteral("task.failed")))
            QCOMPARE(failed.value(QStringLiteral("errorCode")).toString(), QStringLiteral("COMMAND_EXIT_NONZERO"));
    }

    void cancelForAnotherTaskChangesNothing()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 1; echo done"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.started"), QStringLiteral("t")));
        f.server.send({{QStringLiteral("type"), QStringLiteral("task.cancel")},
                       {QStringLiteral("taskId"), QStringLiteral("other")}});
        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.approval")},
             {QStringLiteral("taskId"), QStringLiteral("t")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), QStringLiteral("approve")}}}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).mid(2),
                 (QStringList{QStringLiteral("task.log done"), QStringLiteral("task.finished 0")}));
        QVERIFY(f.server.messagesOfType(QStringLiteral("task.cancelled")).isEmpty());
    }

    void childIgnoringSigtermIsKilled5SecondsLater()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("trap '' TERM; echo ready; sleep 30; echo survived"));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) { return m.value("line") == "ready"; }));
        QElapsedTimer clock;
        clock.start();
        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.cancel")}, {QStringLiteral("taskId"), QStringLiteral("t")}});
        // Its one end comes when the process is gone, killed 5 s after SIGTERM.
        QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("t"), 9000));
        QVERIFY2(clock.elapsed() >= 4900, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(f.taskTrace(QStringLiteral("t")).last(), QStringLiteral("task.cancelled 130"));
        QVERIFY(f.server.messagesOfType(QStringLiteral("task.failed"), QStringLiteral("t")).isEmpty());
    }

    void heartbeatEvery5SecondsWhileATaskRuns()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 6.5"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t"), 10000));
        const QStringList trace = f.taskTrace(QStringLiteral("t"));
        QVERIFY2(trace.count(QStringLiteral("task.heartbeat")) >= 1, qPrintable(trace.join(',')));
        QVERIFY(trace.indexOf(QStringLiteral("task.heartbeat")) > trace.indexOf(QStringLiteral("task.started")));
        QCOMPARE(f.server.messagesOfType(QStringLiteral("task.heartbeat")).size(),
                 f.server.messagesOfType(QStringLiteral("task.heartbeat"), QStringLiteral("t")).size());
    }

    void cancellationStopsTheWholeProcessTree()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("t"), QStringLiteral("sleep 300 & echo pid=$!; wait"));
        const std::optional<QJsonObject> line =
            f.server.waitFor([](const QJsonObject& m) { return m.value("line").toString().startsWith("pid="); });
        QVERIFY(line);
        const qint64 grandchild = line->value(QStringLiteral("line")).toString().mid(4).toLongLong();
        QVERIFY(processAlive(grandchild));
        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.cancel")}, {QStringLiteral("taskId"), QStringLiteral("t")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("t")));
        QVERIFY(waitUntil([&] { return !processAlive(grandchild); }, 3000));
    }

    void secondTaskWhileBusyGetsAgentBusy()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.shell(QStringLiteral("first"), QStringLiteral("sleep 1; echo one"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.started"), QStringLiteral("first")));
        f.shell(QStringLiteral("second"), QStringLiteral("echo two"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("second")));
        QCOMPARE(f.taskTrace(QStringLiteral("second")),
                 QStringList{QStringLiteral("task.failed AGENT_BUSY 1 agent is busy")});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("first")));
        QVERIFY(f.taskTrace(QStringLiteral("first")).contains(QStringLiteral("task.log one")));
    }

    void unknownActionIsResolvedAsABuild()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        DiagRecorder log;
        f.assign(QStringLiteral("t"), {{QStringLiteral("action"), QStringLiteral("deploy_android")},
                                       {QStringLiteral("projectPath"), QStringLiteral("app")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("t")));
        QCOMPARE(f.taskTrace(QStringLiteral("t")),
                 QStringList{QStringLiteral("task.failed AGENT_CONFIG_INVALID 1 Unsupported action: deploy_android")});
        QVERIFY(log.contains(QStringLiteral("task.assign failed taskId=t error=Unsupported action: deploy_android")));
        QVERIFY(!f.runtime->currentTaskId());
    }

    void missingProjectFolderIsAConfigError()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.assign(QStringLiteral("t"), {{QStringLiteral("action"), QStringLiteral("shell")},
                                       {QStringLiteral("command"), QStringLiteral("ls")},
                                       {QStringLiteral("projectPath"), QStringLiteral("no-such-app")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("t")));
        QCOMPARE(
            f.taskTrace(QStringLiteral("t")),
            QStringList{QStringLiteral("task.failed AGENT_CONFIG_INVALID 1 Project path does not exist: no-such-app")});
    }

    void negativeTimeoutIsRefused()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.assign(QStringLiteral("n"), {{QStringLiteral("action"), QStringLiteral("shell")},
                                       {QStringLiteral("command"), QStringLiteral("echo x")},
                                       {QStringLiteral("timeoutSec"), -5}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("n")));
        QCOMPARE(f.taskTrace(QStringLiteral("n")),
                 QStringList{QStringLiteral("task.failed AGENT_CONFIG_INVALID 1 timeoutSec must not be negative: -5")});
    }

    void timeoutAbsentOrStringRunsWith1200Seconds()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        DiagRecorder log;
        f.assign(QStringLiteral("t"), {{QStringLiteral("action"), QStringLiteral("shell")},
                                       {QStringLiteral("command"), QStringLiteral("true")},
                                       {QStringLiteral("timeoutSec"), QStringLiteral("5")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t")));
        QVERIFY(log.contains(QStringLiteral("Running task t workingDir=%1 timeoutSec=1200").arg(f.repo.path())));
    }

    void taskWithoutTaskIdIsIgnored()
    {
        AgentFixture f;
        QVERIFY(f.connect());
        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.assign")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("action"), QStringLiteral("shell")},
                                                     {QStringLiteral("command"), QStringLiteral("echo x")}}}});
        f.shell(QStringLiteral("after"), QStringLiteral("true"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("after")));
        // Register and state, then the second task's three.
        QCOMPARE(f.server.messages().size(), 2 + 3);
    }

    void buildActionRunsTheDeployScriptInTheRoot()
    {
        AgentFixture f;
        const QString script = test::writeFile(f.repo.path() + QStringLiteral("/deploy.sh"),
                                               "#!/bin/zsh\necho \"deploy $1 $2 in $PWD\"\n");
        QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QVERIFY(f.connect());
        f.assign(QStringLiteral("b"), {{QStringLiteral("projectPath"), QStringLiteral("/apps/It's")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("b")));
        QCOMPARE(
            f.taskTrace(QStringLiteral("b")),
            (QStringList{QStringLiteral("task.log workspace.resolve action=build_ios requestedProjectPath=/apps/It's "
                                        "resolvedWorkingDir=") +
                             f.repo.path(),
                         QStringLiteral("task.started"),
                         QStringLiteral("task.log deploy /apps/It's --no-password in ") + f.repo.path(),
                         QStringLiteral("task.finished 0")}));
    }

    void shellTaskInTheCreateProjectRootRegistersTheNewProject()
    {
        AgentFixture f;
        const QString root = f.repo.path() + QStringLiteral("/new");
        QDir().mkpath(root);
        f.settings.setValue(QStringLiteral("createProjectRoot"), root);
        QVERIFY(f.connect());
        DiagRecorder log;
        const QString project = root + QStringLiteral("/Made");
        f.assign(QStringLiteral("s"), {{QStringLiteral("action"), QStringLiteral("shell")},
                                       {QStringLiteral("projectPath"), root},
                                       {QStringLiteral("command"),
                                        QStringLiteral("mkdir -p Made && touch Made/Package.swift && echo noise && "
                                                       "echo '__QUENDARIX_SUCCESS__ %1/' && echo tail")
                                            .arg(project)}});
        const std::optional<QJsonObject> reg =
            f.server.waitFor([](const QJsonObject& m) { return m.value("type") == "agent.register"; }, 5000, 1);
        QVERIFY(reg);
        QCOMPARE(reg->value(QStringLiteral("projects")).toArray(), QJsonArray{project});
        QCOMPARE(f.settings.string(QStringLiteral("projects")), std::optional<QString>(project));
        QVERIFY(log.contains(QStringLiteral("registerManagedProjectIfPresent added project=") + project));
    }

    void managedProjectAlreadyListedChangesNothing()
    {
        QTemporaryDir dir;
        const QString project = test::makeProject(dir.path() + QStringLiteral("/P"));
        MemorySettingsStore settings;
        settings.setValue(QStringLiteral("projects"), project);
        QVERIFY(!registerManagedProjectIfPresent(QStringLiteral("__QUENDARIX_SUCCESS__ ") + project, settings, {}));
        QCOMPARE(settings.syncCount(), 0);
        QVERIFY(!registerManagedProjectIfPresent(QStringLiteral("no marker"), settings, {}));
    }

    void launchFailureIsProcessStartFailed()
    {
        QTemporaryDir repo;
        RecordingTaskHost host;
        ProcessRunner runner(host);
        RunRequest request;
        request.taskId = QStringLiteral("x");
        request.shell = QStringLiteral("true");
        request.workingDir = repo.path() + QStringLiteral("/missing-folder");
        runner.runTask(request);
        // The launch is not waited for: its failure comes from the loop.
        QVERIFY(waitUntil([&] { return host.sent.size() >= 2; }));
        QCOMPARE(host.sent.size(), 2);
        QCOMPARE(host.sent.at(0).value(QStringLiteral("type")).toString(), QStringLiteral("task.started"));
        QCOMPARE(host.sent.at(1).value(QStringLiteral("errorCode")).toString(), QStringLiteral("PROCESS_START_FAILED"));
        QCOMPARE(host.sent.at(1).value(QStringLiteral("error")).toString(),
                 QStringLiteral("failed to launch process: chdir: No such file or directory"));
        QVERIFY(!runner.currentTaskId());
        QCOMPARE(host.statuses, QStringList{QStringLiteral("Ready: test-agent")});
    }

    void exitAfterTheTaskWasClearedSendsNothing()
    {
        QTemporaryDir repo;
        RecordingTaskHost host;
        ProcessRunner runner(host);
        RunRequest request;
        request.taskId = QStringLiteral("x");
        request.shell = QStringLiteral("sleep 300");
        request.workingDir = repo.path();
        request.sendStarted = false;
        runner.runTask(request);
        QVERIFY(waitUntil([] { return childProcesses().size() == 1; }));
        // The task is let go while its child runs: the child is killed, and its end,
        // reaped and handled in one turn of the loop, is logged but not reported.
        DiagRecorder log;
        runner.cleanupFinishedTask();
        QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }));
        QCOMPARE(log.texts(), QStringList{QStringLiteral("runTask process terminated taskId=x exitCode=9")});
        QCOMPARE(host.sent.size(), 0);
        QCOMPARE(host.statuses, QStringList{QStringLiteral("Ready: test-agent")});
    }

    void aConnectionLostPastItsGraceStopsTheChildWithoutLeaks()
    {
        const int descriptorsBefore = openDescriptorCount();
        {
            AgentFixture f;
            f.settings.setValue(QStringLiteral("taskDisconnectGraceSec"), QStringLiteral("0"));
            QVERIFY(f.connect());
            f.shell(QStringLiteral("t"), QStringLiteral("sleep 300 & echo pid=$!; sleep 300"));
            const std::optional<QJsonObject> line =
                f.server.waitFor([](const QJsonObject& m) { return m.value("line").toString().startsWith("pid="); });
            QVERIFY(line);
            const qint64 grandchild = line->value(QStringLiteral("line")).toString().mid(4).toLongLong();
            QCOMPARE(childProcesses().size(), 1);
            f.server.closeClient();
            QVERIFY(f.server.waitForConnections(2));
            QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
            QVERIFY(waitUntil([&] { return !processAlive(grandchild); }, 3000));
            QVERIFY(waitUntil([] { return childProcesses().isEmpty(); }, 3000));
            QVERIFY(f.statuses.contains(QStringLiteral("Ready: test-agent")));
        }
        waitUntil([&] { return openDescriptorCount() <= descriptorsBefore; }, 3000);
        QCOMPARE(openDescriptorCount(), descriptorsBefore);
        QCOMPARE(childProcesses(), QList<qint64>());
    }
};

QTEST_GUILESS_MAIN(TstProcessRunner)
#include "tst_process_runner.moc"
