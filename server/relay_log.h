#pragma once

#include <QString>

#include <initializer_list>

namespace brinmoor::relay {

// The server's one logger: a line on standard output, flushed at once so that the agent
// hosting the server relays it as it happens.
void diag(const QString& text);

struct LogField {
    const char* name;
    QString value;
};

// "EVENT name=value name=value": each value cut after 1 KiB and with its control
// characters escaped, so that no value can start a line of its own.
void logEvent(const char* event, std::initializer_list<LogField> fields);

} // namespace brinmoor::relay
