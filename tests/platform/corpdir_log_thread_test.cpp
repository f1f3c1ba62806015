// Many threads, a full queue, a disk that does not answer.
#include "corpdir_log/log_writer.h"
#include "corpdir_log_fixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <string_view>
#include <thread>

namespace
{
log_test::Stall g_chmodStall;
log_test::Stall g_lockCloseStall;  // of the lock file

bool IsLock(int descriptor)
{
    char target[4096] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t size = readlink(link.c_str(), target, sizeof target);
    return size > 0 && std::string_view(target, static_cast<std::size_t>(size)).find(".lock") !=
                           std::string_view::npos;
}

}  // namespace

// Replacements of the C library's functions.
extern "C" int fchmod(int descriptor, mode_t mode) noexcept
{
    g_chmodStall.Pass();
    return static_cast<int>(syscall(SYS_fchmod, descriptor, mode));
}

extern "C" int close(int descriptor)
{
    if (g_lockCloseStall.isOn && IsLock(descriptor))
    {
        g_lockCloseStall.Pass();
    }
    return static_cast<int>(syscall(SYS_close, descriptor));
}

namespace
{
using log_test::AfterColumns;
using log_test::Info;
using log_test::Open;
using log_test::SplitLines;
using log_test::StuckStandardError;
using log_test::Write;

// The records that arrived, as the reader of a log would count them.
struct Arrived
{
    std::size_t records = 0;
    std::size_t missing = 0;  // as the log's notices say
    bool isInOrder = true;    // within each thread
    std::string last;
};

// Lines "writer N" of any number of writers, each counting from 0.
Arrived CountArrived(const std::string& text)
{
    static const std::regex kLine(
        "[-0-9]{10}T[:.0-9]{12}[+-][:0-9]{5} info [0-9]+/[0-9]+ mod func file\\.cpp:7 ([0-9]+) "
        "([0-9]+)");
    static const std::regex kNotice(
        ".* error [0-9]+/[0-9]+ corpdir_log .*:[0-9]+ ([0-9]+) records are "
        "missing here: they came faster than they could be written");
    Arrived arrived;
    std::map<int, int> next;
    for (const std::string& line : SplitLines(text))
    {
        std::smatch match;
        if (std::regex_match(line, match, kLine))
        {
            ++arrived.records;
            const int number = std::stoi(match[2]);
            int& expected = next[std::stoi(match[1])];
            arrived.isInOrder = arrived.isInOrder && number >= expected;
            expected = number + 1;
            arrived.last = AfterColumns(line, 6);
        }
        else if (std::regex_match(line, match, kNotice))
        {
            arrived.missing += std::stoul(match[1]);
        }
        else
        {
            ADD_FAILURE() << "not a record: " << line;
        }
    }
    return arrived;
}

void RunThreads(int threads, int records)
{
    std::vector<std::thread> running;
    for (int writer = 0; writer < threads; ++writer)
    {
        running.emplace_back(
            [writer, records]
            {
                for (int number = 0; number < records; ++number)
                {
                    Write(2, "%d %d", writer, number);
                }
            });
    }
    for (std::thread& thread : running)
    {
        thread.join();
    }
}

class LogThreads : public log_test::LogTest
{
};

TEST_F(LogThreads, RecordsOfEachThreadArriveWholeAndInOrderOrAreCounted)
{
    ASSERT_EQ(Open(Info(Directory(), 2, 1U << 30)), 0U);
    RunThreads(8, 5000);
    CorpDir_CloseLog();
    const Arrived arrived = CountArrived(support::ReadFile(File()));
    EXPECT_TRUE(arrived.isInOrder);
    EXPECT_EQ(arrived.records + arrived.missing, 8U * 5000U);
}

TEST_F(LogThreads, AThousandThreadsMayWrite)
{
    ASSERT_EQ(Open(Info(Directory(), 2, 1U << 30)), 0U);
    RunThreads(1000, 10);
    CorpDir_CloseLog();
    const Arrived arrived = CountArrived(support::ReadFile(File()));
    EXPECT_TRUE(arrived.isInOrder);
    EXPECT_EQ(arrived.records + arrived.missing, 1000U * 10U);
}

TEST_F(LogThreads, AFullQueueDropsTheOldestAndSaysHowMany)
{
    StuckStandardError stuck;
    ASSERT_EQ(CorpDir_OpenLog(nullptr), 0U);
    // Some 20 MB: more than pipe and queue hold. The pipe is not read, and no write waits for it.
    constexpr int kRecords = 150000;
    RunThreads(1, kRecords);
    const std::string text = stuck.ReadDuring(CorpDir_CloseLog);
    const Arrived arrived = CountArrived(text);
    EXPECT_TRUE(arrived.isInOrder);
    EXPECT_GT(arrived.missing, 0U);
    EXPECT_EQ(arrived.records + arrived.missing, static_cast<std::size_t>(kRecords));
    EXPECT_EQ(arrived.last, "0 " + std::to_string(kRecords - 1));
}

// The client may have made it non-blocking; it is then full most of the time.
TEST_F(LogThreads, AStandardErrorThatDoesNotBlockStillGetsWholeRecords)
{
    StuckStandardError stuck;
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    ASSERT_EQ(CorpDir_OpenLog(nullptr), 0U);
    RunThreads(1, 5000);
    const std::string text = stuck.ReadDuring(CorpDir_CloseLog);
    EXPECT_EQ(CountArrived(text).records, 5000U);
}

// Runs the action with a short time limit for opening and closing.
void Impatiently(const std::function<void()>& action)
{
    using corpdir_log::LogWriter;
    const auto before = LogWriter::SetPatience(std::chrono::milliseconds(100));
    action();
    LogWriter::SetPatience(before);
}

TEST_F(LogThreads, ClosingAndOpeningGiveUpOnADiskThatDoesNotAnswer)
{
    StuckStandardError stuck;
    stuck.Fill();
    ASSERT_EQ(CorpDir_OpenLog(nullptr), 0U);
    Write(0, "not read yet");
    const auto begin = std::chrono::steady_clock::now();
    Impatiently(CorpDir_CloseLog);
    Write(0, "dropped: the log is closed");
    Impatiently([this]
                { EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(ETIMEDOUT)); });
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));

    const std::string text = stuck.ReadDuring(
        [this]
        {
            EXPECT_EQ(Open(Info(Directory())), 0U);  // the disk answers again
            Write(0, "back");
            EXPECT_THAT(ClosedTexts(), testing::ElementsAre("back"));
        });
    EXPECT_THAT(text, testing::HasSubstr(" not read yet\n"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("dropped")));
}

