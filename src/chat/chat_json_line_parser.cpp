#include "chat/chat_json_line_parser.h"

namespace brinmoor {

qint64 codePointLength(QStringView text)
{
    qint64 count = 0;
    const qsizetype size = text.size();
    for (qsizetype i = 0; i < size; ++i) {
        // A low surrogate after a high one completes a character already counted.
        if (text[i].isLowSurrogate() && i > 0 && text[i - 1].isHighSurrogate())
            continue;
        ++count;
    }
    return count;
}

QStringView dropCodePoints(QStringView text, qint64 count)
{
    qsizetype i = 0;
    const qsizetype size = text.size();
    while (count > 0 && i < size) {
        if (text[i].isHighSurrogate() && i + 1 < size && text[i + 1].isLowSurrogate())
            i += 2;
        else
            i += 1;
        --count;
    }
    return text.mid(i);
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
        const JsonReader::Node content = m_reader.member(m_reader.member(event, u"message"), u"content");
        QString text;
        m_reader.forEachElement(content, [&](JsonReader::Node part) {
            if (m_reader.stringEquals(m_reader.member(part, u"type"), u"text"))
                text += m_reader.string(m_reader.member(part, u"text"));
        });
        appendAssistantText(text, result);
        m_reader.forEachElement(content, [&](JsonReader::Node part) {
            if (!m_reader.stringEquals(m_reader.member(part, u"type"), u"tool_result") ||
                !m_reader.isTrue(m_reader.member(part, u"is_error")))
                return;
            const JsonReader::Node name = m_reader.member(part, u"tool_name");
            reportOnce(QStringLiteral("[tool.error] ") +
                           (m_reader.isString(name) ? m_reader.string(name) : QStringLiteral("tool")) +
                           QStringLiteral(": ") + extractToolContent(m_reader, m_reader.member(part, u"content")),
                       result);
        });
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
        m_finalizedText = text;
        const qint64 length = codePointLength(text);
        m_finalizedLength = length;
        if (length > m_accumulatedLength) {
            result.deltas.append(dropCodePoints(text, m_accumulatedLength).toString());
            m_accumulatedLength = length;
        }
        result.finalText = text;
    } else if (m_reader.stringEquals(type, u"error")) {
        const JsonReader::Node message = m_reader.member(event, u"message");
        reportOnce(QStringLiteral("[stream.error] ") +
                       (m_reader.isString(message) ? m_reader.string(message) : QStringLiteral("unknown stream error")),
                   result);
    }
}

void ChatJSONLineParser::appendAssistantText(const QString& text, ParseResult& result)
{
    if (text.isEmpty())
        return;
    // Claude's assistant events carry the whole text so far: send only what is new.
    const qint64 length = codePointLength(text);
    if (length > m_accumulatedLength) {
        result.deltas.append(dropCodePoints(text, m_accumulatedLength).toString());
        m_accumulatedLength = length;
    }
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
    } else if (m_reader.stringEquals(type, u"item.started")) {
        const JsonReader::Node item = m_reader.member(event, u"item");
        if (!m_reader.stringEquals(m_reader.member(item, u"type"), u"command_execution"))
            return;
        const QString command = trimmedString(item, u"command");
        if (!command.isEmpty())
            reportOnce(QStringLiteral("[command] ") + command, result);
    } else if (m_reader.stringEquals(type, u"item.completed")) {
        const JsonReader::Node item = m_reader.member(event, u"item");
        const JsonReader::Node itemType = m_reader.member(item, u"type");
        if (m_reader.stringEquals(itemType, u"agent_message")) {
            const QString text = trimmedString(item, u"text");
            if (!text.isEmpty())
                appendCodexMessage(text, result);
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

void ChatJSONLineParser::appendCodexMessage(const QString& text, ParseResult& result)
{
    // Each agent message is a separate piece, joined to the others by a newline that
    // is part of the delta. The text grows in place; it is never joined anew.
    const qsizetype oldSize = m_finalizedText.size();
    const qint64 oldLength = m_finalizedLength;
    if (!m_finalizedText.isEmpty()) {
        m_finalizedText += QLatin1Char('\n');
        m_finalizedLength += 1;
    }
    m_finalizedText += text;
    m_finalizedLength += codePointLength(text);
    if (m_finalizedLength > m_accumulatedLength) {
        // What was sent already is usually exactly the text before this message.
        const QStringView delta =
            m_accumulatedLength >= oldLength
                ? dropCodePoints(QStringView(m_finalizedText).mid(oldSize), m_accumulatedLength - oldLength)
                : dropCodePoints(m_finalizedText, m_accumulatedLength);
        result.deltas.append(delta.toString());
        m_accumulatedLength = m_finalizedLength;
    }
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
