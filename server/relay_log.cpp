#include "relay_log.h"

#include "base/diag.h"

#include <cstdio>

namespace brinmoor::relay {

void diag(const QString& text)
{
    const QByteArray line = text.toUtf8() + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

void logEvent(const char* event, std::initializer_list<LogField> fields)
{
    QString line = QString::fromLatin1(event);
    for (const LogField& field : fields)
        line += QLatin1Char(' ') + QLatin1String(field.name) + QLatin1Char('=') + escapeForLog(logValue(field.value));
    diag(line);
}

} // namespace brinmoor::relay
