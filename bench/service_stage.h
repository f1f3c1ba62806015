// The service on a stage: above the real OS, security and log layers, with an FTP layer that
// accepts every transfer and does nothing, and a worker that can be made to run on the benchmark's
// own thread. So a step of the service can be timed from the notification that causes it to the
// transfer that it asks for, without the worker's waiting in between.
#ifndef BENCH_SERVICE_STAGE_H
#define BENCH_SERVICE_STAGE_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "allocations.h"
#include "ftpcorpdir.h"

namespace bench
{

using Clock = std::chrono::steady_clock;

// The latest transfer that the service has asked for.
struct Transfer
{
    unsigned int number = 0;   // how many there were so far; its task id too
    std::uint32_t server = 0;  // its IPv4 address
    Clock::time_point begin;
    Allocations allocations;  // of its thread up to then
};

Transfer LatestTransfer();

// Waits until there is a transfer after this one.
Transfer TransferAfter(unsigned int number);

// Notifies the service, as the FTP layer's thread would, of the end of a transfer of the
// version file.
void FailVersionFile(unsigned int task);
void CompleteVersionFile(unsigned int task);

// Calls `pass` on this thread whenever `loop` sleeps, which does not sleep then.
void RunWithoutSleep(const std::function<void()>& loop, const std::function<void()>& pass);

enum class LogSetting
{
    kOff,     // no records
    kErrors,  // level 0
    kInfo     // level 2
};

enum class WorkerThread
{
    kOurs,  // runs in RunWorker
    kOwn    // as in real life
};

// A started service with a directory of its own, until the end of the scope. One at a time.
class Stage
{
public:
    Stage(LogSetting log, WorkerThread worker);
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    // Runs the worker on this thread. `pass` runs in each idle pass, in place of the sleep; it ends
    // the worker by calling Stop.
    void RunWorker(const std::function<void()>& pass);
    void Stop();

    // A refused one ends the program, since there would be nothing to wait for.
    void Request(const std::string& servers);

    std::filesystem::path VersionFile() const;

private:
    std::filesystem::path m_directory;
    bool m_isStarted = false;
};

}  // namespace bench

#endif
