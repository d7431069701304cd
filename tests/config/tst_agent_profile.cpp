#include "config/agent_profile.h"
#include "config/connection_settings.h"
#include "config/local_server_settings.h"
#include "config/runtime_defaults.h"
#include "config/settings_store.h"
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;

class TstAgentProfile : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    Machine machine() const
    {
        Machine m;
        m.executablePath = m_dir.path() + QStringLiteral("/bin/BrinmoorMacAgent");
        m.currentDirectory = m_dir.path() + QStringLiteral("/cwd");
        m.homeDirectory = m_dir.path() + QStringLiteral("/home");
        m.hostName = QStringLiteral("host");
        return m;
    }

private Q_SLOTS:
    void builtInDefaults()
    {
        MemorySettingsStore store;
        const AgentProfile profile = AgentProfile::load(store, {}, machine());
        QCOMPARE(profile.profileId, QStringLiteral("ios-local"));
        QCOMPARE(profile.repoRoot, m_dir.path() + QStringLiteral("/cwd"));
        QCOMPARE(profile.buildTemplate, QStringLiteral("./deploy.sh {{projectArg}} --no-password"));
        QCOMPARE(profile.claudeChatTemplate,
                 QStringLiteral("claude -p --verbose --permission-prompt-tool "
                                "mcp__approver__request_permission --mcp-config {{mcpConfigPath}} "
                                "--output-format stream-json {{prompt}}"));
        QCOMPARE(profile.codexChatTemplate,
                 QStringLiteral("codex -a on-request exec --json --skip-git-repo-check --color never {{prompt}}"));
        QCOMPARE(profile.terminalChatTemplate, QStringLiteral("claude"));
        const QString plan =
            QStringLiteral("codex exec --full-auto --skip-git-repo-check --color never --json {{prompt}}");
        QCOMPARE(profile.aiPlanTemplate, plan);
        QCOMPARE(profile.aiApplyTemplate, plan);
        QCOMPARE(profile.mcpApproverPath, m_dir.path() + QStringLiteral("/home/.brinmoor/bin/MCPApprovalServer"));
        QCOMPARE(profile.projects, QStringList());
        QCOMPARE(profile.createProjectRoot, std::nullopt);
        QCOMPARE(profile.actions,
                 (QStringList{QStringLiteral("build_ios"), QStringLiteral("ai_task"), QStringLiteral("chat"),
                              QStringLiteral("shell"), QStringLiteral("terminal_session")}));
    }

    void settingsKeyBeatsEnvironmentWhichBeatsDefault()
    {
        MemorySettingsStore store;
        store.setValue(QStringLiteral("chatTemplate"), QStringLiteral("stored-claude"));
        store.setValue(QStringLiteral("codexChatTemplate"), QString()); // empty counts as absent
        const Environment env{{QStringLiteral("BRINMOOR_CHAT_TEMPLATE"), QStringLiteral("env-claude")},
                              {QStringLiteral("BRINMOOR_CODEX_CHAT_TEMPLATE"), QStringLiteral("env-codex")},
                              {QStringLiteral("BRINMOOR_AI_APPLY_TEMPLATE"), QStringLiteral("env-apply")},
                              {QStringLiteral("BRINMOOR_TERMINAL_CHAT_TEMPLATE"), QString()}};
        const AgentProfile profile = AgentProfile::load(store, env, machine());
        QCOMPARE(profile.claudeChatTemplate, QStringLiteral("stored-claude"));
        QCOMPARE(profile.codexChatTemplate, QStringLiteral("env-codex"));
        QCOMPARE(profile.aiApplyTemplate, QStringLiteral("env-apply"));
        QCOMPARE(profile.terminalChatTemplate, QStringLiteral("claude"));
    }

    void approverBesideTheExecutableIsPreferred()
    {
        MemorySettingsStore store;
        const QString beside = test::writeFile(m_dir.path() + QStringLiteral("/bin/MCPApprovalServer"));
        QCOMPARE(AgentProfile::load(store, {}, machine()).mcpApproverPath, beside);
        store.setValue(QStringLiteral("mcpApproverPath"), QStringLiteral("/opt/approver"));
        QCOMPARE(AgentProfile::load(store, {}, machine()).mcpApproverPath, QStringLiteral("/opt/approver"));
        QFile::remove(beside);
    }

    // The folder of the program is the one of the path it was started by, however that
    // path was given: a link there is not followed to the program's real folder.
    void theProgramsFolderIsTheOneOfTheLinkItWasStartedBy()
    {
        QTemporaryDir dir;
        const QString top = dir.path() + QStringLiteral("/top");
        const QString bin = top + QStringLiteral("/a/b/c/bin");
        QVERIFY(QDir().mkpath(bin));
        QVERIFY(QDir().mkpath(dir.path() + QStringLiteral("/cwd")));
        QVERIFY(QFile::link(test::binDir() + QStringLiteral("/BrinmoorMacAgent"),
                            bin + QStringLiteral("/BrinmoorMacAgent")));
        test::writeFile(bin + QStringLiteral("/MCPApprovalServer"));
        test::writeFile(top + QStringLiteral("/deploy.sh"));
        // Started by an absolute path, by a relative one with "." and "..", and by its
        // bare name found on PATH.
        const QStringList commands{
            bin + QStringLiteral("/BrinmoorMacAgent"),
            QStringLiteral("../top/a/./b/c/bin/../bin/BrinmoorMacAgent"),
            QStringLiteral("BrinmoorMacAgent"),
        };
        for (const QString& command : commands) {
            QTemporaryDir configHome;
            QProcess process;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome.path());
            env.insert(QStringLiteral("HOME"), dir.path() + QStringLiteral("/home"));
            env.insert(QStringLiteral("PATH"), bin + QLatin1Char(':') + env.value(QStringLiteral("PATH")));
            for (const char* name : {"BRINMOOR_REPO_ROOT", "BRINMOOR_MCP_APPROVER_PATH", "BRINMOOR_PROJECTS",
                                     "BRINMOOR_CREATE_PROJECT_ROOT"})
                env.remove(QLatin1String(name));
            process.setProcessEnvironment(env);
            process.setWorkingDirectory(dir.path() + QStringLiteral("/cwd"));
            // The shell starts the program with the command as its first argument.
            process.start(QStringLiteral("/bin/sh"),
                          {QStringLiteral("-c"), QStringLiteral("exec \"$0\" --print-profile"), command});
            QVERIFY(process.waitForFinished(30000));
            QCOMPARE(process.exitCode(), 0);
            const QJsonObject profile = QJsonDocument::fromJson(process.readAllStandardOutput())
                                            .object()
                                            .value(QStringLiteral("profile"))
                                            .toObject();
            QCOMPARE(profile.value(QStringLiteral("repoRoot")).toString(), top);
            QCOMPARE(profile.value(QStringLiteral("mcpApproverPath")).toString(),
                     bin + QStringLiteral("/MCPApprovalServer"));
        }
    }

    void projectsCombineConfiguredAndDiscovered()
    {
        const QString configured = test::makeProject(m_dir.path() + QStringLiteral("/p/Zeta"));
        const QString root = m_dir.path() + QStringLiteral("/new");
        const QString discovered = test::makeProject(root + QStringLiteral("/Alpha"), true);
        MemorySettingsStore store;
        store.setValue(QStringLiteral("projects"), QString(configured + QLatin1Char(',') + discovered));
        store.setValue(QStringLiteral("createProjectRoot"), root);
        const AgentProfile profile = AgentProfile::load(store, {}, machine());
        QCOMPARE(profile.projects, (QStringList{discovered, configured}));
        QCOMPARE(profile.createProjectRoot, std::optional<QString>(root));
    }

    void loadAfterEnsureSeesTheWrittenValues()
    {
        MemorySettingsStore store;
        const Environment env{{QStringLiteral("BRINMOOR_PROFILE_ID"), QStringLiteral("first")}};
        RuntimeDefaults::ensure(store, env, machine());
        const Environment changed{{QStringLiteral("BRINMOOR_PROFILE_ID"), QStringLiteral("second")},
                                  {QStringLiteral("BRINMOOR_AGENT_ID"), QStringLiteral("other")}};
        const AgentProfile profile = AgentProfile::load(store, changed, machine());
        QCOMPARE(profile.profileId, QStringLiteral("first"));
        QCOMPARE(profile.repoRoot, m_dir.path() + QStringLiteral("/cwd"));
        const ConnectionSettings connection = ConnectionSettings::load(store, changed);
        QCOMPARE(connection.agentId, QStringLiteral("host"));
        QCOMPARE(connection.serverURL, QStringLiteral("http://127.0.0.1:8080"));
        QCOMPARE(connection.token, store.string(QStringLiteral("token")).value_or(QString()));
    }

    void connectionSettingsDefaults()
    {
        MemorySettingsStore store;
        const ConnectionSettings connection = ConnectionSettings::load(store, {});
        QCOMPARE(connection.serverURL, QStringLiteral("http://127.0.0.1:8080"));
        QCOMPARE(connection.agentId, QStringLiteral("mac-agent"));
        QCOMPARE(connection.token, QString());
        QCOMPARE(connection.tlsCA, QString());
    }

    void localServerSettingsComeFromTheStoreThenTheEnvironment()
    {
        MemorySettingsStore store;
        const Environment env{{QStringLiteral("BRINMOOR_TLS_CERT"), QStringLiteral("/env/cert.pem")},
                              {QStringLiteral("BRINMOOR_TLS_KEY"), QStringLiteral("/env/key.pem")},
                              {QStringLiteral("BRINMOOR_PUBLIC_URL"), QStringLiteral("https://env.example")},
                              {QStringLiteral("BRINMOOR_TRUSTED_PROXIES"), QStringLiteral("10.0.0.1")},
                              {QStringLiteral("BRINMOOR_ALLOWED_HOSTS"), QStringLiteral("mymac.example")},
                              {QStringLiteral("BRINMOOR_PUSH_CONTACT"), QStringLiteral("mailto:env@example.org")},
                              {QStringLiteral("BRINMOOR_TLS_CA"), QStringLiteral("/env/ca.pem")}};
        QVERIFY(!LocalServerSettings::load(store, {}).tls());
        QCOMPARE(LocalServerSettings::load(store, {}).scheme(), QStringLiteral("http"));
        store.setValue(QStringLiteral("tlsCert"), QStringLiteral("/store/cert.pem"));
        store.setValue(QStringLiteral("publicURL"), QString()); // empty counts as absent
        store.setValue(QStringLiteral("pushContact"), QStringLiteral("mailto:store@example.org"));
        const LocalServerSettings server = LocalServerSettings::load(store, env);
        QVERIFY(server.tls());
        QCOMPARE(server.scheme(), QStringLiteral("https"));
        QCOMPARE(server.serverEnvironment(),
                 (QList<QPair<QString, QString>>{
                     {QStringLiteral("BRINMOOR_TLS_CERT"), QStringLiteral("/store/cert.pem")},
                     {QStringLiteral("BRINMOOR_TLS_KEY"), QStringLiteral("/env/key.pem")},
                     {QStringLiteral("BRINMOOR_PUBLIC_URL"), QStringLiteral("https://env.example")},
                     {QStringLiteral("BRINMOOR_TRUSTED_PROXIES"), QStringLiteral("10.0.0.1")},
                     {QStringLiteral("BRINMOOR_ALLOWED_HOSTS"), QStringLiteral("mymac.example")},
                     {QStringLiteral("BRINMOOR_PUSH_CONTACT"), QStringLiteral("mailto:store@example.org")}}));
        QCOMPARE(ConnectionSettings::load(store, env).tlsCA, QStringLiteral("/env/ca.pem"));
    }
};

QTEST_GUILESS_MAIN(TstAgentProfile)
#include "tst_agent_profile.moc"
