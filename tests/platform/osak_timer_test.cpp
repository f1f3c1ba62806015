// The relative timers of the operating-system layer.
#include "osak.h"
#include "osak/timers.h"
#include "osak_faults.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned int kRepeats = 0;
constexpr unsigned int kOnce = 1;
constexpr unsigned int kLong = 600000;

// The observations of one test's callbacks, and the condition that they wait for.
class Seen
{
public:
    void Add()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_times.push_back(Clock::now());
        m_changed.notify_all();
    }
    void Await(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_times.size() >= count; });
    }
    std::vector<Clock::time_point> Times()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_times;
    }
    size_t Count()
    {
        return Times().size();
    }
    void Open()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void AwaitOpen()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_open; });
    }

    // For callbacks that handle timers themselves.
    std::atomic<OSAK_TIMER> timer{nullptr};
    std::atomic<OSAK_TIMER> other{nullptr};
    std::atomic<unsigned int> code{0xFFFFFFFFU};

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Clock::time_point> m_times;
    bool m_open = false;
};

Seen& SeenOf(void* param)
{
    return *static_cast<Seen*>(param);
}

void AddOne(void* param)
{
    SeenOf(param).Add();
}

void AddAndAwaitOpen(void* param)
{
    SeenOf(param).Add();
    SeenOf(param).AwaitOpen();
}

OSAK_TIMER Make(OSAK_TIMER_PROC callback, unsigned int mode)
{
    const OSAK_TIMER timer = OSAK_CreateRelTimerM(callback, mode, __LINE__, __FILE__);
    EXPECT_NE(nullptr, timer);
    return timer;
}

// Waits until timers that were due within `ms` from now have fired, by one that is due later.
void LetTimersPass(unsigned int ms)
{
    Seen seen;
    const OSAK_TIMER sentinel = Make(AddOne, kOnce);
    ASSERT_EQ(OSAK_OK, OSAK_StartRelTimer(sentinel, ms, &seen));
    seen.Await(1);
    ASSERT_EQ(OSAK_OK, OSAK_FreeRelTimer(sentinel));
}

TEST(OsakTimer, FiresOnceAfterItsLengthInModesOtherThanZero)
{
    for (const unsigned int mode : {1U, 2U, 0xFFFFFFFFU})
    {
        Seen seen;
        const OSAK_TIMER timer = Make(AddOne, mode);
        const Clock::time_point begin = Clock::now();
        EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 20, &seen));
        seen.Await(1);
        EXPECT_GE(seen.Times()[0] - begin, milliseconds(20));
        LetTimersPass(50);
        EXPECT_EQ(1U, seen.Count());
        EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    }
}

TEST(OsakTimer, RepeatsInModeZeroUntilItIsFreed)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddOne, kRepeats);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 10, &seen));
    seen.Await(5);
    EXPECT_GE(seen.Times()[4] - begin, milliseconds(50));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    const size_t count = seen.Count();
    LetTimersPass(50);
    EXPECT_EQ(count, seen.Count());
}

TEST(OsakTimer, DoesNotFireUnlessStarted)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddOne, kRepeats);
    LetTimersPass(20);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

TEST(OsakTimer, CallbacksRunOnOneNamedThreadWithSignalsBlocked)
{
    struct Run
    {
        Seen seen;
        char name[16] = {};
        pthread_t thread = {};
        bool blocked = false;
    };
    Run runs[2];
    for (Run& run : runs)
    {
        const OSAK_TIMER timer = Make(
            [](void* param)
            {
                Run& self = *static_cast<Run*>(param);
                sigset_t mask;
                (void)pthread_sigmask(SIG_SETMASK, nullptr, &mask);
                self.blocked = sigismember(&mask, SIGPIPE) == 1 && sigismember(&mask, SIGTERM) == 1;
                (void)pthread_getname_np(pthread_self(), self.name, sizeof(self.name));
                self.thread = pthread_self();
                self.seen.Add();
            },
            kOnce);
        EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 1, &run));
        run.seen.Await(1);
        EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
        EXPECT_STREQ("corpdir-timer", run.name);
        EXPECT_TRUE(run.blocked);
    }
    EXPECT_TRUE(pthread_equal(runs[0].thread, runs[1].thread));
    EXPECT_FALSE(pthread_equal(runs[0].thread, pthread_self()));
}

