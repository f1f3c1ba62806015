// The end of a process that stopped nothing, and the child of a fork. Each case runs in a process
// of its own, whose exit status and output are checked.
#include "captured_log.h"
#include "osak.h"
#include "osak/live_memory.h"
#include "osak/timers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::atomic<unsigned int> g_passes{0};
std::atomic<bool> g_ready{false};
std::atomic<bool> g_exiting{false};
std::atomic<bool> g_done{false};
std::atomic<bool> g_joining{false};
std::atomic<bool> g_joined{false};
Clock::time_point g_exitBegan;
OSAK_MUTEX g_mutex;
OSAK_TIMER g_timer = nullptr;
OSAK_THREAD g_thread = nullptr;
void* g_block = nullptr;

void Await(const std::atomic<bool>& flag)
{
    while (!flag)
    {
        std::this_thread::yield();
    }
}

// The call that every case is about; that other threads run meanwhile is the point.
[[noreturn]] void EndProcess()
{
    std::exit(0);  // NOLINT(concurrency-mt-unsafe)
}

// Ends the process with a message when a condition does not hold.
void Demand(bool condition, const char* what)
{
    if (!condition)
    {
        (void)std::fprintf(stderr, "not so: %s\n", what);
        _exit(3);
    }
}

// Runs `late` after the layer's exit handler, as the destructor of a static object would: handlers
// run last in, first out, and the layer registers its own with its first use.
void RunAfterTheLayersHandler(void (*late)())
{
    Demand(std::atexit(late) == 0, "registered");
    Demand(OSAK_MutexInitRecursive(&g_mutex, nullptr) == OSAK_OK, "first use of the layer");
    // Registered after the layer's, hence run before it.
    Demand(std::atexit(
               []
               {
                   g_exitBegan = Clock::now();
                   g_exiting = true;
               }) == 0,
           "registered");
}

milliseconds SinceExit()
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - g_exitBegan);
}

void StartThread(OSAK_THREAD_PROC entry)
{
    Demand(OSAK_PthreadCreate(&g_thread, nullptr, entry, nullptr) == OSAK_OK, "thread");
    Await(g_ready);
}

void StartTimer(OSAK_TIMER_PROC callback, unsigned int mode)
{
    g_timer = OSAK_CreateRelTimerM(callback, mode, 1, "test");
    Demand(OSAK_StartRelTimer(g_timer, 1, nullptr) == OSAK_OK, "timer");
    Await(g_ready);
}

void CountPass()
{
    ++g_passes;
    g_ready = true;
}

unsigned int PollAsTheServiceDoes()
{
    for (;;)
    {
        (void)OSAK_MutexLock(&g_mutex);
        CountPass();
        (void)OSAK_MutexUnLock(&g_mutex);
        usleep(50);
    }
}

void DemandThatNothingPassesAnyMore()
{
    const unsigned int passes = g_passes;
    std::this_thread::sleep_for(milliseconds(50));
    Demand(g_passes == passes, "nothing runs after the exit handlers");
}

