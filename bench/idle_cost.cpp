// What the service costs while it waits for the next check.
//     idle_cost [SECONDS]
// Starts the service without a request and prints how often its worker looked for work in a second,
// and the CPU time that the process took, in hundredths of a core. CORPDIR_TIMER_SLACK_US in the
// environment is the setting to compare.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "ftpcorpdir.h"

namespace
{

double CpuSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time)
    { return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// How often the worker has gone to sleep so far: once in each pass.
long long Passes()
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != "corpdir-worker")
        {
            continue;
        }
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);)
        {
            long long count = 0;
            if (std::sscanf(line.c_str(), "voluntary_ctxt_switches: %lld", &count) == 1)
            {
                return count;
            }
        }
    }
    return -1;
}

}  // namespace

int main(int count, char** arguments)
{
    const double seconds = count > 1 ? std::atof(arguments[1]) : 10;
    tag_CORPDIR_LOGINFO log = {};
    log.ulLogLevel = 0;
    if (GetCorpDirInstance()->CorpDirInit(&log) != 0)
    {
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double cpu = CpuSeconds();
    const long long passes = Passes();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpuTaken = CpuSeconds() - cpu;
    const long long passesMade = Passes() - passes;
    GetCorpDirInstance()->CorpDirUninit();
    std::printf("%.0f passes/s, %.2f %% of a core\n", static_cast<double>(passesMade) / seconds,
                cpuTaken / seconds * 100);
    return passes > 0 ? 0 : 1;
}
