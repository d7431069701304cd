#include "base/agent_error.h"
#include "base/diag.h"
#include "chat/chat_execution.h"
#include "config/agent_profile.h"
#include "config/settings_store.h"
#include "proposals/ai_task_resolution.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using namespace brinmoor;
using namespace brinmoor::AITaskResolution;
using ExecutionResolution::shellQuote;

class TstAITaskResolution : public QObject {
    Q_OBJECT

    QTemporaryDir m_repo;
    AgentProfile m_profile;

    QString errorOf(const std::optional<QString>& mode, const QString& project, const QString& prompt)
    {
        try {
            resolveAITaskExecution(m_profile, QStringLiteral("codex"), mode, project, prompt);
        } catch (const AgentError& error) {
            return QString::number(error.code) + QLatin1Char(' ') + error.message;
        }
        return QStringLiteral("(no error)");
    }

private Q_SLOTS:
    void initTestCase()
    {
        const MemorySettingsStore empty;
        m_profile = AgentProfile::load(empty, {}, Machine{});
        m_profile.repoRoot = m_repo.path();
        QDir().mkpath(m_repo.path() + QStringLiteral("/it's app"));
    }

    void upperCaseApplyWithBlanksIsApply()
    {
        const AITaskExecutionStrategy strategy =
            aiTaskExecutionStrategy(QStringLiteral("codex"), QStringLiteral(" APPLY "), std::nullopt);
        QVERIFY(strategy.isProposal());
        QVERIFY(strategy.requiresApproval);
        QCOMPARE(strategy.description(), QStringLiteral("proposalApproval(requiresApproval: true)"));
    }

    void codexApplyWithApprovalNoneAppliesWithoutAsking()
    {
        const AITaskExecutionStrategy strategy =
            aiTaskExecutionStrategy(QStringLiteral("codex"), QStringLiteral("apply"), QStringLiteral(" NONE "));
        QVERIFY(strategy.isProposal());
        QVERIFY(!strategy.requiresApproval);
        QCOMPARE(strategy.description(), QStringLiteral("proposalApproval(requiresApproval: false)"));
    }

    void codexApplyWithAnyOtherApprovalModeAsks()
    {
        for (const QString& approval :
             {QStringLiteral("never"), QStringLiteral("on_request"), QStringLiteral("auto")}) {
            const AITaskExecutionStrategy strategy =
                aiTaskExecutionStrategy(QStringLiteral("codex"), QStringLiteral("apply"), approval);
            QVERIFY(strategy.isProposal());
            QVERIFY2(strategy.requiresApproval, qPrintable(approval));
        }
    }

    void claudeAndPlansRunDirectly()
    {
        QCOMPARE(aiTaskExecutionStrategy(QStringLiteral("claude"), QStringLiteral("apply"), std::nullopt).description(),
                 QStringLiteral("directCommand"));
        QCOMPARE(aiTaskExecutionStrategy(QStringLiteral("codex"), QStringLiteral("plan"), std::nullopt).description(),
                 QStringLiteral("directCommand"));
    }

    void errorsForModePromptAndProject()
    {
        QCOMPARE(errorOf(QStringLiteral(" Review "), QStringLiteral("x"), QStringLiteral("p")),
                 QStringLiteral("4 Unsupported mode:  Review "));
        QCOMPARE(errorOf(std::nullopt, QStringLiteral("x"), QStringLiteral("p")),
                 QStringLiteral("4 Unsupported mode: "));
        QCOMPARE(errorOf(QStringLiteral("plan"), QStringLiteral("x"), QStringLiteral("  ")),
                 QStringLiteral("6 Missing prompt"));
        QCOMPARE(errorOf(QStringLiteral("plan"), QStringLiteral(" "), QStringLiteral("p")),
                 QStringLiteral("5 Missing projectPath"));
        QCOMPARE(errorOf(QStringLiteral("plan"), QStringLiteral("nope"), QStringLiteral("p")),
                 QStringLiteral("12 Project path does not exist: nope"));
    }

    void codexApplyCarriesTheExecutionModeText()
    {
        DiagRecorder log;
        const ResolvedExecution resolved =
            resolveAITaskExecution(m_profile, QStringLiteral("codex"), QStringLiteral("Apply"),
                                   QStringLiteral("it's app"), QStringLiteral("go"));
        QCOMPARE(resolved.workingDir, m_repo.path() + QStringLiteral("/it's app"));
        QCOMPARE(resolved.shell,
                 QStringLiteral("codex exec --full-auto --json --skip-git-repo-check --color never ") +
                     shellQuote(systemExecutionModeText + ChatExecution::workspaceScopedPrompt(
                                                              QStringLiteral("it's app"), QStringLiteral("go"))));
        QVERIFY(systemExecutionModeText.startsWith(
            QStringLiteral("System execution mode for this task:\n- You are running")));
        QVERIFY(systemExecutionModeText.endsWith(QStringLiteral("that led to that conclusion.\n\nUser request:\n")));
        QCOMPARE(systemExecutionModeText.count(QLatin1Char('\n')), 13);
        QCOMPARE(log.texts(), QStringList{QStringLiteral("resolveAITaskExecution projectPath=it's app workspace=") +
                                          m_repo.path() + QStringLiteral("/it's app mode=apply")});
    }

    void codexPlanUsesTheProfileTemplate()
    {
        AgentProfile profile = m_profile;
        profile.aiPlanTemplate = QStringLiteral("plan {{projectArg}} {{projectPath}} {{prompt}}");
        const ResolvedExecution resolved =
            resolveAITaskExecution(profile, QStringLiteral("codex"), QStringLiteral("plan"),
                                   m_repo.path() + QStringLiteral("/it's app/"), QStringLiteral("p"));
        QVERIFY(resolved.shell.startsWith(QStringLiteral("plan 'it'\"'\"'s app' '") + m_repo.path() +
                                          QStringLiteral("/it'\"'\"'s app/' 'Confirmed")));
    }

    void claudeUsesItsTemplateInEitherMode()
    {
        const ResolvedExecution resolved =
            resolveAITaskExecution(m_profile, QStringLiteral("Claude"), QStringLiteral("plan"),
                                   QStringLiteral("it's app"), QStringLiteral("p"));
        QCOMPARE(resolved.shell,
                 QStringLiteral("claude --dangerously-skip-permissions -p --verbose ") +
                     shellQuote(ChatExecution::workspaceScopedPrompt(QStringLiteral("it's app"), QStringLiteral("p"))));
    }
};

QTEST_GUILESS_MAIN(TstAITaskResolution)
#include "tst_ai_task_resolution.moc"
