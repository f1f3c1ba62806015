// Prices of the service's own steps, without network and without waiting.
//     service_bench [--benchmark_filter=NAME] [--benchmark_format=json]
// Manual times are those of the step alone; the CPU column beside them counts what prepares it too.
// "allocations" and "bytes" are what one step takes from the heap, on the thread that makes it.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "osak/sleep.h"
#include "service_stage.h"

namespace
{

using bench::Allocations;
using bench::LogSetting;
using bench::Stage;
using bench::WorkerThread;

constexpr double kMinTime = 0.05;  // seconds

// "10.0.0.1;10.0.0.2;..."
std::string Servers(std::int64_t count)
{
    std::string servers;
    for (std::int64_t number = 1; number <= count; ++number)
    {
        servers += (number == 1 ? "10." : ";10.") + std::to_string((number >> 16 & 255)) + '.' +
                   std::to_string((number >> 8 & 255)) + '.' + std::to_string(number & 255);
    }
    return servers;
}

void Report(benchmark::State& state, const Allocations& before, const Allocations& after)
{
    using benchmark::Counter;
    state.counters["allocations"] =
        Counter(static_cast<double>(after.count - before.count), Counter::kAvgIterations);
    state.counters["bytes"] =
        Counter(static_cast<double>(after.bytes - before.bytes), Counter::kAvgIterations);
}

double SecondsBetween(bench::Clock::time_point begin, bench::Clock::time_point end)
{
    return std::chrono::duration<double>(end - begin).count();
}

void Nothing() {}

// A step: from `cause`, which is given the task of a new request's version file, until the service
// asks for a transfer. Everything happens on this thread; a request and `prepare`, which are not
// timed, precede each step.
template <class Prepare>
void TimeStep(benchmark::State& state, Stage& stage, const std::string& servers, Prepare prepare,
              void (*cause)(unsigned int task))
{
    bench::Transfer before;
    Allocations allocated;
    Allocations sum;
    bool hasBegun = false;
    const auto pass = [&]
    {
        const bench::Transfer after = bench::LatestTransfer();
        if (hasBegun)
        {
            state.SetIterationTime(SecondsBetween(before.begin, after.begin));
            sum.count += after.allocations.count - allocated.count;
            sum.bytes += after.allocations.bytes - allocated.bytes;
        }
        if (hasBegun && after.number == before.number)
        {
            state.SkipWithError("no transfer was asked for");
        }
        hasBegun = true;
        if (!state.KeepRunning())
        {
            stage.Stop();
            return;
        }
        stage.Request(servers);
        prepare();
        before = bench::LatestTransfer();
        allocated = bench::AllocationsSoFar();
        before.begin = bench::Clock::now();
        cause(before.number);
    };
    stage.RunWorker(pass);
    Report(state, {}, sum);
}

// --- The next server, when one has failed: the list is as long as it can be.

void RotationStep(benchmark::State& state, LogSetting log)
{
    Stage stage(log, WorkerThread::kOurs);
    TimeStep(state, stage, Servers(state.range(0)), Nothing, bench::FailVersionFile);
    state.SetComplexityN(state.range(0));
}

// After other work has driven the list out of the processor's own caches, as in the seconds that a
// server takes to fail.
void RotationStepFromCold(benchmark::State& state)
{
    std::vector<char> other(32U << 20U);
    const auto useCaches = [&]
    {
        for (std::size_t index = 0; index < other.size(); index += 64)
        {
            ++other[index];
        }
        benchmark::ClobberMemory();
    };
    Stage stage(LogSetting::kOff, WorkerThread::kOurs);
    TimeStep(state, stage, Servers(state.range(0)), useCaches, bench::FailVersionFile);
}

// All servers fail, one after the other, and the list gets shorter: the time of one pass.
void RotationPass(benchmark::State& state)
{
    Stage stage(LogSetting::kOff, WorkerThread::kOurs);
    const std::string servers = Servers(state.range(0));
    unsigned int failed = bench::LatestTransfer().number;
    bench::Clock::time_point begin;
    double seconds = 0;
    const auto pass = [&]
    {
        bench::Transfer latest = bench::LatestTransfer();
        if (latest.number != failed)
        {
            seconds += SecondsBetween(begin, latest.begin);
        }
        else  // it was the last server, or there was none yet
        {
            state.SetIterationTime(seconds);
            if (seconds != 0 && (latest.server & 0xFFFFFF) != state.range(0))
            {
                state.SkipWithError("the pass did not end with the last server");
            }
            seconds = 0;
            if (!state.KeepRunning())
            {
                stage.Stop();
                return;
            }
            stage.Request(servers);
            latest = bench::LatestTransfer();
        }
        failed = latest.number;
        begin = bench::Clock::now();
        bench::FailVersionFile(failed);
    };
    stage.RunWorker(pass);
    state.SetItemsProcessed(state.iterations() * (state.range(0) - 1));
}

// With the worker on a thread of its own, which polls: mostly waiting.
void RotationLatency(benchmark::State& state)
{
    Stage stage(LogSetting::kOff, WorkerThread::kOwn);
    const std::string servers = Servers(state.range(0));
    for (auto _ : state)
    {
        stage.Request(servers);
        const unsigned int task = bench::LatestTransfer().number;
        const bench::Clock::time_point begin = bench::Clock::now();
        bench::FailVersionFile(task);
        state.SetIterationTime(SecondsBetween(begin, bench::TransferAfter(task).begin));
    }
}

void StepLengths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->RangeMultiplier(10)->Range(10, 100000)->ArgName("servers");
    benchmark->UseManualTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(RotationStep, log_off, LogSetting::kOff)
    ->Apply(StepLengths)
    ->MinTime(kMinTime)
    ->Complexity(benchmark::oN);
BENCHMARK_CAPTURE(RotationStep, log_level_0, LogSetting::kErrors)
    ->Apply(StepLengths)
    ->MinTime(kMinTime);
BENCHMARK_CAPTURE(RotationStep, log_level_2, LogSetting::kInfo)
    ->Apply(StepLengths)
    ->MinTime(kMinTime);
BENCHMARK(RotationStepFromCold)->Apply(StepLengths)->Iterations(40);
BENCHMARK(RotationPass)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->ArgName("servers")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(kMinTime);
BENCHMARK(RotationLatency)->Apply(StepLengths)->Iterations(200);

// --- A request: list, sealed password, parameters, timer, and the first transfer asked for.

void Request(benchmark::State& state, LogSetting log)
{
    Stage stage(log, WorkerThread::kOurs);
    const std::string servers = Servers(state.range(0));
    const Allocations before = bench::AllocationsSoFar();
    for (auto _ : state)
    {
        stage.Request(servers);
    }
    Report(state, before, bench::AllocationsSoFar());
    state.SetComplexityN(state.range(0));
}

void RequestLengths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->RangeMultiplier(10)->Range(10, 100000)->ArgName("servers")->MinTime(kMinTime);
    benchmark->Unit(benchmark::kMicrosecond);
}
BENCHMARK_CAPTURE(Request, log_off, LogSetting::kOff)
    ->Apply(RequestLengths)
    ->Complexity(benchmark::oN);
