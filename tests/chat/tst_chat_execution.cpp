#include "base/agent_error.h"
#include "base/diag.h"
#include "chat/chat_execution.h"
#include "config/agent_profile.h"
#include "config/connection_settings.h"
#include "config/settings_store.h"
#include "sessions/claude_session_store.h"
#include "support/test_support.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

using namespace brinmoor;
using namespace brinmoor::ChatExecution;
using ExecutionResolution::shellQuote;

class TstChatExecution : public QObject {
    Q_OBJECT

    QTemporaryDir m_repo;
    QTemporaryDir m_tmp;
    QTemporaryDir m_claude; // claude's configuration folder, with its sessions
    AgentProfile m_profile;
    ConnectionSettings m_connection;
    QString m_approver;

    ChatResolution resolve(const ChatSessions& sessions, const QString& system, const QString& project,
                           const QString& prompt, const QString& conversation, const QString& approval,
                           const QString& claudeConfig = QStringLiteral("<m_claude>"),
                           const QString& forkOf = QString())
    {
        return resolveChatExecution(
            m_profile, m_connection, sessions, system, project, prompt, QStringLiteral("task-1"), conversation,
            approval, m_tmp.path(),
            DeskSessions::Stores{claudeConfig == QLatin1String("<m_claude>") ? m_claude.path() : claudeConfig,
                                 QString()},
            forkOf);
    }

    // A session as claude leaves it in its store for a project folder.
    void claudeHasSession(const QString& project, const QString& session)
    {
        test::writeFile(m_claude.path() + QStringLiteral("/projects/") +
                        ClaudeSessionStore::projectFolderName(m_repo.path() + QLatin1Char('/') + project) +
                        QLatin1Char('/') + session + QStringLiteral(".jsonl"));
    }

