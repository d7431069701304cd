// Change proposals end to end: a loopback server assigns "ai_task" tasks to a real agent
// runtime; a fake `codex` (first on PATH) edits files in its working folder, which is the
// proposal copy, and prints agent messages; real git diffs and applies.
#include "chat/chat_execution.h"
#include "proposals/ai_task_resolution.h"
#include "support/agent_fixture.h"
#include "support/test_support.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

const QString kExplanation = QStringLiteral("The greeting said hello; I changed it to bye in greeting.txt.");

} // namespace

class TstProposalRoundTrip : public QObject {
    Q_OBJECT

    QTemporaryDir m_fake;
    QTemporaryDir m_tmp;

    void write(const QString& name, const QByteArray& content)
    {
        test::writeFile(m_fake.path() + QLatin1Char('/') + name, content);
    }

    QString project(AgentFixture& f) const { return f.repo.path() + QStringLiteral("/App"); }

    void setUp(AgentFixture& f)
    {
        test::writeFile(project(f) + QStringLiteral("/greeting.txt"), "hello\n");
        test::writeFile(project(f) + QStringLiteral("/keep.txt"), "same\n");
        // The fake codex edits the copy it runs in, and explains itself.
        write(QStringLiteral("codex.script"), "print bye > greeting.txt; mkdir -p build && print x > build/out.o\n");
        write(QStringLiteral("codex.stream"), codexAgentMessages({kExplanation}));
    }

    void assignApply(AgentFixture& f, const QString& taskId, const QString& approval = QStringLiteral("on_request"),
                     qint64 timeoutSec = 60)
    {
        f.assign(taskId, {{QStringLiteral("action"), QStringLiteral("ai_task")},
                          {QStringLiteral("system"), QStringLiteral("codex")},
                          {QStringLiteral("mode"), QStringLiteral(" APPLY ")},
                          {QStringLiteral("approvalMode"), approval},
                          {QStringLiteral("projectPath"), QStringLiteral("App")},
                          {QStringLiteral("prompt"), QStringLiteral("say bye")},
                          {QStringLiteral("timeoutSec"), timeoutSec}});
    }

    // "type" with the interesting member of each message of the task, in order.
    QStringList trace(AgentFixture& f, const QString& taskId)
    {
        QStringList lines;
        for (const QJsonObject& m : f.server.messages()) {
            if (m.value(QStringLiteral("taskId")).toString() != taskId)
                continue;
            const QString type = m.value(QStringLiteral("type")).toString();
            QString line = type;
            if (type == QLatin1String("task.log"))
                line += QLatin1Char(' ') + m.value(QStringLiteral("line")).toString();
            else if (type == QLatin1String("task.commentary"))
                line += QLatin1Char(' ') + m.value(QStringLiteral("text")).toString();
            else if (type == QLatin1String("task.progress"))
                line +=
                    QStringLiteral(" %1 %2 %3")
                        .arg(m.value(QStringLiteral("phase")).toString(), m.value(QStringLiteral("message")).toString())
                        .arg(m.value(QStringLiteral("percent")).toInt());
            else if (type == QLatin1String("task.artifact"))
                line +=
                    QStringLiteral(" %1 %2 %3")
                        .arg(m.value(QStringLiteral("kind")).toString(), m.value(QStringLiteral("mimeType")).toString(),
                             m.value(QStringLiteral("summary")).toString());
            else if (type == QLatin1String("task.failed"))
                line += QStringLiteral(" %1 %2 %3")
                            .arg(m.value(QStringLiteral("errorCode")).toString())
                            .arg(m.value(QStringLiteral("exitCode")).toInt())
                            .arg(m.value(QStringLiteral("error")).toString());
            else if (type == QLatin1String("task.heartbeat"))
                continue;
            lines.append(line);
        }
        return lines;
    }

