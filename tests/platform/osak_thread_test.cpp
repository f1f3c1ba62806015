// The threads of the operating-system layer.
#include "captured_log.h"
#include "osak.h"
#include "osak_faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
// Shared by the tests and the entries, which take no argument.
std::atomic<OSAK_THREAD> g_handle{nullptr};
std::atomic<bool> g_go{false};
std::atomic<unsigned int> g_code{0};
std::atomic<pthread_t> g_native{};
std::atomic<pid_t> g_tid{0};
OSAK_THREAD g_plainHandle = nullptr;  // not atomic: the thread sanitizer watches it

void AwaitGo()
{
    while (!g_go)
    {
        std::this_thread::yield();
    }
}

unsigned int ReturnAtOnce()
{
    return 0xFFFFFFFEU;
}

unsigned int ReturnWhenReleased()
{
    AwaitGo();
    return 5;
}

OSAK_THREAD Start(OSAK_THREAD_PROC entry)
{
    OSAK_THREAD thread = nullptr;
    EXPECT_EQ(OSAK_OK, OSAK_PthreadCreate(&thread, nullptr, entry, nullptr));
    EXPECT_NE(nullptr, thread);
    return thread;
}

std::uintptr_t ResultOf(OSAK_THREAD thread)
{
    void* result = nullptr;
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(thread, &result));
    return reinterpret_cast<std::uintptr_t>(result);
}

class OsakThread : public testing::Test
{
protected:
    void SetUp() override
    {
        g_go = false;
        g_code = 0;
        captured_log::Clear();
    }
};

TEST_F(OsakThread, RunsItsEntryAndHandsOverTheResult)
{
    EXPECT_EQ(0xFFFFFFFEU, ResultOf(Start(ReturnAtOnce)));
}

TEST_F(OsakThread, ResultMayBeLeftOut)
{
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(Start(ReturnAtOnce), nullptr));
}

TEST_F(OsakThread, PthreadExitEndsItAsAReturnDoes)
{
    const OSAK_THREAD thread = Start([]() -> unsigned int { pthread_exit(nullptr); });
    EXPECT_EQ(0U, ResultOf(thread));
}

TEST_F(OsakThread, HasAName)
{
    const OSAK_THREAD thread = Start(
        []() -> unsigned int
        {
            char name[16] = {};
            (void)pthread_getname_np(pthread_self(), name, sizeof(name));
            return std::string(name) == "corpdir-worker" ? 1 : 0;
        });
    EXPECT_EQ(1U, ResultOf(thread));
}

TEST_F(OsakThread, HandleIsStoredBeforeTheEntryRuns)
{
    for (int i = 0; i < 300; ++i)
    {
        g_plainHandle = nullptr;
        ASSERT_EQ(OSAK_OK,
                  OSAK_PthreadCreate(
                      &g_plainHandle, nullptr,
                      []() -> unsigned int { return g_plainHandle != nullptr ? 1 : 0; }, nullptr));
        ASSERT_EQ(1U, ResultOf(g_plainHandle));
    }
}

TEST_F(OsakThread, InvalidArgumentsAreRefused)
{
    int something = 0;
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_PthreadCreate(nullptr, nullptr, ReturnAtOnce, nullptr));
    OSAK_THREAD thread = Start(ReturnAtOnce);
    const OSAK_THREAD first = thread;
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_PthreadCreate(&thread, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, thread);
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_PthreadCreate(&thread, &something, ReturnAtOnce, nullptr));
    EXPECT_EQ(nullptr, thread);
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_PthreadCreate(&thread, nullptr, ReturnAtOnce, &something));
    EXPECT_EQ(nullptr, thread);
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_PthreadJoin(nullptr, nullptr));
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(first, nullptr));
}

TEST_F(OsakThread, HandleIsNullWhenTheSystemHasNoThread)
{
    OSAK_THREAD thread = Start(ReturnAtOnce);
    const OSAK_THREAD first = thread;
    osak_faults::SetNoThreads(true);
    EXPECT_EQ(OSAK_ERR_SYSTEM, OSAK_PthreadCreate(&thread, nullptr, ReturnAtOnce, nullptr));
    osak_faults::SetNoThreads(false);
    EXPECT_EQ(nullptr, thread);
    EXPECT_EQ(0xFFFFFFFEU, ResultOf(first));
    EXPECT_EQ(0xFFFFFFFEU, ResultOf(Start(ReturnAtOnce)));
}

TEST_F(OsakThread, SecondJoinGetsACode)
{
    const OSAK_THREAD thread = Start(ReturnAtOnce);
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(thread, nullptr));
    void* result = &g_code;
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_PthreadJoin(thread, &result));
    EXPECT_EQ(&g_code, result);
}

TEST_F(OsakThread, StaleHandleDoesNotMeetALaterThread)
{
    const OSAK_THREAD stale = Start(ReturnAtOnce);
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(stale, nullptr));
    const OSAK_THREAD later = Start(ReturnAtOnce);
    EXPECT_NE(stale, later);
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_PthreadJoin(stale, nullptr));
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(later, nullptr));
}

TEST_F(OsakThread, ForeignHandleGetsACode)
{
    int foreign = 0;
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_PthreadJoin(reinterpret_cast<OSAK_THREAD>(&foreign), nullptr));
}

