// The sleep of a thread that polls: what ends it, and how long it lasts without that. The longest
// sleep is a minute here, so that a change that wakes no sleeper is seen.
#include "osak/sleep.h"

#include "base/changes.h"
#include "osak.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLongest{60000};
constexpr milliseconds kNotLong{20000};  // far from both, on a slow machine too
constexpr unsigned int kAsked = 50;      // microseconds

milliseconds Sleep(unsigned int microseconds)
{
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(0, OSAK_PollSleep(microseconds));
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

void PassTheTimeAfterAChange()
{
    std::this_thread::sleep_for(milliseconds(2));
}

// The sleeps of a thread that has not slept before. The second one may last.
class OsakSleep : public testing::Test
{
protected:
    void SetUp() override
    {
        osak::SetLongestSleep(kLongest);
    }
    void TearDown() override
    {
        osak::SetLongestSleep(milliseconds(1000));
    }

    // Starts a thread that sleeps twice; its second sleep is what the future gives.
    std::future<milliseconds> SleepTwice()
    {
        m_looking = false;
        PassTheTimeAfterAChange();
        return std::async(std::launch::async,
                          [this]
                          {
                              EXPECT_LT(Sleep(kAsked), kNotLong);
                              m_looking = true;
                              return Sleep(kAsked);
                          });
    }

    // For a moment in which the thread most often sleeps by now.
    void AwaitSleeper() const
    {
        while (!m_looking)
        {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(milliseconds(20));
    }

    std::atomic<bool> m_looking{false};
};

TEST_F(OsakSleep, TheFirstOneOfAThreadLastsTheTimeAsked)
{
    PassTheTimeAfterAChange();
    const milliseconds slept = std::async(std::launch::async, [] { return Sleep(30000); }).get();
    EXPECT_GE(slept, milliseconds(30));
    EXPECT_LT(slept, kNotLong);
}

TEST_F(OsakSleep, AnyOtherLastsUntilAChange)
{
    std::future<milliseconds> second = SleepTwice();
    AwaitSleeper();
    EXPECT_EQ(std::future_status::timeout, second.wait_for(milliseconds(200)));
    base::Changes::Get().Raise();
    EXPECT_LT(second.get(), kNotLong);
}

TEST_F(OsakSleep, AChangeWakesEverySleeper)
{
    std::future<milliseconds> first = SleepTwice();
    AwaitSleeper();
    std::future<milliseconds> second = SleepTwice();
    AwaitSleeper();
    base::Changes::Get().Raise();
    EXPECT_LT(first.get(), kNotLong);
    EXPECT_LT(second.get(), kNotLong);
}

TEST_F(OsakSleep, AChangeSinceTheLastOneEndsItAtOnce)
{
    std::async(std::launch::async,
               []
               {
                   (void)Sleep(kAsked);
                   base::Changes::Get().Raise();
                   PassTheTimeAfterAChange();
                   EXPECT_LT(Sleep(kAsked), kNotLong);
               })
        .get();
}

TEST_F(OsakSleep, SoonAfterAChangeItLastsTheTimeAsked)
{
    std::async(std::launch::async,
               []
               {
                   (void)Sleep(kAsked);
                   osak::SetLongestSleep(milliseconds(0));
                   const Clock::time_point begin = Clock::now();
                   for (bool soon = false; !soon;)  // the thread may not get to run for a while
                   {
                       base::Changes::Get().Raise();
                       (void)Sleep(kAsked);  // ended by that change
                       const milliseconds slept = Sleep(30000);
                       soon = slept >= milliseconds(30);
                       ASSERT_LT(Clock::now() - begin, kNotLong);
                   }
               })
        .get();
}

TEST_F(OsakSleep, WithoutAChangeItEndsInTime)
{
    osak::SetLongestSleep(milliseconds(50));
    const milliseconds slept = SleepTwice().get();
    EXPECT_GE(slept, milliseconds(50));
    EXPECT_LT(slept, kNotLong);
}

TEST_F(OsakSleep, ATimersCallbackIsAChange)
{
    static std::atomic<bool> s_called{false};
    std::future<milliseconds> second = SleepTwice();
    AwaitSleeper();
    const OSAK_TIMER timer = OSAK_CreateRelTimerM([](void*) { s_called = true; }, 1, 0, "");
    EXPECT_EQ(OSAK_OK, OSAK_StartRelTimer(timer, 1, nullptr));
    EXPECT_LT(second.get(), kNotLong);
    EXPECT_TRUE(s_called);
    EXPECT_EQ(OSAK_OK, OSAK_FreeRelTimer(timer));
}

std::atomic<bool> g_running{false};
std::atomic<unsigned int> g_passes{0};

unsigned int Poll()
{
    while (g_running)
    {
        ++g_passes;
        (void)OSAK_PollSleep(kAsked);
    }
    return 7;
}

TEST_F(OsakSleep, AJoinIsAChange)
{
    g_running = true;
    g_passes = 0;
    OSAK_THREAD thread = nullptr;
    ASSERT_EQ(OSAK_OK, OSAK_PthreadCreate(&thread, nullptr, Poll, nullptr));
    while (g_passes < 2)
    {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(milliseconds(20));
    g_running = false;
    const Clock::time_point begin = Clock::now();
    void* result = nullptr;
    EXPECT_EQ(OSAK_OK, OSAK_PthreadJoin(thread, &result));
    EXPECT_LT(Clock::now() - begin, kNotLong);
    EXPECT_EQ(7U, reinterpret_cast<uintptr_t>(result));
}

TEST_F(OsakSleep, InAForkedChildItLastsTheTimeAsked)
{
    OSAK_MUTEX mutex;
    ASSERT_EQ(OSAK_OK, OSAK_MutexInitRecursive(&mutex, nullptr));
    (void)OSAK_PollSleep(kAsked);
    const pid_t child = fork();
    if (child == 0)
    {
        PassTheTimeAfterAChange();
        const bool brief = Sleep(kAsked) < kNotLong && Sleep(kAsked) < kNotLong;
        _exit(brief ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(&mutex));
}

TEST(OsakSleepDeathTest, AThreadThatSleepsIsHeldWhenTheProcessEnds)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static Clock::time_point s_began;
            osak::SetLongestSleep(kLongest);
            // Before the layer's handler is registered, hence run after it.
            (void)std::atexit(
                []
                {
                    const unsigned int passes = g_passes;
                    const bool prompt = Clock::now() - s_began < milliseconds(900);
                    base::Changes::Get().Raise();
                    std::this_thread::sleep_for(milliseconds(50));
                    _exit(prompt && g_passes == passes ? 0 : 3);
                });
            g_running = true;
            OSAK_THREAD thread = nullptr;
            (void)OSAK_PthreadCreate(&thread, nullptr, Poll, nullptr);
            while (g_passes < 2)
            {
                std::this_thread::yield();
            }
            std::this_thread::sleep_for(milliseconds(20));
            s_began = Clock::now();
            std::exit(1);  // NOLINT(concurrency-mt-unsafe)
        },
        testing::ExitedWithCode(0), "^$");
}

}  // namespace
