// The main function of the micro-benchmarks. The C library's locks are cheaper in a process of one
// thread, which the service never is.
#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>

int main(int count, char** arguments)
{
    std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments))
    {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
