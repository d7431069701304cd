#include "base/agent_error.h"
#include "base/diag.h"
#include "config/agent_profile.h"
#include "execution/execution_resolution.h"
#include "support/test_support.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::ExecutionResolution;

namespace {

AgentProfile profileAt(const QString& repoRoot)
{
    AgentProfile profile;
    profile.repoRoot = repoRoot;
    profile.buildTemplate = QLatin1String(ProfileDefaults::buildTemplate);
    profile.actions = ProfileDefaults::actions();
    return profile;
}

// Runs a resolution and returns "code message" of the error it throws.
template <typename F> QString errorOf(F&& resolve)
{
    try {
        resolve();
    } catch (const AgentError& error) {
        return error.domain + QLatin1Char(' ') + QString::number(error.code) + QLatin1Char(' ') + error.message;
    }
    return QStringLiteral("(no error)");
}

const QString kPreamble = QStringLiteral(
    "export PATH=\"/opt/homebrew/bin:/usr/local/bin:$HOME/.local/bin:$HOME/bin:$HOME/.claude/bin:$PATH\"; ");

} // namespace

class TstExecutionResolution : public QObject {
    Q_OBJECT

    QTemporaryDir m_repo;

private Q_SLOTS:
    void trailingSlashProjectPathGivesItsFolderName()
    {
        QCOMPARE(normalizeProjectArg(QStringLiteral("/Users/x/app/")), QStringLiteral("app"));
        QCOMPARE(normalizeProjectArg(QStringLiteral("  app \n")), QStringLiteral("app"));
        QCOMPARE(normalizeProjectArg(QStringLiteral("/")), QString());
        QCOMPARE(normalizeProjectArg(QStringLiteral("a//")), QStringLiteral("a/"));
    }

    void blankProjectPathGivesEmptyText() { QCOMPARE(normalizeProjectArg(QStringLiteral("   ")), QString()); }

    void relativeProjectFoundUnderProj()
    {
        QDir().mkpath(m_repo.path() + QStringLiteral("/proj/app"));
        QCOMPARE(resolveWorkspacePath(m_repo.path(), QStringLiteral("app")),
                 m_repo.path() + QStringLiteral("/proj/app"));
        QDir().mkpath(m_repo.path() + QStringLiteral("/app"));
        QCOMPARE(resolveWorkspacePath(m_repo.path(), QStringLiteral("app")), m_repo.path() + QStringLiteral("/app"));
    }

    void trailingSlashNamesTheSameFolder()
    {
        QDir().mkpath(m_repo.path() + QStringLiteral("/app"));
        QCOMPARE(resolveWorkspacePath(m_repo.path(), QStringLiteral("app/")), m_repo.path() + QStringLiteral("/app"));
        QCOMPARE(resolveWorkspacePath(m_repo.path() + QLatin1Char('/'), QStringLiteral("app//")),
                 m_repo.path() + QStringLiteral("/app"));
        const ResolvedExecution shell =
            resolveShellExecution(profileAt(m_repo.path()), QStringLiteral("pwd"), QStringLiteral("app/"));
        QCOMPARE(shell.workingDir, m_repo.path() + QStringLiteral("/app"));
    }

    void existingAbsolutePathIsUsedAsIs()
    {
        QTemporaryDir elsewhere;
        QCOMPARE(resolveWorkspacePath(m_repo.path(), elsewhere.path()), elsewhere.path());
    }

    void missingAbsolutePathIsTriedUnderTheRootBeforeFailing()
    {
        QDir().mkpath(m_repo.path() + QStringLiteral("/nowhere/x"));
        QCOMPARE(resolveWorkspacePath(m_repo.path(), QStringLiteral("/nowhere/x")),
                 m_repo.path() + QStringLiteral("/nowhere/x"));
        DiagRecorder log;
        QCOMPARE(errorOf([&] { resolveWorkspacePath(m_repo.path(), QStringLiteral("/gone/y")); }),
                 QStringLiteral("AgentRuntime 12 Project path does not exist: /gone/y"));
        QCOMPARE(
            log.texts(),
            QStringList{QStringLiteral("resolveWorkspacePath failed projectArg=/gone/y repoRoot=%1 direct=%1/gone/y "
                                       "inProj=%1/proj/gone/y")
                            .arg(m_repo.path())});
    }

