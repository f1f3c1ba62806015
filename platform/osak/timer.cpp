// Relative timers: a table, and one thread that starts with the first of them.
//
// A handle is a number, looked up under the mutex, so a stale one finds nothing. The callback runs
// with the mutex released; a free from elsewhere waits until it has returned.
#include "timer.h"

#include "base/changes.h"
#include "base/never_destroyed.h"
#include "handle.h"
#include "osak.h"
#include "process.h"
#include "thread.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <new>

namespace osak
{
namespace
{
using base::Clock;

struct Timer
{
    OSAK_TIMER_PROC callback = nullptr;
    bool repeats = false;
    std::chrono::milliseconds period{0};               // of the latest start
    void* param = nullptr;                             // of the latest start
    Clock::time_point due = Clock::time_point::max();  // max: it does not run
};

// Thread-safe: everything is under the mutex, which no callback runs under.
class TimerService
{
public:
    OSAK_TIMER Create(OSAK_TIMER_PROC callback, bool repeats);
    unsigned int Start(std::uintptr_t number, unsigned int ms, void* param);
    unsigned int Free(std::uintptr_t number);
    void End();
    void Run();

private:
    using Timers = std::map<std::uintptr_t, Timer>;

    // How far the thread is; a failed start goes back to the first, for another try.
    enum class Stage
    {
        kNone,
        kStarting,
        kRunning
    };

