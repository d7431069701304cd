#pragma once

#include "chat/json_reader.h"

#include <QHash>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

// Which event grammar a chat tool's output follows.
enum class ChatJSONProvider { claude, codex };

// Claude's answer as a person reads it: the text blocks of every assistant message, in
// order, one blank line between two blocks. Fed with the blocks as claude reports them
// (a block's whole text from an assembled "assistant" event, pieces of it from a
// partial message, the "result" text), it hands back only what was not sent yet. A
// text that extends the block being written sends the extension; any other text starts
// a new block and is sent whole. No text is ever compared with another block's text,
// except to recognise the assembled event of a block that was already sent in pieces.
class ClaudeAnswerText {
public:
    // A message begins (an id differing from the last one seen): the block being
    // written is complete and the message's blocks start afresh. An empty id changes
    // nothing.
    void beginMessage(const QString& messageId);
    // The block being written, if any, is complete (a block that is not text began, or
    // the block ended).
    void endBlock();
    // The whole text of a block as far as it is written.
    QString blockText(const QString& text);
    // A piece the model just wrote in the block being written, or in a new one.
    QString delta(const QString& piece);
    // The final text claude reports: usually the last block again.
    QString resultText(const QString& text);

private:
    QString startBlock(const QString& text);
    bool streamedInThisMessage(const QString& text) const;

    QString m_messageId;
    QString m_block; // the text sent of the block being written, or of the last one
    bool m_open = false;
    bool m_streamed = false;         // the block came in pieces
    QStringList m_streamedInMessage; // the ended blocks of this message that came in pieces
    bool m_sentAny = false;
};

// What one piece of tool output yielded.
struct ParseResult {
    QStringList deltas;               // new assistant text, in order
    std::optional<QString> finalText; // the answer as it stands
    QStringList diagnostics;          // tool activity and errors, each reported once
    std::optional<QString> threadID;  // a Codex thread id, when a new one was seen

    bool isEmpty() const { return deltas.isEmpty() && !finalText && diagnostics.isEmpty() && !threadID; }
};

// Reduces a chat tool's JSON event stream, read in arbitrary pieces, to assistant text
// deltas, the final text, diagnostics and the Codex thread id. One parser per task.
//
// A delta is a piece as the model wrote it, or the rest of a text after the part of it
// sent before, so it never splits a character.
//
// The work is linear in the input: only complete lines are parsed, the scan for the
// next line end resumes where the last one stopped, and texts grow in place.
class ChatJSONLineParser {
public:
    explicit ChatJSONLineParser(ChatJSONProvider provider) : m_provider(provider) {}

    ChatJSONProvider provider() const { return m_provider; }

    // Takes a piece of raw output; safe to call from any thread.
    ParseResult process(const QString& chunk);
    // Parses a last unterminated line, if any, and empties the line buffer.
    ParseResult finish();

    // The object inside a line with noise around it; absent when there is none or it
    // is unbalanced.
    static std::optional<QString> normalizedJSONLine(QStringView line);
    // One line of text out of a tool error's "content" (-1 when it is absent).
    static QString extractToolContent(const JsonReader& reader, JsonReader::Node value);

private:
    void processLine(QStringView line, ParseResult& result);
    void processClaudeEvent(JsonReader::Node event, ParseResult& result);
    void processClaudeContent(JsonReader::Node content, ParseResult& result);
    void processClaudeStreamEvent(JsonReader::Node event, ParseResult& result);
    void reportToolResult(JsonReader::Node block, ParseResult& result);
    void processCodexEvent(JsonReader::Node event, ParseResult& result);
    QString trimmedString(JsonReader::Node object, QStringView key) const;
    // The trimmed "message" of an event or error object; "unknown error" when it has none.
    QString messageOf(JsonReader::Node node) const;
    static void appendDelta(const QString& delta, ParseResult& result);
    void appendCodexMessage(const QString& itemId, const QString& text, ParseResult& result);
    void reportOnce(const QString& diagnostic, ParseResult& result);
    void drainLines(ParseResult& result);

    const ChatJSONProvider m_provider;
    QMutex m_lock;
    JsonReader m_reader; // reused for every line
    QString m_lineBuffer;
    qsizetype m_scanFrom = 0; // where the search for the next "\n" resumes
    QString m_finalizedText;  // Codex: the agent messages so far, joined
    QSet<QString> m_emittedDiagnostics;
    // Claude: the answer's blocks, and the tool names by tool use id.
    ClaudeAnswerText m_claudeText;
    QHash<QString, QString> m_toolNames;
    // Codex: the thread, and the agent message being reported.
    std::optional<QString> m_codexThreadID;
    QString m_codexItemId;
    QString m_codexItemText;
};

// A text accumulator with its own lock; reads return a copy.
class SynchronizedTextBuffer {
public:
    void append(const QString& text)
    {
        QMutexLocker locker(&m_lock);
        m_value += text;
    }
    QString value() const
    {
        QMutexLocker locker(&m_lock);
        return m_value;
    }

private:
    mutable QMutex m_lock;
    QString m_value;
};

} // namespace brinmoor
