#pragma once

#include "execution/execution_resolution.h"

#include <QHash>
#include <QSet>
#include <QString>

#include <optional>

namespace brinmoor {

struct AgentProfile;
struct ConnectionSettings;

// Per-conversation chat bookkeeping for the life of the agent process: which Claude
// sessions exist and which Codex thread each conversation continues. Read while a chat
// is resolved and written when its output or end is handled; the event loop
// serialises both, so no lock is needed.
class ChatSessions {
public:
    bool hasEstablishedChatSession(const QString& key) const { return m_established.contains(key); }
    void markChatSessionEstablished(const QString& key) { m_established.insert(key); }
    std::optional<QString> codexThreadID(const QString& key) const;
    // Stores the thread id under the conversation's scoped key.
    void recordCodexThreadID(const QString& threadId, const QString& conversationId, const QString& projectPath);

private:
    QSet<QString> m_established;
    QHash<QString, QString> m_codexThreadIDsByConversation;
};

// What a chat runs, and the MCP configuration file written for it (to be removed when
// the task ends).
struct ChatResolution {
    QString shell;
    QString workingDir;
    std::optional<QString> mcpConfigPath;
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

// Five -c options pointing Codex's "approver" MCP server at the approval tool; begins
// with a blank so it can be appended to a command.
QString codexMCPConfigOverrides(const QString& taskId, const QString& approverPath,
                                const ConnectionSettings& connection);

// Writes Claude's MCP configuration (it holds the agent token) readable by the user
// only, as "brinmoor-mcp-<task id>.json" in the folder; returns its path. Throws
// AgentError when it cannot be written.
QString writeMCPConfig(const QString& taskId, const QString& approverPath, const ConnectionSettings& connection,
                       const QString& folder);

// Whether the approval tool can be run.
bool approvalServerAvailable(const QString& approverPath);

// The shell text and folder of a chat; writes the MCP configuration when Claude's
// approval goes through the approval tool. Throws AgentError.
ChatResolution resolveChatExecution(const AgentProfile& profile, const ConnectionSettings& connection,
                                    const ChatSessions& sessions, const std::optional<QString>& system,
                                    const QString& projectPath, const QString& prompt, const QString& taskId,
                                    const QString& conversationId, const std::optional<QString>& approvalMode,
                                    const QString& temporaryFolder);

} // namespace ChatExecution

} // namespace brinmoor
