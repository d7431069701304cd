// Fitting command lines to the installed `claude` and `codex`: the option check against
// help texts the real releases printed (tests/execution/data), and the agent asking a
// fake tool for its help before running it.
#include "chat/chat_execution.h"
#include "config/agent_profile.h"
#include "execution/tool_compatibility.h"
#include "proposals/ai_task_resolution.h"
#include "support/agent_fixture.h"
#include "support/test_support.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTest>

#include <utime.h>

using namespace brinmoor;
using namespace brinmoor::test;
using namespace brinmoor::ToolOptions;

namespace {

QString data(const QString& name)
{
    return QString::fromUtf8(test::readFile(QStringLiteral(BRINMOOR_TEST_DATA_DIR "/") + name));
}

ToolHelp codex169()
{
    return {QStringLiteral("codex"),
            QStringLiteral("/opt/codex"),
            {{QString(), data(QStringLiteral("codex-0.169.0.help"))},
             {QStringLiteral("exec"), data(QStringLiteral("codex-0.169.0.exec.help"))},
             {QStringLiteral("exec resume"), data(QStringLiteral("codex-0.169.0.exec.resume.help"))}}};
}

// The shape of an earlier release's help, which still had --full-auto.
ToolHelp codexWithFullAuto()
{
    ToolHelp help = codex169();
    help.textByScope[QStringLiteral("exec")] += QStringLiteral(
        "\n      --full-auto\n          Convenience alias for low-friction sandboxed automatic execution\n");
    return help;
}

ToolHelp claude2130()
{
    return {QStringLiteral("claude"),
            QStringLiteral("/opt/claude"),
            {{QString(), data(QStringLiteral("claude-2.1.330.help"))}}};
}

const QString kPrompt = QStringLiteral("'say --full-auto it'\"'\"'s done'");

} // namespace

