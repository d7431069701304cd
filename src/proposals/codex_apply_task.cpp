#include "proposals/codex_apply_task.h"

#include "base/agent_error.h"
#include "chat/chat_json_line_parser.h"
#include "execution/approval_slot.h"
#include "execution/process_runner.h"
#include "execution/task_host.h"
#include "proposals/narrative_text.h"
#include "proposals/workspace_copy.h"
#include "proposals/workspace_diff.h"
#include "protocol/messages.h"

#include <QFutureWatcher>
#include <QPointer>
#include <QUuid>
#include <QtConcurrent/QtConcurrentRun>

namespace brinmoor {

namespace {

qsizetype utf8Size(const QString& text)
{
    return text.toUtf8().size();
}

} // namespace

CodexApplyTask::CodexApplyTask(TaskHost& host, ProcessRunner& runner, Request request, QObject* parent)
    : QObject(parent), m_host(host), m_runner(runner), m_request(std::move(request))
{
}

CodexApplyTask::~CodexApplyTask() = default;

template <typename Work, typename Then> void CodexApplyTask::offLoop(Work work, Then then)
{
    using Result = decltype(work());
    auto* watcher = new QFutureWatcher<Result>(this);
    connect(watcher, &QFutureWatcher<Result>::finished, this, [watcher, then] {
        then(watcher->result());
        watcher->deleteLater();
    });
    watcher->setFuture(QtConcurrent::run(std::move(work)));
}

bool CodexApplyTask::isCurrent() const
{
    return m_runner.currentTaskId() == m_request.taskId;
}

void CodexApplyTask::log(const QString& line)
{
    m_host.sendJSON(Messages::taskLog(m_request.taskId, line));
}

void CodexApplyTask::fail(const QString& error, const QString& errorCode)
{
    m_host.sendJSON(Messages::taskFailed(m_request.taskId, error, errorCode, 1));
    finish();
}

void CodexApplyTask::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    if (!m_copy.isEmpty()) {
        // Removing a big copy takes time: not on the loop.
        const QString copy = m_copy;
        [[maybe_unused]] const auto removal = QtConcurrent::run([copy] { WorkspaceCopy::removeTree(copy); });
    }
    if (isCurrent())
        m_runner.cleanupFinishedTask();
    deleteLater();
}

void CodexApplyTask::start()
{
    const QString& taskId = m_request.taskId;
    m_host.sendJSON(Messages::taskStarted(taskId));
    m_host.sendJSON(
        Messages::taskProgress(taskId, QStringLiteral("prepare"), QStringLiteral("Preparing proposed changes"), 5));
    const QString project = m_request.workingDir;
    const QString temporary = m_host.temporaryFolder();
    offLoop(
        [project, taskId, temporary] {
            QString error;
            const QString copy = WorkspaceCopy::copyProject(project, taskId, temporary, &error);
            return std::pair{copy, error};
        },
        [this](const std::pair<QString, QString>& result) { onWorkspaceReady(result.first, result.second); });
}

void CodexApplyTask::onWorkspaceReady(const QString& copy, const QString& error)
{
    m_copy = copy;
    if (!isCurrent())
        return finish();
    if (copy.isEmpty()) {
        return fail(QStringLiteral("failed to prepare proposal workspace: ") + error,
                    QStringLiteral("PROPOSAL_WORKSPACE_FAILED"));
    }
    log(QStringLiteral("proposal.workspace original=") + m_request.workingDir + QStringLiteral(" proposal=") + copy);
    runProposalCommand();
}