// Runs `attempt` until it took less than `ms`: on a busy machine a timer of that length may fire
// within it.
void BeforeATimerOf(unsigned int ms, const std::function<void()>& attempt)
{
    Clock::time_point begin;
    do
    {
        begin = Clock::now();
        attempt();
    } while (Clock::now() - begin >= milliseconds(ms));
}

TEST(OsakTimer, StartOfARunningTimerRestartsItWithItsFullLength)
{
    std::list<Seen> early;
    std::list<Seen> late;
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    Clock::time_point restart;
    BeforeATimerOf(60,
                   [&]
                   {
                       EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 60, &early.emplace_back()));
                       LetTimersPass(30);
                       restart = Clock::now();
                       EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 60, &late.emplace_back()));
                   });
    late.back().Await(1);
    EXPECT_GE(late.back().Times()[0] - restart, milliseconds(60));
    LetTimersPass(70);
    EXPECT_EQ(0U, early.back().Count());
    EXPECT_EQ(1U, late.back().Count());
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

TEST(OsakTimer, ATimerThatHasFiredMayBeStartedAgain)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    for (size_t round = 1; round <= 3; ++round)
    {
        EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 1, &seen));
        seen.Await(round);
    }
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

TEST(OsakTimer, FreedBeforeItsTimeItDoesNotFire)
{
    std::list<Seen> seen;
    BeforeATimerOf(20,
                   [&]
                   {
                       const OSAK_TIMER timer = Make(AddOne, kOnce);
                       EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 20, &seen.emplace_back()));
                       EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
                   });
    LetTimersPass(60);
    EXPECT_EQ(0U, seen.back().Count());
}

TEST(OsakTimer, NullGetsACode)
{
    EXPECT_EQ(nullptr, OSAK_CreateRelTimerM(nullptr, kOnce, 1, "test"));
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_StartRelTimer(nullptr, 1, nullptr));
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_FreeRelTimer(nullptr));
}

TEST(OsakTimer, AFreedHandleGetsACode)
{
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    const OSAK_TIMER later = Make(AddOne, kOnce);
    EXPECT_NE(timer, later);
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_StartRelTimer(timer, 1, nullptr));
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_FreeRelTimer(timer));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(later));
}

TEST(OsakTimer, AForeignHandleGetsACode)
{
    int foreign = 0;
    const auto handle = reinterpret_cast<OSAK_TIMER>(&foreign);
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_StartRelTimer(handle, 1, nullptr));
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_FreeRelTimer(handle));
}

TEST(OsakTimer, MayBeFreedWithinItsOwnCallback)
{
    Seen seen;
    seen.timer = Make(
        [](void* param)
        {
            Seen& self = SeenOf(param);
            self.code = OSAK_FreeRelTimer(self.timer);
            self.Add();
        },
        kRepeats);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(seen.timer, 1, &seen));
    seen.Await(1);
    EXPECT_EQ(OSAK_OK, seen.code);
    LetTimersPass(20);
    EXPECT_EQ(1U, seen.Count());
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_FreeRelTimer(seen.timer));
}

TEST(OsakTimer, FreeWaitsForARunningCallback)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddAndAwaitOpen, kRepeats);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 1, &seen));
    seen.Await(1);
    auto freed = std::async(std::launch::async, OSAK_FreeRelTimer, timer);
    EXPECT_EQ(std::future_status::timeout, freed.wait_for(milliseconds(30)));
    seen.Open();
    EXPECT_EQ(OSAK_OK, freed.get());
    const size_t count = seen.Count();
    LetTimersPass(20);
    EXPECT_EQ(count, seen.Count());
}

TEST(OsakTimer, FreeDoesNotWaitForTheCallbackOfAnother)
{
    Seen blocked;
    Seen seen;
    const OSAK_TIMER blocker = Make(AddAndAwaitOpen, kOnce);
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(blocker, 1, &blocked));
    blocked.Await(1);
    // Due while the blocker runs: it must not fire afterwards either.
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 0, &seen));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    blocked.Open();
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(blocker));
    LetTimersPass(10);
    EXPECT_EQ(0U, seen.Count());
}