class TstToolCompatibility : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;

    // A fake tool of its own (its own path, so its own cache entry) in a folder that is
    // put first on PATH.
    QString installFake(const QString& folder, const QString& tool)
    {
        const QString bin = m_tmp.path() + QLatin1Char('/') + folder;
        QDir().mkpath(bin);
        const QString path = bin + QLatin1Char('/') + tool;
        QFile::remove(path);
        QFile::copy(fakeToolsDir() + QLatin1Char('/') + tool, path);
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", (bin + QLatin1Char(':') + fakeToolsDir() + QLatin1Char(':')).toUtf8() + m_path);
        return path;
    }

    QByteArray m_path;

    // A codex that runs `onHelp` (zsh) when asked for its help and is the fake tool
    // otherwise, printing one "turn.completed".
    void installCodexWhoseHelp(const QString& folder, const QString& fakeDir, const QByteArray& onHelp)
    {
        qputenv("BRINMOOR_FAKE_DIR", fakeDir.toUtf8());
        const QString codex = installFake(folder, QStringLiteral("codex"));
        test::writeFile(codex, "#!/bin/zsh -f\nif [[ ${@[-1]} == --help ]]; then " + onHelp + "; fi\nexec " +
                                   QFile::encodeName(fakeToolsDir()) + "/codex \"$@\"\n");
        test::writeFile(fakeDir + QStringLiteral("/codex.stream"), "{\"type\":\"turn.completed\"}\n");
    }

    static QJsonObject plan(const QString& project)
    {
        return {{QStringLiteral("action"), QStringLiteral("ai_task")},
                {QStringLiteral("system"), QStringLiteral("codex")},
                {QStringLiteral("mode"), QStringLiteral("plan")},
                {QStringLiteral("projectPath"), project},
                {QStringLiteral("prompt"), QStringLiteral("Look")}};
    }

    QStringList helpCalls(const QString& fake, const QString& tool) const
    {
        const QString text =
            QString::fromUtf8(test::readFile(fake + QLatin1Char('/') + tool + QStringLiteral(".helpcalls")));
        return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

private Q_SLOTS:
    void initTestCase() { m_path = qgetenv("PATH"); }
    void cleanup() { qputenv("PATH", m_path); }

    void commandWordsFollowTheShell()
    {
        const QList<ShellWord> words =
            commandWords(QStringLiteral("A=1  codex  -c 'x=\"a b\"' \"q\\\"x\" e\\ f --json; codex --later"));
        QStringList texts;
        QList<bool> plain;
        for (const ShellWord& word : words) {
            texts.append(word.text);
            plain.append(word.plain);
        }
        QCOMPARE(texts, (QStringList{QStringLiteral("A=1"), QStringLiteral("codex"), QStringLiteral("-c"),
                                     QStringLiteral("x=\"a b\""), QStringLiteral("q\"x"), QStringLiteral("e f"),
                                     QStringLiteral("--json")}));
        QCOMPARE(plain, (QList<bool>{true, true, true, false, false, false, true}));
        QCOMPARE(words[2].start, 12);
        QCOMPARE(words[2].end, 14);
        QCOMPARE(programWordIndex(words), 1);
    }

    void toolOfNamesOnlyClaudeAndCodex_data()
    {
        QTest::addColumn<QString>("shell");
        QTest::addColumn<QString>("tool");
        QTest::newRow("codex") << QStringLiteral("codex exec 'x'") << QStringLiteral("codex");
        QTest::newRow("claude") << QStringLiteral("claude -p 'x'") << QStringLiteral("claude");
        QTest::newRow("path") << QStringLiteral("/opt/bin/codex exec") << QStringLiteral("codex");
        QTest::newRow("assignment") << QStringLiteral("FOO=1 claude -p") << QStringLiteral("claude");
        QTest::newRow("other") << QStringLiteral("echo codex") << QString();
        QTest::newRow("longer name") << QStringLiteral("codexx exec") << QString();
        QTest::newRow("empty") << QStringLiteral("   ") << QString();
    }

    void toolOfNamesOnlyClaudeAndCodex()
    {
        QFETCH(QString, shell);
        QFETCH(QString, tool);
        QCOMPARE(toolOf(shell).value_or(QString()), tool);
    }

    void mentionsWholeOptionsOnly()
    {
        const QString help = QStringLiteral("  -p, --print  Print\n  see --permission-prompt-tool) and e-commerce\n");
        QVERIFY(mentions(help, QStringLiteral("-p")));
        QVERIFY(mentions(help, QStringLiteral("--print")));
        QVERIFY(mentions(help, QStringLiteral("--permission-prompt-tool")));
        QVERIFY(!mentions(help, QStringLiteral("--permission-prompt")));
        QVERIFY(!mentions(help, QStringLiteral("-c")));
        QVERIFY(!mentions(help, QStringLiteral("--pr")));
    }

    void fullAutoBecomesTheSandboxOptionWhereCodexDropsIt()
    {
        // The approval-"none" chat, the "apply" proposal and the default plan template.
        const ToolAdaptation chat = adaptCommand(
            QStringLiteral("codex exec --full-auto --json --skip-git-repo-check --color never ") + kPrompt, codex169());
        QCOMPARE(chat.shell,
                 QStringLiteral("codex exec --sandbox workspace-write --json --skip-git-repo-check --color never ") +
                     kPrompt);
        QCOMPARE(
            chat.notes,
            QStringList{QStringLiteral(
                "toolCompatibility codex exec at /opt/codex does not accept --full-auto; using --sandbox workspace-write")});
        const ToolAdaptation plan = adaptCommand(
            QString::fromLatin1(ProfileDefaults::aiPlanTemplate).replace(QStringLiteral("{{prompt}}"), kPrompt),
            codex169());
        QCOMPARE(plan.shell,
                 QStringLiteral("codex exec --sandbox workspace-write --skip-git-repo-check --color never --json ") +
                     kPrompt);
        QCOMPARE(plan.notes.size(), 1);
    }

    void commandsTheReleaseAcceptsStayExactlyAsTheyAre_data()
    {
        QTest::addColumn<QString>("shell");
        QTest::addColumn<bool>("isClaude");
        const QString overrides =
            ChatExecution::codexMCPConfigOverrides(QStringLiteral("t-1"), QStringLiteral("/Apps/MCPApprovalServer"),
                                                   ConnectionSettings{}, QStringLiteral("/tmp/brinmoor-token-t-1"));
        const auto filled = [](const char* profileTemplate) {
            return QString::fromLatin1(profileTemplate)
                .replace(QStringLiteral("{{mcpConfigPath}}"), QStringLiteral("'/tmp/brinmoor-mcp-t-1.json'"))
                .replace(QStringLiteral("{{prompt}}"), kPrompt);
        };
        QTest::newRow("profile codex chat") << filled(ProfileDefaults::codexChatTemplate) << false;
        QTest::newRow("profile claude chat") << filled(ProfileDefaults::claudeChatTemplate) << true;
        QTest::newRow("on-request") << QStringLiteral(
                                           "codex -a on-request exec --json --skip-git-repo-check --color never ") +
                                           kPrompt
                                    << false;
        QTest::newRow("mcp approval") << QStringLiteral("codex exec --json --skip-git-repo-check --color never ") +
                                             kPrompt + overrides
                                      << false;
        QTest::newRow("resume") << QStringLiteral("codex exec resume --json --skip-git-repo-check 'th-1' ") + kPrompt +
                                       overrides
                                << false;
        QTest::newRow("resume on-request")
            << QStringLiteral("codex -a on-request exec resume --json --skip-git-repo-check 'th-1' ") + kPrompt
            << false;
        QTest::newRow("claude approval")
            << QStringLiteral("claude --session-id 'fe4eaed6-11ff-55fd-9527-298e55a32c58' -p --verbose "
                              "--permission-prompt-tool mcp__approver__request_permission "
                              "--mcp-config '/tmp/m.json' --output-format stream-json --include-partial-messages ") +
                   kPrompt
            << true;
        QTest::newRow("claude resume") << QStringLiteral("claude --resume 'x' --dangerously-skip-permissions -p "
                                                         "--verbose --output-format stream-json "
                                                         "--include-partial-messages ") +
                                              kPrompt
                                       << true;
        QTest::newRow("claude ai_task") << AITaskResolution::claudeTemplate << true;
    }

    void commandsTheReleaseAcceptsStayExactlyAsTheyAre()
    {
        QFETCH(QString, shell);
        QFETCH(bool, isClaude);
        const ToolAdaptation adaptation = adaptCommand(shell, isClaude ? claude2130() : codex169());
        QCOMPARE(adaptation.shell, shell);
        QCOMPARE(adaptation.notes, QStringList());
    }

    void aReleaseThatAcceptsFullAutoKeepsIt()
    {
        const QString shell =
            QStringLiteral("codex exec --full-auto --json --skip-git-repo-check --color never ") + kPrompt;
        const ToolAdaptation adaptation = adaptCommand(shell, codexWithFullAuto());
        QCOMPARE(adaptation.shell, shell);
        QCOMPARE(adaptation.notes, QStringList());
    }

    void aClaudeWithoutPartialMessagesStreamsWholeBlocks()
    {
        // The help of a release before the option: the same text without its line.
        ToolHelp older = claude2130();
        QString& text = older.textByScope[QString()];
        const qsizetype at = text.indexOf(QStringLiteral("  --include-partial-messages"));
        QVERIFY(at >= 0);
        text.remove(at, text.indexOf(QLatin1Char('\n'), at) + 1 - at);
        const QString tail = QStringLiteral("--output-format stream-json ") + kPrompt;
        const ToolAdaptation adaptation =
            adaptCommand(QStringLiteral("claude --resume 'x' -p --verbose --include-partial-messages ") + tail, older);
        QCOMPARE(adaptation.shell, QStringLiteral("claude --resume 'x' -p --verbose ") + tail);
        QCOMPARE(adaptation.notes,
                 QStringList{QStringLiteral("toolCompatibility claude at /opt/claude does not accept "
                                            "--include-partial-messages; the answer comes a block at a time")});
        // At the end of the command too.
        QCOMPARE(adaptCommand(QStringLiteral("claude -p --include-partial-messages"), older).shell,
                 QStringLiteral("claude -p "));
    }

    void otherUnlistedOptionsAreNotedAndKept()
    {
        // "--color" belongs to exec, not to exec resume; "-a" only comes before exec.
        const QString shell = QStringLiteral("codex exec resume --color never -a never --json 'th' ") + kPrompt;
        const ToolAdaptation adaptation = adaptCommand(shell, codex169());
        QCOMPARE(adaptation.shell, shell);
        QCOMPARE(
            adaptation.notes,
            (QStringList{
                QStringLiteral(
                    "toolCompatibility codex exec resume at /opt/codex does not list --color; the command keeps it"),
                QStringLiteral(
                    "toolCompatibility codex exec resume at /opt/codex does not list -a; the command keeps it")}));
        const ToolAdaptation claude =
            adaptCommand(QStringLiteral("claude --output-format=stream-json --no-such-flag -p x"), claude2130());
        QCOMPARE(claude.notes,
                 QStringList{QStringLiteral(
                     "toolCompatibility claude at /opt/claude does not list --no-such-flag; the command keeps it")});
    }

    void theInstalledToolIsAskedOnceAndTheCommandFitted()
    {
        QTemporaryDir fake;
        qputenv("BRINMOOR_FAKE_DIR", fake.path().toUtf8());
        const QString codex = installFake(QStringLiteral("new"), QStringLiteral("codex"));
        for (const QString& scope : {QString(), QStringLiteral(".exec"), QStringLiteral(".exec.resume")})
            test::writeFile(fake.path() + QStringLiteral("/codex") + scope + QStringLiteral(".help"),
                            test::readFile(QStringLiteral(BRINMOOR_TEST_DATA_DIR "/codex-0.169.0") + scope +
                                           QStringLiteral(".help")));
        test::writeFile(fake.path() + QStringLiteral("/codex.stream"), "{\"type\":\"turn.completed\"}\n");

        AgentFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/App"));
        DiagRecorder log;
        QVERIFY(f.connect());
        f.assign(QStringLiteral("p1"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p1")));
        QCOMPARE(fakeToolArguments(fake.path(), QStringLiteral("codex"), 1).mid(0, 4),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--sandbox"), QStringLiteral("workspace-write"),
                              QStringLiteral("--skip-git-repo-check")}));
        QCOMPARE(helpCalls(fake.path(), QStringLiteral("codex")),
                 (QStringList{QStringLiteral("--help"), QStringLiteral("exec --help"),
                              QStringLiteral("exec resume --help")}));
        const QString note = QStringLiteral("toolCompatibility codex exec at ") + codex +
                             QStringLiteral(" does not accept --full-auto; using --sandbox workspace-write");
        QCOMPARE(log.texts().count(note), 1);

        // The second task uses what the first one learned.
        f.assign(QStringLiteral("p2"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p2")));
        QCOMPARE(fakeToolArguments(fake.path(), QStringLiteral("codex"), 2).mid(1, 2),
                 (QStringList{QStringLiteral("--sandbox"), QStringLiteral("workspace-write")}));
        QCOMPARE(helpCalls(fake.path(), QStringLiteral("codex")).size(), 3);
        QCOMPARE(log.texts().count(note), 2);

        // An update of the tool (a new modification time) is asked again; this release
        // takes --full-auto, so the command stays as it is.
        test::writeFile(fake.path() + QStringLiteral("/codex.exec.help"),
                        codexWithFullAuto().textByScope.value(QStringLiteral("exec")).toUtf8());
        const qint64 later = QDateTime::currentSecsSinceEpoch() + 60;
        const utimbuf times{later, later};
        QCOMPARE(::utime(QFile::encodeName(codex).constData(), &times), 0);
        f.assign(QStringLiteral("p3"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p3")));
        QCOMPARE(fakeToolArguments(fake.path(), QStringLiteral("codex"), 3).mid(0, 2),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--full-auto")}));
        QCOMPARE(helpCalls(fake.path(), QStringLiteral("codex")).size(), 6);
        QCOMPARE(log.texts().count(note), 2);
        QCOMPARE(f.taskTrace(QStringLiteral("p3")).mid(1),
                 (QStringList{QStringLiteral("task.started"), QStringLiteral("task.progress"),
                              QStringLiteral("task.artifact"), QStringLiteral("task.log {\"type\":\"turn.completed\"}"),
                              QStringLiteral("task.finished 0")}));
    }

    void theProbesNeverSeeTheToken()
    {
        // Every zsh the agent starts reads $ZDOTDIR/.zshenv first: it notes whether it was
        // given the token, and so does the tool asked for its help.
        QTemporaryDir fake;
        QTemporaryDir dotdir;
        const QString seen = dotdir.path() + QStringLiteral("/seen");
        test::writeFile(dotdir.path() + QStringLiteral("/.zshenv"),
                        "print -r -- \"zsh ${BRINMOOR_SHARED_TOKEN:-none} ${BRINMOOR_TOKEN:-none}\" >> " +
                            QFile::encodeName(seen) + "\n");
        installCodexWhoseHelp(QStringLiteral("token"), fake.path(),
                              "print -r -- \"help ${BRINMOOR_SHARED_TOKEN:-none} ${BRINMOOR_TOKEN:-none}\" >> " +
                                  QFile::encodeName(seen));
        // The probe finds codex on the login shell's PATH: by name, not by path.
        const QByteArray dotdirBefore = qgetenv("ZDOTDIR");
        qputenv("ZDOTDIR", QFile::encodeName(dotdir.path()));
        qputenv("BRINMOOR_SHARED_TOKEN", "secret-in-the-agent");
        qputenv("BRINMOOR_TOKEN", "secret-in-the-agent");
        AgentFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/App"));
        QVERIFY(f.connect());
        f.assign(QStringLiteral("p1"), plan(QStringLiteral("App")));
        const bool finished = f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("p1")).has_value();
        qunsetenv("BRINMOOR_SHARED_TOKEN");
        qunsetenv("BRINMOOR_TOKEN");
        if (dotdirBefore.isNull())
            qunsetenv("ZDOTDIR");
        else
            qputenv("ZDOTDIR", dotdirBefore);
        QVERIFY(finished);
        const QStringList lines = QString::fromUtf8(test::readFile(seen)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        // The probe's login shell, the help calls and the task's shell, each without it.
        QVERIFY2(lines.count(QStringLiteral("zsh none none")) >= 2, qPrintable(lines.join('\n')));
        QVERIFY2(lines.count(QStringLiteral("help none none")) >= 1, qPrintable(lines.join('\n')));
        QVERIFY2(lines.filter(QStringLiteral("secret")).isEmpty(), qPrintable(lines.join('\n')));
    }

    void aToolThatCannotBeAskedRunsTheCommandAsItIs()
    {
        QTemporaryDir fake;
        // This codex fails its help.
        installCodexWhoseHelp(QStringLiteral("broken"), fake.path(), "exit 3");
        AgentFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/App"));
        DiagRecorder log;
        QVERIFY(f.connect());
        f.assign(QStringLiteral("b1"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("b1")));
        QCOMPARE(fakeToolArguments(fake.path(), QStringLiteral("codex"), 1).mid(0, 2),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--full-auto")}));
        QVERIFY(log.contains(QStringLiteral("toolCompatibility could not read the options of codex: `codex --help` "
                                            "exited with status 3; the command runs as it is")));

        // A help ended by a signal says so.
        installCodexWhoseHelp(QStringLiteral("broken"), fake.path(), "kill -9 $$");
        f.assign(QStringLiteral("b2"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("b2")));
        QVERIFY(log.contains(QStringLiteral("toolCompatibility could not read the options of codex: `codex --help` "
                                            "was ended by a signal; the command runs as it is")));
        QCOMPARE(fakeToolArguments(fake.path(), QStringLiteral("codex"), 2).mid(0, 2),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--full-auto")}));
    }

    void aTaskCancelledWhileTheToolIsAskedNeverStarts()
    {
        QTemporaryDir fake;
        // The help answers only once the test opens the gate.
        const QString gate = fake.path() + QStringLiteral("/gate");
        installCodexWhoseHelp(QStringLiteral("slow"), fake.path(),
                              "until [[ -e " + QFile::encodeName(gate) + " ]]; do sleep 0.02; done");
        AgentFixture f;
        QDir().mkpath(f.repo.path() + QStringLiteral("/App"));
        QVERIFY(f.connect());
        f.assign(QStringLiteral("c1"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.artifact"), QStringLiteral("c1")));
        f.server.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancel")},
                                  {QStringLiteral("taskId"), QStringLiteral("c1")}});
        QVERIFY(f.server.waitForTask(QStringLiteral("task.cancelled"), QStringLiteral("c1")));
        QVERIFY(!f.runtime->currentTaskId());
        QVERIFY(!QFile::exists(fake.path() + QStringLiteral("/codex.1.args")));
        QCOMPARE(f.taskTrace(QStringLiteral("c1")).mid(1),
                 (QStringList{QStringLiteral("task.started"), QStringLiteral("task.progress"),
                              QStringLiteral("task.artifact"), QStringLiteral("task.cancelled 130")}));
        // The next task runs normally. It waits for the same answer of the tool, which
        // comes back to the cancelled task first: had that started its command, codex
        // would have been run twice.
        f.assign(QStringLiteral("c2"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.artifact"), QStringLiteral("c2")));
        test::writeFile(gate);
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("c2"), 10000));
        QVERIFY(QFile::exists(fake.path() + QStringLiteral("/codex.1.args")));
        QVERIFY(!QFile::exists(fake.path() + QStringLiteral("/codex.2.args")));

        // Stopped (the agent quits or loses its server) while the tool is asked: the
        // task is let go and its command never runs. The tool is installed anew, so it
        // is asked again, and its help waits for the gate again.
        QFile::remove(gate);
        installCodexWhoseHelp(QStringLiteral("slow"), fake.path(),
                              "until [[ -e " + QFile::encodeName(gate) + " ]]; do sleep 0.02; done");
        f.assign(QStringLiteral("c3"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.artifact"), QStringLiteral("c3")));
        DiagRecorder log;
        f.runtime->stopRunningProcessIfAny(false);
        QVERIFY(!f.runtime->currentTaskId());
        QVERIFY(log.contains(QStringLiteral("runTask stopped before its command started taskId=c3")));
        // Another task, after it in every queue: codex runs for it, and only for it.
        f.assign(QStringLiteral("c4"), plan(QStringLiteral("App")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.artifact"), QStringLiteral("c4")));
        test::writeFile(gate);
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("c4"), 10000));
        QVERIFY(QFile::exists(fake.path() + QStringLiteral("/codex.2.args")));
        QVERIFY(!QFile::exists(fake.path() + QStringLiteral("/codex.3.args")));
    }
};

QTEST_GUILESS_MAIN(TstToolCompatibility)
#include "tst_tool_compatibility.moc"