    void singleQuoteIsClosedQuotedAndReopened()
    {
        QCOMPARE(shellQuote(QStringLiteral("it's")), QStringLiteral("'it'\"'\"'s'"));
        QCOMPARE(shellQuote(QString()), QStringLiteral("''"));
    }

    void quotedValueRoundTripsThroughZsh()
    {
        const QString value = QStringLiteral("it's a \"test\" $HOME `x` \\ é");
        QProcess zsh;
        zsh.start(QStringLiteral("/bin/zsh"),
                  {QStringLiteral("-fc"), QStringLiteral("print -rn -- ") + shellQuote(value)});
        QVERIFY(zsh.waitForFinished(10000));
        QCOMPARE(QString::fromUtf8(zsh.readAllStandardOutput()), value);
    }

    void unlistedActionFailsWithCode1EvenWithoutProjectPath()
    {
        const AgentProfile profile = profileAt(m_repo.path());
        QCOMPARE(errorOf([&] { resolveExecution(profile, QStringLiteral("deploy_android"), QString()); }),
                 QStringLiteral("AgentRuntime 1 Unsupported action: deploy_android"));
        QCOMPARE(errorOf([&] { resolveExecution(profile, QStringLiteral("Build_ios"), QStringLiteral("a")); }),
                 QStringLiteral("AgentRuntime 1 Unsupported action: Build_ios"));
    }

    void missingProjectPathFailsWithCode2()
    {
        QCOMPARE(errorOf([&] {
                     resolveExecution(profileAt(m_repo.path()), QStringLiteral("build_ios"), QStringLiteral("  "));
                 }),
                 QStringLiteral("AgentRuntime 2 Missing projectPath"));
    }

    void missingDeployScriptFailsWithCode3()
    {
        QTemporaryDir bare;
        AgentProfile profile = profileAt(bare.path());
        profile.buildTemplate = QStringLiteral("xcodebuild {{projectArg}}");
        QCOMPARE(errorOf([&] { resolveExecution(profile, QStringLiteral("build_ios"), QStringLiteral("app")); }),
                 QStringLiteral("AgentRuntime 3 deploy.sh not found in repoRoot: ") + bare.path());
    }

    void repositoryScriptTemplateGetsTheFullPathAndRunsInTheRoot()
    {
        test::writeFile(m_repo.path() + QStringLiteral("/deploy.sh"));
        AgentProfile profile = profileAt(m_repo.path());
        profile.buildTemplate = QStringLiteral("./deploy.sh {{projectArg}}");
        DiagRecorder log;
        const ResolvedExecution resolved =
            resolveExecution(profile, QStringLiteral("build_ios"), QStringLiteral("/Users/x/My App/"));
        QCOMPARE(resolved.shell, QStringLiteral("./deploy.sh '/Users/x/My App/'"));
        QCOMPARE(resolved.workingDir, m_repo.path());
        QCOMPARE(log.texts(),
                 QStringList{QStringLiteral("resolveExecution action=build_ios projectPath=/Users/x/My App/ "
                                            "workingDir=") +
                             m_repo.path()});
    }

    void otherTemplatesNameTheProjectByFolderAndRunInIt()
    {
        test::writeFile(m_repo.path() + QStringLiteral("/deploy.sh"));
        QDir().mkpath(m_repo.path() + QStringLiteral("/proj/App"));
        AgentProfile profile = profileAt(m_repo.path());
        profile.buildTemplate = QStringLiteral("make -C {{projectPath}} NAME={{projectArg}} KEY={{projectKey}}");
        const ResolvedExecution resolved = resolveExecution(profile, QStringLiteral("chat"), QStringLiteral("App"));
        QCOMPARE(resolved.shell, QStringLiteral("make -C 'App' NAME='App' KEY='App'"));
        QCOMPARE(resolved.workingDir, m_repo.path() + QStringLiteral("/proj/App"));
        QCOMPARE(buildProjectTemplateArgument(QStringLiteral(" x ./run.sh"), QStringLiteral("/a/b/")),
                 QStringLiteral("/a/b/"));
        QCOMPARE(buildProjectTemplateArgument(QStringLiteral("tool {{projectArg}}"), QStringLiteral("/a/b/")),
                 QStringLiteral("b"));
        QCOMPARE(resolveBuildWorkingDir(QStringLiteral("/r"), QStringLiteral("  "), QStringLiteral("x")),
                 QStringLiteral("/r"));
    }

