#pragma once

#include <QJsonValue>
#include <QString>

namespace brinmoor::SessionText {

// The prompt the user typed, and whether the agent sent it for the phone: the agent puts
// the project's rules before what the phone's user wrote ("… User request:\n" and then
// the text), and a session whose first prompt has them was started from the phone.
struct Prompt {
    QString text;
    bool fromPhone = false;
};
Prompt userPrompt(const QString& sent);

// A title of one line from a prompt: its first line, at most 120 characters ("…" when cut).
QString title(const QString& prompt);
// A tool's input or result as the page shows it folded: at most 300 characters.
QString shortened(const QString& text);
// The input of a tool use in a few words: its command, file or pattern where it has one,
// else its JSON.
QString toolInput(const QJsonValue& input);

} // namespace brinmoor::SessionText
