// The log through crashes, exits and forks of its process.
#include "corpdir_log/record.h"
#include "corpdir_log_fixture.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <thread>

// The thread sanitizer otherwise ends a child that starts threads after a fork beside threads, and
// sleeps for a second at each exit.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0:atexit_sleep_ms=0";
}

// In the child of a fork, memory that other threads of the parent held looks like a leak: the child
// has no stacks that point to it.
static bool g_isLeakCheckOff = false;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off()
{
    return g_isLeakCheckOff ? 1 : 0;
}

namespace
{
using corpdir_log::AppendLine;
using log_test::AfterColumns;
using log_test::Child;
using log_test::Contains;
using log_test::Info;
using log_test::Open;
using log_test::SplitLines;
using log_test::Write;
using testing::ElementsAre;

constexpr std::chrono::seconds kLimit{20};  // for events that come at once unless the test fails

class LogProcess : public log_test::LogTest
{
protected:
    bool Arrives(const std::string& text, std::chrono::milliseconds limit) const
    {
        return support::WaitUntil([&] { return Contains(File(), text); }, limit);
    }
};

// Registered before the log's handler, so it runs after it.
void UseAfterTheEnd()
{
    {
        const FunctionTrace trace(&g_LogOne, "m", "f", "t.cpp", 1, nullptr, 0, "m");
        Write(0, "after the end");
    }
    const unsigned int code = CorpDir_OpenLog(nullptr);
    CorpDir_CloseLog();
    _exit(code == ESHUTDOWN ? 7 : 8);
}

// The first test of this program: the others open the log in its process.
TEST_F(LogProcess, AfterTheExitHandlersRecordsAreDroppedAndOpeningIsRefused)
{
    Child child(
        [this]
        {
            std::atexit(UseAfterTheEnd);
            (void)Open(Info(Directory()));
            Write(0, "before the end");
        });
    EXPECT_EQ(child.Wait(), 7);
    EXPECT_THAT(ClosedTexts(), ElementsAre("before the end"));
}

// Threads that write until the process ends, never joined.
void StartWriters(int count, std::chrono::microseconds rest = {})
{
    static std::vector<std::thread>& s_threads = *new std::vector<std::thread>;
    static std::atomic<int> s_running{0};
    for (int writer = 0; writer < count; ++writer)
    {
        s_threads.emplace_back(
            [writer, rest]
            {
                ++s_running;
                for (int number = 0;; ++number)
                {
                    Write(2, "%d %d", writer, number);
                    std::this_thread::sleep_for(rest);
                }
            });
    }
    while (s_running < count)
    {
        std::this_thread::yield();
    }
}

TEST_F(LogProcess, ErrorsAreInTheFileAtOnce)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(2, "the detail before it");
    Write(0, "an error");
    // Within less than the second that other records may take; a busy machine needs some time.
    EXPECT_TRUE(Arrives(" an error\n", std::chrono::milliseconds(500)));
    EXPECT_TRUE(Contains(File(), " the detail before it\n"));
}

TEST_F(LogProcess, EverythingIsInTheFileWithinASecond)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(2, "a detail");
    EXPECT_TRUE(Arrives(" a detail\n", std::chrono::seconds(1)));
}

// The child is killed as soon as the error shows in the file, in a stream of records that never
// lets the log's thread rest.
TEST_F(LogProcess, AKilledProcessLeavesItsErrorsBehind)
{
    Child child(
        [this]
        {
            (void)Open(Info(Directory(), 2, 1U << 30));
            StartWriters(1, std::chrono::microseconds(50));  // a small file is read quickly
            Write(0, "the last record");
            pause();
        });
    EXPECT_TRUE(Arrives(" the last record\n", kLimit));
}

TEST_F(LogProcess, AnExitWithoutAStopWritesEverything)
{
    Child child(
        [this]
        {
            (void)Open(Info(Directory()));
            for (int number = 0; number < 10000; ++number)
            {
                Write(2, "%d", number);
            }
        });
    ASSERT_EQ(child.Wait(), 0);
    const std::vector<std::string> texts = ClosedTexts();
    ASSERT_EQ(texts.size(), 10000U);
    for (int number = 0; number < 10000; ++number)
    {
        EXPECT_EQ(texts[static_cast<std::size_t>(number)], std::to_string(number));
    }
}

TEST_F(LogProcess, ThreadsThatWriteDoNotKeepAnExitFromEnding)
{
    const std::regex line(".* (mod func file\\.cpp:7 [0-9]+ [0-9]+|corpdir_log .* missing here.*)");
    for (int round = 0; round < 30; ++round)
    {
        const support::TemporaryDirectory directory;
        Child child(
            [&directory]
            {
                (void)Open(Info(directory.Path()));
                StartWriters(3);
            });
        ASSERT_EQ(child.Wait(), 0) << "round " << round;
        for (const std::string& text : SplitLines(support::ReadFile(directory.File("corpdir.log"))))
        {
            ASSERT_TRUE(std::regex_match(text, line)) << text;
        }
    }
}