TEST_F(OsakThread, CannotJoinItself)
{
    g_handle = nullptr;
    const OSAK_THREAD thread = Start(
        []() -> unsigned int
        {
            AwaitGo();
            g_code = OSAK_PthreadJoin(g_handle, nullptr);
            return 0;
        });
    g_handle = thread;
    g_go = true;
    while (g_code == 0)
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(OSAK_ERR_SELF, g_code);
    EXPECT_EQ(OSAK_ERR_HANDLE, OSAK_PthreadJoin(thread, nullptr));  // it is detached
}

// Its owner takes the refused join for the last and drops the handle.
TEST_F(OsakThread, OneThatWasRefusedItselfReturnsItsStack)
{
    constexpr size_t kThreads = 20;
    std::set<pthread_t> natives;
    for (size_t i = 0; i < kThreads; ++i)
    {
        g_go = false;
        g_code = 0;
        const OSAK_THREAD thread = Start(
            []() -> unsigned int
            {
                AwaitGo();
                g_native = pthread_self();
                g_tid = gettid();
                g_code = OSAK_PthreadJoin(g_handle, nullptr);
                return 0;
            });
        g_handle = thread;
        g_go = true;
        while (g_code == 0 || tgkill(getpid(), g_tid, 0) == 0)  // until the system forgot it
        {
            std::this_thread::yield();
        }
        ASSERT_EQ(OSAK_ERR_SELF, g_code);
        natives.insert(g_native);
    }
    EXPECT_LT(natives.size(), kThreads);  // stacks were used again
}

// True when the kernel says that the thread sleeps.
bool Sleeps(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.find(") S ") != std::string::npos;
}

TEST_F(OsakThread, OneThatWasRefusedItselfStaysForTheCallerThatWaitsForIt)
{
    g_tid = 0;
    const OSAK_THREAD thread = Start(
        []() -> unsigned int
        {
            AwaitGo();
            g_code = OSAK_PthreadJoin(g_handle, nullptr);
            return 9;
        });
    g_handle = thread;
    auto join = std::async(std::launch::async,
                           [thread]
                           {
                               g_tid = gettid();
                               return ResultOf(thread);
                           });
    while (g_tid == 0 || !Sleeps(g_tid))
    {
        std::this_thread::yield();
    }
    g_go = true;
    EXPECT_EQ(9U, join.get());
    EXPECT_EQ(OSAK_ERR_SELF, g_code);
}

TEST_F(OsakThread, AJoinWaitsForTheThreadLocalDestructorsToo)
{
    struct SlowEnd
    {
        ~SlowEnd()
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            g_code = 1;
        }
    };
    const OSAK_THREAD thread = Start(
        []() -> unsigned int
        {
            AwaitGo();
            static thread_local SlowEnd s_end;
            (void)&s_end;
            return 5;
        });
    g_handle = thread;
    g_go = true;
    EXPECT_EQ(5U, ResultOf(thread));
    EXPECT_EQ(1U, g_code);
}

TEST_F(OsakThread, OfTwoThreadsThatJoinItOneWaitsAndTheOtherGetsACode)
{
    for (int i = 0; i < 100; ++i)
    {
        g_go = false;
        const OSAK_THREAD thread = Start(ReturnWhenReleased);
        auto join = [thread] { return OSAK_PthreadJoin(thread, nullptr); };
        auto first = std::async(std::launch::async, join);
        auto second = std::async(std::launch::async, join);
        // One of them returns while the thread still runs.
        while (first.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready &&
               second.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
        {
        }
        g_go = true;
        const unsigned int codes[2] = {first.get(), second.get()};
        ASSERT_EQ(OSAK_OK + OSAK_ERR_HANDLE, codes[0] + codes[1]);
        ASSERT_TRUE(codes[0] == OSAK_OK || codes[1] == OSAK_OK);
    }
}

TEST_F(OsakThread, AsynchronousSignalsAreBlockedInItAndNowhereElse)
{
    sigset_t before;
    ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, nullptr, &before));
    const OSAK_THREAD thread = Start(
        []() -> unsigned int
        {
            sigset_t mask;
            if (pthread_sigmask(SIG_SETMASK, nullptr, &mask) != 0)
            {
                return 1;
            }
            for (const int asynchronous :
                 {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2, SIGRTMIN})
            {
                if (sigismember(&mask, asynchronous) != 1)
                {
                    return static_cast<unsigned int>(asynchronous);
                }
            }
            for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
            {
                if (sigismember(&mask, fault) != 0)
                {
                    return static_cast<unsigned int>(fault);
                }
            }
            return 0;
        });
    EXPECT_EQ(0U, ResultOf(thread));
    sigset_t after;
    ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, nullptr, &after));
    for (int number = 1; number < SIGRTMAX; ++number)
    {
        EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
    }
}

TEST_F(OsakThread, ManyRunAtOnce)
{
    std::vector<OSAK_THREAD> threads;
    threads.reserve(100);
    for (int i = 0; i < 100; ++i)
    {
        threads.push_back(Start(ReturnWhenReleased));
    }
    g_go = true;
    for (const OSAK_THREAD thread : threads)
    {
        EXPECT_EQ(5U, ResultOf(thread));
    }
}

}  // namespace