TEST(OsakTimer, NoLockIsHeldWhileACallbackRuns)
{
    Seen blocked;
    const OSAK_TIMER blocker = Make(AddAndAwaitOpen, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(blocker, 1, &blocked));
    blocked.Await(1);
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, kLong, nullptr));
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(blocker, kLong, &blocked));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    blocked.Open();
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(blocker));
}

TEST(OsakTimer, ACallbackMayFreeAnotherTimer)
{
    Seen seen;
    Seen victim;
    seen.other = Make(AddOne, kRepeats);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(seen.other, 30, &victim));
    const OSAK_TIMER timer = Make(
        [](void* param)
        {
            Seen& self = SeenOf(param);
            self.code = OSAK_FreeRelTimer(self.other);
            self.Add();
        },
        kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 0, &seen));
    seen.Await(1);
    EXPECT_EQ(OSAK_OK, seen.code);
    const size_t count = victim.Count();
    LetTimersPass(50);
    EXPECT_EQ(count, victim.Count());
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_FreeRelTimer(seen.other));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

TEST(OsakTimer, ACallbackMayStartItsTimer)
{
    Seen seen;
    seen.timer = Make(
        [](void* param)
        {
            Seen& self = SeenOf(param);
            self.Add();
            if (self.Count() < 4)
            {
                self.code = OSAK_StartRelTimer(self.timer, 2, param);
            }
        },
        kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(seen.timer, 1, &seen));
    seen.Await(4);
    EXPECT_EQ(OSAK_OK, seen.code);
    LetTimersPass(20);
    EXPECT_EQ(4U, seen.Count());
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(seen.timer));
}

TEST(OsakTimer, AStartWithinTheCallbackReplacesTheRepetition)
{
    Seen seen;
    seen.timer = Make(
        [](void* param)
        {
            SeenOf(param).Add();
            SeenOf(param).code = OSAK_StartRelTimer(SeenOf(param).timer, kLong, param);
        },
        kRepeats);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(seen.timer, 5, &seen));
    seen.Await(1);
    LetTimersPass(30);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(seen.timer));
    EXPECT_EQ(1U, seen.Count());
    EXPECT_EQ(OSAK_OK, seen.code);
}

// A callback that outlasts its period has the effect of a machine that slept: the expiries it
// missed do not come one after the other.
TEST(OsakTimer, MissedPeriodsAreNotMadeUpFor)
{
    struct Run
    {
        Seen seen;
        Clock::time_point firstEnded;
    };
    Run run;
    const OSAK_TIMER timer = Make(
        [](void* param)
        {
            Run& self = *static_cast<Run*>(param);
            self.seen.Add();
            if (self.seen.Count() == 1)
            {
                std::this_thread::sleep_for(milliseconds(200));
                self.firstEnded = Clock::now();
            }
        },
        kRepeats);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 20, &run));
    run.seen.Await(5);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    const auto times = run.seen.Times();
    EXPECT_GE(times[1] - times[0], milliseconds(200));
    for (size_t i = 1; i < 5; ++i)
    {
        EXPECT_GE(times[i] - run.firstEnded, milliseconds(20) * (i - 1)) << i;
    }
}

TEST(OsakTimer, ARepeatingTimerWithoutALengthCountsAsOneMillisecond)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddOne, kRepeats);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 0, &seen));
    seen.Await(30);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    EXPECT_GE(seen.Times()[29] - begin, milliseconds(30));
}

TEST(OsakTimer, TheLongestLengthDoesNotWrap)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 0xFFFFFFFFU, &seen));
    LetTimersPass(20);
    EXPECT_EQ(0U, seen.Count());
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

TEST(OsakTimer, ThousandsRunAtOnce)
{
    constexpr size_t kTimers = 5000;
    Seen seen;
    std::vector<OSAK_TIMER> timers;
    for (size_t i = 0; i < kTimers; ++i)
    {
        timers.push_back(Make(AddOne, kOnce));
        ASSERT_EQ(OSAK_OK,
                  OSAK_StartRelTimer(timers.back(), static_cast<unsigned int>(i % 50), &seen));
    }
    seen.Await(kTimers);
    for (const OSAK_TIMER timer : timers)
    {
        ASSERT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    }
    EXPECT_EQ(kTimers, seen.Count());
}

