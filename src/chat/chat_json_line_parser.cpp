#include "chat/chat_json_line_parser.h"

namespace brinmoor {

void ClaudeAnswerText::beginMessage(const QString& messageId)
{
    if (messageId.isEmpty() || messageId == m_messageId)
        return;
    endBlock();
    m_streamedInMessage.clear();
    m_messageId = messageId;
}

void ClaudeAnswerText::endBlock()
{
    if (!m_open)
        return;
    if (m_streamed)
        m_streamedInMessage.append(m_block);
    m_open = false;
}

QString ClaudeAnswerText::blockText(const QString& text)
{
    if (text.isEmpty())
        return {};
    if (m_open) {
        if (text.startsWith(m_block)) {
            const QString more = text.mid(m_block.size());
            m_block = text;
            return more;
        }
        if (m_block.startsWith(text))
            return {};
    }
    // The assembled event of a block streamed in pieces may come after the block's end.
    if (streamedInThisMessage(text))
        return {};
    return startBlock(text);
}

QString ClaudeAnswerText::delta(const QString& piece)
{
    if (piece.isEmpty())
        return {};
    if (!m_open) {
        const QString sent = startBlock(piece);
        m_streamed = true;
        return sent;
    }
    m_block += piece;
    return piece;
}

QString ClaudeAnswerText::resultText(const QString& text)
{
    if (text.isEmpty() || !m_sentAny)
        return startBlock(text);
    // The result repeats the last block, possibly longer or with its blanks trimmed.
    if (text.startsWith(m_block)) {
        const QString more = text.mid(m_block.size());
        m_block = text;
        return more;
    }
    if (m_block.startsWith(text) || streamedInThisMessage(text))
        return {};
    return startBlock(text);
}

QString ClaudeAnswerText::startBlock(const QString& text)
{
    if (text.isEmpty())
        return {};
    endBlock();
    m_block = text;
    m_open = true;
    m_streamed = false;
    const bool first = !m_sentAny;
    m_sentAny = true;
    return first ? text : QStringLiteral("\n\n") + text;
}

bool ClaudeAnswerText::streamedInThisMessage(const QString& text) const
{
    for (const QString& block : m_streamedInMessage) {
        if (block.startsWith(text))
            return true;
    }
    return false;
}

QString ChatJSONLineParser::trimmedString(JsonReader::Node object, QStringView key) const
{
    return m_reader.string(m_reader.member(object, key)).trimmed();
}

ParseResult ChatJSONLineParser::process(const QString& chunk)
{
    QMutexLocker locker(&m_lock);
    ParseResult result;
    if (chunk.contains(QLatin1Char('\r'))) {
        QString normalized = chunk;
        normalized.replace(QLatin1String("\r\n"), QLatin1String("\n"));
        normalized.replace(QLatin1Char('\r'), QLatin1Char('\n'));
        m_lineBuffer += normalized;
    } else {
        m_lineBuffer += chunk;
    }
    drainLines(result);
    return result;
}

void ChatJSONLineParser::drainLines(ParseResult& result)
{
    qsizetype start = 0;
    qsizetype newline = m_lineBuffer.indexOf(QLatin1Char('\n'), m_scanFrom);
    while (newline >= 0) {
        processLine(QStringView(m_lineBuffer).mid(start, newline - start), result);
        start = newline + 1;
        newline = m_lineBuffer.indexOf(QLatin1Char('\n'), start);
    }
    // Keep only the unfinished line; the next search starts at its end.
    if (start > 0)
        m_lineBuffer.remove(0, start);
    m_scanFrom = m_lineBuffer.size();
}

ParseResult ChatJSONLineParser::finish()
{
    QMutexLocker locker(&m_lock);
    ParseResult result;
    if (!m_lineBuffer.isEmpty()) {
        const QString last = m_lineBuffer;
        m_lineBuffer.clear();
        processLine(last, result);
    }
    m_scanFrom = 0;
    return result;
}

void ChatJSONLineParser::processLine(QStringView line, ParseResult& result)
{
    const QStringView trimmed = line.trimmed();
    if (trimmed.isEmpty())
        return;
    // The object starts at the first brace; noise before and after it is ignored. A
    // strict parse from there ends where the balanced scan of normalizedJSONLine ends
    // for every valid object, and fails for everything that scan would hand to a JSON
    // parser that then refuses it: invalid JSON yields nothing at all.
    const qsizetype open = trimmed.indexOf(QLatin1Char('{'));
    if (open < 0 || !m_reader.parse(trimmed, open))
        return;
    if (m_provider == ChatJSONProvider::codex)
        processCodexEvent(m_reader.root(), result);
    else
        processClaudeEvent(m_reader.root(), result);
}

std::optional<QString> ChatJSONLineParser::normalizedJSONLine(QStringView line)
{
    const qsizetype open = line.indexOf(QLatin1Char('{'));
    if (open < 0)
        return std::nullopt;
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    // Braces and quotes are ASCII, so walking UTF-16 units treats scalars correctly.
    for (qsizetype i = open; i < line.size(); ++i) {
        const QChar c = line[i];
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == QLatin1Char('\\'))
                escaped = true;
            else if (c == QLatin1Char('"'))
                inString = false;
            continue;
        }
        if (c == QLatin1Char('"')) {
            inString = true;
        } else if (c == QLatin1Char('{')) {
            ++depth;
        } else if (c == QLatin1Char('}')) {
            if (--depth == 0) {
                const QString object = line.mid(open, i - open + 1).trimmed().toString();
                if (object.isEmpty())
                    return std::nullopt;
                return object;
            }
        }
    }
    return std::nullopt;
}

