#include "relay_log.h"

#include <cstdio>

namespace brinmoor::relay {

namespace {

constexpr qsizetype kMaxValueBytes = 1024;

bool isUtf8Continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

QString hex(uint value, int digits)
{
    return QStringLiteral("%1").arg(value, digits, 16, QLatin1Char('0'));
}

QString escaped(const QString& text)
{
    QString out;
    out.reserve(text.size());
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (u == u'\\')
            out += QStringLiteral("\\\\");
        else if (u == u'\r')
            out += QStringLiteral("\\r");
        else if (u == u'\n')
            out += QStringLiteral("\\n");
        else if (u == u'\t')
            out += QStringLiteral("\\t");
        else if (u < 0x20 || u == 0x7F)
            out += QStringLiteral("\\x") + hex(u, 2);
        else if ((u >= 0x80 && u <= 0x9F) || u == 0x2028 || u == 0x2029)
            out += QStringLiteral("\\u") + hex(u, 4);
        else
            out += c;
    }
    return out;
}

} // namespace

void diag(const QString& text)
{
    const QByteArray line = text.toUtf8() + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

QString logValue(QByteArrayView utf8)
{
    if (utf8.size() <= kMaxValueBytes)
        return escaped(QString::fromUtf8(utf8));
    qsizetype kept = kMaxValueBytes;
    // Never cut a character in two.
    while (kept > 0 && isUtf8Continuation(utf8[kept]))
        --kept;
    return escaped(QString::fromUtf8(utf8.first(kept))) + QStringLiteral("\u2026 (") +
           QString::number(utf8.size() - kept) + QStringLiteral(" more bytes)");
}

QString logValue(QStringView value)
{
    return logValue(QByteArrayView(value.toUtf8()));
}

void logEvent(const char* event, std::initializer_list<LogField> fields)
{
    QString line = QString::fromLatin1(event);
    for (const LogField& field : fields)
        line += QLatin1Char(' ') + QLatin1String(field.name) + QLatin1Char('=') + logValue(field.value);
    diag(line);
}

} // namespace brinmoor::relay
