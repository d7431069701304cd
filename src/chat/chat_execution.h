#pragma once

#include "chat/chat_sessions.h"
#include "execution/execution_resolution.h"
#include "sessions/desk_sessions.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

struct AgentProfile;
struct ConnectionSettings;

// A chat's second try, for when the tool cannot go on with the conversation as the
// command says: claude answers that the session to create exists already, codex that the
// thread to continue is gone.
struct ChatRetry {
    QString shell;        // run once in place of the first command
    QString whenToolSays; // what the tool's output holds when the retry is due
    QString note;         // the task log line that says what happened
};

// What a chat runs, and the files written for it that hold the agent token (Claude's
// MCP configuration, the token file of Codex's approval tool), to be removed when the
// task ends.
struct ChatResolution {
    QString shell;
    QString workingDir;
    std::optional<QString> mcpConfigPath;
    std::optional<QString> tokenFilePath;
    std::optional<ChatRetry> retry;

    QStringList tokenFiles() const
    {
        QStringList files;
        for (const std::optional<QString>& file : {mcpConfigPath, tokenFilePath}) {
            if (file)
                files.append(*file);
        }
        return files;
    }
};

namespace ChatExecution {

// The text put between the confirmed project path and the user's request.
extern const QString workspaceRules;
// The prefix of approval-gated Codex chats.
extern const QString systemPolicy;

// Trimmed project path + "::" + trimmed conversation id; absent when either is empty.
std::optional<QString> scopedConversationKey(const QString& projectPath, const QString& conversationId);

// Whether a text is a UUID in its canonical 8-4-4-4-12 hexadecimal form (any case):
// the only form Claude takes as a session id.
bool isSessionUUID(const QString& text);

// The Claude session id of a conversation: the conversation id itself when it is a
// UUID, else a name-based (version 5) UUID of the scoped conversation key, so the same
// conversation in the same project always maps to the same session.
QString claudeSessionID(const QString& conversationId, const std::optional<QString>& scopedKey);

QString workspaceScopedPrompt(const QString& projectPath, const QString& userPrompt);

QString codexExecCommandTemplate(const QString& approvalMode, const QString& resumeThreadID);

// The -c options pointing Codex's "approver" MCP server at the approval tool, and
// letting codex call its "request_permission" without asking anyone itself (`codex exec`
// would refuse the call); begins with a blank so it can be appended to a command. The
// token is not among them (a command line is visible to every local user): the tool
// reads it from the owner-only file at `tokenFilePath`.
QString codexMCPConfigOverrides(const QString& taskId, const QString& approverPath,
                                const ConnectionSettings& connection, const QString& tokenFilePath);

// Writes the agent token, readable by the user only, as "brinmoor-token-<task id>" in the
// folder; returns its path. Throws AgentError when it cannot be written.
QString writeTokenFile(const QString& taskId, const ConnectionSettings& connection, const QString& folder);

// Writes Claude's MCP configuration readable by the user only, as
// "brinmoor-mcp-<task id>.json" in the folder; returns its path. The approval tool it
// names reads the token from the owner-only file at `tokenFilePath`: no process's
// environment holds it. Throws AgentError when it cannot be written.
QString writeMCPConfig(const QString& taskId, const QString& approverPath, const ConnectionSettings& connection,
                       const QString& tokenFilePath, const QString& folder);

// Whether the approval tool can be run.
bool approvalServerAvailable(const QString& approverPath);

// The shell text and folder of a chat; writes the MCP configuration when Claude's
// approval goes through the approval tool. A Claude conversation continues its session
// (--resume) when claude's store has it, and creates it (--session-id) otherwise; without
// a store to look at, the bookkeeping decides. A Codex conversation continues the thread
// it started, or the thread its id names when codex's store has that thread (one started
// at the desk). A new conversation with `forkOf` starts as a copy of that session
// (claude --fork-session, codex exec fork), which is left as it was. Throws AgentError.
ChatResolution resolveChatExecution(const AgentProfile& profile, const ConnectionSettings& connection,
                                    const ChatSessions& sessions, const std::optional<QString>& system,
                                    const QString& projectPath, const QString& prompt, const QString& taskId,
                                    const QString& conversationId, const std::optional<QString>& approvalMode,
                                    const QString& temporaryFolder, const DeskSessions::Stores& stores,
                                    const QString& forkOf = QString());

} // namespace ChatExecution

} // namespace brinmoor
