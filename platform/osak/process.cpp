#include "process.h"

#include "base/changes.h"
#include "osak_log.h"
#include "thread.h"

namespace osak
{
std::atomic<bool> g_isForkedChild{false};

namespace
{
// Makes it safe for static destructors to run while threads exist that were not stopped. A thread
// that is neither held nor done in time goes on: it may be waiting for the network.
void OnExit(base::Clock::time_point deadline)
{
    if (IsForkedChild())
    {
        return;
    }
    EndTimers();
    base::Changes::Get().Raise();
    WakeMutexWaiters();
    const unsigned int running = AwaitClientCode(deadline);
    if (running != 0)
    {
        OSAK_LOG(CORPDIR_LOG_NOTICE, "The process ends while %u threads are at work", running);
    }
}

void OnFork()
{
    g_isForkedChild.store(true, std::memory_order_release);
}

}  // namespace

void WatchProcess()
{
    // Fails when memory runs out. The process then ends, or forks, without these handlers.
    static const bool s_watching =
        base::ProcessEnd::Register<base::EndStage::kThreads>(OnExit, OnFork);
    (void)s_watching;
}

}  // namespace osak
