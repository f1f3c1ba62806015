// Files of the log: directories, rotation, several processes, disks that refuse.
#include "corpdir_log_fixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <regex>
#include <thread>

namespace
{
log_test::Stall g_writeStall;
}  // namespace

// A replacement of the C library's function.
extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t size)
{
    g_writeStall.Pass();
    return syscall(SYS_write, descriptor, bytes, size);
}

namespace
{
namespace fs = std::filesystem;
using log_test::AfterColumns;
using log_test::CaughtStandardError;
using log_test::Child;
using log_test::Contains;
using log_test::Info;
using log_test::Open;
using log_test::SplitLines;
using log_test::TextsIn;
using log_test::Write;
using testing::ElementsAre;
using testing::HasSubstr;

unsigned int ModeOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

// Writes the record and waits until the file holds it; no record is left in the queue then.
bool IsWrittenTo(const std::string& path, const char* text)
{
    Write(0, "%s", text);
    return support::WaitUntil([&] { return Contains(path, text); });
}

// Writes the record again until the file holds it.
bool ArrivesIn(const std::string& path, const char* text)
{
    return support::WaitUntil(
        [&]
        {
            Write(0, "%s", text);
            return Contains(path, text);
        });
}

// The first test of this program: the others open the log.
TEST(LogStart, ThereIsNoLogUntilOneWasOpened)
{
    EXPECT_EQ(g_LogMode, 0U);
    EXPECT_EQ(g_LogOne, nullptr);
    CorpDir_CloseLog();
    EXPECT_EQ(Open(Info("/nowhere")), static_cast<unsigned int>(ENOENT));
    EXPECT_EQ(g_LogOne, nullptr);
    const support::TemporaryDirectory directory;
    EXPECT_EQ(Open(Info(directory.Path())), 0U);
    EXPECT_NE(g_LogOne, nullptr);
    CorpDir_CloseLog();
}

class LogFile : public log_test::LogTest
{
};

TEST_F(LogFile, IsPrivateWhateverTheUmask)
{
    const mode_t before = umask(0);
    EXPECT_EQ(Open(Info(Directory(), 2, 300, 2)), 0U);
    for (int number = 0; number < 20; ++number)
    {
        Write(2, "record %d", number);
    }
    CorpDir_CloseLog();
    umask(before);
    for (const char* name : {"corpdir.log", "corpdir.1.log", "corpdir.2.log", ".corpdir.lock"})
    {
        EXPECT_EQ(ModeOf(File(name)), 0600U) << name;
    }
}

TEST_F(LogFile, ThatExistsIsContinuedAndMadePrivate)
{
    support::WriteFile(File(), "an old line\n");
    chmod(File().c_str(), 0644);
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "a new one");
    CorpDir_CloseLog();
    EXPECT_EQ(ModeOf(File()), 0600U);
    EXPECT_THAT(TextsIn(File(), 0), ElementsAre("an old line", HasSubstr(" a new one")));
}

TEST_F(LogFile, ThatEndsInACutLineGetsItsNextRecordOnANewOne)
{
    support::WriteFile(File(), "cut");
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "whole");
    EXPECT_THAT(ClosedTexts(0), ElementsAre("cut", HasSubstr(" whole")));
}

TEST_F(LogFile, IsRotatedBySizeAndCountWithoutLosingTheNewest)
{
    constexpr unsigned int kSize = 1000;
    ASSERT_EQ(Open(Info(Directory(), 2, kSize, 3)), 0U);
    for (int number = 0; number < 200; ++number)
    {
        Write(2, "%d", number);
    }
    CorpDir_CloseLog();
    EXPECT_THAT(support::FilesIn(Directory()),
                ElementsAre(".corpdir.lock", "corpdir.1.log", "corpdir.2.log", "corpdir.3.log",
                            "corpdir.log"));
    std::vector<int> numbers;
    for (const char* name : {"corpdir.3.log", "corpdir.2.log", "corpdir.1.log", "corpdir.log"})
    {
        EXPECT_LE(fs::file_size(File(name)), kSize) << name;
        for (const std::string& text : TextsIn(File(name)))
        {
            numbers.push_back(std::stoi(text));
        }
    }
    ASSERT_GT(numbers.size(), 30U);
    for (std::size_t index = 1; index < numbers.size(); ++index)
    {
        EXPECT_EQ(numbers[index], numbers[index - 1] + 1);
    }
    EXPECT_EQ(numbers.back(), 199);
}