void ChatJSONLineParser::processClaudeEvent(JsonReader::Node event, ParseResult& result)
{
    const JsonReader::Node type = m_reader.member(event, u"type");
    if (m_reader.stringEquals(type, u"assistant")) {
        const JsonReader::Node message = m_reader.member(event, u"message");
        m_claudeText.beginMessage(m_reader.string(m_reader.member(message, u"id")));
        processClaudeContent(m_reader.member(message, u"content"), result);
    } else if (m_reader.stringEquals(type, u"user")) {
        // Tool results come back to the model as the user's turn.
        processClaudeContent(m_reader.member(m_reader.member(event, u"message"), u"content"), result);
    } else if (m_reader.stringEquals(type, u"stream_event")) {
        processClaudeStreamEvent(m_reader.member(event, u"event"), result);
    } else if (m_reader.stringEquals(type, u"result")) {
        const QString text = trimmedString(event, u"result");
        // A failed run still ends with a result; what the tool says about the failure
        // also reaches the task log.
        if (m_reader.isTrue(m_reader.member(event, u"is_error"))) {
            const QString subtype = trimmedString(event, u"subtype");
            reportOnce(QStringLiteral("[claude.error] ") + (!text.isEmpty()      ? text
                                                            : !subtype.isEmpty() ? subtype
                                                                                 : QStringLiteral("unknown error")),
                       result);
        }
        if (text.isEmpty())
            return;
        appendDelta(m_claudeText.resultText(text), result);
        result.finalText = text;
    } else if (m_reader.stringEquals(type, u"error")) {
        const JsonReader::Node message = m_reader.member(event, u"message");
        reportOnce(QStringLiteral("[stream.error] ") +
                       (m_reader.isString(message) ? m_reader.string(message) : QStringLiteral("unknown stream error")),
                   result);
    }
}

void ChatJSONLineParser::processClaudeContent(JsonReader::Node content, ParseResult& result)
{
    m_reader.forEachElement(content, [&](JsonReader::Node block) {
        const JsonReader::Node type = m_reader.member(block, u"type");
        if (m_reader.stringEquals(type, u"text")) {
            appendDelta(m_claudeText.blockText(m_reader.string(m_reader.member(block, u"text"))), result);
            return;
        }
        // Any other block ends the text block before it.
        m_claudeText.endBlock();
        if (m_reader.stringEquals(type, u"tool_use"))
            m_toolNames.insert(m_reader.string(m_reader.member(block, u"id")),
                               m_reader.string(m_reader.member(block, u"name")));
        else if (m_reader.stringEquals(type, u"tool_result"))
            reportToolResult(block, result);
    });
}

