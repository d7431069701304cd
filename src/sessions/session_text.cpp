#include "sessions/session_text.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace brinmoor::SessionText {

namespace {

const QString kPhonePromptStart = QStringLiteral("Confirmed active project path for this request:\n");
const QString kUserRequest = QStringLiteral("\nUser request:\n");

QString cut(const QString& text, qsizetype limit)
{
    if (text.size() <= limit)
        return text;
    return text.left(limit - 1) + QStringLiteral("…");
}

} // namespace

Prompt userPrompt(const QString& sent)
{
    const qsizetype start = sent.indexOf(kPhonePromptStart);
    const qsizetype request = start < 0 ? -1 : sent.indexOf(kUserRequest, start);
    if (request < 0)
        return {sent, false};
    return {sent.mid(request + kUserRequest.size()), true};
}

QString title(const QString& prompt)
{
    const QString line = prompt.trimmed().section(QLatin1Char('\n'), 0, 0).trimmed();
    return cut(line, 120);
}

QString shortened(const QString& text)
{
    return cut(text.trimmed(), 300);
}

QString toolInput(const QJsonValue& input)
{
    if (input.isString())
        return shortened(input.toString());
    const QJsonObject object = input.toObject();
    for (const char* key : {"command", "cmd", "file_path", "path", "pattern", "url", "query", "description"}) {
        const QJsonValue value = object.value(QLatin1String(key));
        if (value.isString())
            return shortened(value.toString());
        if (value.isArray())
            return shortened(QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact)));
    }
    return shortened(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
}

} // namespace brinmoor::SessionText
