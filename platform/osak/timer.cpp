// Relative timers: one Asio steady timer each, on one thread that starts with the first of them.
//
// A handle is a number, looked up under the guard, so a stale one finds nothing. Each start begins
// a new round of its timer, and an expiry carries the round it belongs to: one that Asio had queued
// already when the timer was restarted or freed is recognised and dropped. The callback runs with
// the guard released; a free from elsewhere waits until it has returned.
#include "timer.h"

#include "base/changes.h"
#include "base/never_destroyed.h"
#include "handle.h"
#include "osak.h"
#include "osak_log.h"
#include "process.h"
#include "thread.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <unordered_map>

namespace osak
{
namespace
{
// The event loop. It has work for ever, so its thread sleeps, not ends, when no timer runs.
struct Loop
{
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
};

// What a timer was made with.
struct Plan
{
    OSAK_TIMER_PROC callback;
    bool repeats;
    unsigned int line;
    const char* file;
};

// One timer. The service's guard guards it; the plan is constant.
struct Timer
{
    Timer(Loop& loop, const Plan& what) : clock(loop.context), plan(what) {}

    asio::steady_timer clock;
    const Plan plan;
    std::chrono::milliseconds period{0};  // of the latest start
    void* param = nullptr;                // of the latest start
    std::uint64_t round = 0;  // counts starts and the free: an expiry of an earlier one is void
};

// Shared by the table of timers and by the waits that Asio has queued.
using TimerRef = std::shared_ptr<Timer>;

// Thread-safe: everything is under the guard, which no callback runs under. Asio's timers are not
// thread-safe themselves, so the guard covers every use of a clock.
class TimerService
{
public:
    OSAK_TIMER Create(const Plan& plan);
    unsigned int Start(std::uintptr_t number, unsigned int ms, void* param);
    unsigned int Free(std::uintptr_t number);
    void End();
    void Run();

private:
    // How far the thread is; a failed start goes back to the first, for another try.
    enum class Stage
    {
        kNone,
        kStarting,
        kRunning
    };

    bool EnsureThread();
    void StartThreadUnlocked() CORPDIR_REQUIRES(m_guard);
    TimerRef Find(std::uintptr_t number) CORPDIR_REQUIRES(m_guard);
    void Arm(const TimerRef& timer) CORPDIR_REQUIRES(m_guard);
    bool Rearm(const TimerRef& timer) CORPDIR_REQUIRES(m_guard);
    bool BeginCall(const TimerRef& timer, std::uint64_t round, void** param, bool* armed);
    void EndCall();
    void Expired(const TimerRef& timer, std::uint64_t round);

