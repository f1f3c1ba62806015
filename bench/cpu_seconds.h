// CPU time of the process.
#ifndef CORPDIR_BENCH_CPU_SECONDS_H
#define CORPDIR_BENCH_CPU_SECONDS_H

#include <sys/resource.h>

namespace bench
{
// All threads' so far, in user and system mode.
inline double CpuSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time)
    { return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace bench

#endif