// No callback sees its parameter after the free: each lives on the stack of its round.
TEST(OsakTimer, ThreadsMayStartAndFreeTimersWhileTheyFire)
{
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 3; ++t)
    {
        threads.emplace_back(
            []
            {
                for (int i = 0; i < 300; ++i)
                {
                    Seen seen;
                    const OSAK_TIMER timer = Make(AddOne, i % 2 == 0 ? kRepeats : kOnce);
                    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 0, &seen));
                    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 0, &seen));
                    if (i % 3 == 0)
                    {
                        seen.Await(1);
                    }
                    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

TEST(OsakTimer, RunningTimersExpireOnRequest)
{
    Seen seen;
    std::vector<OSAK_TIMER> timers;
    for (const unsigned int mode : {kOnce, kRepeats, kOnce})
    {
        timers.push_back(Make(AddOne, mode));
        ASSERT_EQ(OSAK_OK, OSAK_StartRelTimer(timers.back(), kLong, &seen));
    }
    osak::ExpireTimers();
    seen.Await(3);
    LetTimersPass(20);
    EXPECT_EQ(3U, seen.Count());
    // Only the repeating one is still running.
    osak::ExpireTimers();
    seen.Await(4);
    LetTimersPass(20);
    EXPECT_EQ(4U, seen.Count());
    for (const OSAK_TIMER timer : timers)
    {
        EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    }
}

TEST(OsakTimer, AnExpiredRepeatingTimerGoesOnWithItsFullPeriod)
{
    Seen seen;
    const OSAK_TIMER timer = Make(AddOne, kRepeats);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 200, &seen));
    LetTimersPass(100);
    osak::ExpireTimers();
    seen.Await(2);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    const auto times = seen.Times();
    EXPECT_GE(times[1] - times[0], milliseconds(200));
}

TEST(OsakTimer, TimersThatDoNotRunDoNotExpire)
{
    Seen never;
    Seen fired;
    const OSAK_TIMER unstarted = Make(AddOne, kRepeats);
    const OSAK_TIMER once = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(once, 1, &fired));
    fired.Await(1);
    osak::ExpireTimers();
    LetTimersPass(20);
    EXPECT_EQ(1U, fired.Count());
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(unstarted, kLong, &never));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(unstarted));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(once));
    EXPECT_EQ(0U, never.Count());
}

// The repeating timer whose callback runs is due again as well.
TEST(OsakTimer, ExpiryDoesNotWaitForACallback)
{
    Seen blocked;
    Seen seen;
    const OSAK_TIMER blocker = Make(AddAndAwaitOpen, kRepeats);
    const OSAK_TIMER timer = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, kLong, &seen));
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(blocker, 1, &blocked));
    blocked.Await(1);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(blocker, kLong, &blocked));
    osak::ExpireTimers();
    EXPECT_EQ(0U, seen.Count());
    blocked.Open();
    seen.Await(1);
    blocked.Await(2);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(blocker));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

TEST(OsakTimer, ACallbackMayLetTimersExpire)
{
    Seen seen;
    const OSAK_TIMER other = Make(AddOne, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(other, kLong, &seen));
    const OSAK_TIMER timer = Make([](void*) { osak::ExpireTimers(); }, kOnce);
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 1, nullptr));
    seen.Await(1);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(other));
}

// In a process of its own, in which the timer thread has not started yet.
TEST(OsakTimerDeathTest, GivesNullWithoutAThreadAndWorksLater)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            osak::ExpireTimers();
            osak_faults::SetNoThreads(true);
            const OSAK_TIMER none = OSAK_CreateRelTimerM(AddOne, kOnce, 1, "test");
            osak_faults::SetNoThreads(false);
            Seen seen;
            const OSAK_TIMER timer = OSAK_CreateRelTimerM(AddOne, kOnce, 1, "test");
            const unsigned int code = OSAK_StartRelTimer(timer, 1, &seen);
            seen.Await(1);
            std::_Exit(none == nullptr && code == OSAK_OK ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