    common::Guard m_guard;
    common::Signal m_changed;  // the thread has started or failed to, or a callback has returned
    Stage m_stage CORPDIR_GUARDED_BY(m_guard) = Stage::kNone;
    bool m_ended CORPDIR_GUARDED_BY(m_guard) = false;          // the process exits
    std::unique_ptr<Loop> m_loop CORPDIR_GUARDED_BY(m_guard);  // constant once it is there
    std::unordered_map<std::uintptr_t, TimerRef> m_timers CORPDIR_GUARDED_BY(m_guard);
    std::uintptr_t m_lastNumber CORPDIR_GUARDED_BY(m_guard) = 0;
    const Timer* m_called CORPDIR_GUARDED_BY(m_guard) = nullptr;  // whose callback runs
    std::uint64_t m_threadNumber CORPDIR_GUARDED_BY(m_guard) = 0;
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
    Loop* loop = nullptr;
    {
        const common::Hold hold(m_guard);
        m_threadNumber = CurrentThreadNumber();
        loop = m_loop.get();
    }
    loop->context.run();
}

// Starts the thread with the guard released: that may write to the log.
void TimerService::StartThreadUnlocked()
{
    m_stage = Stage::kStarting;
    m_guard.Unlock();
    OSAK_THREAD thread = nullptr;
    const unsigned int code = StartThread("corpdir-timer", Duty::kLayer, TimerThread, &thread);
    m_guard.Lock();
    m_stage = code == OSAK_OK ? Stage::kRunning : Stage::kNone;
    m_changed.NotifyAll();
}

// True when the thread runs and the process goes on. Of several first callers one starts the
// thread, the others wait for the outcome.
bool TimerService::EnsureThread()
{
    const common::Hold hold(m_guard);
    while (m_stage == Stage::kStarting)
    {
        m_changed.Wait(m_guard);
    }
    if (m_stage == Stage::kNone && !m_ended)
    {
        if (m_loop == nullptr)
        {
            m_loop = std::make_unique<Loop>();
        }
        StartThreadUnlocked();
    }
    return m_stage == Stage::kRunning && !m_ended;
}

OSAK_TIMER TimerService::Create(const Plan& plan)
{
    if (!EnsureThread())
    {
        return nullptr;
    }
    const common::Hold hold(m_guard);
    const TimerRef timer = std::make_shared<Timer>(*m_loop, plan);
    ++m_lastNumber;
    m_timers.emplace(m_lastNumber, timer);
    return PointerOf<OSAK_TIMER>(m_lastNumber);
}

TimerRef TimerService::Find(std::uintptr_t number)
{
    const auto found = m_timers.find(number);
    return found != m_timers.end() ? found->second : nullptr;
}

// Lets the clock run for a period from now; a wait in progress is cancelled. What is queued of an
// earlier round is void. Throws when memory ran out: the timer does not run then.
void TimerService::Arm(const TimerRef& timer)
{
    const std::uint64_t round = ++timer->round;
    timer->clock.expires_after(timer->period);
    timer->clock.async_wait(
        [this, timer, round](const asio::error_code& error)
        {
            if (!error)  // else the wait was cancelled
            {
                Expired(timer, round);
            }
        });
}

unsigned int TimerService::Start(std::uintptr_t number, unsigned int ms, void* param)
{
    const common::Hold hold(m_guard);
    const TimerRef timer = Find(number);
    if (timer == nullptr)
    {
        return OSAK_ERR_HANDLE;
    }
    if (m_ended)
    {
        return OSAK_ERR_SYSTEM;
    }
    // A repeating timer without a length would never let the thread rest.
    timer->period = std::chrono::milliseconds(timer->plan.repeats && ms == 0 ? 1 : ms);
    timer->param = param;
    Arm(timer);
    return OSAK_OK;
}

// As Arm; false when memory ran out.
bool TimerService::Rearm(const TimerRef& timer)
{
    try
    {
        Arm(timer);
        return true;
    }
    catch (const std::exception&)
    {
        return false;
    }
}

// Takes an expiry to the point of the call. The next one is a period from now, however late this
// one is. False when the expiry is void.
bool TimerService::BeginCall(const TimerRef& timer, std::uint64_t round, void** param, bool* armed)
{
    const common::Hold hold(m_guard);
    if (round != timer->round || m_ended)
    {
        return false;
    }
    *armed = !timer->plan.repeats || Rearm(timer);
    *param = timer->param;
    m_called = timer.get();
    BeginClientCall();  // under the guard: the exit of the process sees an end or a call
    return true;
}

// Lets a free that waits for the callback go on.
void TimerService::EndCall()
{
    const common::Hold hold(m_guard);
    EndClientCall();
    m_called = nullptr;
    m_changed.NotifyAll();
}

// One expiry, on the timer thread.
void TimerService::Expired(const TimerRef& timer, std::uint64_t round)
{
    bool armed = true;
    void* param = nullptr;
    if (!BeginCall(timer, round, &param, &armed))
    {
        return;
    }
    if (!armed)
    {
        const char* const file = timer->plan.file;
        OSAK_LOG(CORPDIR_LOG_ERROR, "Timer of %s:%u stops, memory ran out",
                 file != nullptr ? file : "?", timer->plan.line);
    }
    timer->plan.callback(param);
    base::Changes::Get().Raise();
    EndCall();
}

unsigned int TimerService::Free(std::uintptr_t number)
{
    const common::Hold hold(m_guard);
    const TimerRef timer = Find(number);
    if (timer == nullptr)
    {
        return OSAK_ERR_HANDLE;
    }
    // An expiry that is queued finds its round over; one that has passed that test is m_called.
    m_timers.erase(number);
    ++timer->round;
    timer->clock.cancel();
    const bool exiting = m_ended;
    while (m_called == timer.get() && m_threadNumber != CurrentThreadNumber())
    {
        // The exit handler has waited for it already; or it waits for the caller too, and the
        // callback may have been held for good.
        if (exiting || MustPark())
        {
            return OSAK_ERR_BUSY;
        }
        m_changed.Wait(m_guard);
    }
    return OSAK_OK;
}

// An expiry tests the flag under the guard: after this one it is either void, or counted as a
// client's callback by the thread's record. Who waits for a callback is woken, to be held.
void TimerService::End()
{
    const common::Hold hold(m_guard);
    m_ended = true;
    m_changed.NotifyAll();
}

}  // namespace

void EndTimers()
{
    TheService().End();
}

}  // namespace osak

OSAK_TIMER OSAK_CreateRelTimerM(OSAK_TIMER_PROC callback, unsigned int mode, unsigned int line,
                                const char* file)
{
    if (callback == nullptr || osak::IsForkedChild())
    {
        return nullptr;
    }
    osak::WatchProcess();
    try
    {
        return osak::TheService().Create({callback, mode == 0, line, file});
    }
    catch (const std::exception&)  // no memory, or no descriptor for the event loop
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
    try
    {
        return osak::TheService().Start(osak::NumberOf(timer), ms, param);
    }
    catch (const std::exception&)  // no memory for the wait: the timer does not run
    {
        return OSAK_ERR_SYSTEM;
    }
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