void ChatJSONLineParser::processClaudeStreamEvent(JsonReader::Node event, ParseResult& result)
{
    // The model's own stream events, passed on as they arrive.
    const JsonReader::Node type = m_reader.member(event, u"type");
    if (m_reader.stringEquals(type, u"message_start")) {
        m_claudeText.beginMessage(m_reader.string(m_reader.member(m_reader.member(event, u"message"), u"id")));
    } else if (m_reader.stringEquals(type, u"content_block_start")) {
        m_claudeText.endBlock();
        const JsonReader::Node block = m_reader.member(event, u"content_block");
        const JsonReader::Node blockType = m_reader.member(block, u"type");
        if (m_reader.stringEquals(blockType, u"text"))
            appendDelta(m_claudeText.delta(m_reader.string(m_reader.member(block, u"text"))), result);
        else if (m_reader.stringEquals(blockType, u"tool_use"))
            m_toolNames.insert(m_reader.string(m_reader.member(block, u"id")),
                               m_reader.string(m_reader.member(block, u"name")));
    } else if (m_reader.stringEquals(type, u"content_block_delta")) {
        const JsonReader::Node delta = m_reader.member(event, u"delta");
        if (m_reader.stringEquals(m_reader.member(delta, u"type"), u"text_delta"))
            appendDelta(m_claudeText.delta(m_reader.string(m_reader.member(delta, u"text"))), result);
    } else if (m_reader.stringEquals(type, u"content_block_stop")) {
        m_claudeText.endBlock();
    }
}

void ChatJSONLineParser::reportToolResult(JsonReader::Node block, ParseResult& result)
{
    if (!m_reader.isTrue(m_reader.member(block, u"is_error")))
        return;
    // The result names its tool use; the tool's name is on that tool use.
    const JsonReader::Node toolName = m_reader.member(block, u"tool_name");
    QString name = m_reader.isString(toolName)
                       ? m_reader.string(toolName)
                       : m_toolNames.value(m_reader.string(m_reader.member(block, u"tool_use_id")));
    if (name.isEmpty())
        name = QStringLiteral("tool");
    reportOnce(QStringLiteral("[tool.error] ") + name + QStringLiteral(": ") +
                   extractToolContent(m_reader, m_reader.member(block, u"content")),
               result);
}

void ChatJSONLineParser::appendDelta(const QString& delta, ParseResult& result)
{
    if (!delta.isEmpty())
        result.deltas.append(delta);
}

