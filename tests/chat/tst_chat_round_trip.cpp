// Chats end to end: a loopback server assigns "chat" tasks to a real agent runtime,
// which runs fake `claude` and `codex` executables (first on PATH) that record their
// arguments and print event streams shaped like the real tools' output.
#include "chat/chat_execution.h"
#include "support/agent_fixture.h"
#include "support/test_support.h"

#include <QDir>
#include <QJsonArray>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::test;

namespace {

const char kPause = '\x01'; // the fake tool flushes and pauses here

// Shaped as claude 2.1.330 prints a chat with --include-partial-messages: the model's
// text deltas, each block's assembled event, a tool use and its failed result.
QByteArray claudeStream()
{
    QByteArray stream;
    stream += R"({"type":"system","subtype":"init","session_id":"s"})"
              "\n";
    stream += R"({"type":"stream_event","event":{"type":"message_start","message":{"id":"msg_1","content":[]}}})"
              "\n";
    stream +=
        R"({"type":"stream_event","event":{"type":"content_block_start","index":0,"content_block":{"type":"text","text":""}}})"
        "\n";
    // One JSON line split across two writes.
    stream += R"({"type":"stream_event","event":{"type":"content_block_delta","index":0,)";
    stream += kPause;
    stream += R"("delta":{"type":"text_delta","text":"Hel"}}})"
              "\n";
    stream += kPause;
    // Terminal noise around the braces.
    stream +=
        "\x1b[0m"
        R"({"type":"stream_event","event":{"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"lo, all done."}}})"
        " \x1b[K\n";
    stream += R"({"type":"assistant","message":{"id":"msg_1","content":[{"type":"text","text":"Hello, all done."}]}})"
              "\n";
    stream += R"({"type":"stream_event","event":{"type":"content_block_stop","index":0}})"
              "\n";
    stream +=
        R"({"type":"assistant","message":{"id":"msg_1","content":[{"type":"tool_use","id":"toolu_1","name":"Bash","input":{"command":"ls"}}]}})"
        "\n";
    stream +=
        R"({"type":"user","message":{"role":"user","content":[{"type":"tool_result","tool_use_id":"toolu_1","is_error":true,"content":"denied"}]}})"
        "\n";
    stream += R"({"type":"result","subtype":"success","is_error":false,"result":"Hello, all done.","session_id":"s"})"
              "\n";
    return stream;
}

QByteArray codexStream()
{
    QByteArray stream;
    stream += R"({"type":"thread.started","thread_id":"th-123"})"
              "\n";
    stream += R"({"type":"turn.started"})"
              "\n";
    stream += R"({"type":"item.started","item":{"type":"command_execution","command":"ls"}})"
              "\n";
    stream += R"({"type":"item.completed","item":{"type":"agent_message","text":"First."}})"
              "\n";
    stream += kPause;
    stream += R"({"type":"item.completed","item":{"type":"agent_message","text":"Second."}})"
              "\n";
    stream += R"({"type":"turn.completed"})"
              "\n";
    return stream;
}

} // namespace

class TstChatRoundTrip : public QObject {
    Q_OBJECT

    QTemporaryDir m_fake;
    QTemporaryDir m_tmp;
    QTemporaryDir m_claude; // claude's configuration folder, as the tools and the agent see it
    QString m_approver;

    void write(const QString& name, const QByteArray& content)
    {
        test::writeFile(m_fake.path() + QLatin1Char('/') + name, content);
    }

    QJsonObject chat(const QString& system, const QString& project, const QString& prompt, const QString& conversation,
                     const QString& approval = QStringLiteral("on_request"))
    {
        return {{QStringLiteral("action"), QStringLiteral("chat")}, {QStringLiteral("system"), system},
                {QStringLiteral("projectPath"), project},           {QStringLiteral("prompt"), prompt},
                {QStringLiteral("conversationId"), conversation},   {QStringLiteral("approvalMode"), approval}};
    }

