#include "log_process.h"

#include "line_formatter.h"
#include "name_lock.h"
#include "record.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

namespace corpdir_log
{
namespace
{
// The longest that the end of the process waits for the disk.
constexpr std::chrono::seconds kExitPatience{1};

std::atomic<LogWriter*> g_writer{nullptr};

// In the child of a fork, the parent's writer: it may be in any state and is never touched again.
// Kept so that it is no leak, and atomic so that the compiler does not find the store useless.
std::atomic<LogWriter*> g_parentWriter{nullptr};

void OnExit()
{
    LogWriter* const writer = Writer();
    if (writer != nullptr)
    {
        writer->CloseForEver(base::Clock::now() + kExitPatience);
    }
}

// The child starts with no log and may open its own. Memory that the parent's threads had in hand
// stays allocated.
void OnForkInChild()
{
    LogWriter* const writer = g_writer.exchange(nullptr);
    if (writer != nullptr)
    {
        g_parentWriter.store(writer);
        NameLock::ReleaseInForkedChild();
    }
    ForgetThreadNumber();
    LineFormatter::AfterFork();
}

bool WatchProcess()
{
    static const bool s_isWatched =
        std::atexit(OnExit) == 0 &&
        pthread_atfork(LineFormatter::BeforeFork, LineFormatter::AfterFork, OnForkInChild) == 0;
    return s_isWatched;
}

}  // namespace

LogWriter* Writer()
{
    return g_writer.load(std::memory_order_acquire);
}

LogWriter* MakeWriter()
{
    if (Writer() != nullptr || !WatchProcess())
    {
        return Writer();
    }
    std::unique_ptr<LogWriter> made(new (std::nothrow) LogWriter);
    LogWriter* none = nullptr;
    if (made != nullptr && g_writer.compare_exchange_strong(none, made.get()))
    {
        return made.release();
    }
    return Writer();  // another thread was faster
}

}  // namespace corpdir_log
