#pragma once

#include "execution/shell_execution_result.h"
#include "proposals/proposal_files.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

class ProcessRunner;
class TaskHost;

// Drives one "ai_task" that proposes changes: copies the project, lets `codex` edit
// the copy while its narrative streams to the phone, diffs the copy against the
// project, sends the proposal with the assistant's explanation, waits for approval
// when asked to, applies the diff with `git apply` (all of it, or the files the approval
// names, binary ones from the copy) and reports the outcome. Every step
// that can take long (copy, command, diff, apply, removal) runs off the event loop or
// as a child process, so heartbeats, cancellation and terminals keep flowing. The copy
// is removed on every path; a task cancelled meanwhile stops without another word.
class CodexApplyTask : public QObject {
    Q_OBJECT

public:
    struct Request {
        QString taskId;
        QString shell;      // the proposal command, run in the copy
        QString workingDir; // the real project folder
        qint64 timeoutSec = 1200;
        bool requiresApproval = true;
    };

    // Runs its command through the runner, whose current task it is.
    CodexApplyTask(TaskHost& host, ProcessRunner& runner, Request request, QObject* parent = nullptr);
    ~CodexApplyTask() override;

    void start();

private:
    void onWorkspaceReady(const QString& copy, const QString& error);
    void runProposalCommand();
    void onCommandFinished(const ShellExecutionResult& result);
    void onDiff(const QString& diff, const QString& error);
    void onApproval(bool approved, const std::optional<QStringList>& files);
    void apply();
    void onApplied(const QString& error);

    // Runs the blocking work on a worker thread and hands its result back on the loop.
    template <typename Work, typename Then> void offLoop(Work work, Then then);
    void log(const QString& line);
    void fail(const QString& error, const QString& errorCode);
    // Whether this task is still the agent's current one (it was not cancelled).
    bool isCurrent() const;
    // Removes the copy and clears the task; the object goes away after.
    void finish();

    TaskHost& m_host;
    ProcessRunner& m_runner;
    const Request m_request;
    QString m_copy;
    QString m_rawOutput;
    QString m_narrative;
    QString m_diff;
    QString m_commentary;
    QStringList m_files;
    // The diff file by file, and what of it is applied (all, or what the approval named).
    QList<ProposalFiles::FileChange> m_changes;
    QList<ProposalFiles::FileChange> m_applying;
    bool m_partly = false;
    bool m_finished = false;
};

} // namespace brinmoor
