#include "process_stats.h"

#include <QFile>
#include <QList>

#include <sys/resource.h>
#include <unistd.h>

namespace brinmoor::bench {

double peakRssMB(qint64 pid)
{
    QFile status(pid == 0 ? QStringLiteral("/proc/self/status") : QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    }
    return -1;
}

double cpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    const double ticks = double(sysconf(_SC_CLK_TCK));
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / ticks;
}

double selfCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace brinmoor::bench