    QStringList chatTrace(AgentFixture& f, const QString& taskId)
    {
        QStringList trace;
        for (const QJsonObject& m : f.server.messages()) {
            if (m.value(QStringLiteral("taskId")).toString() != taskId)
                continue;
            const QString type = m.value(QStringLiteral("type")).toString();
            if (type == QLatin1String("task.chat.chunk"))
                trace.append(QStringLiteral("chunk ") + m.value(QStringLiteral("chunk")).toString());
            else if (type == QLatin1String("task.chat.final"))
                trace.append(QStringLiteral("final ") + m.value(QStringLiteral("text")).toString());
            else if (type == QLatin1String("task.chat.error"))
                trace.append(QStringLiteral("error ") + m.value(QStringLiteral("message")).toString());
            else if (type == QLatin1String("task.log"))
                trace.append(QStringLiteral("log ") + m.value(QStringLiteral("line")).toString());
            else if (type == QLatin1String("task.failed"))
                trace.append(QStringLiteral("failed ") + m.value(QStringLiteral("errorCode")).toString() +
                             QLatin1Char(' ') + QString::number(m.value(QStringLiteral("exitCode")).toInt()));
            else if (type != QLatin1String("task.heartbeat"))
                trace.append(type);
            if (m.contains(QStringLiteral("conversationId")))
                trace.last() +=
                    QStringLiteral(" [") + m.value(QStringLiteral("conversationId")).toString() + QLatin1Char(']');
        }
        return trace;
    }

    QStringList mcpFiles() const
    {
        return QDir(m_tmp.path()).entryList({QStringLiteral("brinmoor-mcp-*")}, QDir::Files | QDir::Hidden);
    }

    void setUpAgent(AgentFixture& f, bool withApprover = true)
    {
        QDir().mkpath(f.repo.path() + QStringLiteral("/App"));
        QDir().mkpath(f.repo.path() + QStringLiteral("/Other"));
        if (withApprover)
            f.settings.setValue(QStringLiteral("mcpApproverPath"), m_approver);
        else
            f.settings.setValue(QStringLiteral("mcpApproverPath"), QString(m_fake.path() + QStringLiteral("/none")));
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("PATH", (fakeToolsDir() + QLatin1Char(':')).toUtf8() + qgetenv("PATH"));
        qputenv("TMPDIR", m_tmp.path().toUtf8());
        qputenv("CLAUDE_CONFIG_DIR", m_claude.path().toUtf8());
        m_approver = test::writeFile(m_tmp.path() + QStringLiteral("/approver/MCPApprovalServer"), "#!/bin/sh\n");
        QFile::setPermissions(m_approver, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    void init()
    {
        QDir(m_fake.path()).removeRecursively();
        QDir().mkpath(m_fake.path());
        qputenv("BRINMOOR_FAKE_DIR", m_fake.path().toUtf8());
        QDir(m_claude.path()).removeRecursively();
        QDir().mkpath(m_claude.path());
    }

    // The runtime's environment: it sees claude's sessions where the tools keep them.
    Environment claudeSees() const { return {{QStringLiteral("CLAUDE_CONFIG_DIR"), m_claude.path()}}; }

    void claudeChatStreamsChunksAndResumesItsSession()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        write(QStringLiteral("claude.stream"), claudeStream());
        QVERIFY(f.connect());
        f.assign(QStringLiteral("c1"), chat(QStringLiteral("claude"), QStringLiteral("App"),
                                            QStringLiteral("Say it's done"), QStringLiteral("conv-1")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("c1")));
        const QString workingDir = f.repo.path() + QStringLiteral("/App");
        QCOMPARE(chatTrace(f, QStringLiteral("c1")),
                 (QStringList{
                     QStringLiteral("log workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=") +
                         workingDir,
                     QStringLiteral("task.started"), QStringLiteral("chunk Hel [conv-1]"),
                     QStringLiteral("chunk lo, all done. [conv-1]"), QStringLiteral("log [tool.error] Bash: denied"),
                     QStringLiteral("final Hello, all done. [conv-1]"), QStringLiteral("task.finished")}));

        // The exact command line, the prompt with its quote intact.
        const QStringList args = fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 1);
        const QString configPath = m_tmp.path() + QStringLiteral("/brinmoor-mcp-c1.json");
        // A conversation id that is not a UUID maps to the name-based UUID of its key.
        QCOMPARE(args,
                 (QStringList{
                     QStringLiteral("--session-id"), QStringLiteral("ac349975-4774-54a8-884a-31a7bfc1ded2"),
                     QStringLiteral("-p"), QStringLiteral("--verbose"), QStringLiteral("--permission-prompt-tool"),
                     QStringLiteral("mcp__approver__request_permission"), QStringLiteral("--mcp-config"), configPath,
                     QStringLiteral("--output-format"), QStringLiteral("stream-json"),
                     QStringLiteral("--include-partial-messages"),
                     ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("Say it's done"))}));
        QCOMPARE(test::readFile(m_fake.path() + QStringLiteral("/claude.1.cwd")),
                 (workingDir + QLatin1Char('\n')).toUtf8());
        // The configuration existed, owner-only, while the tool ran, and is gone now.
        QCOMPARE(test::readFile(m_fake.path() + QStringLiteral("/claude.1.mcpmode")), QByteArray("600\n"));
        // It names an owner-only file that holds the token, gone too: the token itself is in
        // neither the configuration nor any environment.
        const QByteArray config = test::readFile(m_fake.path() + QStringLiteral("/claude.1.mcp"));
        const QByteArray named = "\"BRINMOOR_TOKEN_FILE\": \"" +
                                 QFile::encodeName(m_tmp.path() + QStringLiteral("/brinmoor-token-c1")) + '"';
        QVERIFY2(config.contains(named), config.constData());
        QVERIFY(!config.contains("secret-token"));
        QCOMPARE(mcpFiles(), QStringList());
        QCOMPARE(QDir(m_tmp.path()).entryList({QStringLiteral("brinmoor-token-*")}, QDir::Files), QStringList());

