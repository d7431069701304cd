#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>

namespace brinmoor::relay {

// What the running chats have answered so far, for clients that come while an answer
// streams: a page that reloads shows it in its place and goes on with the live chunks.
// Kept as UTF-8, at most kMaxBytes of it per answer (of a longer one its end), until
// the task ends.
class ChatAnswers {
public:
    static constexpr qsizetype kMaxBytes = 1024 * 1024;

    struct Answer {
        QString text;
        // The beginning is not kept: the answer is longer than the bound, or the relay
        // did not hear it from its start.
        bool cut = false;
    };

    // The relay hears the task from its start: its answer is kept from there.
    void begin(const QString& taskId);
    // The "chunk" of a "task.chat.chunk".
    void chunk(const QString& taskId, const QString& text);
    // The "text" of a "task.chat.final": the answer's last part (Claude's) or the whole
    // of it (Codex's). It stands for the answer only when what streamed does not end with
    // it, as a page reads it.
    void finalText(const QString& taskId, const QString& text);
    void end(const QString& taskId);

    // The answer of a task the relay keeps one of.
    std::optional<Answer> answer(const QString& taskId) const;

private:
    struct Kept {
        QByteArray utf8;
        bool fromStart = false; // heard from the task's start
        bool trimmed = false;   // its beginning went for the bound
    };

    Kept& kept(const QString& taskId);
    static void append(Kept& kept, const QString& text);

    QHash<QString, Kept> m_answers;
};

} // namespace brinmoor::relay