TEST_F(LogFile, SizeLeftByAnEarlierRunCountsForRotation)
{
    support::WriteFile(File(), std::string(999, 'x') + '\n');
    ASSERT_EQ(Open(Info(Directory(), 2, 1000, 1)), 0U);
    Write(2, "first");
    CorpDir_CloseLog();
    EXPECT_EQ(fs::file_size(File("corpdir.1.log")), 1000U);
    EXPECT_THAT(TextsIn(File()), ElementsAre("first"));
}

TEST_F(LogFile, TakesARecordLargerThanItself)
{
    ASSERT_EQ(Open(Info(Directory(), 2, 1, 2)), 0U);
    Write(2, "one");
    Write(2, "two");
    Write(2, "three");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File("corpdir.2.log")), ElementsAre("one"));
    EXPECT_THAT(TextsIn(File("corpdir.1.log")), ElementsAre("two"));
    EXPECT_THAT(TextsIn(File()), ElementsAre("three"));
}

TEST_F(LogFile, DefaultsAreTenMebibytesAndFiveFiles)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    const std::string text(1024 * 1024, 'x');  // nine of them fit into a file
    for (int number = 0; number < 9 * 7; ++number)
    {
        Write(0, "%02d%s", number, text.c_str());
        ASSERT_TRUE(support::WaitUntil(
            [&]
            {
                std::error_code missing;  // while a rotation renames it
                const auto size = fs::file_size(File(), missing);
                return !missing && size > text.size() * static_cast<unsigned int>(number % 9 + 1);
            }));
    }
    CorpDir_CloseLog();
    EXPECT_THAT(support::FilesIn(Directory()),
                ElementsAre(".corpdir.lock", "corpdir.1.log", "corpdir.2.log", "corpdir.3.log",
                            "corpdir.4.log", "corpdir.5.log", "corpdir.log"));
    EXPECT_EQ(TextsIn(File("corpdir.5.log")).at(0).substr(0, 2), "09");
}

TEST_F(LogFile, RelativeDirectoryIsResolvedAtTheOpening)
{
    const fs::path before = fs::current_path();
    fs::create_directory(File("sub"));
    fs::current_path(Directory());
    EXPECT_EQ(Open(Info("sub", 2, 200, 5)), 0U);
    fs::current_path("/");
    for (int number = 0; number < 20; ++number)
    {
        Write(2, "%d", number);  // rotates, which opens files by name
    }
    CorpDir_CloseLog();
    fs::current_path(before);
    EXPECT_THAT(TextsIn(File("sub/corpdir.log")).back(), "19");
    EXPECT_TRUE(support::FileExists(File("sub/corpdir.2.log")));
}

TEST_F(LogFile, DirectoryNameMayFillItsFieldWithoutATerminator)
{
    // 255 bytes: the longest name that counts.
    std::string directory = Directory();
    while (directory.size() < 255)
    {
        const std::size_t rest = 255 - directory.size() - 1;
        directory += '/' + std::string(rest == 101 ? 99 : std::min<std::size_t>(rest, 100), 'd');
        ASSERT_TRUE(fs::create_directory(directory));
    }
    ASSERT_EQ(directory.size(), 255U);
    tag_CORPDIR_LOGINFO info = Info(directory);
    info.szLogDir[255] = 'x';
    ASSERT_EQ(Open(info), 0U);
    Write(0, "deep down");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(directory + "/corpdir.log"), ElementsAre("deep down"));
}

TEST_F(LogFile, DirectoriesThatCannotBeUsedGiveTheSystemsErrorNumber)
{
    support::WriteFile(File("file"), "");
    EXPECT_EQ(Open(Info(File("missing"))), static_cast<unsigned int>(ENOENT));
    EXPECT_FALSE(support::FileExists(File("missing")));
    EXPECT_EQ(Open(Info(File("file"))), static_cast<unsigned int>(ENOTDIR));
    EXPECT_EQ(Open(Info(File("file/below"))), static_cast<unsigned int>(ENOTDIR));
    EXPECT_EQ(Open(Info("/proc")), static_cast<unsigned int>(ENOENT));  // no file can be made there
    tag_CORPDIR_LOGINFO info = Info(std::string(256, 'x'));
    EXPECT_EQ(Open(info), static_cast<unsigned int>(ENOENT));
}