    QString scoped(const QString& project, const QString& prompt) const
    {
        return shellQuote(workspaceScopedPrompt(project, prompt));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QDir().mkpath(m_repo.path() + QStringLiteral("/App"));
        QDir().mkpath(m_repo.path() + QStringLiteral("/Other"));
        m_approver = test::writeFile(m_repo.path() + QStringLiteral("/bin/MCPApprovalServer"), "#!/bin/sh\n");
        QFile::setPermissions(m_approver, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const MemorySettingsStore empty;
        m_profile = AgentProfile::load(empty, {}, Machine{});
        m_profile.repoRoot = m_repo.path();
        m_profile.mcpApproverPath = m_approver;
        m_connection.serverURL = QStringLiteral("http://127.0.0.1:8080");
        m_connection.agentId = QStringLiteral("agent");
        m_connection.token = QStringLiteral("tok\"en\\");
    }

    void workspaceScopedPromptText()
    {
        QCOMPARE(workspaceScopedPrompt(QStringLiteral("  "), QStringLiteral("hi")), QStringLiteral("hi"));
        QCOMPARE(workspaceScopedPrompt(QStringLiteral(" /p "), QStringLiteral("hi")),
                 QStringLiteral("Confirmed active project path for this request:\n/p\n\nWorkspace rules:\n"
                                "- Treat only this project path as the active workspace for this request.\n"
                                "- Do not rely on memory or context from any other project or repository.\n"
                                "- Do not state file paths, repo structure, sandbox limits, or write restrictions "
                                "unless they are confirmed from this workspace or runtime.\n"
                                "- If something about the current workspace is unconfirmed, say that explicitly.\n"
                                "\nUser request:\nhi"));
    }

    void scopedConversationKeyNeedsBothParts()
    {
        QCOMPARE(scopedConversationKey(QStringLiteral(" /p "), QStringLiteral(" c ")),
                 std::optional<QString>(QStringLiteral("/p::c")));
        QCOMPARE(scopedConversationKey(QStringLiteral("/p"), QStringLiteral(" ")), std::nullopt);
        QCOMPARE(scopedConversationKey(QString(), QStringLiteral("c")), std::nullopt);
    }

    void codexCommandTemplates()
    {
        QCOMPARE(codexExecCommandTemplate(QStringLiteral("none"), QString()),
                 QStringLiteral("codex exec --full-auto --json --skip-git-repo-check --color never {{prompt}}"));
        QCOMPARE(codexExecCommandTemplate(QStringLiteral("on_request"), QString()),
                 QStringLiteral("codex -a on-request exec --json --skip-git-repo-check --color never {{prompt}}"));
        QCOMPARE(codexExecCommandTemplate(QStringLiteral("none"), QStringLiteral("th'1")),
                 QStringLiteral("codex exec resume --json --skip-git-repo-check 'th'\"'\"'1' {{prompt}}"));
        QCOMPARE(codexExecCommandTemplate(QStringLiteral("on_request"), QStringLiteral("th")),
                 QStringLiteral("codex -a on-request exec resume --json --skip-git-repo-check 'th' {{prompt}}"));
    }

    void codexOverridesEscapeValues()
    {
        QCOMPARE(codexMCPConfigOverrides(QStringLiteral("t1"), QStringLiteral("/a b/it's"), m_connection,
                                         QStringLiteral("/tmp/brinmoor-token-\"t1\\")),
                 QStringLiteral(" -c 'mcp_servers.approver.command=\"/a b/it'\"'\"'s\"'"
                                " -c 'mcp_servers.approver.args=[]'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_SERVER_URL=\"http://127.0.0.1:8080\"'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_TASK_ID=\"t1\"'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_TOKEN_FILE=\"/tmp/brinmoor-token-\\\"t1\\\\\"'"
                                " -c 'mcp_servers.approver.tools.request_permission.approval_mode=\"approve\"'"));
        // The token itself never stands on the command line.
        QVERIFY(!codexMCPConfigOverrides(QStringLiteral("t1"), m_approver, m_connection, QStringLiteral("/f"))
                     .contains(m_connection.token));
    }

    void theApprovalToolIsToldWhichServerCertificatesToTrust()
    {
        ConnectionSettings tls = m_connection;
        tls.serverURL = QStringLiteral("https://127.0.0.1:8443");
        tls.tlsCA = QStringLiteral("/etc/ca.pem");
        tls.pinnedCertificate = QStringLiteral("/home/me/server.pem");
        QCOMPARE(codexMCPConfigOverrides(QStringLiteral("t1"), QStringLiteral("/bin/MCPApprovalServer"), tls,
                                         QStringLiteral("/f")),
                 QStringLiteral(" -c 'mcp_servers.approver.command=\"/bin/MCPApprovalServer\"'"
                                " -c 'mcp_servers.approver.args=[]'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_SERVER_URL=\"https://127.0.0.1:8443\"'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_TASK_ID=\"t1\"'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_TOKEN_FILE=\"/f\"'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_TLS_CA=\"/etc/ca.pem\"'"
                                " -c 'mcp_servers.approver.env.BRINMOOR_TLS_PINNED_CERT=\"/home/me/server.pem\"'"
                                " -c 'mcp_servers.approver.tools.request_permission.approval_mode=\"approve\"'"));
        const QString path =
            writeMCPConfig(QStringLiteral("t9"), m_approver, tls, QStringLiteral("/run/token"), m_tmp.path());
        QCOMPARE(QJsonDocument::fromJson(test::readFile(path))
                     .object()
                     .value(QStringLiteral("mcpServers"))
                     .toObject()
                     .value(QStringLiteral("approver"))
                     .toObject()
                     .value(QStringLiteral("env"))
                     .toObject(),
                 (QJsonObject{{QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("https://127.0.0.1:8443")},
                              {QStringLiteral("BRINMOOR_TASK_ID"), QStringLiteral("t9")},
                              {QStringLiteral("BRINMOOR_TOKEN_FILE"), QStringLiteral("/run/token")},
                              {QStringLiteral("BRINMOOR_TLS_CA"), QStringLiteral("/etc/ca.pem")},
                              {QStringLiteral("BRINMOOR_TLS_PINNED_CERT"), QStringLiteral("/home/me/server.pem")}}));
        QFile::remove(path);
    }

    void tokenFileIsOwnerOnly()
    {
        const QString path = writeTokenFile(QStringLiteral("t/9"), m_connection, m_tmp.path());
        QCOMPARE(path, m_tmp.path() + QStringLiteral("/brinmoor-token-t_9"));
        QCOMPARE(test::fileMode(path), 0600);
        QCOMPARE(test::readFile(path), m_connection.token.toUtf8() + '\n');
        QFile::remove(path);
    }

    void mcpConfigIsOwnerOnlyJson()
    {
        const QString path =
            writeMCPConfig(QStringLiteral("t9"), m_approver, m_connection, QStringLiteral("/run/token"), m_tmp.path());
        QCOMPARE(path, m_tmp.path() + QStringLiteral("/brinmoor-mcp-t9.json"));
        QCOMPARE(test::fileMode(path), 0600);
        const QJsonObject approver = QJsonDocument::fromJson(test::readFile(path))
                                         .object()
                                         .value(QStringLiteral("mcpServers"))
                                         .toObject()
                                         .value(QStringLiteral("approver"))
                                         .toObject();
        QCOMPARE(approver.value(QStringLiteral("command")).toString(), m_approver);
        QCOMPARE(approver.value(QStringLiteral("args")).toArray(), QJsonArray());
        QCOMPARE(approver.value(QStringLiteral("env")).toObject(),
                 (QJsonObject{{QStringLiteral("BRINMOOR_SERVER_URL"), QStringLiteral("http://127.0.0.1:8080")},
                              {QStringLiteral("BRINMOOR_TASK_ID"), QStringLiteral("t9")},
                              {QStringLiteral("BRINMOOR_TOKEN_FILE"), QStringLiteral("/run/token")}}));
        QFile::remove(path);
    }

    void mcpConfigNeverFollowsALinkOrLeavesTheFolder()
    {
        const QString target = m_tmp.path() + QStringLiteral("/target");
        test::writeFile(target, "keep");
        QVERIFY(QFile::link(target, m_tmp.path() + QStringLiteral("/brinmoor-mcp-x.json")));
        const QString path =
            writeMCPConfig(QStringLiteral("x"), m_approver, m_connection, QStringLiteral("/run/token"), m_tmp.path());
        QCOMPARE(test::readFile(target), QByteArray("keep"));
        QVERIFY(!QFileInfo(path).isSymLink());
        QFile::remove(path);
        const QString odd = writeMCPConfig(QStringLiteral("../../etc/x"), m_approver, m_connection,
                                           QStringLiteral("/run/token"), m_tmp.path());
        QCOMPARE(odd, m_tmp.path() + QStringLiteral("/brinmoor-mcp-.._.._etc_x.json"));
        QFile::remove(odd);
    }

    void unwritableFolderFailsTheResolution()
    {
        try {
            writeMCPConfig(QStringLiteral("t"), m_approver, m_connection, QStringLiteral("/run/token"),
                           QStringLiteral("/nonexistent-dir"));
            QFAIL("no error");
        } catch (const AgentError& error) {
            QCOMPARE(error.code, 14);
            QCOMPARE(error.message,
                     QStringLiteral("failed to write MCP configuration /nonexistent-dir/brinmoor-mcp-t.json: "
                                    "No such file or directory"));
        }
    }

    void missingProjectPathOrPrompt()
    {
        ChatSessions sessions;
        try {
            resolve(sessions, QStringLiteral("claude"), QStringLiteral(" "), QStringLiteral("x"), QString(), QString());
            QFAIL("no error");
        } catch (const AgentError& error) {
            QCOMPARE(error.code, 7);
            QCOMPARE(error.message, QStringLiteral("Missing projectPath"));
        }
        try {
            resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("  "), QString(),
                    QString());
            QFAIL("no error");
        } catch (const AgentError& error) {
            QCOMPARE(error.code, 8);
            QCOMPARE(error.message, QStringLiteral("Missing prompt"));
        }
    }

