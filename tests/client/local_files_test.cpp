// What is replaced, in which order.
#include "local_files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "base/mutex.h"
#include "files.h"

namespace
{

// As on a file system without locks.
bool g_noLocks = false;

}  // namespace

// In place of the C library's.
extern "C" int flock(int file, int operation) noexcept
{
    if (g_noLocks)
    {
        errno = ENOLCK;
        return -1;
    }
    return static_cast<int>(syscall(SYS_flock, file, operation));
}

namespace client
{
namespace
{

using support::ReadFile;
using support::WriteFile;

class LocalFilesTest : public testing::Test
{
protected:
    static Settings SettingsFor(const support::TemporaryDirectory& folder)
    {
        Settings settings;
        settings.versionFolder = settings.directoryFolder = folder.Path() + "/";
        settings.versionName = "version.txt";
        settings.directoryName = "directory.csv";
        return settings;
    }

    Arrival Arrived(const std::string& version, const std::string& text, long second)
    {
        Arrival arrival;
        arrival.version = ParseVersion(version);
        arrival.read.tv_sec = 1'700'000'000 + second;
        arrival.path = folder.File(".arrived-" + std::to_string(second));
        arrival.server = "192.0.2.1";
        WriteFile(arrival.path, text);
        return arrival;
    }

    std::string Both() const
    {
        return ReadFile(folder.File("version.txt")) + " " + ReadFile(folder.File("directory.csv"));
    }

    mode_t ModeOf(const std::string& name) const
    {
        struct stat state = {};
        EXPECT_EQ(0, stat(folder.File(name).c_str(), &state)) << name;
        return state.st_mode & 07777;
    }

    std::string StatePath() const
    {
        return folder.File(".directory.csv.corpdir.json");
    }