    void shellCommandIsPrefixedWithThePreamble()
    {
        QDir().mkpath(m_repo.path() + QStringLiteral("/app"));
        AgentProfile profile = profileAt(m_repo.path());
        profile.createProjectRoot = QStringLiteral("/new root");
        DiagRecorder log;
        const ResolvedExecution resolved = resolveShellExecution(
            profile, QStringLiteral("ls {{projectArg}} {{projectPath}} {{projectKey}}"), QStringLiteral("app"));
        QCOMPARE(resolved.workingDir, m_repo.path() + QStringLiteral("/app"));
        QCOMPARE(resolved.shell,
                 kPreamble + QStringLiteral("export BRINMOOR_REPO_ROOT='") + m_repo.path() +
                     QStringLiteral("'; export BRINMOOR_CREATE_PROJECT_ROOT='/new root'; ls 'app' 'app' 'app'"));
        QCOMPARE(log.texts(),
                 QStringList{QStringLiteral("resolveShellExecution projectPath=app workingDir=") + m_repo.path() +
                             QStringLiteral("/app command=ls {{projectArg}} "
                                            "{{projectPath}} {{projectKey}}")});
    }

    void shellPreambleIsEmittedWithoutCreateProjectRoot()
    {
        const ResolvedExecution resolved =
            resolveShellExecution(profileAt(m_repo.path()), QStringLiteral("pwd"), QString());
        QCOMPARE(resolved.workingDir, m_repo.path());
        QVERIFY(resolved.shell.endsWith(QStringLiteral("; export BRINMOOR_CREATE_PROJECT_ROOT=''; pwd")));
    }

    void blankShellCommandFailsWithCode9()
    {
        QCOMPARE(errorOf([&] {
                     resolveShellExecution(profileAt(m_repo.path()), QStringLiteral(" \n"), QStringLiteral("x"));
                 }),
                 QStringLiteral("AgentRuntime 9 shell action requires non-empty command"));
    }

    void aiSystemAndApprovalModeNormalisation()
    {
        QCOMPARE(normalizeAISystem(QStringLiteral("CLAUDE ")), QStringLiteral("claude"));
        QCOMPARE(normalizeAISystem(QStringLiteral("gemini")), QStringLiteral("codex"));
        QCOMPARE(normalizeAISystem(std::nullopt), QStringLiteral("codex"));
        QCOMPARE(normalizeApprovalMode(QStringLiteral("NONE")), QStringLiteral("none"));
        // Only "none" skips approval: "never" asks like any other mode.
        QCOMPARE(normalizeApprovalMode(QStringLiteral(" Never ")), QStringLiteral("on_request"));
        QCOMPARE(normalizeApprovalMode(QStringLiteral("always")), QStringLiteral("on_request"));
        QCOMPARE(normalizeApprovalMode(std::nullopt), QStringLiteral("on_request"));
    }

    void refreshAfterShellTaskOnlyInTheCreateProjectRoot()
    {
        AgentProfile profile = profileAt(m_repo.path());
        QVERIFY(!shouldRefreshCapabilitiesAfterShellTask(profile, QStringLiteral("/new")));
        profile.createProjectRoot = QStringLiteral("/new/");
        QVERIFY(shouldRefreshCapabilitiesAfterShellTask(profile, QStringLiteral("/new/x/..")));
        QVERIFY(!shouldRefreshCapabilitiesAfterShellTask(profile, QStringLiteral("/new/x")));
    }
};

QTEST_GUILESS_MAIN(TstExecutionResolution)
#include "tst_execution_resolution.moc"
