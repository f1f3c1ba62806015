// Costs of single operations of the layers, each beside what it replaces.
//     layers_bench [--benchmark_filter=NAME] [--benchmark_repetitions=9]
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "corpdir_log.h"
#include "osak.h"

namespace
{

// --- Mutexes: a lock and an unlock without contention.

void PthreadRecursivePair(benchmark::State& state)
{
    pthread_mutexattr_t recursive;
    pthread_mutexattr_init(&recursive);
    pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &recursive);
    for (auto _ : state)
    {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&recursive);
}
BENCHMARK(PthreadRecursivePair)->ThreadRange(1, 2);

void PthreadPair(benchmark::State& state)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state)
    {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(PthreadPair)->ThreadRange(1, 2);

void OsakPair(benchmark::State& state)
{
    OSAK_MUTEX mutex;
    if (OSAK_MutexInitRecursive(&mutex, nullptr) != OSAK_OK)
    {
        state.SkipWithError("no mutex");
    }
    for (auto _ : state)
    {
        OSAK_MutexLock(&mutex);
        OSAK_MutexUnLock(&mutex);
    }
    OSAK_MutexDestroy(&mutex);
}
BENCHMARK(OsakPair)->ThreadRange(1, 2);

// --- Memory.

void LibraryBlock(benchmark::State& state)
{
    for (auto _ : state)
    {
        void* block = std::calloc(1, static_cast<std::size_t>(state.range(0)));
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
}
BENCHMARK(LibraryBlock)->Arg(64)->Arg(4096);

void OsakBlock(benchmark::State& state)
{
    for (auto _ : state)
    {
        void* block = OSAK_MemMallocD(static_cast<std::size_t>(state.range(0)), __LINE__, __FILE__);
        benchmark::DoNotOptimize(block);
        OSAK_MemFreeD(block, __LINE__, __FILE__);
    }
}
BENCHMARK(OsakBlock)->Arg(64)->Arg(4096);

// --- The log.

constexpr int kRecords = 1000000;

// A log in a directory of its own, for a scope.
class Log
{
public:
    explicit Log(unsigned int level)
    {
        char name[] = "/tmp/layers_bench.XXXXXX";
        m_directory = mkdtemp(name);
        tag_CORPDIR_LOGINFO info = {};
        std::snprintf(info.szLogDir, sizeof info.szLogDir, "%s", name);
        info.ulLogLevel = level;
        info.ulMaxFileSize = 1U << 31;  // one file, so that every line can be counted
        m_isOpen = CorpDir_OpenLog(&info) == 0;
    }
    ~Log()
    {
        CorpDir_CloseLog();
        std::filesystem::remove_all(m_directory);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    bool IsOpen() const
    {
        return m_isOpen;
    }

    // Lines in the file, after closing the log.
    std::size_t CloseAndCount() const
    {
        CorpDir_CloseLog();
        std::ifstream file(m_directory / "corpdir.log");
        return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
    }

private:
    std::filesystem::path m_directory;
    bool m_isOpen;
};

void WriteRecord()
{
    g_LogOne->WriteLog("CORPDIR", __func__, "layers_bench.cpp", __LINE__, CORPDIR_LOG_INFO,
                       "task %u: %s complete, %d bytes", 17U, "directory.csv", 65536);
}

// Records written to a file by the log's own thread. "lines" counts the lines of the file: records
// that the log's thread cannot write in time are dropped. The time includes writing and counting
// all lines; "caller_ns" is the cost of one record for its caller.
void RecordWritten(benchmark::State& state)
{
    const Log log(CORPDIR_LOG_INFO);
    if (!log.IsOpen())
    {
        state.SkipWithError("no log");
    }
    std::size_t lines = 0;
    std::chrono::nanoseconds caller{0};
    for (auto _ : state)
    {
        const auto begin = std::chrono::steady_clock::now();
        for (int record = 0; record != kRecords; ++record)
        {
            WriteRecord();
        }
        caller = std::chrono::steady_clock::now() - begin;
        lines = log.CloseAndCount();
    }
    state.counters["lines"] = static_cast<double>(lines);
    state.counters["caller_ns"] = static_cast<double>(caller.count()) / kRecords;
    state.SetItemsProcessed(kRecords);
}
BENCHMARK(RecordWritten)->UseRealTime()->Iterations(1);

void PrintRecord(std::FILE* file)
{
    std::timespec now = {};
    std::timespec_get(&now, TIME_UTC);
    std::tm local = {};
    localtime_r(&now.tv_sec, &local);
    char time[32];
    std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", &local);
    std::fprintf(file, "%s.%03ld info %d CORPDIR %s %s:%d task %u: %s complete, %d bytes\n", time,
                 now.tv_nsec / 1000000, 4711, __func__, "layers_bench.cpp", __LINE__, 17U,
                 "directory.csv", 65536);
}

// The same line, formatted and written by the C library on the calling thread.
void PrintfWritten(benchmark::State& state)
{
    std::FILE* const file = std::tmpfile();
    if (file == nullptr)
    {
        state.SkipWithError("no file");
    }
    for (auto _ : state)
    {
        for (int record = 0; record != kRecords; ++record)
        {
            PrintRecord(file);
        }
    }
    state.SetItemsProcessed(kRecords);
    std::fclose(file);
}
BENCHMARK(PrintfWritten)->UseRealTime()->Iterations(1);

void RecordAboveTheLevel(benchmark::State& state)
{
    const Log log(CORPDIR_LOG_ERROR);
    for (auto _ : state)
    {
        WriteRecord();
    }
}
BENCHMARK(RecordAboveTheLevel);

void RecordInAnotherLogMode(benchmark::State& state)
{
    const Log log(CORPDIR_LOG_INFO);
    g_LogMode = 1;
    for (auto _ : state)
    {
        WriteRecord();
    }
    g_LogMode = 0;
}
BENCHMARK(RecordInAnotherLogMode);

}  // namespace

int main(int count, char** arguments)
{
    // The C library's locks are cheaper in a process of one thread, which the service never is.
    std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments))
    {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
