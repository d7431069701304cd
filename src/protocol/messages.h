#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

// One builder per outgoing message, so that every member name lives in one place.
namespace Messages {

// What "agent.register" announces of the agent's profile.
struct Registration {
    QString profileId;
    QStringList projects;
    std::optional<QString> createProjectRoot;
    QStringList actions;
    QString buildTemplate;
    QString repoRoot;
};

// Connection level.
QJsonObject agentRegister(const Registration& profile);
QJsonObject taskHeartbeat(const QString& taskId);
// The first message on every connection: the seq of the agent's first message ever and
// of the next message on this connection.
QJsonObject agentStream(qint64 first, qint64 next);

// What the agent runs, restated after every connect.
struct StateTask {
    QString taskId;
    QString kind;
    QString projectPath;
    QString conversationId; // chats only
    bool awaitingApproval = false;
};
struct StateTerminal {
    QString sessionId;
    QString projectPath;
    bool interactive = false;
};
// "proposal" is the waiting "task.awaiting_approval" without its "type"; none when no
// proposal waits.
QJsonObject agentState(const QList<StateTask>& tasks, const std::optional<QJsonObject>& proposal,
                       const QList<StateTerminal>& terminals);

// Task results.
QJsonObject taskStarted(const QString& taskId);
QJsonObject taskLog(const QString& taskId, const QString& line);
// The serialised "task.log" message, written without building an object: output
// lines are the agent's hottest path. Parses to the same object as `taskLog`.
// With a `number`, the line's number in the task's kept output ("number").
QString taskLogText(QStringView taskId, QStringView line, std::optional<qint64> number = std::nullopt);
// Appends a JSON string literal (quotes included) for the text.
void appendJsonString(QString& out, QStringView text);
QJsonObject taskCommentary(const QString& taskId, const QString& text);
QJsonObject taskChatChunk(const QString& taskId, const QString& conversationId, const QString& chunk);
QJsonObject taskChatFinal(const QString& taskId, const QString& conversationId, const QString& text);
QJsonObject taskChatError(const QString& taskId, const QString& conversationId, const QString& message);
QJsonObject taskFinished(const QString& taskId);
QJsonObject taskFailed(const QString& taskId, const QString& error, const QString& errorCode, qint64 exitCode);
QJsonObject taskCancelled(const QString& taskId, qint64 exitCode);
QJsonObject taskProgress(const QString& taskId, const QString& phase, const QString& message, qint64 percent);
QJsonObject taskArtifact(const QString& taskId, const QString& kind, const QString& summary, const QString& mimeType);

// What the phone is shown of one proposal.
struct Proposal {
    QString proposalId;
    QString summary;
    QString commentary;
    QString diff;
    QStringList files;
    // The clients may approve some of the files and not others (our relay's only).
    bool fileChoice = false;
};
QJsonObject taskProposalReady(const QString& taskId, const Proposal& proposal);
QJsonObject taskAwaitingApproval(const QString& taskId, const Proposal& proposal);

// A folder under the repository root that looks like a project: its path relative to
// the root, its name, and what marks it (".git", "package.json", …).
struct FoundProject {
    QString path;
    QString name;
    QStringList markers;
};
QJsonObject projectsListed(const QList<FoundProject>& projects);

// Terminal sessions.
// "projectPathMissing" says that the project's folder was not there and the shell
// started in the repository root (for our relay's clients only).
QJsonObject terminalOpened(const QString& sessionId, const QString& projectPath, bool interactive,
                           bool projectPathMissing = false);
QJsonObject terminalAttached(const QString& sessionId, const QString& projectPath);
// Live output for our relay's clients carries "offset": how much output the session
// has given so far, this piece included, counted in UTF-16 code units (what
// JavaScript's length counts).
QJsonObject terminalOutput(const QString& sessionId, const QString& projectPath, const QString& data,
                           bool snapshot = false, std::optional<qint64> offset = std::nullopt);
// The serialised "terminal.output", written without building an object (terminal
// output is a hot path). Parses to the same object as `terminalOutput`.
QString terminalOutputText(QStringView sessionId, QStringView projectPath, QStringView data, bool snapshot = false,
                           std::optional<qint64> offset = std::nullopt);
QJsonObject terminalStatus(const QString& sessionId, const QString& projectPath, qint64 cols, qint64 rows);
QJsonObject terminalCompletion(const QString& sessionId, const QString& projectPath, qint64 replacementStart,
                               qint64 replacementEnd, const QString& replacement, const QStringList& suggestions);
QJsonObject terminalClosed(const QString& sessionId, const QString& projectPath, std::optional<qint64> exitCode);
QJsonObject terminalError(const QString& sessionId, const QString& projectPath, const QString& text);

} // namespace Messages

} // namespace brinmoor