class OsakExitDeathTest : public testing::Test
{
protected:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

#define EXPECT_CLEAN_EXIT(statement) EXPECT_EXIT(statement, testing::ExitedWithCode(0), "^$")

TEST_F(OsakExitDeathTest, APollingThreadIsHeldAndStaticDestructorsMayCleanUp)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "a polling thread is not waited for");
                DemandThatNothingPassesAnyMore();
                Demand(OSAK_FreeRelTimer(g_timer) == OSAK_OK, "timer freed");
                Demand(OSAK_MutexDestroy(&g_mutex) == OSAK_OK, "mutex destroyed");
                OSAK_MemFreeSetNullD(&g_block, 1, "test");
                Demand(osak::CountLiveMemory().blocks == 0, "block released");
            });
        g_block = OSAK_MemMallocD(72, 1, "test");
        StartThread(PollAsTheServiceDoes);
        StartTimer([](void*) { CountPass(); }, 0);
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, NoTimerCallbackBeginsAndNoTimerIsStarted)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                DemandThatNothingPassesAnyMore();
                Demand(OSAK_StartRelTimer(g_timer, 1, nullptr) == OSAK_ERR_SYSTEM, "no start");
                Demand(OSAK_CreateRelTimerM([](void*) { CountPass(); }, 0, 1, "test") == nullptr,
                       "no timer");
                OSAK_THREAD thread = g_thread;
                Demand(OSAK_PthreadCreate(&thread, nullptr, PollAsTheServiceDoes, nullptr) ==
                           OSAK_ERR_SYSTEM,
                       "no thread");
                osak::ExpireTimers();
                DemandThatNothingPassesAnyMore();
            });
        const OSAK_TIMER later = OSAK_CreateRelTimerM([](void*) { CountPass(); }, 1, 1, "test");
        Demand(OSAK_StartRelTimer(later, 600000, nullptr) == OSAK_OK, "later timer");
        StartTimer([](void*) { CountPass(); }, 0);
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, ACallbackInProgressIsWaitedFor)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(g_done, "the callback has ended");
                Demand(OSAK_FreeRelTimer(g_timer) == OSAK_OK, "timer freed");
            });
        StartTimer(
            [](void*)
            {
                g_ready = true;
                Await(g_exiting);
                std::this_thread::sleep_for(milliseconds(100));
                g_done = true;
            },
            1);
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, ACallbackThatDoesNotEndIsWaitedForOneSecond)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() >= milliseconds(990), "waited");
                Demand(SinceExit() < milliseconds(3000), "not for long");
                Demand(captured_log::CountWith("The process ends while 1 threads are at work") == 1,
                       "logged");
                Demand(OSAK_FreeRelTimer(g_timer) == OSAK_ERR_BUSY, "freed without the wait");
            });
        StartTimer(
            [](void*)
            {
                g_ready = true;
                Await(g_done);
            },
            1);
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, ACallbackInProgressIsHeldAtItsNextLock)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "a held callback is not waited for");
                Demand(!g_done, "the callback is held");
            });
        StartTimer(
            [](void*)
            {
                g_ready = true;
                Await(g_exiting);
                while (OSAK_MutexLock(&g_mutex) == OSAK_OK)
                {
                    (void)OSAK_MutexUnLock(&g_mutex);
                }
                g_done = true;
            },
            1);
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, ExitWithinACallbackDoesNotWaitForItself)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "no wait");
                Demand(OSAK_MutexLock(&g_mutex) == OSAK_OK, "the exiting thread is not held");
                Demand(OSAK_MutexUnLock(&g_mutex) == OSAK_OK, "unlocked");
                Demand(OSAK_FreeRelTimer(g_timer) == OSAK_OK, "timer freed");
            });
        StartTimer(
            [](void*)
            {
                g_ready = true;
                EndProcess();
            },
            0);
        Await(g_done);
    });
}

TEST_F(OsakExitDeathTest, ExitOnAThreadOfTheLayerDoesNotWaitForItself)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "no wait");
                Demand(OSAK_MutexLock(&g_mutex) == OSAK_OK, "the exiting thread is not held");
                Demand(OSAK_MutexUnLock(&g_mutex) == OSAK_OK, "unlocked");
                Demand(OSAK_PthreadJoin(g_thread, nullptr) == OSAK_ERR_SELF, "no join of itself");
            });
        StartThread(
            []() -> unsigned int
            {
                g_ready = true;
                EndProcess();
            });
        Await(g_done);
    });
}

