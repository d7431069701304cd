#pragma once

#include "chat/chat_execution.h"
#include "chat/chat_json_line_parser.h"
#include "execution/process_runner.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

namespace brinmoor {

class ChatSessions;
class TaskHost;

// What a chat task makes of the assistant's output: the event stream parsed into
// "task.chat.chunk" messages and diagnostics, the Codex thread recorded, and at the end
// "task.chat.final" (and the session marked established) or "task.chat.error". When
// the tool says it cannot go on with the conversation as asked, the chat runs once more
// as its resolution planned. It owns the chat's files that hold the token, which go when
// the task is cleaned up.
class ChatOutput : public TaskOutputHandler {
public:
    struct Chat {
        QString taskId;
        QString conversationId;
        // The project path the task asked for: with the conversation id it keys the chat
        // bookkeeping.
        QString projectPath;
        // The tool's event grammar; without one the output is sent as text.
        std::optional<ChatJSONProvider> provider;
        // Files that hold the agent token (MCP configuration, token file).
        QStringList tokenFiles;
        std::optional<ChatRetry> retry;
    };

    ChatOutput(TaskHost& host, ChatSessions& sessions, Chat chat);
    ~ChatOutput() override;

    void standardOutput(const QString& text) override;
    void standardError(const QString& text) override;
    void endOfOutput() override;
    std::optional<QString> retryCommand() override;
    void exited(int status) override;

private:
    void handleParseResult(const ParseResult& result);

    TaskHost& m_host;
    ChatSessions& m_sessions;
    const Chat m_chat;
    std::unique_ptr<ChatJSONLineParser> m_parser;
    // The sanitized output, the final text when the parser reported none.
    QString m_chatBuffer;
    // The final texts the parser reported.
    QString m_chatResultBuffer;
    bool m_retried = false;
};

} // namespace brinmoor