TEST_F(LogProcess, ADiskThatDoesNotAnswerDelaysAnExitByASecond)
{
    log_test::StuckStandardError stuck;
    stuck.Fill();
    const auto begin = std::chrono::steady_clock::now();
    Child child(
        []
        {
            (void)CorpDir_OpenLog(nullptr);
            Write(0, "not read");
        });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(LogProcess, RecordsOfAForkedChildAreDropped)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "before");
    ASSERT_TRUE(Arrives("before", kLimit));
    Child child(
        []
        {
            g_isLeakCheckOff = true;
            const FunctionTrace trace(&g_LogOne, "m", "f", "t.cpp", 1, nullptr, 0, "m");
            Write(0, "of the child");
            CorpDir_CloseLog();
        });
    EXPECT_EQ(child.Wait(), 0);
    Write(0, "after");
    EXPECT_THAT(ClosedTexts(), ElementsAre("before", "after"));
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS
// Not under the sanitizers, whose own locks do not survive such a fork. The parent's threads may be
// anywhere at the fork, and the records in the parent's buffers must not be written twice.
TEST_F(LogProcess, AForkBesideWritingThreadsNeverHangsAndRepeatsNothing)
{
    const support::TemporaryDirectory directory;
    Child parent(
        [&]
        {
            (void)Open(Info(Directory(), 2, 1U << 30));
            StartWriters(2);
            for (int round = 0; round < 50; ++round)
            {
                Child child(
                    [&]
                    {
                        Write(0, "dropped");
                        if (Open(Info(directory.Path())) != 0)
                        {
                            _exit(2);
                        }
                        Write(0, "of the child");
                    });
                if (child.Wait() != 0)
                {
                    _exit(3);
                }
            }
        });
    ASSERT_EQ(parent.Wait(), 0);
    const std::vector<std::string> children =
        SplitLines(support::ReadFile(directory.File("corpdir.log")));
    EXPECT_EQ(children.size(), 50U);
    std::set<std::string> seen;
    for (const std::string& text : ClosedTexts())
    {
        EXPECT_TRUE(text.find("missing here") != std::string::npos || seen.insert(text).second)
            << text;
    }
    EXPECT_GT(seen.size(), 0U);
}

// The C library's lock of the time zone, held by the log's thread at the moment of the fork, would
// stay locked in the child: about every sixth child hung before its first line.
TEST_F(LogProcess, AForkWhileALineIsFormattedLeavesTheChildAbleToFormat)
{
    std::atomic<bool> isOver{false};
    const auto format = [](std::chrono::seconds second)
    {
        std::string line;
        AppendLine({std::chrono::system_clock::time_point(second), 0, "text"}, &line);
        return line;
    };
    corpdir_log::WatchForks();
    std::thread busy(
        [&]
        {
            for (int second = 0; !isOver; ++second)
            {
                (void)format(std::chrono::seconds(second));
            }
        });
    int hung = 0;
    for (int round = 0; round < 200; ++round)
    {
        Child child(
            [&]
            {
                alarm(5);
                _exit(format(std::chrono::seconds(1)).find(":01.000") != std::string::npos ? 0 : 1);
            });
        hung += child.Wait() == 0 ? 0 : 1;
    }
    isOver = true;
    busy.join();
    EXPECT_EQ(hung, 0);
}
#endif

TEST_F(LogProcess, AForkedChildThatOpensGetsAFileOfItsOwnWithItsOwnNumbers)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "of the parent");
    ASSERT_TRUE(Arrives("of the parent", kLimit));
    Child child(
        [this]
        {
            g_isLeakCheckOff = true;
            if (Open(Info(Directory())) != 0)
            {
                _exit(2);
            }
            Write(0, "%d", static_cast<int>(getpid()));
        });
    const std::string number = std::to_string(child.Id());
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(AfterColumns(support::ReadFile(File("corpdir-2.log")), 2),
              number + "/" + number + " mod func file.cpp:7 " + number + '\n');
    EXPECT_THAT(ClosedTexts(), ElementsAre("of the parent"));
}

// A child that outlives the parent must not keep the name.
TEST_F(LogProcess, AForkedChildDoesNotKeepItsParentsName)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    const support::TemporaryDirectory other;
    ASSERT_EQ(mkdir(other.File("corpdir.log").c_str(), 0700), 0);
    EXPECT_EQ(Open(Info(other.Path())), static_cast<unsigned int>(EISDIR));  // changes nothing
    int runs[2] = {-1, -1};
    ASSERT_EQ(pipe(runs), 0);
    const Child child(
        [&runs]
        {
            (void)!write(runs[1], "", 1);
            pause();
        });
    // Its fork handler has run. Otherwise the next open takes another name, and keeps it.
    char byte = 'x';
    ASSERT_EQ(read(runs[0], &byte, 1), 1);
    CorpDir_CloseLog();
    EXPECT_EQ(Open(Info(Directory())), 0U);
    Write(0, "text");
    CorpDir_CloseLog();
    EXPECT_TRUE(Contains(File(), "text"));
    (void)close(runs[0]);
    (void)close(runs[1]);
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS
// Not under the sanitizers, which need address space and descriptors of their own.
TEST_F(LogProcess, WhenMemoryIsShortALongTextIsCutAndMarked)
{
    Child child(
        [this]
        {
            (void)Open(Info(Directory()));
            Write(0, "warm");
            const std::string text(64 * 1024 * 1024, 'x');
            const rlimit limit = {1, 1};  // nothing more than there is
            setrlimit(RLIMIT_AS, &limit);
            Write(0, "%s", text.c_str());
        });
    ASSERT_EQ(child.Wait(), 0);
    EXPECT_THAT(ClosedTexts(),
                ElementsAre("warm", std::string(1023, 'x') + " \\[cut: memory ran out]"));
}

TEST_F(LogProcess, RunningOutOfDescriptorsIsACode)
{
    Child child(
        [&]
        {
            tag_CORPDIR_LOGINFO info = Info(Directory());
            const rlimit limit = {static_cast<rlim_t>(dup(0)), 4096};
            setrlimit(RLIMIT_NOFILE, &limit);
            _exit(CorpDir_OpenLog(&info) == EMFILE ? 7 : 8);
        });
    EXPECT_EQ(child.Wait(), 7);
}
#endif

}  // namespace