TEST_F(LogFile, FilesThatAreNotOursAreRefused)
{
    const std::string victim = File("victim");
    support::WriteFile(victim, "precious");
    ASSERT_EQ(symlink(victim.c_str(), File().c_str()), 0);
    EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(ELOOP));
    unlink(File().c_str());
    ASSERT_EQ(mkfifo(File().c_str(), 0600), 0);
    EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(EINVAL));
    unlink(File().c_str());
    ASSERT_EQ(mkdir(File().c_str(), 0700), 0);
    EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(EISDIR));
    EXPECT_EQ(support::ReadFile(victim), "precious");
}

TEST_F(LogFile, FilesOfAnotherUserAreRefused)
{
    ASSERT_EQ(geteuid(), 0U) << "only root can make a file of another user";
    support::WriteFile(File(), "");
    ASSERT_EQ(chown(File().c_str(), 65534, 65534), 0);
    EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(EACCES));
}

TEST_F(LogFile, ReopeningInTheSameDirectoryKeepsTheFileAndTheOrder)
{
    for (unsigned int number = 0; number < 20; ++number)
    {
        ASSERT_EQ(Open(Info(Directory(), number % 3, 1000000 + number)), 0U);
        Write(2, "info %u", number);
        Write(0, "error %u", number);
    }
    CorpDir_CloseLog();
    EXPECT_THAT(support::FilesIn(Directory()), ElementsAre(".corpdir.lock", "corpdir.log"));
    std::vector<std::string> expected;
    for (unsigned int number = 0; number < 20; ++number)
    {
        if (number % 3 == 2)
        {
            expected.push_back("info " + std::to_string(number));
        }
        expected.push_back("error " + std::to_string(number));
    }
    EXPECT_EQ(TextsIn(File()), expected);
}

TEST_F(LogFile, ReopeningElsewhereMovesTheRecordsAndFreesTheName)
{
    const support::TemporaryDirectory other;
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "here");
    ASSERT_EQ(Open(Info(other.Path())), 0U);
    Write(0, "there");
    EXPECT_TRUE(support::WaitUntil([&] { return Contains(other.File("corpdir.log"), "there"); }));
    EXPECT_THAT(TextsIn(File()), ElementsAre("here"));
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "here again");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File()), ElementsAre("here", "here again"));
    EXPECT_THAT(TextsIn(other.File("corpdir.log")), ElementsAre("there"));
}

TEST_F(LogFile, AFailedReopeningKeepsTheOldLogAndItsLevel)
{
    ASSERT_EQ(Open(Info(Directory(), 1)), 0U);
    Write(1, "before");
    EXPECT_EQ(Open(Info(File("missing"), 2)), static_cast<unsigned int>(ENOENT));
    EXPECT_EQ(Open(Info("/proc", 0)), static_cast<unsigned int>(ENOENT));
    Write(1, "after");
    Write(2, "above the level");
    EXPECT_THAT(ClosedTexts(), ElementsAre("before", "after"));
}

TEST_F(LogFile, AClosedLogDropsRecordsAndMayBeClosedAgain)
{
    CorpDir_CloseLog();
    ASSERT_EQ(Open(Info(Directory())), 0U);
    CCorpDirLog* const log = g_LogOne;
    Write(0, "first");
    CorpDir_CloseLog();
    Write(0, "dropped");
    CorpDir_CloseLog();
    EXPECT_EQ(g_LogOne, log);
    ASSERT_EQ(Open(Info(Directory())), 0U);
    EXPECT_EQ(g_LogOne, log);
    Write(0, "second");
    EXPECT_THAT(ClosedTexts(), ElementsAre("first", "second"));
}

