// The stages of the process's end. Each case runs in a process of its own; what it prints shows the
// order.
#include "base/process_end.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace
{
using base::EndStage;
using base::ProcessEnd;

void Say(const char* word)
{
    (void)std::fprintf(stderr, "%s ", word);
}

template <EndStage kStage>
void Register(ProcessEnd::AtExit atExit, ProcessEnd::InChild inChild = nullptr)
{
    if (!ProcessEnd::Register<kStage>(atExit, inChild))
    {
        _exit(3);
    }
}

[[noreturn]] void EndProcess()
{
    std::exit(0);  // NOLINT(concurrency-mt-unsafe)
}

class ProcessEndDeathTest : public testing::Test
{
protected:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

#define EXPECT_OUTPUT(statement, output) \
    EXPECT_EXIT(statement, testing::ExitedWithCode(0), "^" output "$")

TEST_F(ProcessEndDeathTest, StagesRunInOneOrderEachOnce)
{
    EXPECT_OUTPUT(
        {
            Register<EndStage::kTransfers>([](base::Clock::time_point) { Say("transfers"); });
            Register<EndStage::kEvents>([](base::Clock::time_point) { Say("events"); });
            Register<EndStage::kCrypto>([](base::Clock::time_point) { Say("crypto"); });
            Register<EndStage::kThreads>([](base::Clock::time_point) { Say("threads"); });
            Register<EndStage::kLog>([](base::Clock::time_point) { Say("log"); });
            EndProcess();
        },
        "events transfers threads crypto log ");
}

// OpenSSL's handler, for one, is registered right before the stage that uses it.
TEST_F(ProcessEndDeathTest, AStageRunsBeforeTheHandlersThatWereRegisteredBeforeIt)
{
    EXPECT_OUTPUT(
        {
            (void)std::atexit([] { Say("first"); });
            Register<EndStage::kLog>([](base::Clock::time_point) { Say("log"); });
            (void)std::atexit([] { Say("second"); });
            Register<EndStage::kEvents>([](base::Clock::time_point) { Say("events"); });
            (void)std::atexit([] { Say("third"); });
            EndProcess();
        },
        "third events second log first ");
}

TEST_F(ProcessEndDeathTest, TellsHowFarTheStagesAre)
{
    EXPECT_OUTPUT(
        {
            Register<EndStage::kLog>(
                [](base::Clock::time_point deadline)
                {
                    const auto left = deadline - base::Clock::now();
                    const bool isRight = ProcessEnd::IsOver(EndStage::kThreads) &&
                                         ProcessEnd::HasBegun(EndStage::kLog) &&
                                         !ProcessEnd::IsOver(EndStage::kLog) &&
                                         ProcessEnd::IsCaller() && left <= ProcessEnd::kPatience &&
                                         left > ProcessEnd::kPatience / 2;
                    Say(isRight ? "right" : "wrong");
                });
            Register<EndStage::kThreads>([](base::Clock::time_point) {});
            const bool hasBegun =
                ProcessEnd::HasBegun(EndStage::kThreads) || ProcessEnd::IsCaller();
            Say(hasBegun ? "wrong" : "right");
            EndProcess();
        },
        "right right ");
}

TEST_F(ProcessEndDeathTest, AForkedChildIsReportedToEachStage)
{
    EXPECT_OUTPUT(
        {
            Register<EndStage::kThreads>([](base::Clock::time_point) {}, [] { Say("threads"); });
            Register<EndStage::kCrypto>([](base::Clock::time_point) {}, [] { Say("crypto"); });
            const pid_t child = fork();
            if (child == 0)
            {
                _exit(0);
            }
            int status = 0;
            if (waitpid(child, &status, 0) == child && status == 0)
            {
                Say("parent");
            }
            EndProcess();
        },
        "threads crypto parent ");
}

}  // namespace