    bool NotedUnchanged(const std::string& version)
    {
        std::string warning;
        const bool current =
            files.NoteUnchanged(ParseVersion(version), {1'700'000'009, 0}, warning);
        EXPECT_EQ("", warning);
        return current;
    }

    support::TemporaryDirectory folder;
    Settings settings = SettingsFor(folder);
    Staging staging{folder.Path() + "/"};
    LocalFiles files{settings, staging, staging};
};

TEST_F(LocalFilesTest, LaterCommitStays)
{
    (void)files.Replace(Arrived("V0002", "two", 2));
    EXPECT_EQ("V0002 two", Both());
    (void)files.Replace(Arrived("V0001", "one", 1));
    EXPECT_EQ("V0001 one", Both());
}

// The version must not be ahead when the second step fails.
TEST_F(LocalFilesTest, DirectoryGoesFirst)
{
    (void)files.Replace(Arrived("V0001", "one", 1));
    std::filesystem::remove(folder.File("version.txt"));
    std::filesystem::create_directories(folder.File("version.txt/x"));
    EXPECT_THROW((void)files.Replace(Arrived("V0002", "two", 2)), std::system_error);
    EXPECT_EQ("two", ReadFile(folder.File("directory.csv")));
}

TEST_F(LocalFilesTest, VersionGoesFirstBeforeAnOlderDirectory)
{
    (void)files.Replace(Arrived("V0002", "two", 2));
    std::filesystem::remove(folder.File("directory.csv"));
    std::filesystem::create_directories(folder.File("directory.csv/x"));
    EXPECT_THROW((void)files.Replace(Arrived("V0001", "one", 1)), std::system_error);
    EXPECT_EQ("V0001", ReadFile(folder.File("version.txt")));
    // A newer one leaves the version.
    EXPECT_THROW((void)files.Replace(Arrived("V0003", "three", 3)), std::system_error);
    EXPECT_EQ("V0001", ReadFile(folder.File("version.txt")));
}

TEST_F(LocalFilesTest, VersionFileThatIsMissingComesBack)
{
    (void)files.Replace(Arrived("V0001", "one", 1));
    std::filesystem::remove(folder.File("version.txt"));
    EXPECT_TRUE(files.Replace(Arrived("V0001", "one", 1)).unchanged);
    EXPECT_EQ("V0001 one", Both());
    EXPECT_THAT(support::FilesIn(folder.Path()), testing::SizeIs(3 + 3)) << "with those of the run";
}

TEST_F(LocalFilesTest, KeepsPermissions)
{
    (void)files.Replace(Arrived("V0001", "one", 1));
    ASSERT_EQ(0, chmod(folder.File("directory.csv").c_str(), 0640));
    ASSERT_EQ(0, chmod(folder.File("version.txt").c_str(), 0604));
    (void)files.Replace(Arrived("V0002", "two", 2));
    EXPECT_EQ(0640U, ModeOf("directory.csv"));
    EXPECT_EQ(0604U, ModeOf("version.txt"));
    EXPECT_EQ(0640U, ModeOf(".directory.csv.corpdir.json"));
}

TEST_F(LocalFilesTest, KeepsTheOwner)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can give files away";
    }
    (void)files.Replace(Arrived("V0001", "one", 1));
    for (const char* const name : {"directory.csv", "version.txt"})
    {
        ASSERT_EQ(0, chown(folder.File(name).c_str(), 65534, 50));
    }
    (void)files.Replace(Arrived("V0002", "two", 2));
    for (const char* const name : {"directory.csv", "version.txt", ".directory.csv.corpdir.json"})
    {
        struct stat state = {};
        ASSERT_EQ(0, stat(folder.File(name).c_str(), &state));
        EXPECT_EQ(65534U, state.st_uid) << name;
        EXPECT_EQ(50U, state.st_gid) << name;
    }
}

TEST_F(LocalFilesTest, NewFilesFollowTheUmask)
{
    const mode_t before = umask(027);
    {
        const Staging own(folder.Path() + "/");
        LocalFiles mine(settings, own, own);
        const Arrival arrival = Arrived("V0001", "one", 1);
        ASSERT_EQ(0, chmod(arrival.path.c_str(), 0600));  // as it is received
        (void)mine.Replace(arrival);
    }
    umask(before);
    EXPECT_EQ(0640U, ModeOf("directory.csv"));
    EXPECT_EQ(0640U, ModeOf("version.txt"));
    EXPECT_EQ(0640U, ModeOf(".directory.csv.corpdir.json"));
}

TEST_F(LocalFilesTest, TwoFoldersWork)
{
    const support::TemporaryDirectory other;
    settings.versionFolder = other.Path() + "/";
    const Staging versions(settings.versionFolder);
    LocalFiles split(settings, staging, versions);
    (void)split.Replace(Arrived("V0001", "one", 1));
    EXPECT_EQ("V0001", ReadFile(other.File("version.txt")));
    EXPECT_EQ("one", ReadFile(folder.File("directory.csv")));
}

// It would describe the files of before.
TEST_F(LocalFilesTest, StateThatCannotBeWrittenIsRemoved)
{
    const support::TemporaryDirectory other;
    settings.versionFolder = other.Path() + "/";
    const Staging versions(settings.versionFolder);
    LocalFiles split(settings, staging, versions);
    EXPECT_EQ("", split.Replace(Arrived("V0001", "one", 1)).warning);
    std::filesystem::create_directory(staging.Path(Staging::File::kNew));
    const Commit commit = split.Replace(Arrived("V0002", "two", 2));
    EXPECT_NE(std::string::npos, commit.warning.find("cannot create")) << commit.warning;
    EXPECT_FALSE(commit.unchanged);
    EXPECT_EQ("two", ReadFile(folder.File("directory.csv")));
    EXPECT_EQ("V0002", ReadFile(other.File("version.txt")));
    EXPECT_FALSE(support::FileExists(StatePath()));
}

// Unprotected there, but not refused.
TEST_F(LocalFilesTest, FileSystemWithoutLocksWorks)
{
    g_noLocks = true;
    const Staging own(folder.Path() + "/");
    LocalFiles mine(settings, own, own);
    (void)mine.Replace(Arrived("V0001", "one", 1));
    g_noLocks = false;
    EXPECT_EQ("V0001 one", Both());
    EXPECT_TRUE(support::FileExists(staging.Path(Staging::File::kLock))) << "its owner may live";
}

TEST_F(LocalFilesTest, CurrentNeedsTheVeryFile)
{
    std::string warning;
    EXPECT_EQ("", files.Current(warning));
    (void)files.Replace(Arrived("V0001", "one", 1));
    EXPECT_EQ("V0001", files.Current(warning));
    EXPECT_EQ("", warning);
    WriteFile(folder.File("directory.csv"), "One");
    EXPECT_EQ("", files.Current(warning));
    EXPECT_NE(std::string::npos, warning.find("not the file that was fetched")) << warning;
    warning.clear();
    WriteFile(StatePath(), "no JSON");
    EXPECT_EQ("", files.Current(warning));
    EXPECT_NE("", warning);
}

TEST_F(LocalFilesTest, StateCountsFailuresInARow)
{
    std::string problem;
    EXPECT_EQ("", files.NoteFailure("no luck"));
    EXPECT_EQ("", files.NoteFailure("no luck"));
    std::optional<State> state = ReadState(StatePath(), problem);
    ASSERT_TRUE(state.has_value()) << problem;
    EXPECT_EQ(2U, state->failures);
    EXPECT_EQ("", state->version);
    EXPECT_EQ(0, state->confirmed);
    (void)files.Replace(Arrived("V0001", "one", 1));
    EXPECT_EQ(0U, ReadState(StatePath(), problem)->failures);
    EXPECT_EQ("", ReadState(StatePath(), problem)->reason);
    EXPECT_EQ("", files.NoteFailure("no luck"));
    state = ReadState(StatePath(), problem);
    EXPECT_EQ("V0001", state->version);
    EXPECT_EQ("failed", state->outcome);
    EXPECT_EQ("no luck", state->reason);
    EXPECT_TRUE(NotedUnchanged("V0001"));
    EXPECT_EQ("unchanged", ReadState(StatePath(), problem)->outcome);
    EXPECT_EQ("", ReadState(StatePath(), problem)->reason);
}

TEST_F(LocalFilesTest, NothingIsUnchangedWithoutItsFiles)
{
    EXPECT_FALSE(NotedUnchanged("V0001")) << "nothing was fetched";
    (void)files.Replace(Arrived("V0002", "two", 2));
    EXPECT_EQ("", files.NoteFailure("no luck"));
    EXPECT_FALSE(NotedUnchanged("V0001")) << "another process has committed another version";
    WriteFile(folder.File("directory.csv"), "three");
    EXPECT_FALSE(NotedUnchanged("V0002"));
    std::filesystem::remove(folder.File("directory.csv"));
    EXPECT_FALSE(NotedUnchanged("V0002"));
    std::string problem;
    EXPECT_EQ("failed", ReadState(StatePath(), problem)->outcome);
}

TEST_F(LocalFilesTest, AVersionIsThatOfTheFileBesideTheState)
{
    EXPECT_FALSE(files.HasVersion("V0001"));
    (void)files.Replace(Arrived("V0001", "one", 1));
    EXPECT_TRUE(files.HasVersion("V0001"));
    EXPECT_FALSE(files.HasVersion("V0002"));
    WriteFile(folder.File("directory.csv"), "longer");
    EXPECT_FALSE(files.HasVersion("V0001"));
}

TEST_F(LocalFilesTest, UnchangedPutsTheVersionFileBack)
{
    (void)files.Replace(Arrived("V0001", "one", 1));
    std::filesystem::remove(folder.File("version.txt"));
    EXPECT_TRUE(NotedUnchanged("V0001"));
    EXPECT_EQ("V0001 one", Both());
}

TEST_F(LocalFilesTest, TimeToComeIsNoNewerVersion)
{
    (void)files.Replace(Arrived("V0001", "one", 1));
    const std::timespec future[2] = {{4'000'000'000, 0}, {4'000'000'000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, folder.File("version.txt").c_str(), future, 0));
    std::filesystem::remove(folder.File("directory.csv"));
    std::filesystem::create_directories(folder.File("directory.csv/x"));
    EXPECT_THROW((void)files.Replace(Arrived("V0002", "two", 2)), std::system_error);
    EXPECT_EQ("V0001", ReadFile(folder.File("version.txt")));
}

TEST_F(LocalFilesTest, NotesDoNotWaitLongForTheLock)
{
    (void)files.Replace(Arrived("V0001", "one", 1));
    const base::Descriptor other(open(StatePath().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(LockResult::kLocked, TryLock(other.Number()));
    const base::Clock::time_point begin = base::Clock::now();
    const std::string warning = files.NoteFailure("no luck");
    EXPECT_LT(base::Clock::now() - begin, std::chrono::seconds(15)) << "a commit waits for 30 s";
    EXPECT_NE(std::string::npos, warning.find("another process keeps")) << warning;
}

// The links are another user's.
TEST_F(LocalFilesTest, LinksAreNotFollowed)
{
    WriteFile(folder.File("victim"), "untouched");
    std::filesystem::create_symlink("victim", StatePath());
    std::filesystem::create_symlink("victim", staging.Path(Staging::File::kNew));
    (void)files.Replace(Arrived("V0001", "one", 1));
    EXPECT_EQ("V0001 one", Both());
    EXPECT_EQ("untouched", ReadFile(folder.File("victim")));
    EXPECT_FALSE(std::filesystem::is_symlink(folder.File("version.txt")));
    EXPECT_FALSE(std::filesystem::is_symlink(StatePath()));
}

// The folder decides who may replace files in it.
TEST_F(LocalFilesTest, AnotherUserReplacesFilesAndKeepsTheirGroup)
{
    constexpr uid_t kOther = 65534;
    constexpr gid_t kGroup = 50;
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can become another user";
    }
    (void)files.Replace(Arrived("V0001", "one", 1));
    ASSERT_EQ(0, chmod(folder.Path().c_str(), 0777));
    for (const char* const name : {"directory.csv", "version.txt"})
    {
        ASSERT_EQ(0, chown(folder.File(name).c_str(), 0, kGroup));
        ASSERT_EQ(0, chmod(folder.File(name).c_str(), 0640));
    }
    ASSERT_EQ(0, chmod(StatePath().c_str(), 0600));
    const pid_t child = fork();
    if (child == 0)
    {
        const bool changed =
            setgroups(1, &kGroup) == 0 && setgid(kOther) == 0 && setuid(kOther) == 0;
        const Staging own(folder.Path() + "/");
        LocalFiles mine(settings, own, own);
        Arrival arrival = Arrived("V0002", "two", 2);
        (void)mine.Replace(arrival);
        own.Remove();
        _exit(changed ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ("V0002 two", Both());
    struct stat state = {};
    ASSERT_EQ(0, stat(folder.File("directory.csv").c_str(), &state));
    EXPECT_EQ(kGroup, state.st_gid);
    EXPECT_EQ(0640U, state.st_mode & 07777);
}

// Each process replaces the file that is locked, so the others have to find the new one.
TEST_F(LocalFilesTest, EightProcessesNeverPutTheVersionAhead)
{
    constexpr int kRounds = 25;
    auto* const published = static_cast<std::atomic<long>*>(
        mmap(nullptr, sizeof(std::atomic<long>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
             -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(published));
    std::vector<pid_t> children;
    for (int number = 0; number != 8; ++number)
    {
        const pid_t child = fork();
        if (child == 0)
        {
            Staging own(folder.Path() + "/");
            LocalFiles mine(settings, own, own);
            for (int round = 0; round != kRounds; ++round)
            {
                const long now = ++*published;
                Arrival arrival = Arrived(std::to_string(100000 + now), "", now);
                WriteFile(arrival.path, std::to_string(100000 + now));
                (void)mine.Replace(arrival);
            }
            own.Remove();
            _exit(0);
        }
        children.push_back(child);
    }
    int pairs = 0;
    while (!children.empty())
    {
        const bool exists = support::FileExists(folder.File("version.txt"));
        const std::string version = exists ? ReadFile(folder.File("version.txt")) : "";
        const std::string directory = exists ? ReadFile(folder.File("directory.csv")) : "";
        if (exists && ReadFile(folder.File("version.txt")) == version)
        {
            ++pairs;
            EXPECT_LE(version, directory);
        }
        int status = -1;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        EXPECT_TRUE(ended == 0 || status == 0);
        children.erase(std::remove(children.begin(), children.end(), ended), children.end());
    }
    EXPECT_GT(pairs, 0);
    EXPECT_EQ(ReadFile(folder.File("version.txt")), ReadFile(folder.File("directory.csv")));
    std::string problem;
    EXPECT_EQ(ReadFile(folder.File("version.txt")), ReadState(StatePath(), problem)->version);
    (void)munmap(published, sizeof *published);
}

}  // namespace
}  // namespace client