BENCHMARK_CAPTURE(Request, log_level_2, LogSetting::kInfo)->Apply(RequestLengths);

// --- The version file, as it lies on the disk. Its first line, or all of it, is one line.

enum class Text
{
    kLines,
    kOneLine
};

void WriteVersionFile(const Stage& stage, std::int64_t size, Text text)
{
    std::string content(static_cast<std::size_t>(size), 'x');
    for (std::size_t end = 15; text == Text::kLines && end < content.size(); end += 16)
    {
        content[end] = '\n';
    }
    std::ofstream file(stage.VersionFile());
    file << content << std::flush;
    if (!file)
    {
        std::exit(1);
    }
}

// The version is the one that is known already.
void VersionCheck(benchmark::State& state, Text text)
{
    Stage stage(LogSetting::kOff, WorkerThread::kOurs);
    WriteVersionFile(stage, state.range(0), text);
    stage.Request(Servers(10));
    const unsigned int task = bench::LatestTransfer().number;
    bench::CompleteVersionFile(task);
    const Allocations before = bench::AllocationsSoFar();
    for (auto _ : state)
    {
        bench::CompleteVersionFile(task);
    }
    Report(state, before, bench::AllocationsSoFar());
}

// The version is new: until the directory file is asked for.
void NewVersion(benchmark::State& state)
{
    Stage stage(LogSetting::kOff, WorkerThread::kOurs);
    WriteVersionFile(stage, state.range(0), Text::kLines);
    TimeStep(state, stage, Servers(10), Nothing, bench::CompleteVersionFile);
}

// A valid version makes all servers untried again: their list is copied.
void VersionCheckOfServers(benchmark::State& state)
{
    Stage stage(LogSetting::kOff, WorkerThread::kOurs);
    WriteVersionFile(stage, 16, Text::kLines);
    stage.Request(Servers(state.range(0)));
    const unsigned int task = bench::LatestTransfer().number;
    for (auto _ : state)
    {
        bench::CompleteVersionFile(task);
    }
}

void FileSizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(16)->Arg(4096)->Arg(1 << 20)->Arg(16 << 20)->ArgName("size")->MinTime(kMinTime);
    benchmark->Unit(benchmark::kMicrosecond);
}
BENCHMARK_CAPTURE(VersionCheck, short_lines, Text::kLines)->Apply(FileSizes);
BENCHMARK_CAPTURE(VersionCheck, one_line, Text::kOneLine)->Apply(FileSizes);
BENCHMARK(NewVersion)->Apply(FileSizes)->UseManualTime();
BENCHMARK(VersionCheckOfServers)->Apply(RequestLengths);

// --- One idle pass of the worker, its sleep left out, beside the least that a loop can do that
// polls under a mutex. What the sleep adds to both is in idle_cost.

void IdlePass(benchmark::State& state)
{
    Stage stage(LogSetting::kOff, WorkerThread::kOurs);
    stage.RunWorker(
        [&]
        {
            if (!state.KeepRunning())
            {
                stage.Stop();
            }
        });
}
BENCHMARK(IdlePass);

void BareIdlePass(benchmark::State& state)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<bool> running{true};
    const auto poll = [&]
    {
        while (running.load(std::memory_order_acquire))
        {
            pthread_mutex_lock(&mutex);
            pthread_mutex_unlock(&mutex);
            (void)OSAK_PollSleep(50);
        }
    };
    bench::RunWithoutSleep(poll, [&] { running = state.KeepRunning(); });
}
BENCHMARK(BareIdlePass);

}  // namespace