    bool EnsureThread() CORPDIR_REQUIRES(m_mutex);
    Timers::iterator Next() CORPDIR_REQUIRES(m_mutex);
    void Call(Timers::iterator next) CORPDIR_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    base::CondVar m_changed;  // there is something for the thread, or for who waits for it
    Stage m_stage CORPDIR_GUARDED_BY(m_mutex) = Stage::kNone;
    bool m_ended CORPDIR_GUARDED_BY(m_mutex) = false;  // the process exits
    Timers m_timers CORPDIR_GUARDED_BY(m_mutex);
    std::uintptr_t m_lastNumber CORPDIR_GUARDED_BY(m_mutex) = 0;
    std::uintptr_t m_called CORPDIR_GUARDED_BY(m_mutex) = 0;  // whose callback runs; 0: none
    std::uint64_t m_threadNumber CORPDIR_GUARDED_BY(m_mutex) = 0;
};

TimerService& TheService()
{
    static base::NeverDestroyed<TimerService> s_service;
    return s_service.Get();
}

// The entry takes no argument, and there is one service.
unsigned int TimerThread()
{
    TheService().Run();
    return 0;
}

void TimerService::Run()
{
    const base::MutexLock lock(m_mutex);
    m_threadNumber = CurrentThreadNumber();
    for (;;)
    {
        const Timers::iterator next = m_ended ? m_timers.end() : Next();
        if (next == m_timers.end())
        {
            m_changed.Wait(m_mutex);
        }
        else if (next->second.due > Clock::now())
        {
            (void)m_changed.WaitUntil(m_mutex, next->second.due);
        }
        else
        {
            Call(next);
        }
    }
}

// The timer that is due first; the end when none runs.
TimerService::Timers::iterator TimerService::Next()
{
    auto next = m_timers.end();
    for (auto timer = m_timers.begin(); timer != m_timers.end(); ++timer)
    {
        const Clock::time_point before =
            next != m_timers.end() ? next->second.due : Clock::time_point::max();
        next = timer->second.due < before ? timer : next;
    }
    return next;
}

// One expiry, on the timer thread. The next one is a period from now, however late this one is. The
// exit of the process sees an end or a call: both begin under the mutex.
void TimerService::Call(Timers::iterator next)
{
    Timer& timer = next->second;
    timer.due = timer.repeats ? Clock::now() + timer.period : Clock::time_point::max();
    const OSAK_TIMER_PROC callback = timer.callback;
    void* const param = timer.param;
    m_called = next->first;
    BeginClientCall();
    m_mutex.Unlock();
    callback(param);
    base::Changes::Get().Raise();
    m_mutex.Lock();
    EndClientCall();
    m_called = 0;
    m_changed.NotifyAll();
}

// True when the thread runs and the process goes on. Of several first callers one starts the
// thread, with the mutex released, and the others wait for the outcome.
bool TimerService::EnsureThread()
{
    while (m_stage == Stage::kStarting)
    {
        m_changed.Wait(m_mutex);
    }
    if (m_stage == Stage::kNone && !m_ended)
    {
        m_stage = Stage::kStarting;
        m_mutex.Unlock();
        OSAK_THREAD thread = nullptr;
        const unsigned int code = StartThread("corpdir-timer", Duty::kLayer, TimerThread, &thread);
        m_mutex.Lock();
        m_stage = code == OSAK_OK ? Stage::kRunning : Stage::kNone;
        m_changed.NotifyAll();
    }
    return m_stage == Stage::kRunning && !m_ended;
}

OSAK_TIMER TimerService::Create(OSAK_TIMER_PROC callback, bool repeats)
{
    const base::MutexLock lock(m_mutex);
    if (!EnsureThread())
    {
        return nullptr;
    }
    ++m_lastNumber;
    Timer& timer = m_timers[m_lastNumber];
    timer.callback = callback;
    timer.repeats = repeats;
    return PointerOf<OSAK_TIMER>(m_lastNumber);
}

unsigned int TimerService::Start(std::uintptr_t number, unsigned int ms, void* param)
{
    const base::MutexLock lock(m_mutex);
    const auto found = m_timers.find(number);
    if (found == m_timers.end())
    {
        return OSAK_ERR_HANDLE;
    }
    if (m_ended)
    {
        return OSAK_ERR_SYSTEM;
    }
    Timer& timer = found->second;
    // A repeating timer without a length would never let the thread rest.
    timer.period = std::chrono::milliseconds(timer.repeats && ms == 0 ? 1 : ms);
    timer.param = param;
    timer.due = Clock::now() + timer.period;
    m_changed.NotifyAll();
    return OSAK_OK;
}

unsigned int TimerService::Free(std::uintptr_t number)
{
    const base::MutexLock lock(m_mutex);
    if (m_timers.erase(number) == 0)
    {
        return OSAK_ERR_HANDLE;
    }
    const bool exiting = m_ended;
    while (m_called == number && m_threadNumber != CurrentThreadNumber())
    {
        // The exit handler has waited for it already; or it waits for the caller too, and the
        // callback may have been held for good.
        if (exiting || MustPark())
        {
            return OSAK_ERR_BUSY;
        }
        m_changed.Wait(m_mutex);
    }
    return OSAK_OK;
}

// Who waits for a callback is woken, to be held.
void TimerService::End()
{
    const base::MutexLock lock(m_mutex);
    m_ended = true;
    m_changed.NotifyAll();
}

}  // namespace

void EndTimers()
{
    TheService().End();
}

}  // namespace osak

OSAK_TIMER OSAK_CreateRelTimerM(OSAK_TIMER_PROC callback, unsigned int mode, unsigned int /*line*/,
                                const char* /*file*/)
{
    if (callback == nullptr || osak::IsForkedChild())
    {
        return nullptr;
    }
    osak::WatchProcess();
    try
    {
        return osak::TheService().Create(callback, mode == 0);
    }
    catch (const std::bad_alloc&)
    {
        return nullptr;
    }
}

unsigned int OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param)
{
    if (timer == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    return osak::TheService().Start(osak::NumberOf(timer), ms, param);
}

unsigned int OSAK_FreeRelTimer(OSAK_TIMER timer)
{
    if (timer == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    const unsigned int code = osak::TheService().Free(osak::NumberOf(timer));
    if (code == OSAK_ERR_BUSY)
    {
        osak::ParkIfExiting();
    }
    return code;
}
