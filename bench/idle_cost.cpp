// Measures the cost of the service while it waits for the next check.
//     idle_cost [--bare | --pairs N] [--json] [SECONDS]
// Starts the service without a request and prints how often its worker looked for work in a second,
// and the CPU time that the process took, in hundredths of a core. --bare runs the least that such
// a loop can be instead, a lock, an unlock and a sleep; --pairs both in turn, N times, and prints
// the medians of their ratios. CORPDIR_TIMER_SLACK_US in the environment, which the bare loop
// follows too, is the setting to compare.
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cpu_seconds.h"
#include "ftpcorpdir.h"

namespace
{

struct Cost
{
    const char* what;
    double passes;  // in a second
    double cpu;     // hundredths of a core

    double PassMicroseconds() const
    {
        return cpu * 1e4 / passes;
    }
};

// How often the thread of this name has gone to sleep so far: once in each pass.
long long Passes(const char* thread)
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

// The cost of the whole process, while the thread of this name polls.
Cost Measure(const char* what, const char* thread, double seconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double cpu = bench::CpuSeconds();
    const long long passes = Passes(thread);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpuTaken = bench::CpuSeconds() - cpu;
    const long long passesMade = Passes(thread) - passes;
    return {what, static_cast<double>(passesMade) / seconds, cpuTaken / seconds * 100};
}

Cost ServiceCost(double seconds)
{
    tag_CORPDIR_LOGINFO log = {};
    log.ulLogLevel = 0;
    if (GetCorpDirInstance()->CorpDirInit(&log) != 0)
    {
        std::fputs("idle_cost: the service does not start\n", stderr);
        std::exit(1);
    }
    const Cost cost = Measure("service", "corpdir-worker", seconds);
    GetCorpDirInstance()->CorpDirUninit();
    return cost;
}

void SetTimerSlack()
{
    const char* const text = std::getenv("CORPDIR_TIMER_SLACK_US");
    const unsigned long microseconds = text == nullptr ? 0 : std::strtoul(text, nullptr, 10);
    if (microseconds != 0)
    {
        prctl(PR_SET_TIMERSLACK, microseconds * 1000);
    }
}

Cost BareCost(double seconds)
{
    std::atomic<bool> running{true};
    std::thread loop(
        [&]
        {
            pthread_setname_np(pthread_self(), "bare-loop");
            SetTimerSlack();
            pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
            while (running.load(std::memory_order_acquire))
            {
                pthread_mutex_lock(&mutex);
                pthread_mutex_unlock(&mutex);
                (void)usleep(50);
            }
        });
    const Cost cost = Measure("bare", "bare-loop", seconds);
    running = false;
    loop.join();
    return cost;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

// The medians of how the service compares with the bare loop that ran after it.
struct Ratios
{
    double cpu;
    double pass;
};

Ratios Compare(const std::vector<Cost>& costs)
{
    std::vector<double> cpu;
    std::vector<double> pass;
    for (std::size_t pair = 0; pair != costs.size(); pair += 2)
    {
        cpu.push_back(costs[pair].cpu / costs[pair + 1].cpu);
        pass.push_back(costs[pair].PassMicroseconds() / costs[pair + 1].PassMicroseconds());
    }
    return {Median(cpu), Median(pass)};
}

void Print(const std::vector<Cost>& costs, bool hasPairs)
{
    for (const Cost& cost : costs)
    {
        std::printf("%-7s %.0f passes/s, %.2f %% of a core, %.2f us a pass\n", cost.what,
                    cost.passes, cost.cpu, cost.PassMicroseconds());
    }
    if (hasPairs)
    {
        const Ratios ratios = Compare(costs);
        std::printf("ratio   CPU %.3f, CPU of a pass %.3f\n", ratios.cpu, ratios.pass);
    }
}

void PrintJson(const std::vector<Cost>& costs, bool hasPairs, double seconds)
{
    std::printf("{\n  \"seconds\": %g,\n  \"runs\": [", seconds);
    const char* separator = "";
    for (const Cost& cost : costs)
    {
        std::printf(
            "%s\n    {\"what\": \"%s\", \"passes_per_second\": %.1f, "
            "\"cpu_percent\": %.3f, \"cpu_us_per_pass\": %.4f}",
            separator, cost.what, cost.passes, cost.cpu, cost.PassMicroseconds());
        separator = ",";
    }
    std::printf("\n  ]");
    if (hasPairs)
    {
        const Ratios ratios = Compare(costs);
        std::printf(",\n  \"cpu_ratio\": %.4f,\n  \"cpu_per_pass_ratio\": %.4f", ratios.cpu,
                    ratios.pass);
    }
    std::printf("\n}\n");
}

struct Options
{
    bool isBare = false;
    bool isJson = false;
    int pairs = 0;
    double seconds = 10;
};

// False: they make no sense.
bool ReadOptions(int count, char** arguments, Options* options)
{
    for (int index = 1; index < count; ++index)
    {
        const std::string argument = arguments[index];
        if (argument == "--bare")
        {
            options->isBare = true;
        }
        else if (argument == "--json")
        {
            options->isJson = true;
        }
        else if (argument == "--pairs" && index + 1 < count)
        {
            options->pairs = std::atoi(arguments[++index]);
            if (options->pairs <= 0)
            {
                return false;
            }
        }
        else
        {
            options->seconds = std::atof(arguments[index]);
        }
    }
    return options->seconds > 0 && !(options->isBare && options->pairs != 0);
}

}  // namespace

int main(int count, char** arguments)
{
    Options options;
    if (!ReadOptions(count, arguments, &options))
    {
        std::fputs("usage: idle_cost [--bare | --pairs N] [--json] [SECONDS]\n", stderr);
        return 2;
    }
    std::vector<Cost> costs;
    for (int pair = 0; pair < options.pairs; ++pair)
    {
        costs.push_back(ServiceCost(options.seconds));
        costs.push_back(BareCost(options.seconds));
    }
    if (costs.empty())
    {
        costs.push_back(options.isBare ? BareCost(options.seconds) : ServiceCost(options.seconds));
    }
    const bool hasPairs = options.pairs != 0;
    options.isJson ? PrintJson(costs, hasPairs, options.seconds) : Print(costs, hasPairs);
    return 0;
}