TEST_F(OsakExitDeathTest, AMutexOfAThreadAtWorkIsWaitedForOneSecond)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                const milliseconds before = SinceExit();
                Demand(OSAK_MutexLock(&g_mutex) == OSAK_ERR_BUSY, "busy");
                Demand(SinceExit() - before >= milliseconds(990), "waited");
                Demand(SinceExit() - before < milliseconds(3000), "not for long");
            });
        StartThread(
            []() -> unsigned int
            {
                (void)OSAK_MutexLock(&g_mutex);
                g_ready = true;
                Await(g_done);
                return 0;
            });
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, AThreadThatFreesATimerWhoseCallbackIsHeldIsHeldToo)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "no wait");
                Demand(!g_done, "the free has not returned");
            });
        StartTimer(
            [](void*)
            {
                for (;;)
                {
                    (void)OSAK_MutexLock(&g_mutex);
                    CountPass();
                    (void)OSAK_MutexUnLock(&g_mutex);
                    usleep(50);
                }
            },
            1);
        g_ready = false;
        StartThread(
            []() -> unsigned int
            {
                (void)OSAK_FreeRelTimer(g_timer);
                g_done = true;
                return 0;
            });
        std::this_thread::sleep_for(milliseconds(20));  // most often it waits by now
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, AThreadThatWaitsForAMutexIsHeld)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "a waiting thread comes to rest at once");
                Demand(OSAK_MutexUnLock(&g_mutex) == OSAK_OK, "unlocked");
                Demand(OSAK_MutexDestroy(&g_mutex) == OSAK_OK, "destroyed");
                DemandThatNothingPassesAnyMore();
            });
        Demand(OSAK_MutexLock(&g_mutex) == OSAK_OK, "locked");
        StartThread(
            []() -> unsigned int
            {
                g_ready = true;
                (void)OSAK_MutexLock(&g_mutex);
                CountPass();
                return 0;
            });
        std::this_thread::sleep_for(milliseconds(20));  // most often it waits by now
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, AThreadThatLocksNothingIsWaitedForOneSecond)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() >= milliseconds(990), "waited");
                Demand(SinceExit() < milliseconds(3000), "not for long");
                Demand(captured_log::CountWith("The process ends while 1 threads are at work") == 1,
                       "logged");
            });
        StartThread(
            []() -> unsigned int
            {
                g_ready = true;
                Await(g_done);
                return 0;
            });
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, AThreadThatEndsIsNotWaitedForLonger)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(SinceExit() < milliseconds(900), "no longer");
                Demand(OSAK_PthreadJoin(g_thread, nullptr) == OSAK_OK, "joined");
            });
        StartThread(
            []() -> unsigned int
            {
                g_ready = true;
                Await(g_exiting);
                return 0;
            });
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, AJoinOfAHeldThreadGetsACode)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                Demand(OSAK_PthreadJoin(g_thread, nullptr) == OSAK_ERR_BUSY, "busy");
                Demand(SinceExit() < milliseconds(900), "without a wait");
            });
        StartThread(PollAsTheServiceDoes);
        EndProcess();
    });
}

TEST_F(OsakExitDeathTest, AJoinOfAThreadAtWorkGetsACode)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                const milliseconds before = SinceExit();
                Demand(OSAK_PthreadJoin(g_thread, nullptr) == OSAK_ERR_BUSY, "busy");
                Demand(SinceExit() - before < milliseconds(900), "the exit has waited already");
            });
        StartThread(
            []() -> unsigned int
            {
                g_ready = true;
                Await(g_done);
                return 0;
            });
        EndProcess();
    });
}

// A thread of the program's own waits for a thread that the exit holds, while another thread keeps
// the layer's exit handler busy.
TEST_F(OsakExitDeathTest, AJoinUnderWayOfAHeldThreadGetsACode)
{
    EXPECT_CLEAN_EXIT({
        RunAfterTheLayersHandler(
            []
            {
                while (!g_joined && SinceExit() < std::chrono::seconds(10))
                {
                    std::this_thread::yield();
                }
                Demand(g_joined, "the join ends");
            });
        StartThread(PollAsTheServiceDoes);
        OSAK_THREAD busy = nullptr;
        const OSAK_THREAD_PROC never = []() -> unsigned int
        {
            Await(g_done);
            return 0;
        };
        Demand(OSAK_PthreadCreate(&busy, nullptr, never, nullptr) == OSAK_OK, "busy thread");
        std::thread(
            []
            {
                g_joining = true;
                Demand(OSAK_PthreadJoin(g_thread, nullptr) == OSAK_ERR_BUSY, "a code");
                g_joined = true;
            })
            .detach();
        Await(g_joining);
        EndProcess();
    });
}

