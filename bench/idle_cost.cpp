// Measures the cost of the service while it waits for the next check.
//     idle_cost [--bare] [SECONDS]
// Starts the service without a request and prints, as JSON, how often its worker woke in a second
// and the CPU time of the process in percent of a core. --bare runs a loop of a lock, an unlock and
// usleep(50) instead.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "cpu_seconds.h"
#include "ftpcorpdir.h"

namespace
{
// How often the thread of this name has slept so far.
long long Sleeps(const char* thread)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != thread)
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
    std::fprintf(stderr, "idle_cost: no thread %s\n", thread);
    std::exit(1);
}

// Prints the cost of the whole process while the thread of this name polls.
void Measure(const char* thread, double seconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double cpu = bench::CpuSeconds();
    const long long sleeps = Sleeps(thread);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpuTaken = bench::CpuSeconds() - cpu;
    const long long sleepsTaken = Sleeps(thread) - sleeps;
    std::printf("{\"wakeups_per_second\": %.1f, \"cpu_percent\": %.3f}\n",
                static_cast<double>(sleepsTaken) / seconds, cpuTaken / seconds * 100);
}

void MeasureService(double seconds)
{
    tag_CORPDIR_LOGINFO log = {};
    log.ulLogLevel = 0;
    if (GetCorpDirInstance()->CorpDirInit(&log) != 0)
    {
        std::fputs("idle_cost: the service does not start\n", stderr);
        std::exit(1);
    }
    Measure("corpdir-worker", seconds);
    GetCorpDirInstance()->CorpDirUninit();
}

void MeasureBareLoop(double seconds)
{
    std::atomic<bool> running{true};
    std::thread loop(
        [&]
        {
            pthread_setname_np(pthread_self(), "bare-loop");
            pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
            while (running.load(std::memory_order_acquire))
            {
                pthread_mutex_lock(&mutex);
                pthread_mutex_unlock(&mutex);
                (void)usleep(50);
            }
        });
    Measure("bare-loop", seconds);
    running = false;
    loop.join();
}

}  // namespace

int main(int count, char** arguments)
{
    const bool isBare = count > 1 && std::strcmp(arguments[1], "--bare") == 0;
    const int rest = isBare ? 2 : 1;
    const double seconds = count > rest ? std::atof(arguments[rest]) : 10;
    if (count > rest + 1 || !(seconds > 0))
    {
        std::fputs("usage: idle_cost [--bare] [SECONDS]\n", stderr);
        return 2;
    }
    isBare ? MeasureBareLoop(seconds) : MeasureService(seconds);
    return 0;
}