        // The second message of the conversation resumes the session.
        f.assign(QStringLiteral("c2"), chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("more"),
                                            QStringLiteral("conv-1")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("c2")));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 2).mid(0, 3),
                 (QStringList{QStringLiteral("--resume"), QStringLiteral("ac349975-4774-54a8-884a-31a7bfc1ded2"),
                              QStringLiteral("-p")}));

        // The same conversation id under another project starts a new session.
        f.assign(QStringLiteral("c3"), chat(QStringLiteral("claude"), QStringLiteral("Other"), QStringLiteral("hi"),
                                            QStringLiteral("conv-1")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("c3")));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 3).mid(0, 2),
                 (QStringList{QStringLiteral("--session-id"), QStringLiteral("86d108fd-ae28-51c4-9d37-75ed92c9f2b3")}));
        QCOMPARE(mcpFiles(), QStringList());
    }

    void claudeFailureReportsChatErrorThenFailed()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        write(QStringLiteral("claude.stream"), R"({"type":"error","message":"overloaded"})"
                                               "\n"
                                               R"({"type":"error","message":"overloaded"})"
                                               "\n");
        write(QStringLiteral("claude.stderr"), "boom");
        write(QStringLiteral("claude.exit"), "2");
        QVERIFY(f.connect());
        f.assign(QStringLiteral("e"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("x"), QStringLiteral("conv-e")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("e")));
        QCOMPARE(chatTrace(f, QStringLiteral("e")).mid(2),
                 (QStringList{QStringLiteral("log [stream.error] overloaded"), QStringLiteral("log boom"),
                              QStringLiteral("error command exited with status 2 [conv-e]"),
                              QStringLiteral("failed COMMAND_EXIT_NONZERO 2")}));
        QCOMPARE(mcpFiles(), QStringList());
        // The failed first message created the session (claude keeps it): the next one
        // continues it.
        write(QStringLiteral("claude.exit"), "0");
        f.assign(QStringLiteral("e2"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("x"), QStringLiteral("conv-e")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("e2")));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 1).first(), QStringLiteral("--session-id"));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 2).first(), QStringLiteral("--resume"));
    }

    void claudeWithoutApproverRunsWithoutPermissions()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f, false);
        QVERIFY(f.connect());
        f.assign(QStringLiteral("n"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("x"), QString()));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("n")));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 1).mid(0, 6),
                 (QStringList{QStringLiteral("--dangerously-skip-permissions"), QStringLiteral("-p"),
                              QStringLiteral("--verbose"), QStringLiteral("--output-format"),
                              QStringLiteral("stream-json"), QStringLiteral("--include-partial-messages")}));
        // Nothing printed at all: no final text, but the task finishes.
        QCOMPARE(chatTrace(f, QStringLiteral("n")).mid(1),
                 (QStringList{QStringLiteral("task.started"), QStringLiteral("task.finished")}));
    }

    void codexChatJoinsMessagesAndResumesItsThread()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        write(QStringLiteral("codex.stream"), codexStream());
        QVERIFY(f.connect());
        f.assign(QStringLiteral("x1"), chat(QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("list"),
                                            QStringLiteral("conv-x"), QStringLiteral("none")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("x1")));
        QCOMPARE(chatTrace(f, QStringLiteral("x1")).mid(1),
                 (QStringList{QStringLiteral("task.started"), QStringLiteral("chunk First. [conv-x]"),
                              QStringLiteral("log [command] ls"), QStringLiteral("chunk \nSecond. [conv-x]"),
                              QStringLiteral("final First.\nSecond. [conv-x]"), QStringLiteral("task.finished")}));
        const QString prompt = ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("list"));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("codex"), 1),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--full-auto"), QStringLiteral("--json"),
                              QStringLiteral("--skip-git-repo-check"), QStringLiteral("--color"),
                              QStringLiteral("never"), prompt}));

        f.assign(QStringLiteral("x2"), chat(QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("again"),
                                            QStringLiteral("conv-x"), QStringLiteral("none")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("x2")));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("codex"), 2),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("resume"), QStringLiteral("--json"),
                              QStringLiteral("--skip-git-repo-check"), QStringLiteral("th-123"),
                              ChatExecution::workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("again"))}));
    }

    void codexThreadThatIsGoneIsReplacedByANewOne()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        write(QStringLiteral("codex.stream"), codexStream());
        QVERIFY(f.connect());
        f.assign(QStringLiteral("t1"), chat(QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("list"),
                                            QStringLiteral("conv-t"), QStringLiteral("none")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t1")));
        // codex no longer knows the thread it reported.
        write(QStringLiteral("codex.script"),
              "if [[ $1 == exec && $2 == resume ]]; then\n"
              "  print -u2 -r -- 'Error: thread/resume: thread/resume failed: no rollout found for thread id th-123 "
              "(code -32600)'\n"
              "  exit 1\n"
              "fi\n");
        f.assign(QStringLiteral("t2"), chat(QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("again"),
                                            QStringLiteral("conv-t"), QStringLiteral("none")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("t2")));
        QCOMPARE(chatTrace(f, QStringLiteral("t2")).mid(1),
                 (QStringList{QStringLiteral("task.started"),
                              QStringLiteral("log Error: thread/resume: thread/resume failed: no rollout found for "
                                             "thread id th-123 (code -32600)"),
                              QStringLiteral("log [codex.retry] the thread is gone; starting a new one"),
                              QStringLiteral("chunk First. [conv-t]"), QStringLiteral("log [command] ls"),
                              QStringLiteral("chunk \nSecond. [conv-t]"),
                              QStringLiteral("final First.\nSecond. [conv-t]"), QStringLiteral("task.finished")}));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("codex"), 2).mid(0, 2),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("resume")}));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("codex"), 3).mid(0, 2),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--full-auto")}));
    }

    void codexWithApproverGetsTheOverridesAndPolicy()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        // While codex runs, the approval tool's token file is there, owner-only.
        write(QStringLiteral("codex.script"),
              "for a in $args; do if [[ $a == mcp_servers.approver.env.BRINMOOR_TOKEN_FILE=* ]]; then "
              "t=${${a#*=\\\"}%\\\"}; stat -c %a -- $t > $dir/token.mode; cat -- $t > $dir/token.text; fi; done\n");
        QVERIFY(f.connect());
        DiagRecorder log;
        f.assign(QStringLiteral("g"),
                 chat(QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("edit"), QStringLiteral("c")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("g")));
        const QString tokenFile = QDir::tempPath() + QStringLiteral("/brinmoor-token-g");
        const QStringList args = fakeToolArguments(m_fake.path(), QStringLiteral("codex"), 1);
        QCOMPARE(args.mid(0, 6),
                 (QStringList{QStringLiteral("exec"), QStringLiteral("--json"), QStringLiteral("--skip-git-repo-check"),
                              QStringLiteral("--color"), QStringLiteral("never"),
                              ChatExecution::systemPolicy + ChatExecution::workspaceScopedPrompt(
                                                                QStringLiteral("App"), QStringLiteral("edit"))}));
        QCOMPARE(
            args.mid(6),
            (QStringList{
                QStringLiteral("-c"), QStringLiteral("mcp_servers.approver.command=\"") + m_approver + QLatin1Char('"'),
                QStringLiteral("-c"), QStringLiteral("mcp_servers.approver.args=[]"), QStringLiteral("-c"),
                QStringLiteral("mcp_servers.approver.env.BRINMOOR_SERVER_URL=\"") + f.server.serverURL() +
                    QLatin1Char('"'),
                QStringLiteral("-c"), QStringLiteral("mcp_servers.approver.env.BRINMOOR_TASK_ID=\"g\""),
                QStringLiteral("-c"),
                QStringLiteral("mcp_servers.approver.env.BRINMOOR_TOKEN_FILE=\"") + tokenFile + QLatin1Char('"'),
                QStringLiteral("-c"),
                QStringLiteral("mcp_servers.approver.tools.request_permission.approval_mode=\"approve\""),
                QStringLiteral("-c"), QStringLiteral("sandbox_mode=\"workspace-write\"")}));
        QCOMPARE(readFile(m_fake.path() + QStringLiteral("/token.mode")), QByteArray("600\n"));
        QCOMPARE(readFile(m_fake.path() + QStringLiteral("/token.text")), QByteArray("secret-token\n"));
        QVERIFY(waitUntil([&] { return !QFile::exists(tokenFile); }));
        // The log shows the command cut at 1 KiB, never the token.
        const QStringList lines = log.texts().filter(QStringLiteral("task.assign resolved chat"));
        QCOMPARE(lines.size(), 1);
        QVERIFY(!lines.first().contains(QStringLiteral("secret-token")));
        QVERIFY2(lines.first().contains(
                     QRegularExpression(QStringLiteral("shell=codex exec .*\u2026 \\(\\d+ more bytes\\)$"))),
                 qPrintable(lines.first()));
    }

    void claudeSessionThatExistsAlreadyIsContinuedOnce()
    {
        // The runtime looks for claude's sessions in another folder than the tools keep
        // them in: it cannot know that the session exists.
        QTemporaryDir elsewhere;
        AgentFixture f(QStringLiteral("secret-token"), {}, {{QStringLiteral("CLAUDE_CONFIG_DIR"), elsewhere.path()}});
        setUpAgent(f, false);
        write(QStringLiteral("claude.stream"), claudeStream());
        QVERIFY(f.connect());
        f.assign(QStringLiteral("r1"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("hi"), QStringLiteral("conv-r")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("r1")));
        f.assign(QStringLiteral("r2"), chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("more"),
                                            QStringLiteral("conv-r")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.finished"), QStringLiteral("r2")));
        const QString session = QStringLiteral("09ca7a5f-b38f-5ba3-811c-c915ac5f9c0e");
        // claude refuses to create it again; the task goes on with the session continued.
        QCOMPARE(
            chatTrace(f, QStringLiteral("r2")).mid(1),
            (QStringList{QStringLiteral("task.started"),
                         QStringLiteral("log Error: Session ID ") + session + QStringLiteral(" is already in use."),
                         QStringLiteral("log [claude.retry] the session exists already; continuing it with "
                                        "--resume"),
                         QStringLiteral("chunk Hel [conv-r]"), QStringLiteral("chunk lo, all done. [conv-r]"),
                         QStringLiteral("log [tool.error] Bash: denied"),
                         QStringLiteral("final Hello, all done. [conv-r]"), QStringLiteral("task.finished")}));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 2).mid(0, 2),
                 (QStringList{QStringLiteral("--session-id"), session}));
        QCOMPARE(fakeToolArguments(m_fake.path(), QStringLiteral("claude"), 3).mid(0, 2),
                 (QStringList{QStringLiteral("--resume"), session}));

        // Once only: a continued session that fails the same way ends the task.
        write(QStringLiteral("claude.stderr"), "Error: Session ID x is already in use.\n");
        write(QStringLiteral("claude.exit"), "1");
        f.assign(QStringLiteral("r3"), chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("again"),
                                            QStringLiteral("conv-r")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("r3")));
        QCOMPARE(chatTrace(f, QStringLiteral("r3")).mid(1).filter(QStringLiteral("[claude.retry]")).size(), 1);
        QCOMPARE(chatTrace(f, QStringLiteral("r3")).mid(chatTrace(f, QStringLiteral("r3")).size() - 2),
                 (QStringList{QStringLiteral("error command exited with status 1 [conv-r]"),
                              QStringLiteral("failed COMMAND_EXIT_NONZERO 1")}));
        QVERIFY(!QFile::exists(m_fake.path() + QStringLiteral("/claude.6.args")));
    }

    void aCancelledChatIsNotRunAgain()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f, false);
        write(QStringLiteral("claude.script"), "print -u2 -r -- 'Error: Session ID x is already in use.'\n"
                                               "sleep 30\n"
                                               "exit 1\n");
        QVERIFY(f.connect());
        f.assign(QStringLiteral("k"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("x"), QStringLiteral("conv-k")));
        QVERIFY(f.server.waitFor([](const QJsonObject& m) {
            return m.value(QStringLiteral("line")).toString() ==
                   QLatin1String("Error: Session ID x is already in use.");
        }));
        f.server.send(QJsonObject{{QStringLiteral("type"), QStringLiteral("task.cancel")},
                                  {QStringLiteral("taskId"), QStringLiteral("k")}});
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
        QCOMPARE(chatTrace(f, QStringLiteral("k")).filter(QStringLiteral("[claude.retry]")), QStringList());
        QVERIFY(!QFile::exists(m_fake.path() + QStringLiteral("/claude.2.args")));
    }

    void chatWithoutPromptIsAConfigError()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        QVERIFY(f.connect());
        f.assign(QStringLiteral("p"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral(" "), QStringLiteral("c")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.failed"), QStringLiteral("p")));
        QCOMPARE(f.taskTrace(QStringLiteral("p")),
                 QStringList{QStringLiteral("task.failed AGENT_CONFIG_INVALID 1 Missing prompt")});
        QCOMPARE(mcpFiles(), QStringList());
    }

    void aConnectionLostPastItsGraceRemovesTheMcpConfiguration()
    {
        AgentFixture f(QStringLiteral("secret-token"), {}, claudeSees());
        setUpAgent(f);
        f.settings.setValue(QStringLiteral("taskDisconnectGraceSec"), QStringLiteral("0"));
        write(QStringLiteral("claude.stream"), QByteArray(R"({"type":"system"})"
                                                          "\n") +
                                                   kPause + kPause + kPause + kPause + kPause + kPause + kPause +
                                                   kPause + kPause + kPause + kPause + kPause + kPause);
        QVERIFY(f.connect());
        f.assign(QStringLiteral("l"),
                 chat(QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("x"), QStringLiteral("c")));
        QVERIFY(f.server.waitForTask(QStringLiteral("task.started"), QStringLiteral("l")));
        QCOMPARE(mcpFiles(), QStringList{QStringLiteral("brinmoor-mcp-l.json")});
        f.server.closeClient();
        QVERIFY(waitUntil([&] { return !f.runtime->currentTaskId(); }));
        QCOMPARE(mcpFiles(), QStringList());
    }
};

QTEST_GUILESS_MAIN(TstChatRoundTrip)
#include "tst_chat_round_trip.moc"
