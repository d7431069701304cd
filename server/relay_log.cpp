#include "relay_log.h"

#include <cstdio>

namespace brinmoor::relay {

void diag(const QString& text)
{
    const QByteArray line = text.toUtf8() + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

} // namespace brinmoor::relay
