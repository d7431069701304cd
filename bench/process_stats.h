#pragma once

#include <QtGlobal>

namespace brinmoor::bench {

// Peak resident memory (VmHWM) of a process in MB; the benchmark itself when pid is 0.
double peakRssMB(qint64 pid = 0);
// CPU seconds a process has used so far.
double cpuSeconds(qint64 pid);
// CPU seconds this process has used so far.
double selfCpuSeconds();

} // namespace brinmoor::bench
