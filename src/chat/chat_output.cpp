#include "chat/chat_output.h"

#include "chat/chat_text.h"
#include "execution/task_host.h"
#include "protocol/messages.h"

#include <QFile>

namespace brinmoor {

ChatOutput::ChatOutput(TaskHost& host, ChatSessions& sessions, Chat chat)
    : m_host(host), m_sessions(sessions), m_chat(std::move(chat))
{
    if (m_chat.provider)
        m_parser = std::make_unique<ChatJSONLineParser>(*m_chat.provider);
}

ChatOutput::~ChatOutput()
{
    // These hold the agent token: they live only as long as the task.
    for (const QString& file : m_chat.tokenFiles)
        QFile::remove(file);
}

void ChatOutput::standardOutput(const QString& text)
{
    if (m_parser) {
        handleParseResult(m_parser->process(text));
        return;
    }
    const QString sanitized = ChatText::sanitizeForChat(text);
    m_chatBuffer += sanitized;
    sendOutput(m_host, m_chat.taskId, text);
    if (!sanitized.isEmpty())
        m_host.sendJSON(Messages::taskChatChunk(m_chat.taskId, m_chat.conversationId, sanitized));
}

void ChatOutput::standardError(const QString& text)
{
    // Standard error never produces chat chunks; it only counts towards the final text.
    m_chatBuffer += ChatText::sanitizeForChat(text);
}

void ChatOutput::endOfOutput()
{
    // A last line without its newline still counts.
    if (m_parser)
        handleParseResult(m_parser->finish());
}

std::optional<QString> ChatOutput::retryCommand()
{
    // What the tool said on standard error decides; once only.
    if (m_retried || !m_chat.retry || !m_chatBuffer.contains(m_chat.retry->whenToolSays))
        return std::nullopt;
    m_retried = true;
    m_host.sendJSON(Messages::taskLog(m_chat.taskId, m_chat.retry->note));
    m_chatBuffer.clear();
    m_chatResultBuffer.clear();
    if (m_chat.provider)
        m_parser = std::make_unique<ChatJSONLineParser>(*m_chat.provider);
    return m_chat.retry->shell;
}

void ChatOutput::exited(int status)
{
    if (status != 0) {
        m_host.sendJSON(
            Messages::taskChatError(m_chat.taskId, m_chat.conversationId,
                                    QStringLiteral("command exited with status ") + QString::number(status)));
        return;
    }
    if (const std::optional<QString> key =
            ChatExecution::scopedConversationKey(m_chat.projectPath, m_chat.conversationId))
        m_sessions.markChatSessionEstablished(*key);
    const QString finalText = (m_chatResultBuffer.isEmpty() ? m_chatBuffer : m_chatResultBuffer).trimmed();
    if (!finalText.isEmpty())
        m_host.sendJSON(Messages::taskChatFinal(m_chat.taskId, m_chat.conversationId, finalText));
}

void ChatOutput::handleParseResult(const ParseResult& result)
{
    if (result.threadID)
        m_sessions.recordCodexThreadID(*result.threadID, m_chat.conversationId, m_chat.projectPath);
    if (result.finalText)
        m_chatResultBuffer += *result.finalText;
    for (const QString& delta : result.deltas) {
        if (!delta.isEmpty())
            m_host.sendJSON(Messages::taskChatChunk(m_chat.taskId, m_chat.conversationId, delta));
    }
    for (const QString& diagnostic : result.diagnostics) {
        if (!diagnostic.isEmpty())
            m_host.sendJSON(Messages::taskLog(m_chat.taskId, diagnostic));
    }
}

} // namespace brinmoor
