// Stop signals: reported once, and the last resort when the stop hangs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "os/signals.h"

namespace corpdir_tool
{
namespace
{

constexpr std::chrono::hours kForever{1};
constexpr std::chrono::milliseconds kSoon{20};
constexpr std::chrono::seconds kLimit{20};

// Signals are sent to the process, as from a terminal.
void Send(int signalNumber)
{
    ASSERT_EQ(kill(getpid(), signalNumber), 0);
}

int Received(std::future<int> future)
{
    return future.wait_for(kLimit) == std::future_status::ready ? future.get() : -1;
}

struct Promises
{
    std::promise<int> first;
    std::promise<int> lastResort;
};

SignalWatch Watch(Promises& promises, std::chrono::milliseconds patience)
{
    return SignalWatch([&promises](int number) { promises.first.set_value(number); },
                       [&promises](int number) { promises.lastResort.set_value(number); },
                       patience);
}

TEST(ToolSignals, ASignalIsTold)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
    {
        Promises promises;
        std::future<int> lastResort = promises.lastResort.get_future();
        {
            const SignalWatch watch = Watch(promises, kForever);
            Send(number);
            EXPECT_EQ(Received(promises.first.get_future()), number);
        }
        EXPECT_NE(lastResort.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    }
}

TEST(ToolSignals, AStopThatHangsEndsInTheLastResort)
{
    Promises promises;
    const SignalWatch watch = Watch(promises, kSoon);
    Send(SIGTERM);
    EXPECT_EQ(Received(promises.first.get_future()), SIGTERM);
    EXPECT_EQ(Received(promises.lastResort.get_future()), SIGTERM);
}

TEST(ToolSignals, ASecondSignalDoesNotWait)
{
    Promises promises;
    const SignalWatch watch = Watch(promises, kForever);
    Send(SIGINT);
    EXPECT_EQ(Received(promises.first.get_future()), SIGINT);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    Send(SIGINT);
    EXPECT_EQ(Received(promises.lastResort.get_future()), SIGINT);
}

// The stop goes on: the second signal of timeout(1) ended a watch before its last line.
TEST(ToolSignals, ARepetitionAtOnceIsTheSameRequest)
{
    Promises promises;
    std::future<int> lastResort = promises.lastResort.get_future();
    const SignalWatch watch(
        [&promises](int number)
        {
            Send(number);  // before the watch waits for another signal
            promises.first.set_value(number);
        },
        [&promises](int number) { promises.lastResort.set_value(number); }, kForever);
    Send(SIGTERM);
    EXPECT_EQ(Received(promises.first.get_future()), SIGTERM);
    EXPECT_EQ(lastResort.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
}

TEST(ToolSignals, AWatchEndsWithoutASignal)
{
    for (int round = 0; round < 100; ++round)
    {
        Promises promises;
        const SignalWatch watch = Watch(promises, kForever);
    }
}

TEST(ToolSignals, TheMaskIsRestored)
{
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
    {
        Promises promises;
        const SignalWatch watch = Watch(promises, kForever);
        sigset_t during;
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &during), 0);
        EXPECT_EQ(sigismember(&during, SIGINT), 1);
    }
    sigset_t after;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
    EXPECT_EQ(sigismember(&after, SIGINT), sigismember(&before, SIGINT));
    EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
}

TEST(ToolSignals, WhatIsIgnoredStaysIgnored)
{
    void (*const before)(int) = signal(SIGHUP, SIG_IGN);
    {
        Promises promises;
        std::future<int> first = promises.first.get_future();
        const SignalWatch watch = Watch(promises, kForever);
        Send(SIGHUP);
        Send(SIGTERM);
        EXPECT_EQ(Received(std::move(first)), SIGTERM);
    }
    (void)signal(SIGHUP, before);
}

}  // namespace
}  // namespace corpdir_tool