    void claudeWithApproverUsesTheTemplateAndANewSession()
    {
        ChatSessions sessions;
        DiagRecorder log;
        const ChatResolution r = resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"),
                                         QStringLiteral("it's"), QStringLiteral("c1"), QString());
        QVERIFY(r.mcpConfigPath);
        QCOMPARE(r.workingDir, m_repo.path() + QStringLiteral("/App"));
        QCOMPARE(r.shell,
                 QStringLiteral(
                     "claude --session-id 'fe4eaed6-11ff-55fd-9527-298e55a32c58' -p --verbose --permission-prompt-tool "
                     "mcp__approver__request_permission --mcp-config ") +
                     shellQuote(*r.mcpConfigPath) +
                     QStringLiteral(" --output-format stream-json --include-partial-messages ") +
                     scoped(QStringLiteral("App"), QStringLiteral("it's")));
        // Should claude say the session exists after all, the same command continues it.
        QVERIFY(r.retry);
        QCOMPARE(r.retry->shell, QString(r.shell).replace(QStringLiteral("--session-id"), QStringLiteral("--resume")));
        QCOMPARE(r.retry->whenToolSays, QStringLiteral("is already in use"));
        QCOMPARE(r.retry->note,
                 QStringLiteral("[claude.retry] the session exists already; continuing it with --resume"));
        QCOMPARE(
            log.texts(),
            (QStringList{QStringLiteral("resolveChatExecution using Claude MCP approval approverPath=") + m_approver,
                         QStringLiteral("resolveChatExecution projectPath=App workspace=") + m_repo.path() +
                             QStringLiteral("/App system=claude approvalMode=on_request")}));
        QFile::remove(*r.mcpConfigPath);
    }

    void secondClaudeMessageResumesOnlyInTheSameProject()
    {
        // claude's store has the session: whatever the bookkeeping says, it goes on.
        ChatSessions sessions;
        claudeHasSession(QStringLiteral("App"), QStringLiteral("fe4eaed6-11ff-55fd-9527-298e55a32c58"));
        const ChatResolution same = resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"),
                                            QStringLiteral("again"), QStringLiteral("c1"), QStringLiteral("none"));
        QVERIFY2(same.shell.startsWith(QStringLiteral(
                     "claude --resume 'fe4eaed6-11ff-55fd-9527-298e55a32c58' --dangerously-skip-permissions")),
                 qPrintable(same.shell));
        QVERIFY(!same.retry);
        // The same conversation in another project is another session.
        sessions.markChatSessionEstablished(QStringLiteral("Other::c1"));
        const ChatResolution other = resolve(sessions, QStringLiteral("claude"), QStringLiteral("Other"),
                                             QStringLiteral("again"), QStringLiteral("c1"), QStringLiteral("none"));
        QVERIFY2(other.shell.startsWith(QStringLiteral(
                     "claude --session-id '59d0ca79-3fd8-548b-87a8-32ccea5d1fca' --dangerously-skip-permissions")),
                 qPrintable(other.shell));
        QVERIFY(!other.mcpConfigPath);
        // Without a store to look at, the bookkeeping decides.
        const ChatResolution remembered =
            resolve(sessions, QStringLiteral("claude"), QStringLiteral("Other"), QStringLiteral("again"),
                    QStringLiteral("c1"), QStringLiteral("none"), QString());
        QVERIFY2(remembered.shell.startsWith(QStringLiteral("claude --resume '59d0ca79-3fd8-548b-87a8-32ccea5d1fca' ")),
                 qPrintable(remembered.shell));
    }

    void aConversationIdThatIsAUUIDIsTheSessionIdItself()
    {
        ChatSessions sessions;
        const QString upper = QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF");
        const ChatResolution first = resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"),
                                             QStringLiteral("hi"), upper, QStringLiteral("none"));
        QVERIFY2(first.shell.startsWith(QStringLiteral("claude --session-id '6F9619FF-8B86-D011-B42D-00C04FC964FF' ")),
                 qPrintable(first.shell));
        claudeHasSession(QStringLiteral("App"), upper);
        const ChatResolution second = resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"),
                                              QStringLiteral("hi"), upper, QStringLiteral("none"));
        QVERIFY2(second.shell.startsWith(QStringLiteral("claude --resume '6F9619FF-8B86-D011-B42D-00C04FC964FF' ")),
                 qPrintable(second.shell));
    }

    void claudeStoreFolderNames_data()
    {
        QTest::addColumn<QString>("workingDir");
        QTest::addColumn<QString>("folder");
        QTest::newRow("plain") << QStringLiteral("/tmp/brinmoor-rec/claude-500/App")
                               << QStringLiteral("-tmp-brinmoor-rec-claude-500-App");
        QTest::newRow("dots, blanks and more") << QStringLiteral("/tmp/a.b_c d+é") << QStringLiteral("-tmp-a-b-c-d--");
        // As claude 2.1.330 named the folder of this 250-character path.
        const QString longPath = QStringLiteral("/tmp/research/run-claude-text/") + QString(220, QLatin1Char('x'));
        QTest::newRow("long") << longPath
                              << QStringLiteral("-tmp-research-run-claude-text-") + QString(170, QLatin1Char('x')) +
                                     QStringLiteral("-f4rxeq");
    }

    void claudeStoreFolderNames()
    {
        QFETCH(QString, workingDir);
        QFETCH(QString, folder);
        QCOMPARE(ClaudeSessionStore::projectFolderName(workingDir), folder);
    }

    void claudeStoreFolderFollowsTheEnvironment()
    {
        QCOMPARE(ClaudeSessionStore::configDirectory({{QStringLiteral("CLAUDE_CONFIG_DIR"), QStringLiteral("/c")}},
                                                     QStringLiteral("/home/u")),
                 QStringLiteral("/c"));
        QCOMPARE(ClaudeSessionStore::configDirectory({}, QStringLiteral("/home/u")), QStringLiteral("/home/u/.claude"));
        QCOMPARE(ClaudeSessionStore::configDirectory({}, QString()), QString());
        // A working folder reached through a link is found where claude sees it.
        const QString link = m_tmp.path() + QStringLiteral("/linked-repo");
        QVERIFY(QFile::link(m_repo.path(), link));
        QVERIFY(!ClaudeSessionStore::hasSession(m_claude.path(), link + QStringLiteral("/App"), QStringLiteral("s1")));
        claudeHasSession(QStringLiteral("App"), QStringLiteral("s1"));
        QVERIFY(ClaudeSessionStore::hasSession(m_claude.path(), link + QStringLiteral("/App"), QStringLiteral("s1")));
        QVERIFY(
            !ClaudeSessionStore::hasSession(m_claude.path(), link + QStringLiteral("/Other"), QStringLiteral("s1")));
        QFile::remove(link);
    }

    void onlyTheCanonicalUUIDFormIsASessionId_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<bool>("isUUID");
        QTest::newRow("lower") << QStringLiteral("6f9619ff-8b86-d011-b42d-00c04fc964ff") << true;
        QTest::newRow("upper") << QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF") << true;
        QTest::newRow("braces") << QStringLiteral("{6f9619ff-8b86-d011-b42d-00c04fc964ff}") << false;
        QTest::newRow("no dashes") << QStringLiteral("6f9619ff8b86d011b42d00c04fc964ff") << false;
        QTest::newRow("blank around") << QStringLiteral(" 6f9619ff-8b86-d011-b42d-00c04fc964ff") << false;
        QTest::newRow("not hex") << QStringLiteral("6g9619ff-8b86-d011-b42d-00c04fc964ff") << false;
        QTest::newRow("name") << QStringLiteral("phone chat 7") << false;
    }

    void onlyTheCanonicalUUIDFormIsASessionId()
    {
        QFETCH(QString, id);
        QFETCH(bool, isUUID);
        QCOMPARE(isSessionUUID(id), isUUID);
        const QString session = claudeSessionID(id, scopedConversationKey(QStringLiteral("App"), id));
        QCOMPARE(session == id, isUUID);
        QVERIFY(isSessionUUID(session));
        QCOMPARE(claudeSessionID(QStringLiteral("phone chat 7"), QStringLiteral("App::phone chat 7")),
                 QStringLiteral("5ca9c834-0e55-5122-9eca-21c43d3df022"));
    }

    void claudeWithoutApproverFallsBackToSkippingPermissions()
    {
        AgentProfile saved = m_profile;
        m_profile.mcpApproverPath = m_repo.path() + QStringLiteral("/missing/MCPApprovalServer");
        ChatSessions sessions;
        DiagRecorder log;
        const ChatResolution r = resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"),
                                         QStringLiteral("hi"), QString(), QStringLiteral("on_request"));
        QCOMPARE(r.shell, QStringLiteral("claude --dangerously-skip-permissions -p --verbose --output-format "
                                         "stream-json --include-partial-messages ") +
                              scoped(QStringLiteral("App"), QStringLiteral("hi")));
        QVERIFY(!r.retry);
        QCOMPARE(log.texts().first(), QStringLiteral("resolveChatExecution MCPApprovalServer not found at ") +
                                          m_profile.mcpApproverPath +
                                          QStringLiteral(", falling back to Claude --dangerously-skip-permissions"));
        m_profile = saved;
    }

    void claudeApprovalNoneSkipsPermissions()
    {
        ChatSessions sessions;
        DiagRecorder log;
        const ChatResolution r = resolve(sessions, QStringLiteral("CLAUDE "), QStringLiteral("App"),
                                         QStringLiteral("hi"), QString(), QStringLiteral("NONE"));
        QVERIFY(r.shell.startsWith(QStringLiteral("claude --dangerously-skip-permissions -p")));
        QCOMPARE(log.texts().first(),
                 QStringLiteral("resolveChatExecution approvalMode=none, running Claude chat without MCP approval"));
    }

    void approvalNeverStillAsksThroughTheApprover()
    {
        ChatSessions sessions;
        DiagRecorder log;
        const ChatResolution claude = resolve(sessions, QStringLiteral("claude"), QStringLiteral("App"),
                                              QStringLiteral("hi"), QString(), QStringLiteral("never"));
        QVERIFY(claude.mcpConfigPath);
        QVERIFY(!claude.shell.contains(QStringLiteral("--dangerously-skip-permissions")));
        QFile::remove(*claude.mcpConfigPath);
        const ChatResolution codex = resolve(sessions, QStringLiteral("codex"), QStringLiteral("App"),
                                             QStringLiteral("hi"), QString(), QStringLiteral("never"));
        QVERIFY(!codex.shell.contains(QStringLiteral("--full-auto")));
        QVERIFY(codex.tokenFilePath);
        QFile::remove(*codex.tokenFilePath);
        QCOMPARE(
            log.texts().filter(QStringLiteral("using")),
            (QStringList{QStringLiteral("resolveChatExecution using Claude MCP approval approverPath=") + m_approver,
                         QStringLiteral("resolveChatExecution using Codex MCP approval approverPath=") + m_approver}));
    }

    void codexApprovalNoneRunsFullAuto()
    {
        ChatSessions sessions;
        DiagRecorder log;
        const ChatResolution r = resolve(sessions, QStringLiteral("codex"), QStringLiteral("App"),
                                         QStringLiteral("it's"), QStringLiteral("c"), QStringLiteral("none"));
        QCOMPARE(r.shell, QStringLiteral("codex exec --full-auto --json --skip-git-repo-check --color never ") +
                              scoped(QStringLiteral("App"), QStringLiteral("it's")));
        QCOMPARE(log.texts().first(), QStringLiteral("resolveChatExecution using native Codex approvalMode=none"));
    }

    void codexWithApproverCarriesOverridesAndThePolicy()
    {
        ChatSessions sessions;
        DiagRecorder log;
        const ChatResolution r = resolve(sessions, QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("go"),
                                         QStringLiteral("c"), QString());
        QCOMPARE(r.shell,
                 QStringLiteral("codex exec --json --skip-git-repo-check --color never ") +
                     shellQuote(systemPolicy + workspaceScopedPrompt(QStringLiteral("App"), QStringLiteral("go"))) +
                     codexMCPConfigOverrides(QStringLiteral("task-1"), m_approver, m_connection,
                                             m_tmp.path() + QStringLiteral("/brinmoor-token-task-1")) +
                     QStringLiteral(" -c 'sandbox_mode=\"workspace-write\"'"));
        QCOMPARE(log.texts().first(),
                 QStringLiteral("resolveChatExecution using Codex MCP approval approverPath=") + m_approver);
        QVERIFY(!r.mcpConfigPath);
        QCOMPARE(r.tokenFilePath, std::optional<QString>(m_tmp.path() + QStringLiteral("/brinmoor-token-task-1")));
        QCOMPARE(test::fileMode(*r.tokenFilePath), 0600);
        QVERIFY(!r.shell.contains(m_connection.token));
        QFile::remove(*r.tokenFilePath);
    }

    // A new conversation that starts as a copy of another session, which stays as it was.
    void aCopyOfASessionStartsFromIt()
    {
        const QString original = QStringLiteral("11111111-2222-4333-8444-555555555555");
        const QString copy = QStringLiteral("aaaaaaaa-bbbb-4ccc-8ddd-eeeeeeeeeeee");
        const ChatResolution claude =
            resolve(ChatSessions(), QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("go"), copy,
                    QStringLiteral("none"), QStringLiteral("<m_claude>"), original);
        QCOMPARE(claude.shell, QStringLiteral("claude --resume '") + original +
                                   QStringLiteral("' --fork-session --session-id '") + copy +
                                   QStringLiteral("' --dangerously-skip-permissions -p --verbose --output-format "
                                                  "stream-json --include-partial-messages ") +
                                   scoped(QStringLiteral("App"), QStringLiteral("go")));
        // Once the copy exists, it goes on as any session.
        claudeHasSession(QStringLiteral("App"), copy);
        QVERIFY(resolve(ChatSessions(), QStringLiteral("claude"), QStringLiteral("App"), QStringLiteral("go"), copy,
                        QStringLiteral("none"), QStringLiteral("<m_claude>"), original)
                    .shell.startsWith(QStringLiteral("claude --resume '") + copy + QStringLiteral("' --danger")));
        const ChatResolution codex =
            resolve(ChatSessions(), QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("go"),
                    QStringLiteral("c"), QStringLiteral("none"), QStringLiteral("<m_claude>"), QStringLiteral("th-1"));
        QCOMPARE(codex.shell, QStringLiteral("codex exec fork --json --skip-git-repo-check 'th-1' ") +
                                  scoped(QStringLiteral("App"), QStringLiteral("go")));
        // The thread the copy became goes on as any thread.
        ChatSessions recorded;
        recorded.recordCodexThreadID(QStringLiteral("th-2"), QStringLiteral("c"), QStringLiteral("App"));
        QVERIFY(resolve(recorded, QStringLiteral("codex"), QStringLiteral("App"), QStringLiteral("go"),
                        QStringLiteral("c"), QStringLiteral("none"), QStringLiteral("<m_claude>"),
                        QStringLiteral("th-1"))
                    .shell.startsWith(QStringLiteral("codex exec resume --json --skip-git-repo-check 'th-2' ")));
    }

    void codexResumesTheRecordedThread()
    {
        ChatSessions sessions;
        sessions.recordCodexThreadID(QStringLiteral("th-9"), QStringLiteral(" c "), QStringLiteral("App "));
        const ChatResolution gated = resolve(sessions, QStringLiteral("codex"), QStringLiteral("App"),
                                             QStringLiteral("go"), QStringLiteral("c"), QString());
        QVERIFY(gated.shell.startsWith(
            QStringLiteral("codex exec resume --json --skip-git-repo-check 'th-9' 'System policy")));
        const ChatResolution native = resolve(sessions, QStringLiteral("codex"), QStringLiteral("App"),
                                              QStringLiteral("go"), QStringLiteral("c"), QStringLiteral("none"));
        QCOMPARE(native.shell, QStringLiteral("codex exec resume --json --skip-git-repo-check 'th-9' ") +
                                   scoped(QStringLiteral("App"), QStringLiteral("go")));
        // Should codex have lost the thread, the conversation goes on in a new one.
        const ChatResolution fresh = resolve(ChatSessions(), QStringLiteral("codex"), QStringLiteral("App"),
                                             QStringLiteral("go"), QStringLiteral("c"), QStringLiteral("none"));
        QVERIFY(!fresh.retry);
        QVERIFY(native.retry);
        QCOMPARE(native.retry->shell, fresh.shell);
        QCOMPARE(native.retry->whenToolSays, QStringLiteral("no rollout found"));
        QCOMPARE(native.retry->note, QStringLiteral("[codex.retry] the thread is gone; starting a new one"));
        QVERIFY(gated.retry);
        QCOMPARE(gated.retry->shell, resolve(ChatSessions(), QStringLiteral("codex"), QStringLiteral("App"),
                                             QStringLiteral("go"), QStringLiteral("c"), QString())
                                         .shell);
    }
};

QTEST_GUILESS_MAIN(TstChatExecution)
#include "tst_chat_execution.moc"