// The one test of the limit itself.
TEST_F(LogThreads, AnOpeningIsAbandonedAfterFiveSecondsAndChangesNothingLater)
{
    StuckStandardError stuck;
    stuck.Fill();
    ASSERT_EQ(CorpDir_OpenLog(nullptr), 0U);
    Write(0, "not read yet");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(ETIMEDOUT));
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, std::chrono::seconds(5));
    EXPECT_LT(waited, std::chrono::seconds(8));
    Write(0, "still the old log");
    const std::string text = stuck.ReadDuring(CorpDir_CloseLog);
    EXPECT_THAT(text, testing::HasSubstr(" still the old log\n"));
    EXPECT_FALSE(support::FileExists(File()) && !support::ReadFile(File()).empty());
}

// The log's thread closes the file before a caller waits for that thread to end.
TEST_F(LogThreads, AnAbandonedOpeningWhoseFileClosesSlowlyDelaysNoCaller)
{
    const auto openInVain = [this]
    { EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(ETIMEDOUT)); };
    support::WriteFile(File(), "");
    chmod(File().c_str(), 0644);  // the opening makes it private
    g_chmodStall.Begin();
    Impatiently(openInVain);
    g_lockCloseStall.Begin();
    g_chmodStall.isOn = false;
    ASSERT_TRUE(support::WaitUntil([] { return g_lockCloseStall.isHit.load(); }));
    std::atomic<bool> isAnswered{false};
    std::thread disk(
        [&]
        {
            EXPECT_TRUE(support::WaitUntil([&] { return isAnswered.load(); }))
                << "the opening waits for the disk";
            g_lockCloseStall.isOn = false;
        });
    Impatiently(openInVain);
    isAnswered = true;
    disk.join();
    EXPECT_EQ(Open(Info(Directory())), 0U);
    Write(0, "back");
    EXPECT_THAT(ClosedTexts(), testing::ElementsAre("back"));
}