TEST_F(LogFile, EachProcessGetsANameOfItsOwn)
{
    const auto hold = [this](const char* text)
    {
        return [this, text]
        {
            (void)Open(Info(Directory()));
            Write(0, "%s", text);
            pause();
        };
    };
    std::optional<Child> first(std::in_place, hold("the first"));
    ASSERT_TRUE(support::WaitUntil([&] { return Contains(File(), "the first"); }));
    const Child second(hold("the second"));
    ASSERT_TRUE(support::WaitUntil([&] { return Contains(File("corpdir-2.log"), "the second"); }));

    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "the third");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File("corpdir-3.log")), ElementsAre("the third"));

    first.reset();  // kills it: its name is free at once
    const Child fourth(hold("the fourth"));
    ASSERT_TRUE(support::WaitUntil([&] { return Contains(File(), "the fourth"); }));
    EXPECT_THAT(TextsIn(File()), ElementsAre("the first", "the fourth"));
    EXPECT_THAT(TextsIn(File("corpdir-2.log")), ElementsAre("the second"));
}

// A run that starts the service several times would be spread over several files.
TEST_F(LogFile, AProcessGetsTheNameThatItHad)
{
    const auto hold = [this]
    {
        (void)Open(Info(Directory()));
        Write(0, "the other");
        pause();
    };
    std::optional<Child> other(std::in_place, hold);
    ASSERT_TRUE(support::WaitUntil([&] { return Contains(File(), "the other"); }));
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "begin");
    CorpDir_CloseLog();
    other.reset();
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "end");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File("corpdir-2.log")), ElementsAre("begin", "end"));
    EXPECT_THAT(TextsIn(File()), ElementsAre("the other"));

    // In another directory it begins with the first name, and a name that is taken is left alone.
    fs::create_directory(File("else"));
    ASSERT_EQ(Open(Info(File("else"))), 0U);
    CorpDir_CloseLog();
    EXPECT_TRUE(support::FileExists(File("else/corpdir.log")));
    const Child again(
        [this]
        {
            (void)Open(Info(File("else")));
            Write(0, "the other");
            pause();
        });
    ASSERT_TRUE(
        support::WaitUntil([&] { return Contains(File("else/corpdir.log"), "the other"); }));
    ASSERT_EQ(Open(Info(File("else"))), 0U);
    Write(0, "beside it");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File("else/corpdir-2.log")), ElementsAre("beside it"));
}

TEST_F(LogFile, BesideALockOfAnotherUserItCarriesTheNumberOfItsUser)
{
    ASSERT_EQ(geteuid(), 0U) << "only root can make a file of another user";
    support::WriteFile(File(".corpdir.lock"), "");
    ASSERT_EQ(chown(File(".corpdir.lock").c_str(), 65534, 65534), 0);
    const Child first(
        [this]
        {
            (void)Open(Info(Directory()));
            Write(0, "the first");
            pause();
        });
    ASSERT_TRUE(support::WaitUntil([&] { return Contains(File("corpdir-u0.log"), "the first"); }));
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "the second");
    ASSERT_EQ(Open(Info(Directory(), 1)), 0U);
    Write(0, "still the second");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File("corpdir-u0-2.log")), ElementsAre("the second", "still the second"));
    EXPECT_THAT(support::FilesIn(Directory()), ElementsAre(".corpdir-0.lock", ".corpdir.lock",
                                                           "corpdir-u0-2.log", "corpdir-u0.log"));
}

TEST_F(LogFile, WhereNamesCannotBeLockedItCarriesTheProcessNumber)
{
    fs::create_directory(File(".corpdir.lock"));
    fs::create_directory(File(".corpdir-" + std::to_string(geteuid()) + ".lock"));
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "text");
    CorpDir_CloseLog();
    EXPECT_THAT(TextsIn(File("corpdir-p" + std::to_string(getpid()) + ".log")),
                ElementsAre("text"));
}

TEST_F(LogFile, ThatWasMovedAwayIsOpenedAgain)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    ASSERT_TRUE(IsWrittenTo(File(), "before"));
    fs::rename(File(), File("moved"));
    EXPECT_TRUE(ArrivesIn(File(), "after"));
    CorpDir_CloseLog();
    EXPECT_FALSE(Contains(File(), "missing")) << "a file that is only moved keeps its records";
    EXPECT_TRUE(Contains(File("moved"), "before"));
    EXPECT_EQ(ModeOf(File()), 0600U);
}