    // Replaces the lines whose numbers vary (paths, sizes) by their stable beginning.
    static QStringList stable(QStringList lines)
    {
        for (QString& line : lines) {
            for (const char* prefix : {"task.log proposal.workspace original=", "task.log proposal.command shell=",
                                       "task.log proposal.command exitCode=0 outputBytes=",
                                       "task.log proposal.diff bytes=", "task.log workspace.resolve action=ai_task"}) {
                if (line.startsWith(QLatin1String(prefix)))
                    line = QLatin1String(prefix) + QStringLiteral("…");
            }
        }
        return lines;
    }

    QStringList leftovers() const
    {
        QStringList found = QDir(m_tmp.path()).entryList({QStringLiteral("brinmoor-approved-*")}, QDir::Files);
        found += QDir(m_tmp.path() + QStringLiteral("/brinmoor-proposals"))
                     .entryList(QDir::NoDotAndDotDot | QDir::AllEntries);
        return found;
    }

    bool cleanAfterwards(AgentFixture& f)
    {
        return waitUntil(
            [&] { return !f.runtime->currentTaskId() && leftovers().isEmpty() && childProcesses().isEmpty(); });
    }

    const QStringList kUntilProposal = {
        QStringLiteral("task.log workspace.resolve action=ai_task…"),
        QStringLiteral("task.started"),
        QStringLiteral("task.progress prepare Preparing proposed changes 5"),
        QStringLiteral("task.log proposal.workspace original=…"),
        QStringLiteral("task.log proposal.command shell=…"),
        QStringLiteral("task.commentary ") + kExplanation,
        QStringLiteral("task.log proposal.command exitCode=0 outputBytes=…"),
        QStringLiteral("task.log proposal.diff bytes=…"),
    };

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("PATH", (fakeToolsDir() + QLatin1Char(':')).toUtf8() + qgetenv("PATH"));
        qputenv("TMPDIR", m_tmp.path().toUtf8());
    }

    void init()
    {
        QDir(m_fake.path()).removeRecursively();
        QDir().mkpath(m_fake.path());
        qputenv("BRINMOOR_FAKE_DIR", m_fake.path().toUtf8());
    }

    void approvedProposalIsApplied()
    {
        AgentFixture f;
        setUp(f);
        QVERIFY(f.connect());
        DiagRecorder log;
        assignApply(f, QStringLiteral("p1"));
        const std::optional<QJsonObject> awaiting =
            f.server.waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("p1"));
        QVERIFY2(awaiting, qPrintable(f.server.trace()));
        QCOMPARE(awaiting->value(QStringLiteral("proposalFiles")).toArray(),
                 QJsonArray{QStringLiteral("greeting.txt")});
        QCOMPARE(awaiting->value(QStringLiteral("proposalSummary")).toString(), kExplanation);
        QCOMPARE(awaiting->value(QStringLiteral("proposalCommentary")).toString(), kExplanation);
        QVERIFY(awaiting->value(QStringLiteral("proposalDiff")).toString().contains(QStringLiteral("-hello\n+bye")));
        QVERIFY(!awaiting->value(QStringLiteral("proposalDiff")).toString().contains(QStringLiteral("build/")));
        QCOMPARE(awaiting->value(QStringLiteral("proposalId")).toString().size(), 36);
        // Nothing is applied before the phone says so.
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
        QCOMPARE(f.runtime->approvals().pendingApprovalTaskId(), std::optional<QString>(QStringLiteral("p1")));
        QVERIFY(log.contains(
            QStringLiteral("task.assign ai_task strategy=proposalApproval(requiresApproval: true) workingDir=") +
            project(f)));
        const QStringList lines = trace(f, QStringLiteral("p1"));
        QCOMPARE(
            lines.first(),
            QStringLiteral("task.log workspace.resolve action=ai_task requestedProjectPath=App resolvedWorkingDir=") +
                project(f) +
                QStringLiteral(" system=codex mode=apply approvalMode=on_request "
                               "strategy=proposalApproval(requiresApproval: true)"));
        QVERIFY(lines.at(3).startsWith(QStringLiteral("task.log proposal.workspace original=") + project(f) +
                                       QStringLiteral(" proposal=") + m_tmp.path() +
                                       QStringLiteral("/brinmoor-proposals/p1-")));
        QCOMPARE(lines.at(4),
                 QStringLiteral("task.log proposal.command shell=codex exec --full-auto --json --skip-git-repo-check "
                                "--color never ") +
                     ExecutionResolution::shellQuote(
                         AITaskResolution::systemExecutionModeText +
                         ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("say bye"))));

        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.approval")},
             {QStringLiteral("taskId"), QStringLiteral("p1")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), QStringLiteral("approve")}}}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p1")));
        const QStringList expected =
            kUntilProposal +
            QStringList{
                QStringLiteral("task.log proposal.ready files=1 requiresApproval=true"),
                QStringLiteral("task.commentary ") + kExplanation,
                QStringLiteral("task.artifact proposal text/x-diff ") + kExplanation,
                QStringLiteral("task.awaiting_approval"),
                QStringLiteral("task.log proposal.approval approved"),
                QStringLiteral("task.progress apply Applying approved changes 75"),
                QStringLiteral("task.artifact result text/plain Applied the approved changes to 1 file.\n\n") +
                    kExplanation,
                QStringLiteral("task.finished"),
            };
        QCOMPARE(stable(trace(f, QStringLiteral("p1"))), expected);
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("bye\n"));
        QVERIFY(!QFileInfo::exists(project(f) + QStringLiteral("/build")));
        QVERIFY(cleanAfterwards(f));

        // The command the proposal ran.
        const QStringList args = fakeToolArguments(m_fake.path(), QStringLiteral("codex"), 1);
        QCOMPARE(
            args,
            (QStringList{QStringLiteral("exec"), QStringLiteral("--full-auto"), QStringLiteral("--json"),
                         QStringLiteral("--skip-git-repo-check"), QStringLiteral("--color"), QStringLiteral("never"),
                         AITaskResolution::systemExecutionModeText +
                             ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("say bye"))}));
        QVERIFY(test::readFile(m_fake.path() + QStringLiteral("/codex.1.cwd"))
                    .startsWith((m_tmp.path() + QStringLiteral("/brinmoor-proposals/p1-")).toUtf8()));
    }

    void rejectedProposalChangesNothing()
    {
        AgentFixture f;
        setUp(f);
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p2"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("p2")));
        f.server.send({{QStringLiteral("type"), QStringLiteral("task.approval")},
                       {QStringLiteral("taskId"), QStringLiteral("p2")},
                       {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), QStringLiteral("no")}}}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("p2")));
        QCOMPARE(trace(f, QStringLiteral("p2"))
                     .mid(trace(f, QStringLiteral("p2")).indexOf(QStringLiteral("task.awaiting_approval"))),
                 (QStringList{QStringLiteral("task.awaiting_approval"),
                              QStringLiteral("task.log proposal.approval rejected_or_timed_out"),
                              QStringLiteral("task.failed APPROVAL_REJECTED 1 changes rejected by client approval")}));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
        QVERIFY(cleanAfterwards(f));
    }

    // Three files: one changed, one new, one deleted; the approval names some of them.
    void setUpThreeFiles(AgentFixture& f)
    {
        setUp(f);
        test::writeFile(project(f) + QStringLiteral("/old.txt"), "old\n");
        write(QStringLiteral("codex.script"), "print bye > greeting.txt; print new > new.txt; rm old.txt\n");
    }

    void approve(AgentFixture& f, const QString& taskId, const QJsonValue& files)
    {
        f.server.send({{QStringLiteral("type"), QStringLiteral("task.approval")},
                       {QStringLiteral("taskId"), taskId},
                       {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), QStringLiteral("approve")},
                                                               {QStringLiteral("files"), files}}}});
    }

    void someFilesApproved()
    {
        AgentFixture f;
        setUpThreeFiles(f);
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("f1"));
        const std::optional<QJsonObject> awaiting =
            f.server.waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("f1"));
        QVERIFY2(awaiting, qPrintable(f.server.trace()));
        // Our relay's clients may choose files.
        QCOMPARE(awaiting->value(QStringLiteral("fileChoice")), QJsonValue(true));
        approve(f, QStringLiteral("f1"), QJsonArray{QStringLiteral("old.txt"), QStringLiteral("greeting.txt")});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("f1")));
        const QStringList lines = trace(f, QStringLiteral("f1"));
        QCOMPARE(lines.mid(lines.indexOf(QStringLiteral("task.awaiting_approval"))),
                 (QStringList{
                     QStringLiteral("task.awaiting_approval"),
                     QStringLiteral("task.log proposal.approval approved files=2 of 3"),
                     QStringLiteral("task.progress apply Applying approved changes 75"),
                     QStringLiteral("task.log proposal.applied greeting.txt"),
                     QStringLiteral("task.log proposal.left new.txt"),
                     QStringLiteral("task.log proposal.applied old.txt"),
                     QStringLiteral("task.artifact result text/plain Applied the approved changes to 2 files.\n\n") +
                         kExplanation,
                     QStringLiteral("task.finished"),
                 }));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("bye\n"));
        QVERIFY(!QFileInfo::exists(project(f) + QStringLiteral("/old.txt")));
        QVERIFY(!QFileInfo::exists(project(f) + QStringLiteral("/new.txt")));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/keep.txt")), QByteArray("same\n"));
        QVERIFY(cleanAfterwards(f));
    }

    void approvalsThatApplyNothing_data()
    {
        QTest::addColumn<QJsonValue>("files");
        QTest::addColumn<QStringList>("end");
        const QStringList none{QStringLiteral("task.log proposal.approval approved files=0 of 3"),
                               QStringLiteral("task.failed APPROVAL_REJECTED 1 no file of the proposal was approved")};
        QTest::newRow("no file") << QJsonValue(QJsonArray()) << none;
        QTest::newRow("not a list") << QJsonValue(QStringLiteral("greeting.txt")) << none;
        QTest::newRow("not names") << QJsonValue(QJsonArray{QStringLiteral("greeting.txt"), 3}) << none;
        QTest::newRow("a file the proposal does not change")
            << QJsonValue(QJsonArray{QStringLiteral("greeting.txt"), QStringLiteral("keep.txt"), QStringLiteral("x y")})
            << QStringList{QStringLiteral("task.failed APPROVAL_FILES_UNKNOWN 1 the approval names files the proposal "
                                          "does not change: keep.txt, x y")};
    }

    void approvalsThatApplyNothing()
    {
        QFETCH(QJsonValue, files);
        QFETCH(QStringList, end);
        AgentFixture f;
        setUpThreeFiles(f);
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("f2"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("f2")));
        approve(f, QStringLiteral("f2"), files);
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("f2")));
        const QStringList lines = trace(f, QStringLiteral("f2"));
        QCOMPARE(lines.mid(lines.indexOf(QStringLiteral("task.awaiting_approval")) + 1), end);
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/old.txt")), QByteArray("old\n"));
        QVERIFY(!QFileInfo::exists(project(f) + QStringLiteral("/new.txt")));
        QVERIFY(cleanAfterwards(f));
    }

    void approvalTimeOutIsARejection()
    {
        AgentFixture f;
        setUp(f);
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p3"), QStringLiteral("on_request"), 1);
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("p3"), 8000));
        QCOMPARE(trace(f, QStringLiteral("p3")).last(),
                 QStringLiteral("task.failed APPROVAL_REJECTED 1 changes rejected by client approval"));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
        // A late reply finds nothing pending and changes nothing.
        f.server.send(
            {{QStringLiteral("type"), QStringLiteral("task.approval")},
             {QStringLiteral("taskId"), QStringLiteral("p3")},
             {QStringLiteral("payload"), QJsonObject{{QStringLiteral("decision"), QStringLiteral("approve")}}}});
        QVERIFY(cleanAfterwards(f));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
    }

    void withoutApprovalTheProposalIsAppliedAtOnce()
    {
        AgentFixture f;
        setUp(f);
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p4"), QStringLiteral("none"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p4")));
        const QStringList lines = trace(f, QStringLiteral("p4"));
        QVERIFY(lines.contains(QStringLiteral("task.log proposal.ready files=1 requiresApproval=false")));
        QVERIFY(lines.contains(QStringLiteral("task.proposal_ready")));
        QVERIFY(!lines.contains(QStringLiteral("task.awaiting_approval")));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("bye\n"));
        QVERIFY(cleanAfterwards(f));
    }

    void genericReasoningIsRefused()
    {
        AgentFixture f;
        setUp(f);
        write(QStringLiteral("codex.stream"),
              codexAgentMessages({QStringLiteral("Proposed changes are ready for review.")}));
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p5"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("p5")));
        QCOMPARE(
            trace(f, QStringLiteral("p5")).last(),
            QStringLiteral(
                "task.failed PROPOSAL_REASONING_MISSING 1 Codex did not provide a usable reasoning message for the proposed diff."));
        QVERIFY(cleanAfterwards(f));
    }

    void buildOutputOnlyTakesTheNoDiffPath()
    {
        AgentFixture f;
        setUp(f);
        write(QStringLiteral("codex.script"), "mkdir -p build && print x > build/out.o\n");
        write(QStringLiteral("codex.stream"),
              codexAgentMessages({QStringLiteral("Nothing needs to change: it already says hello.")}));
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p6"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p6")));
        const QStringList lines = stable(trace(f, QStringLiteral("p6")));
        QCOMPARE(lines.mid(lines.size() - 3),
                 (QStringList{QStringLiteral("task.log proposal.empty_diff responseBytes=47"),
                              QStringLiteral("task.commentary Nothing needs to change: it already says hello."),
                              QStringLiteral("task.finished")}));
        QVERIFY(cleanAfterwards(f));
    }

    void noDiffWithGenericTextIsRefused()
    {
        AgentFixture f;
        setUp(f);
        write(QStringLiteral("codex.script"), "");
        write(QStringLiteral("codex.stream"),
              codexAgentMessages({QStringLiteral("PROPOSED CHANGES ARE READY FOR REVIEW.")}));
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p7"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("p7")));
        QCOMPARE(
            trace(f, QStringLiteral("p7")).last(),
            QStringLiteral(
                "task.failed PROPOSAL_REASONING_MISSING 1 Codex did not provide a user-visible reasoning message for the no-diff outcome."));
        QVERIFY(cleanAfterwards(f));
    }

    void failingCommandIsProposalCommandFailed()
    {
        AgentFixture f;
        setUp(f);
        write(QStringLiteral("codex.exit"), "3");
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p8"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("p8")));
        const QStringList lines = trace(f, QStringLiteral("p8"));
        QVERIFY(
            lines.at(lines.size() - 2).startsWith(QStringLiteral("task.log proposal.command exitCode=3 outputBytes=")));
        QCOMPARE(lines.last(),
                 QStringLiteral("task.failed PROPOSAL_COMMAND_FAILED 1 proposal command exited with status 3"));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
        QVERIFY(cleanAfterwards(f));
    }

    void cancellationDuringTheWait()
    {
        AgentFixture f;
        setUp(f);
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("p9"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.awaiting_approval"), QStringLiteral("p9")));
        f.server.send({{QStringLiteral("type"), QStringLiteral("task.cancel")},
                       {QStringLiteral("taskId"), QStringLiteral("p9")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("p9")));
        QVERIFY(cleanAfterwards(f));
        const QStringList lines = trace(f, QStringLiteral("p9"));
        QCOMPARE(lines.mid(lines.indexOf(QStringLiteral("task.awaiting_approval"))),
                 (QStringList{QStringLiteral("task.awaiting_approval"), QStringLiteral("task.cancelled")}));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
        // The agent takes the next task.
        f.shell(QStringLiteral("next"), QStringLiteral("true"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("next")));
    }

    void heartbeatsFlowWhileTheCommandRuns()
    {
        AgentFixture f;
        setUp(f);
        write(QStringLiteral("codex.script"), "sleep 5.5; print bye > greeting.txt\n");
        QVERIFY(f.connect());
        assignApply(f, QStringLiteral("hb"), QStringLiteral("none"));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("hb"), 15000));
        QVERIFY(!f.server.messagesOfType(QStringLiteral("task.heartbeat"), QStringLiteral("hb")).isEmpty());
        QVERIFY(cleanAfterwards(f));
    }

    void claudeAiTaskRunsDirectly()
    {
        AgentFixture f;
        setUp(f);
        write(QStringLiteral("claude.stream"), "planned\n");
        QVERIFY(f.connect());
        DiagRecorder log;
        f.assign(QStringLiteral("d1"), {{QStringLiteral("action"), QStringLiteral("ai_task")},
                                        {QStringLiteral("system"), QStringLiteral("claude")},
                                        {QStringLiteral("mode"), QStringLiteral("Apply")},
                                        {QStringLiteral("projectPath"), QStringLiteral("App")},
                                        {QStringLiteral("prompt"), QStringLiteral("it's time")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("d1")));
        QCOMPARE(
            stable(trace(f, QStringLiteral("d1"))),
            (QStringList{QStringLiteral("task.log workspace.resolve action=ai_task…"), QStringLiteral("task.started"),
                         QStringLiteral("task.progress prepare AI task accepted (apply) 5"),
                         QStringLiteral("task.artifact prompt text/plain it's time"),
                         QStringLiteral("task.log planned"), QStringLiteral("task.finished")}));
        QVERIFY(f.statuses.contains(QStringLiteral("Running AI task d1")));
        QCOMPARE(
            trace(f, QStringLiteral("d1")).first(),
            QStringLiteral("task.log workspace.resolve action=ai_task requestedProjectPath=App resolvedWorkingDir=") +
                project(f) +
                QStringLiteral(" system=claude mode=apply approvalMode=on_request strategy=directCommand"));
        QVERIFY(log.contains(QStringLiteral("task.assign ai_task strategy=directCommand workingDir=") + project(f)));
        QVERIFY(log.contains(QStringLiteral("resolveAITaskExecution projectPath=App workspace=") + project(f) +
                             QStringLiteral(" mode=apply")));
        QCOMPARE(
            fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 1),
            (QStringList{QStringLiteral("--dangerously-skip-permissions"), QStringLiteral("-p"),
                         QStringLiteral("--verbose"),
                         ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("it's time"))}));
        QCOMPARE(test::readFile(project(f) + QStringLiteral("/greeting.txt")), QByteArray("hello\n"));
    }

    void unsupportedModeIsAConfigError()
    {
        AgentFixture f;
        setUp(f);
        QVERIFY(f.connect());
        DiagRecorder log;
        f.assign(QStringLiteral("m"), {{QStringLiteral("action"), QStringLiteral("ai_task")},
                                       {QStringLiteral("mode"), QStringLiteral(" Build ")},
                                       {QStringLiteral("projectPath"), QStringLiteral("App")},
                                       {QStringLiteral("prompt"), QStringLiteral("x")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("m")));
        QCOMPARE(trace(f, QStringLiteral("m")),
                 QStringList{QStringLiteral("task.failed AGENT_CONFIG_INVALID 1 Unsupported mode:  Build ")});
    }
};

QTEST_GUILESS_MAIN(TstProposalRoundTrip)
#include "tst_proposal_round_trip.moc"