void CodexApplyTask::runProposalCommand()
{
    // The narrative streams to the phone while the command runs: each new piece of
    // assistant text is cleaned and added, and the phone replaces its bubble.
    auto parser = std::make_shared<ChatJSONLineParser>(ChatJSONProvider::codex);
    QPointer<CodexApplyTask> self(this);
    const auto handle = [self](const ParseResult& result) {
        if (!self)
            return;
        for (const QString& diagnostic : result.diagnostics)
            self->log(diagnostic);
        bool added = false;
        for (const QString& delta : result.deltas) {
            const QString piece = NarrativeText::normalizeNarrativeText(delta, NarrativeText::kNarrativeLimit);
            if (piece.isEmpty())
                continue;
            if (!self->m_narrative.isEmpty())
                self->m_narrative += QLatin1Char('\n');
            self->m_narrative += piece;
            added = true;
        }
        if (added)
            self->m_host.sendJSON(Messages::taskCommentary(self->m_request.taskId, self->m_narrative));
    };
    m_runner.executeShellCapture(
        m_request.shell, m_copy, true, true,
        [self, parser, handle](ShellExecutionResult result) {
            handle(parser->finish());
            if (self)
                self->onCommandFinished(result);
        },
        [parser, handle](const QString& text) { handle(parser->process(text)); },
        // The command as it runs, fitted to the installed codex.
        [self](const QString& shell) {
            if (self)
                self->log(QStringLiteral("proposal.command shell=") + shell);
        });
}

void CodexApplyTask::onCommandFinished(const ShellExecutionResult& result)
{
    m_rawOutput = result.combinedOutput();
    if (!isCurrent())
        return finish();
    if (m_runner.isCancelling(m_request.taskId)) {
        // Stopped by a cancellation whose one end this is.
        m_host.sendJSON(Messages::taskCancelled(m_request.taskId, 130));
        return finish();
    }
    log(QStringLiteral("proposal.command exitCode=%1 outputBytes=%2").arg(result.exitCode).arg(utf8Size(m_rawOutput)));
    if (result.exitCode != 0) {
        return fail(QStringLiteral("proposal command exited with status %1").arg(result.exitCode),
                    QStringLiteral("PROPOSAL_COMMAND_FAILED"));
    }
    const QString original = m_request.workingDir;
    const QString copy = m_copy;
    offLoop(
        [original, copy] {
            try {
                return std::pair{WorkspaceDiff::computeWorkspaceDiff(original, copy), QString()};
            } catch (const AgentError& error) {
                return std::pair{QString(), error.message};
            }
        },
        [this](const std::pair<QString, QString>& result) { onDiff(result.first, result.second); });
}

void CodexApplyTask::onDiff(const QString& diff, const QString& error)
{
    if (!isCurrent())
        return finish();
    if (!error.isEmpty())
        return fail(QStringLiteral("failed to compute proposal diff: ") + error,
                    QStringLiteral("PROPOSAL_DIFF_FAILED"));
    m_diff = diff;
    log(QStringLiteral("proposal.diff bytes=%1").arg(utf8Size(diff)));
    const NarrativeText::ProposalOutput output = NarrativeText::parseCodexProposalOutput(m_rawOutput);
    const std::optional<QString> commentary = NarrativeText::noDiffCommentary(output.responseText);
    const QString& taskId = m_request.taskId;

    if (diff.isEmpty()) {
        // Nothing changed (or only build output): the explanation is the answer.
        if (!commentary) {
            return fail(
                QStringLiteral("Codex did not provide a user-visible reasoning message for the no-diff outcome."),
                QStringLiteral("PROPOSAL_REASONING_MISSING"));
        }
        log(QStringLiteral("proposal.empty_diff responseBytes=%1").arg(utf8Size(output.responseText)));
        m_host.sendJSON(Messages::taskCommentary(taskId, *commentary));
        m_host.sendJSON(Messages::taskFinished(taskId));
        return finish();
    }

    // A diff is never offered without an explanation.
    if (!commentary) {
        return fail(QStringLiteral("Codex did not provide a usable reasoning message for the proposed diff."),
                    QStringLiteral("PROPOSAL_REASONING_MISSING"));
    }
    m_commentary = *commentary;
    m_files = WorkspaceDiff::changedFiles(diff);
    m_changes = ProposalFiles::split(diff);
    m_applying = m_changes;
    Messages::Proposal proposal;
    proposal.proposalId = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    proposal.summary = NarrativeText::proposalSummary(m_commentary);
    proposal.commentary = m_commentary;
    proposal.diff = diff;
    proposal.files = m_files;
    log(QStringLiteral("proposal.ready files=%1 requiresApproval=%2")
            .arg(m_files.size())
            .arg(m_request.requiresApproval ? QStringLiteral("true") : QStringLiteral("false")));
    m_host.sendJSON(Messages::taskCommentary(taskId, m_commentary));
    // The artifact's label says diff although it carries the commentary; the phone
    // expects it so.
    m_host.sendJSON(
        Messages::taskArtifact(taskId, QStringLiteral("proposal"), m_commentary, QStringLiteral("text/x-diff")));
    if (!m_request.requiresApproval) {
        m_host.sendJSON(Messages::taskProposalReady(taskId, proposal));
        m_host.sendJSON(
            Messages::taskProgress(taskId, QStringLiteral("apply"), QStringLiteral("Applying approved changes"), 75));
        return apply();
    }
    proposal.fileChoice = m_host.offersFileChoice();
    m_host.sendJSON(Messages::taskAwaitingApproval(taskId, proposal));
    QPointer<CodexApplyTask> self(this);
    m_host.approvals().waitForDecision(taskId, m_request.timeoutSec,
                                       [self](bool approved, const std::optional<QStringList>& files) {
                                           // Resumed after whatever resolved the wait has finished its own work.
                                           QMetaObject::invokeMethod(
                                               self.data(),
                                               [self, approved, files] {
                                                   if (self)
                                                       self->onApproval(approved, files);
                                               },
                                               Qt::QueuedConnection);
                                       });
}