void ChatJSONLineParser::processCodexEvent(JsonReader::Node event, ParseResult& result)
{
    const JsonReader::Node type = m_reader.member(event, u"type");
    if (m_reader.stringEquals(type, u"thread.started")) {
        const QString threadId = trimmedString(event, u"thread_id");
        if (!threadId.isEmpty() && threadId != m_codexThreadID) {
            m_codexThreadID = threadId;
            result.threadID = threadId;
        }
    } else if (m_reader.stringEquals(type, u"item.started") || m_reader.stringEquals(type, u"item.updated")) {
        const JsonReader::Node item = m_reader.member(event, u"item");
        const JsonReader::Node itemType = m_reader.member(item, u"type");
        // An agent message may be reported while it is written: its text goes out at once.
        if (m_reader.stringEquals(itemType, u"agent_message")) {
            appendCodexMessage(m_reader.string(m_reader.member(item, u"id")), trimmedString(item, u"text"), result);
            return;
        }
        if (!m_reader.stringEquals(itemType, u"command_execution"))
            return;
        const QString command = trimmedString(item, u"command");
        if (!command.isEmpty())
            reportOnce(QStringLiteral("[command] ") + command, result);
    } else if (m_reader.stringEquals(type, u"item.completed")) {
        const JsonReader::Node item = m_reader.member(event, u"item");
        const JsonReader::Node itemType = m_reader.member(item, u"type");
        if (m_reader.stringEquals(itemType, u"agent_message")) {
            appendCodexMessage(m_reader.string(m_reader.member(item, u"id")), trimmedString(item, u"text"), result);
        } else if (m_reader.stringEquals(itemType, u"command_execution")) {
            const QString output = trimmedString(item, u"aggregated_output");
            if (!output.isEmpty())
                reportOnce(QStringLiteral("[command.output] ") + output, result);
        }
    } else if (m_reader.stringEquals(type, u"turn.completed")) {
        if (!m_finalizedText.isEmpty())
            result.finalText = m_finalizedText;
    } else if (m_reader.stringEquals(type, u"error")) {
        reportOnce(QStringLiteral("[codex.error] ") + messageOf(event), result);
    } else if (m_reader.stringEquals(type, u"turn.failed")) {
        const JsonReader::Node error = m_reader.member(event, u"error");
        reportOnce(QStringLiteral("[codex.turn.failed] ") +
                       (m_reader.isString(error) ? m_reader.string(error).trimmed() : messageOf(error)),
                   result);
    }
}

QString ChatJSONLineParser::messageOf(JsonReader::Node node) const
{
    const QString message = trimmedString(node, u"message");
    return message.isEmpty() ? QStringLiteral("unknown error") : message;
}

void ChatJSONLineParser::appendCodexMessage(const QString& itemId, const QString& text, ParseResult& result)
{
    if (text.isEmpty())
        return;
    // More of the message being reported: only the rest goes out.
    if (!itemId.isEmpty() && itemId == m_codexItemId) {
        if (text.size() > m_codexItemText.size() && text.startsWith(m_codexItemText)) {
            const QString more = text.mid(m_codexItemText.size());
            m_finalizedText += more;
            m_codexItemText = text;
            result.deltas.append(more);
        }
        return;
    }
    // Each agent message is a separate piece, joined to the others by a newline that
    // is part of the delta. The text grows in place; it is never joined anew.
    m_codexItemId = itemId;
    m_codexItemText = text;
    const QString piece = m_finalizedText.isEmpty() ? text : QLatin1Char('\n') + text;
    m_finalizedText += piece;
    result.deltas.append(piece);
}

void ChatJSONLineParser::reportOnce(const QString& diagnostic, ParseResult& result)
{
    if (m_emittedDiagnostics.contains(diagnostic))
        return;
    m_emittedDiagnostics.insert(diagnostic);
    result.diagnostics.append(diagnostic);
}

QString ChatJSONLineParser::extractToolContent(const JsonReader& reader, JsonReader::Node value)
{
    if (value < 0)
        return QStringLiteral("no details");
    switch (reader.kind(value)) {
    case JsonReader::Kind::String: {
        const QString text = reader.string(value).trimmed();
        return text.isEmpty() ? QStringLiteral("no details") : text;
    }
    case JsonReader::Kind::Array: {
        QStringList pieces;
        reader.forEachElement(value, [&](JsonReader::Node item) {
            const JsonReader::Node text = reader.member(item, u"text");
            const QString piece = reader.isString(text) ? reader.string(text).trimmed()
                                                        : reader.string(reader.member(item, u"message")).trimmed();
            if (!piece.isEmpty())
                pieces.append(piece);
        });
        return pieces.join(QStringLiteral(" | "));
    }
    case JsonReader::Kind::Object: {
        const QString message = reader.string(reader.member(value, u"message")).trimmed();
        if (!message.isEmpty())
            return message;
        const QString text = reader.string(reader.member(value, u"text")).trimmed();
        if (!text.isEmpty())
            return text;
        break;
    }
    default: break;
    }
    return QStringLiteral("unreadable tool error payload");
}

} // namespace brinmoor