// The notice about dropped records comes to a file that cannot be written.
TEST_F(LogThreads, WhatTheQueueDropsDuringAnOutageIsCountedWithIt)
{
    const log_test::CaughtStandardError caught;
    const std::string directory = File("sub");
    const std::string file = directory + "/corpdir.log";
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(Open(Info(directory, 2, 1U << 30)), 0U);
    g_lockCloseStall.Begin();
    std::filesystem::remove_all(directory);
    const bool isStalled = support::WaitUntil(
        []
        {
            Write(2, "until the log looks for its file");
            return g_lockCloseStall.isHit.load();
        });
    EXPECT_TRUE(isStalled);
    constexpr int kRecords = 150000;  // more than the queue holds
    RunThreads(1, kRecords);
    g_lockCloseStall.isOn = false;
    EXPECT_TRUE(support::WaitUntil([&] { return !caught.Text().empty(); }));
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    EXPECT_TRUE(support::WaitUntil(
        [&]
        {
            Write(2, "after");
            return support::FileExists(file) && !support::ReadFile(file).empty();
        }));
    CorpDir_CloseLog();
    const std::string text = support::ReadFile(file);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(text, match, std::regex("Up to ([0-9]+) records are missing")));
    EXPECT_GE(std::stoi(match[1]), kRecords);
}

TEST_F(LogThreads, OpeningAndClosingWhileOthersWrite)
{
    const support::TemporaryDirectory other;
    ASSERT_EQ(Open(Info(Directory(), 2, 1U << 30)), 0U);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 3; ++writer)
    {
        threads.emplace_back(
            [&isOver, writer]
            {
                for (int number = 0; !isOver; ++number)
                {
                    const FunctionTrace trace(&g_LogOne, "mod", "func", "file.cpp", 7, nullptr, 0,
                                              "mod");
                    Write(2, "%d %d", writer, number);
                }
            });
    }
    for (int opener = 0; opener < 2; ++opener)
    {
        threads.emplace_back(
            [&, opener]
            {
                const std::string& directory = opener == 0 ? Directory() : other.Path();
                for (int round = 0; round < 50; ++round)
                {
                    EXPECT_EQ(Open(Info(directory, 2, 1U << 30)), 0U);
                    if (round % 3 == 0)
                    {
                        CorpDir_CloseLog();
                    }
                }
            });
    }
    threads[3].join();
    threads[4].join();
    isOver = true;
    for (int writer = 0; writer < 3; ++writer)
    {
        threads[static_cast<std::size_t>(writer)].join();
    }
    CorpDir_CloseLog();
    const std::regex trace("\n[^\n]* func file\\.cpp:7 (Enter|Leave)(?=\n)");
    for (const std::string& path : {File(), other.File("corpdir.log")})
    {
        const std::string records =
            std::regex_replace('\n' + support::ReadFile(path), trace, "").substr(1);
        EXPECT_TRUE(CountArrived(records).isInOrder);
    }
    EXPECT_EQ(support::FilesIn(Directory()).size(), 2U);  // the log and the lock, no second name
    EXPECT_EQ(support::FilesIn(other.Path()).size(), 2U);
}

// The threads of the log: a sanitizer may have others.
std::size_t LogsThreads()
{
    std::size_t count = 0;
    for (const std::string& thread : support::FilesIn("/proc/self/task"))
    {
        std::ifstream name("/proc/self/task/" + thread + "/comm");
        std::string text;
        count += std::getline(name, text) && text == "corpdir-log" ? 1 : 0;
    }
    return count;
}

// A thread that was joined may still be listed for a moment.
bool LogsThreadIsGone()
{
    return support::WaitUntil([] { return LogsThreads() == 0; });
}

TEST_F(LogThreads, TheLogsThreadLivesWhileTheLogIsOpen)
{
    for (int round = 0; round < 100; ++round)
    {
        EXPECT_NE(Open(Info("/nowhere")), 0U);
        EXPECT_TRUE(LogsThreadIsGone());
        ASSERT_EQ(Open(Info(Directory())), 0U);
        EXPECT_EQ(LogsThreads(), 1U);
        CorpDir_CloseLog();
        EXPECT_TRUE(LogsThreadIsGone());
    }
}

}  // namespace
