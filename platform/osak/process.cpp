// The end of the process, and its forks.
#include "process.h"

#include "base/changes.h"
#include "base/mutex.h"
#include "mutex.h"
#include "osak_diagnostics.h"
#include "osak_log.h"
#include "thread.h"
#include "timer.h"

#include <pthread.h>

#include <cstdint>
#include <cstdlib>

namespace osak
{
std::atomic<Phase> g_phase{Phase::kRunning};

namespace
{
std::atomic<std::uint64_t> g_exitingThread{0};

// Makes it safe for static destructors to run beneath threads that nobody stopped. Those that do
// not come to rest within the time are left to run: they may be waiting for the network.
void OnExit()
{
    if (IsForkedChild())
    {
        return;
    }
    // The phase publishes the number, so the number comes first.
    g_exitingThread.store(CurrentThreadNumber(), std::memory_order_relaxed);
    g_phase.store(Phase::kExiting, std::memory_order_release);
    // In this order: what is woken finds the phase changed, and no callback begins while we wait.
    EndTimers();
    base::Changes::Get().Raise();
    WakeMutexWaiters();
    const unsigned int running = AwaitThreadsAtRest(base::Clock::now() + kLongestWait);
    if (running != 0)
    {
        OSAK_LOG(CORPDIR_LOG_NOTICE, "The process ends while %u threads are at work", running);
    }
}

// Runs in the child, on its only thread.
void OnFork()
{
    g_phase.store(Phase::kForkedChild, std::memory_order_release);
}

}  // namespace

void WatchProcess()
{
    // The first two fail for want of memory, the third when the log's places for handlers are
    // taken. Then the process ends, or forks, as one without those handlers would.
    static const bool s_watching = std::atexit(OnExit) == 0 &&
                                   pthread_atfork(nullptr, nullptr, OnFork) == 0 &&
                                   CorpDir_AtCloseLog(OSAK_MemLogReport);
    (void)s_watching;
}

bool IsExitingThread()
{
    return g_exitingThread.load(std::memory_order_relaxed) == CurrentThreadNumber();
}

}  // namespace osak
