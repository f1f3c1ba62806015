// Relative timers: a table, and one thread that starts with the first of them.
//
// Handles are looked up under the mutex, so a stale one finds nothing. The callback runs with the
// mutex released; a free on another thread waits until it has returned.
#include "base/changes.h"
#include "base/handle.h"
#include "base/never_destroyed.h"
#include "base/thread.h"
#include "osak.h"
#include "process.h"
#include "thread.h"
#include "timers.h"

#include <chrono>
#include <map>
#include <new>
#include <system_error>

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

// Thread-safe: everything is under the mutex, which is not held during a callback.
class TimerService
{
public:
    OSAK_TIMER Create(OSAK_TIMER_PROC callback, bool repeats);
    unsigned int Start(OSAK_TIMER handle, unsigned int ms, void* param);
    unsigned int Free(OSAK_TIMER handle);
    void Expire();
    void End();

private:
    using Timers = std::map<OSAK_TIMER, Timer>;

    void Run();
    Timers::iterator Next() CORPDIR_REQUIRES(m_mutex);
    void Call(Timers::iterator next) CORPDIR_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    base::CondVar m_changed;  // the thread, or a caller of Free(), has something to look at
    base::Thread m_thread CORPDIR_GUARDED_BY(m_mutex);
    bool m_ended CORPDIR_GUARDED_BY(m_mutex) = false;  // the process exits
    Timers m_timers CORPDIR_GUARDED_BY(m_mutex);
    OSAK_TIMER m_called CORPDIR_GUARDED_BY(m_mutex) = nullptr;  // its callback runs
};

TimerService& TheService()
{
    static base::NeverDestroyed<TimerService> s_service;
    return s_service.Get();
}

void TimerService::Run()
{
    const base::MutexLock lock(m_mutex);
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

// One expiry, on the timer thread. The next one is due a period from now, however late this one is.
// The exit of the process sees an end or a call: both begin under the mutex.
void TimerService::Call(Timers::iterator next)
{
    Timer& timer = next->second;
    timer.due = timer.repeats ? Clock::now() + timer.period : Clock::time_point::max();
    const OSAK_TIMER_PROC callback = timer.callback;
    void* const param = timer.param;
    m_called = next->first;
    BeginClientCode();
    m_mutex.Unlock();
    callback(param);
    base::Changes::Get().Raise();
    m_mutex.Lock();
    EndClientCode();
    m_called = nullptr;
    m_changed.NotifyAll();
}

// Null when the process exits. Throws when resources run out.
OSAK_TIMER TimerService::Create(OSAK_TIMER_PROC callback, bool repeats)
{
    const base::MutexLock lock(m_mutex);
    if (m_ended)
    {
        return nullptr;
    }
    if (!m_thread.Joinable())
    {
        m_thread = base::Thread("corpdir-timer", [this] { Run(); });
    }
    const auto handle = base::NewHandle<OSAK_TIMER>();
    Timer& timer = m_timers[handle];
    timer.callback = callback;
    timer.repeats = repeats;
    return handle;
}

unsigned int TimerService::Start(OSAK_TIMER handle, unsigned int ms, void* param)
{
    const base::MutexLock lock(m_mutex);
    const auto found = m_timers.find(handle);
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

unsigned int TimerService::Free(OSAK_TIMER handle)
{
    const base::MutexLock lock(m_mutex);
    if (m_timers.erase(handle) == 0)
    {
        return OSAK_ERR_HANDLE;
    }
    const bool exiting = m_ended;
    while (m_called == handle && !m_thread.IsCaller())
    {
        // The exit handler has waited for the callback already; or it waits for the caller too, and
        // the callback may be held.
        if (exiting || MustHold())
        {
            return OSAK_ERR_BUSY;
        }
        m_changed.Wait(m_mutex);
    }
    return OSAK_OK;
}

// After End() the thread looks at no timer.
void TimerService::Expire()
{
    const base::MutexLock lock(m_mutex);
    const Clock::time_point now = Clock::now();
    for (auto& [handle, timer] : m_timers)
    {
        const bool runs = timer.due != Clock::time_point::max();
        timer.due = runs ? now : timer.due;
    }
    m_changed.NotifyAll();
}

// Callers of Free() are woken to be held.
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

void ExpireTimers() noexcept
{
    if (!IsForkedChild())
    {
        TheService().Expire();
    }
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
    catch (const std::system_error&)
    {
        return nullptr;
    }
}

unsigned int OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param)
{
    const unsigned int code = osak::CheckCall(timer);
    return code == OSAK_OK ? osak::TheService().Start(timer, ms, param) : code;
}

unsigned int OSAK_FreeRelTimer(OSAK_TIMER timer)
{
    unsigned int code = osak::CheckCall(timer);
    if (code == OSAK_OK)
    {
        code = osak::TheService().Free(timer);
        osak::HoldIfExiting();
    }
    return code;
}