TEST_F(LogFile, ARemovedDirectoryIsReportedOnceAndUsedAgainWhenItIsBack)
{
    const CaughtStandardError caught;
    const std::string directory = File("sub");
    fs::create_directory(directory);
    ASSERT_EQ(Open(Info(directory)), 0U);
    ASSERT_TRUE(IsWrittenTo(directory + "/corpdir.log", "before"));
    fs::remove_all(directory);
    EXPECT_TRUE(support::WaitUntil(
        [&]
        {
            Write(0, "lost");
            return !caught.Text().empty();
        }));
    EXPECT_FALSE(support::FileExists(directory)) << "the log makes no directory";
    fs::create_directory(directory);
    EXPECT_TRUE(ArrivesIn(directory + "/corpdir.log", "after"));
    EXPECT_TRUE(IsWrittenTo(directory + "/corpdir.log", "last"));
    fs::remove_all(directory);
    ASSERT_EQ(Open(Info(Directory())), 0U);
    CorpDir_CloseLog();
    EXPECT_EQ(SplitLines(caught.Text()).size(), 1U) << caught.Text();
    EXPECT_THAT(caught.Text(), HasSubstr("corpdir: the log in " + directory +
                                         " cannot be written, records are lost until it can: "));
    EXPECT_THAT(caught.Text(), HasSubstr("No such file or directory"));
}

// The number in the first notice of the file; 0 without one.
std::size_t MissingIn(const std::string& path)
{
    static const std::regex kNotice(" Up to ([0-9]+) records are missing here: ");
    const std::string text = support::FileExists(path) ? support::ReadFile(path) : "";
    std::smatch match;
    return std::regex_search(text, match, kNotice) ? std::stoul(match[1]) : 0;
}

void WriteMany(int count, unsigned int level = 0)
{
    for (int number = 0; number < count; ++number)
    {
        Write(level, "seq %d", number);
    }
}

// Writes 50 records and removes the file when they are in it. They are one batch, since the disk
// answers when all of them wait; so the log does not look for its file between them and the
// removal.
void LoseWithFile(const std::string& path)
{
    g_writeStall.Begin();
    Write(2, "first");
    const bool isHit = support::WaitUntil([] { return g_writeStall.isHit.load(); });
    WriteMany(50, 2);
    g_writeStall.isOn = false;
    ASSERT_TRUE(isHit);
    ASSERT_TRUE(support::WaitUntil([&] { return Contains(path, "seq 49"); }));
    fs::remove(path);
}

TEST_F(LogFile, ThatIsRemovedCountsWhatItTookAlong)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    ASSERT_NO_FATAL_FAILURE(LoseWithFile(File()));
    EXPECT_TRUE(ArrivesIn(File(), "after"));
    CorpDir_CloseLog();
    EXPECT_EQ(MissingIn(File()), 50U);
    EXPECT_TRUE(Contains(File(), "missing here: the file that held them was removed\n"));
}

TEST_F(LogFile, ThatIsRemovedBeforeACloseCountsWhatItTookAlong)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    ASSERT_NO_FATAL_FAILURE(LoseWithFile(File()));
    CorpDir_CloseLog();
    EXPECT_EQ(MissingIn(File()), 50U);
}

// Loses 51 records: the directory is removed with the first, and is gone when the others come.
class LogOutage : public LogFile
{
protected:
    void LoseRecords()
    {
        fs::create_directory(m_lost);
        ASSERT_EQ(Open(Info(m_lost)), 0U);
        ASSERT_TRUE(IsWrittenTo(m_lost + "/corpdir.log", "before"));
        fs::remove_all(m_lost);
        WriteMany(50);
        EXPECT_TRUE(support::WaitUntil([&] { return !m_caught.Text().empty(); }));
    }

    // A record that the log's thread takes late may reach the directory that is there again.
    static void ExpectAllAreCounted(const std::string& path)
    {
        const std::size_t missing = MissingIn(path);
        ASSERT_GT(missing, 0U);
        EXPECT_EQ(missing + TextsIn(path).size() - 1, 51U);  // one line is the notice
    }

    const CaughtStandardError m_caught;
    const std::string m_lost = File("sub");
};

