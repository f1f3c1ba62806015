// Stop signals: reported once, and the last resort when the stop hangs. Requests: each reported.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <queue>
#include <string>
#include <thread>

#include "base/descriptor.h"

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

TEST(ToolSignals, ASignalIsReported)
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

// Standard input is another one while it lives.
class StandardInput
{
public:
    explicit StandardInput(int other) : m_before(dup(STDIN_FILENO))
    {
        EXPECT_EQ(dup2(other, STDIN_FILENO), STDIN_FILENO);
    }
    ~StandardInput()
    {
        (void)dup2(m_before.Number(), STDIN_FILENO);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

private:
    const base::Descriptor m_before;
};

class ToolSignalRequests : public ::testing::Test
{
protected:
    // "check", "reload", or the number of the stop signal.
    std::string Next()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_came.wait_for(lock, kLimit, [this] { return !m_requests.empty(); }))
        {
            return "nothing";
        }
        std::string next = std::move(m_requests.front());
        m_requests.pop();
        return next;
    }

    SignalWatch Watch()
    {
        return SignalWatch([this](int number) { Add(SignalName(number)); },
                           [this](int) { m_lastResort.set_value(); }, kForever,
                           {[this] { Add("check"); }, [this] { Add("reload"); }});
    }

    void Add(std::string request)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push(std::move(request));
        m_came.notify_one();
    }

    const base::Descriptor m_null{open("/dev/null", O_RDONLY | O_CLOEXEC)};
    const StandardInput m_input{m_null.Number()};
    std::mutex m_mutex;
    std::condition_variable m_came;
    std::queue<std::string> m_requests;
    std::promise<void> m_lastResort;
};

TEST_F(ToolSignalRequests, EachIsReportedUntilTheStop)
{
    const SignalWatch watch = Watch();
    for (int round = 0; round < 2; ++round)
    {
        Send(SIGUSR1);
        EXPECT_EQ(Next(), "check");
        Send(SIGHUP);
        EXPECT_EQ(Next(), "reload");
    }
    Send(SIGTERM);
    EXPECT_EQ(Next(), "SIGTERM");
}

// A reload that comes too late is no second stop signal, and does not end the process.
TEST_F(ToolSignalRequests, OneAfterTheStopIsDropped)
{
    std::future<void> lastResort = m_lastResort.get_future();
    {
        const SignalWatch watch = Watch();
        Send(SIGTERM);
        EXPECT_EQ(Next(), "SIGTERM");
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        Send(SIGHUP);
        EXPECT_EQ(lastResort.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    }
    // On a busy machine the watch may have ended before it took the signal, which is still blocked.
    sigset_t late;
    (void)sigemptyset(&late);
    (void)sigaddset(&late, SIGHUP);
    const timespec atOnce = {};
    (void)sigtimedwait(&late, nullptr, &atOnce);
    Send(SIGUSR1);
    const SignalWatch next = Watch();
    EXPECT_EQ(Next(), "check");
}

TEST_F(ToolSignalRequests, TheEndOfTheTerminalAsksForTheStop)
{
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const base::Descriptor owned[] = {base::Descriptor(master), base::Descriptor(slave)};
    const StandardInput terminal(slave);
    const SignalWatch watch = Watch();
    Send(SIGHUP);
    EXPECT_EQ(Next(), "SIGHUP");
}

TEST_F(ToolSignalRequests, AnIgnoredOneStaysIgnored)
{
    void (*const before)(int) = signal(SIGHUP, SIG_IGN);
    {
        const SignalWatch watch = Watch();
        Send(SIGHUP);
        Send(SIGUSR1);
        EXPECT_EQ(Next(), "check");
    }
    (void)signal(SIGHUP, before);
}

}  // namespace
}  // namespace corpdir_tool