void CodexApplyTask::onApproval(bool approved, const std::optional<QStringList>& files)
{
    if (!isCurrent())
        return finish();
    if (!approved) {
        log(QStringLiteral("proposal.approval rejected_or_timed_out"));
        return fail(QStringLiteral("changes rejected by client approval"), QStringLiteral("APPROVAL_REJECTED"));
    }
    if (!files) {
        log(QStringLiteral("proposal.approval approved"));
    } else {
        // Only the files named; a name the proposal does not change refuses it all.
        const QStringList unknown = ProposalFiles::unknownNames(m_changes, *files);
        if (!unknown.isEmpty()) {
            return fail(QStringLiteral("the approval names files the proposal does not change: ") +
                            unknown.join(QStringLiteral(", ")),
                        QStringLiteral("APPROVAL_FILES_UNKNOWN"));
        }
        m_applying = ProposalFiles::select(m_changes, *files);
        m_partly = true;
        log(QStringLiteral("proposal.approval approved files=%1 of %2").arg(m_applying.size()).arg(m_changes.size()));
        if (m_applying.isEmpty())
            return fail(QStringLiteral("no file of the proposal was approved"), QStringLiteral("APPROVAL_REJECTED"));
    }
    m_host.sendJSON(Messages::taskProgress(m_request.taskId, QStringLiteral("apply"),
                                           QStringLiteral("Applying approved changes"), 75));
    apply();
}

void CodexApplyTask::apply()
{
    const QList<ProposalFiles::FileChange> changes = m_applying;
    const QString workingDir = m_request.workingDir;
    const QString copy = m_copy;
    const QString temporary = m_host.temporaryFolder();
    offLoop(
        [changes, workingDir, copy, temporary] {
            try {
                ProposalFiles::apply(changes, workingDir, copy, temporary);
                return QString();
            } catch (const AgentError& error) {
                return error.message;
            }
        },
        [this](const QString& error) { onApplied(error); });
}

void CodexApplyTask::onApplied(const QString& error)
{
    if (!error.isEmpty())
        return fail(QStringLiteral("failed to apply approved diff: ") + error, QStringLiteral("APPLY_DIFF_FAILED"));
    const QString& taskId = m_request.taskId;
    QStringList applied;
    for (const ProposalFiles::FileChange& change : m_applying)
        applied.append(change.name);
    if (m_partly) {
        for (const ProposalFiles::FileChange& change : m_changes) {
            log((applied.contains(change.name) ? QStringLiteral("proposal.applied ")
                                               : QStringLiteral("proposal.left ")) +
                change.name);
        }
    }
    m_host.sendJSON(
        Messages::taskArtifact(taskId, QStringLiteral("result"),
                               NarrativeText::applyCompletionSummary(m_partly ? applied : m_files, m_commentary),
                               QStringLiteral("text/plain")));
    m_host.sendJSON(Messages::taskFinished(taskId));
    registerManagedProjectIfPresent(m_rawOutput, m_host.defaults(), m_host.environment());
    finish();
}

} // namespace brinmoor
