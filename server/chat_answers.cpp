#include "chat_answers.h"

namespace brinmoor::relay {

void ChatAnswers::begin(const QString& taskId)
{
    if (!m_answers.contains(taskId))
        m_answers.insert(taskId, Kept{QByteArray(), true, false});
}

void ChatAnswers::chunk(const QString& taskId, const QString& text)
{
    append(kept(taskId), text);
}

void ChatAnswers::finalText(const QString& taskId, const QString& text)
{
    Kept& answer = kept(taskId);
    if (QString::fromUtf8(answer.utf8).trimmed().endsWith(text.trimmed()))
        return;
    // The final text is the whole answer.
    answer.utf8.clear();
    answer.trimmed = false;
    append(answer, text);
}

void ChatAnswers::end(const QString& taskId)
{
    m_answers.remove(taskId);
}

std::optional<ChatAnswers::Answer> ChatAnswers::answer(const QString& taskId) const
{
    const auto found = m_answers.constFind(taskId);
    if (found == m_answers.cend())
        return std::nullopt;
    return Answer{QString::fromUtf8(found->utf8), !found->fromStart || found->trimmed};
}

ChatAnswers::Kept& ChatAnswers::kept(const QString& taskId)
{
    auto found = m_answers.find(taskId);
    // Heard from the middle on (the relay started while the chat ran): what came before
    // is not known here.
    if (found == m_answers.end())
        found = m_answers.insert(taskId, Kept());
    return *found;
}

void ChatAnswers::append(Kept& kept, const QString& text)
{
    kept.utf8.append(text.toUtf8());
    if (kept.utf8.size() <= kMaxBytes)
        return;
    // The oldest bytes go, never part of a character: a continuation byte stays with the
    // byte that starts its character, or goes with it.
    qsizetype from = kept.utf8.size() - kMaxBytes;
    while (from < kept.utf8.size() && (uchar(kept.utf8.at(from)) & 0xC0) == 0x80)
        ++from;
    kept.utf8.remove(0, from);
    kept.trimmed = true;
}

} // namespace brinmoor::relay