TEST_F(LogOutage, IsReportedByTheNextClose)
{
    LoseRecords();
    fs::create_directory(m_lost);
    CorpDir_CloseLog();
    ExpectAllAreCounted(m_lost + "/corpdir.log");
}

TEST_F(LogOutage, IsReportedInTheDirectoryOfTheNextOpening)
{
    LoseRecords();
    ASSERT_EQ(Open(Info(Directory())), 0U);
    CorpDir_CloseLog();
    ExpectAllAreCounted(File());
    EXPECT_TRUE(
        Contains(File(), "missing here: " + m_lost + "/corpdir.log: No such file or directory\n"));
}

TEST_F(LogOutage, IsReportedByAnOpeningInTheSameDirectory)
{
    LoseRecords();
    fs::create_directory(m_lost);
    ASSERT_EQ(Open(Info(m_lost)), 0U);
    CorpDir_CloseLog();
    ExpectAllAreCounted(m_lost + "/corpdir.log");
}

// The line on standard error must not stop the log.
TEST_F(LogFile, AnOutageEndsThoughStandardErrorIsNotRead)
{
    log_test::StuckStandardError stuck;
    stuck.Fill();
    const std::string directory = File("sub");
    fs::create_directory(directory);
    ASSERT_EQ(Open(Info(directory)), 0U);
    ASSERT_TRUE(IsWrittenTo(directory + "/corpdir.log", "before"));
    fs::remove_all(directory);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (std::chrono::steady_clock::now() < end)  // there is no sign that the outage has begun
    {
        Write(0, "lost");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    fs::create_directory(directory);
    EXPECT_TRUE(ArrivesIn(directory + "/corpdir.log", "after"));
}

TEST_F(LogFile, ThatCannotBeRenamedIsTruncatedWhichIsReportedOnce)
{
    const CaughtStandardError caught;
    fs::create_directories(File("corpdir.1.log/below"));
    ASSERT_EQ(Open(Info(Directory(), 2, 4000, 1)), 0U);
    WriteMany(200);
    CorpDir_CloseLog();
    EXPECT_EQ(caught.Text(), "corpdir: the log in " + Directory() +
                                 " cannot be rotated, it is truncated when full: " + File() +
                                 ": Is a directory\n");
    const std::vector<std::string> texts = TextsIn(File());
    ASSERT_GT(texts.size(), 5U);
    for (std::size_t index = 0; index < texts.size(); ++index)
    {
        EXPECT_EQ(texts[index], "seq " + std::to_string(200 - texts.size() + index));
    }
    EXPECT_LE(fs::file_size(File()), 4000U);
}

TEST_F(LogFile, IsRotatedThoughAnOlderOneCannotBeRenamed)
{
    const CaughtStandardError caught;
    fs::create_directories(File("corpdir.3.log/below"));
    ASSERT_EQ(Open(Info(Directory(), 2, 4000, 3)), 0U);
    WriteMany(400);
    CorpDir_CloseLog();
    EXPECT_EQ(caught.Text(), "");
    std::vector<std::string> texts;
    for (const char* name : {"corpdir.2.log", "corpdir.1.log", "corpdir.log"})
    {
        const std::vector<std::string> more = TextsIn(File(name));
        texts.insert(texts.end(), more.begin(), more.end());
    }
    ASSERT_GT(texts.size(), 60U);
    for (std::size_t index = 0; index < texts.size(); ++index)
    {
        EXPECT_EQ(texts[index], "seq " + std::to_string(400 - texts.size() + index));
    }
}

TEST_F(LogFile, ALinkThatComesBetweenCheckAndOpeningIsNotFollowed)
{
    const std::string victim = File("victim");
    support::WriteFile(victim, "precious");
    const Child attacker(
        [&]
        {
            const std::string link = File("link");
            for (;;)
            {
                if (symlink(victim.c_str(), link.c_str()) != 0 ||
                    rename(link.c_str(), File().c_str()) != 0)
                {
                    _exit(2);
                }
                unlink(File().c_str());
            }
        });
    for (int round = 0; round < 3000; ++round)
    {
        if (Open(Info(Directory())) == 0)
        {
            Write(0, "through the link");
            CorpDir_CloseLog();
        }
        ASSERT_EQ(support::ReadFile(victim), "precious") << "round " << round;
    }
}

// Output of the client or a library to a closed stream must not end up in the log.
TEST_F(LogFile, NeverTakesTheNumberOfAStandardStream)
{
    Child child(
        [this]
        {
            close(STDIN_FILENO);
            close(STDERR_FILENO);
            if (Open(Info(Directory(), 2, 200, 2)) != 0)
            {
                _exit(2);
            }
            WriteMany(50);  // rotates
            Write(0, "seen");
            const bool isSeen = support::WaitUntil([&] { return Contains(File(), "seen"); });
            const bool isTaken = fcntl(STDIN_FILENO, F_GETFD) != -1 ||  //
                                 fcntl(STDERR_FILENO, F_GETFD) != -1;
            if (!isSeen)
            {
                _exit(3);
            }
            _exit(isTaken ? 4 : 7);
        });
    EXPECT_EQ(child.Wait(), 7);
}

// A small file system in memory.
class SmallDisk
{
public:
    SmallDisk(const std::string& directory, unsigned long flags, const char* options)
        : m_directory(directory)
    {
        m_isMounted = mount("tmpfs", directory.c_str(), "tmpfs", flags, options) == 0;
    }
    ~SmallDisk()
    {
        if (m_isMounted)
        {
            umount2(m_directory.c_str(), MNT_DETACH);
        }
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool IsMounted() const
    {
        return m_isMounted;
    }
    void Fill()
    {
        const std::string filler = m_directory + "/filler";
        const int file = open(filler.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        while (write(file, "#", 1) == 1)
        {
        }
        EXPECT_EQ(errno, ENOSPC);
        close(file);
    }
    void MakeRoom()
    {
        fs::remove(m_directory + "/filler");
    }

private:
    std::string m_directory;
    bool m_isMounted;
};

TEST_F(LogFile, AFullDiskIsReportedOnceAndWrittenAgainWhenThereIsRoom)
{
    SmallDisk disk(Directory(), 0, "size=256k");
    ASSERT_TRUE(disk.IsMounted()) << "the test must be allowed to mount";
    const CaughtStandardError caught;
    ASSERT_EQ(Open(Info(Directory())), 0U);
    ASSERT_TRUE(IsWrittenTo(File(), "before"));
    disk.Fill();
    std::size_t written = 0;
    EXPECT_TRUE(support::WaitUntil(
        [&]
        {
            for (int count = 0; count < 100; ++count, ++written)
            {
                Write(0, "while it is full %zu", written);
            }
            return !caught.Text().empty();
        }));
    disk.MakeRoom();
    EXPECT_TRUE(ArrivesIn(File(), "missing here"));  // the notice, or else this very text
    EXPECT_TRUE(ArrivesIn(File(), "after"));
    CorpDir_CloseLog();
    EXPECT_EQ(SplitLines(caught.Text()).size(), 1U) << caught.Text();
    EXPECT_THAT(caught.Text(), HasSubstr("No space left on device"));

    EXPECT_TRUE(Contains(File(), "No space left on device\n"));
    const std::vector<std::string> texts = TextsIn(File());
    const auto arrived =
        std::count_if(texts.begin(), texts.end(),
                      [](const std::string& text) { return text.find("while it is full") == 0; });
    EXPECT_GE(MissingIn(File()) + static_cast<std::size_t>(arrived), written);
}

TEST_F(LogFile, AReadOnlyDiskIsRefused)
{
    const SmallDisk disk(Directory(), MS_RDONLY, "size=64k");
    ASSERT_TRUE(disk.IsMounted()) << "the test must be allowed to mount";
    EXPECT_EQ(Open(Info(Directory())), static_cast<unsigned int>(EROFS));
}

// In a child that is not root, which may write everywhere.
TEST_F(LogFile, ADirectoryThatBecomesReadOnlyNeitherBlocksNorEndsTheClient)
{
    const CaughtStandardError caught;
    const bool isRoot = geteuid() == 0;
    ASSERT_TRUE(!isRoot || chown(Directory().c_str(), 65534, 65534) == 0);
    Child child(
        [&]
        {
            if (isRoot && setresuid(65534, 65534, 65534) != 0)
            {
                _exit(2);
            }
            if (Open(Info(Directory(), 2, 2000, 2)) != 0 || chmod(Directory().c_str(), 0500) != 0)
            {
                _exit(3);
            }
            for (int number = 0; number < 100; ++number)
            {
                Write(2, "%d", number);
            }
            if (!ArrivesIn(File(), "after the rotation that failed"))
            {
                _exit(4);
            }
            CorpDir_CloseLog();
            // The file itself may still be written.
            if (Open(Info(Directory(), 2, 2000, 2)) != 0)
            {
                _exit(5);
            }
            for (int number = 0; number < 100; ++number)
            {
                Write(2, "again %d", number);
            }
            CorpDir_CloseLog();
            _exit(7);
        });
    EXPECT_EQ(child.Wait(), 7);
    EXPECT_EQ(TextsIn(File()).back(), "again 99");
    EXPECT_FALSE(Contains(File(), "missing"));
    EXPECT_THAT(SplitLines(caught.Text()),
                ElementsAre(HasSubstr("cannot be rotated"), HasSubstr("cannot be rotated")));
    chmod(Directory().c_str(), 0700);
}

TEST_F(LogFile, ALimitOfTheFileSizeDoesNotEndTheClient)
{
    const CaughtStandardError caught;
    Child child(
        [&]
        {
            const rlimit limit = {16384, 16384};
            setrlimit(RLIMIT_FSIZE, &limit);
            (void)Open(Info(Directory()));
            for (int number = 0; number < 1000; ++number)
            {
                Write(0, "%d", number);
            }
            CorpDir_CloseLog();
            _exit(7);
        });
    EXPECT_EQ(child.Wait(), 7);
    EXPECT_THAT(caught.Text(), HasSubstr("File too large"));
    EXPECT_THAT(support::ReadFile(File()).size(), testing::Le(16384U));
}

TEST_F(LogFile, IsNotHandedToProgramsThatTheClientStarts)
{
    ASSERT_EQ(Open(Info(Directory())), 0U);
    Write(0, "open");
    bool isFound = false;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd"))
    {
        std::error_code ignored;
        const fs::path target = fs::read_symlink(entry.path(), ignored);
        if (target.parent_path() == Directory())
        {
            isFound = true;
            const int number = std::stoi(entry.path().filename());
            EXPECT_NE(fcntl(number, F_GETFD) & FD_CLOEXEC, 0) << target;
        }
    }
    EXPECT_TRUE(isFound);
}

TEST_F(LogFile, EmptyDirectoryAndNullMeanStandardError)
{
    const CaughtStandardError caught;
    ASSERT_EQ(CorpDir_OpenLog(nullptr), 0U);
    Write(2, "by null");
    ASSERT_EQ(Open(Info("", 1)), 0U);
    Write(1, "by an empty name");
    Write(2, "above the level");
    CorpDir_CloseLog();
    EXPECT_THAT(SplitLines(caught.Text()),
                ElementsAre(HasSubstr(" mod func file.cpp:7 by null"),
                            HasSubstr(" mod func file.cpp:7 by an empty name")));
}

TEST_F(LogFile, AStandardErrorThatIsGoneDoesNotEndTheClient)
{
    Child brokenPipe(
        []
        {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC) != 0)
            {
                _exit(2);
            }
            dup2(ends[1], STDERR_FILENO);
            close(ends[0]);
            signal(SIGPIPE, SIG_DFL);
            (void)CorpDir_OpenLog(nullptr);
            Write(0, "dropped");
            CorpDir_CloseLog();
            _exit(7);
        });
    EXPECT_EQ(brokenPipe.Wait(), 7);
    // As a daemon may start; later the number belongs to a file of the client.
    const std::string clients = File("client");
    Child closed(
        [&clients]
        {
            close(STDERR_FILENO);
            const bool isOpen = CorpDir_OpenLog(nullptr) == 0;
            const int fd = open(clients.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            Write(0, "dropped");
            CorpDir_CloseLog();
            _exit(isOpen && fd == STDERR_FILENO ? 7 : 2);
        });
    EXPECT_EQ(closed.Wait(), 7);
    EXPECT_EQ(support::ReadFile(clients), "");
}

}  // namespace
