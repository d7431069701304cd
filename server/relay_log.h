#pragma once

#include <QByteArrayView>
#include <QString>
#include <QStringView>

#include <initializer_list>

namespace brinmoor::relay {

// The server's one logger: a line on standard output, flushed at once so that the agent
// hosting the server relays it as it happens.
void diag(const QString& text);

// One value as it goes into a log line: cut after 1 KiB of UTF-8 with "… (N more
// bytes)", and with every control character escaped, so that a value can never start a
// line of its own.
QString logValue(QStringView value);
QString logValue(QByteArrayView utf8);

struct LogField {
    const char* name;
    QString value;
};

// "EVENT name=value name=value", each value through logValue.
void logEvent(const char* event, std::initializer_list<LogField> fields);

} // namespace brinmoor::relay