// A thread that the system has not run yet when the exit handler waits.
TEST_F(OsakExitDeathTest, AThreadThatStartsLateRunsNoClientCode)
{
    for (int round = 0; round < 10; ++round)
    {
        EXPECT_CLEAN_EXIT({
            RunAfterTheLayersHandler(
                []
                {
                    g_ready = true;
                    std::this_thread::sleep_for(milliseconds(20));
                    Demand(!g_done, "no entry begins after the exit handler");
                    (void)OSAK_PthreadJoin(g_thread, nullptr);  // it may have ended before
                });
            const OSAK_THREAD_PROC late = []() -> unsigned int
            {
                g_done = g_ready.load();
                return 0;
            };
            Demand(OSAK_PthreadCreate(&g_thread, nullptr, late, nullptr) == OSAK_OK, "thread");
            EndProcess();
        });
    }
}

// Runs `child` in a forked process and demands that it exits with 0, and soon.
void DemandOfAFork(void (*child)())
{
    const pid_t pid = fork();
    Demand(pid >= 0, "fork");
    if (pid == 0)
    {
        alarm(20);
        child();
        EndProcess();
    }
    int status = -1;
    Demand(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0,
           "the child exits with 0");
}

TEST_F(OsakExitDeathTest, InAForkedChildEveryCallGetsACode)
{
    // The leak checker has something to say about the threads that the child misses.
    const auto inAForkedChild = []
    {
        RunAfterTheLayersHandler([] {});
        g_block = OSAK_MemMallocD(72, 1, "test");
        StartThread(PollAsTheServiceDoes);
        StartTimer([](void*) { g_done = true; }, 0);
        // A thread that starts takes memory; a sanitizer's lock would stay taken in the child.
        Await(g_done);
        DemandOfAFork(
            []
            {
                OSAK_MUTEX mutex;
                Demand(OSAK_MutexInitRecursive(&mutex, nullptr) == OSAK_ERR_SYSTEM, "init");
                Demand(OSAK_MutexLock(&g_mutex) == OSAK_ERR_SYSTEM, "lock");
                Demand(OSAK_MutexUnLock(&g_mutex) == OSAK_ERR_SYSTEM, "unlock");
                Demand(OSAK_MutexDestroy(&g_mutex) == OSAK_ERR_SYSTEM, "destroy");
                Demand(OSAK_StartRelTimer(g_timer, 1, nullptr) == OSAK_ERR_SYSTEM, "start");
                Demand(OSAK_FreeRelTimer(g_timer) == OSAK_ERR_SYSTEM, "free");
                Demand(OSAK_CreateRelTimerM([](void*) {}, 0, 1, "test") == nullptr, "create");
                OSAK_THREAD thread = g_thread;
                Demand(OSAK_PthreadCreate(&thread, nullptr, PollAsTheServiceDoes, nullptr) ==
                               OSAK_ERR_SYSTEM &&
                           thread == nullptr,
                       "thread");
                Demand(OSAK_PthreadJoin(g_thread, nullptr) == OSAK_ERR_SYSTEM, "join");
                Demand(OSAK_MemMallocD(8, 1, "test") == nullptr, "allocate");
                OSAK_MemFreeD(g_block, 1, "test");
            });
        void* const block = OSAK_MemMallocD(8, 1, "test");
        Demand(block != nullptr, "the parent goes on");
        OSAK_MemFreeD(block, 1, "test");
        OSAK_MemFreeD(g_block, 1, "test");
        EndProcess();
    };
    EXPECT_EXIT(inAForkedChild(), testing::ExitedWithCode(0), "");
}

// Most forks find the layer's lock taken by one of the parent's threads.
TEST_F(OsakExitDeathTest, InAForkedChildTimersDoNotExpire)
{
    const auto whileThreadsExpireTimers = []
    {
        for (int timer = 0; timer < 1000; ++timer)
        {
            Demand(OSAK_CreateRelTimerM([](void*) {}, 0, 1, "test") != nullptr, "timer");
        }
        for (int thread = 0; thread < 2; ++thread)
        {
            std::thread(
                []
                {
                    while (!g_done)
                    {
                        osak::ExpireTimers();
                    }
                })
                .detach();
        }
        for (int child = 0; child < 20; ++child)
        {
            DemandOfAFork(
                []
                {
                    osak::ExpireTimers();
                    _exit(0);
                });
        }
        _exit(0);
    };
    EXPECT_EXIT(whileThreadsExpireTimers(), testing::ExitedWithCode(0), "");
}

}  // namespace
