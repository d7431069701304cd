#pragma once

#include "chat/json_reader.h"

#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

namespace brinmoor {

// Which event grammar a chat tool's output follows.
enum class ChatJSONProvider { claude, codex };

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
// Characters are counted in Unicode code points: `accumulatedLength` and the cut of
// every delta never split a character (a surrogate pair counts as one).
//
// The work is linear in the input: only complete lines are parsed, the scan for the
// next line end resumes where the last one stopped, and Codex messages are appended to
// the assembled text in place.
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
    void processCodexEvent(JsonReader::Node event, ParseResult& result);
    QString trimmedString(JsonReader::Node object, QStringView key) const;
    // The trimmed "message" of an event or error object; "unknown error" when it has none.
    QString messageOf(JsonReader::Node node) const;
    void appendAssistantText(const QString& text, ParseResult& result);
    void appendCodexMessage(const QString& text, ParseResult& result);
    void reportOnce(const QString& diagnostic, ParseResult& result);
    void drainLines(ParseResult& result);

    const ChatJSONProvider m_provider;
    QMutex m_lock;
    JsonReader m_reader; // reused for every line
    QString m_lineBuffer;
    qsizetype m_scanFrom = 0; // where the search for the next "\n" resumes
    qint64 m_accumulatedLength = 0;
    QString m_finalizedText;
    qint64 m_finalizedLength = 0; // code points of m_finalizedText
    QSet<QString> m_emittedDiagnostics;
    std::optional<QString> m_codexThreadID;
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

// Code points in a text (a surrogate pair counts once).
qint64 codePointLength(QStringView text);
// The text after its first `count` code points.
QStringView dropCodePoints(QStringView text, qint64 count);

} // namespace brinmoor
