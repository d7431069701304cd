#include "chat/chat_text.h"

namespace brinmoor::ChatText {

QString sanitizeForChat(const QString& text)
{
    QString result;
    result.reserve(text.size());
    const qsizetype size = text.size();
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t c = text.at(i).unicode();
        if (c == u'\r') {
            result.append(QLatin1Char('\n'));
            if (i + 1 < size && text.at(i + 1) == QLatin1Char('\n'))
                ++i;
            continue;
        }
        if (c == u'\t' || c == u'\n' || (c >= 32 && c != 127))
            result.append(QChar(c));
    }
    return result;
}

} // namespace brinmoor::ChatText
