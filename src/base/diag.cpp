#include "base/diag.h"

#include <QDateTime>
#include <QMutex>
#include <QMutexLocker>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace brinmoor {

namespace {

QMutex& diagMutex()
{
    static QMutex mutex;
    return mutex;
}

std::vector<DiagRecorder*>& recorders()
{
    static std::vector<DiagRecorder*> list;
    return list;
}

} // namespace

QString escapeForLog(QStringView text)
{
    const auto needsEscape = [](char16_t c) {
        return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029;
    };
    if (std::none_of(text.begin(), text.end(), [&](QChar c) { return needsEscape(c.unicode()); }))
        return text.toString();
    QString escaped;
    escaped.reserve(text.size() + 16);
    for (const QChar c : text) {
        const char16_t code = c.unicode();
        if (!needsEscape(code))
            escaped.append(c);
        else if (code == u'\n')
            escaped.append(QLatin1String("\\n"));
        else if (code == u'\r')
            escaped.append(QLatin1String("\\r"));
        else if (code == u'\t')
            escaped.append(QLatin1String("\\t"));
        else
            escaped.append(QStringLiteral("\\u%1").arg(int(code), 4, 16, QLatin1Char('0')));
    }
    return escaped;
}

QString logValue(QStringView value)
{
    constexpr qsizetype kLimit = 1024;
    // Most values are short: only a long one is measured in UTF-8.
    if (value.size() * 3 <= kLimit)
        return value.toString();
    const QByteArray utf8 = value.toUtf8();
    if (utf8.size() <= kLimit)
        return value.toString();
    // Cut before a continuation byte, never inside a character.
    qsizetype cut = kLimit;
    while (cut > 0 && (uchar(utf8.at(cut)) & 0xC0) == 0x80)
        --cut;
    return QString::fromUtf8(utf8.first(cut)) + QStringLiteral("\u2026 (%1 more bytes)").arg(utf8.size() - cut);
}

QString diagLine(const QString& text)
{
    return QStringLiteral("[BrinmoorMacAgent][") + QDateTime::currentDateTimeUtc().toString(Qt::ISODate) +
           QStringLiteral("] ") + text;
}

void diag(const QString& text)
{
    const QString escaped = escapeForLog(text);
    const QByteArray line = diagLine(escaped).toUtf8() + '\n';
    QMutexLocker locker(&diagMutex());
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fflush(stdout);
    for (DiagRecorder* recorder : recorders())
        recorder->record(escaped);
}

DiagRecorder::DiagRecorder()
{
    QMutexLocker locker(&diagMutex());
    recorders().push_back(this);
}

DiagRecorder::~DiagRecorder()
{
    QMutexLocker locker(&diagMutex());
    std::erase(recorders(), this);
}

QStringList DiagRecorder::texts() const
{
    QMutexLocker locker(&diagMutex());
    return m_texts;
}

void DiagRecorder::record(const QString& text)
{
    m_texts.append(text);
}

} // namespace brinmoor
