// Local files: replacement, permissions, orphans. And observations.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>

#include "captured_log.h"
#include "travex_ftp_fixture.h"

namespace
{
// The next `count` calls of flock fail with `error`.
struct LockFault
{
    std::atomic<int> error{0};
    std::atomic<int> count{0};
    std::atomic<int> waiting{0};  // calls without LOCK_NB
} g_lock_fault;
}  // namespace

// Replaces the system's flock, to simulate file systems without locks and processes that take every
// lock.
extern "C" int flock(int fd, int operation) noexcept
{
    g_lock_fault.waiting += (operation & LOCK_NB) == 0 ? 1 : 0;
    if (g_lock_fault.count > 0)
    {
        --g_lock_fault.count;
        errno = g_lock_fault.error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace
{
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Parameters;
using support::WaitUntil;
using testing::ElementsAre;

class FileTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        Use(RecordFor(m_server));
    }

    mode_t ModeOf(const std::string& name) const
    {
        struct stat status = {};
        EXPECT_EQ(0, lstat(m_directory.File(name).c_str(), &status));
        return status.st_mode;
    }

    FaultyServer m_server{"none"};
};

TEST_F(FileTest, PermissionsOfAReplacedFileAreKept)
{
    const mode_t before = umask(027);
    EXPECT_EQ("0 12", Fetch("f", "new"));
    umask(before);
    EXPECT_EQ(0640u, ModeOf("new") & 07777);
    support::WriteFile(m_directory.File("old"), "old");
    ASSERT_EQ(0, chmod(m_directory.File("old").c_str(), 0604));
    EXPECT_EQ("0 12", Fetch("f", "old"));
    EXPECT_EQ(0604u, ModeOf("old") & 07777);
    EXPECT_TRUE(FaultyServer::Body(100000) == Content("old"));
}

// As root, with a file of another user.
TEST_F(FileTest, OwnerOfAReplacedFileIsKeptAndItsSpecialBitsAreNot)
{
    const std::string file = m_directory.File("f");
    const uid_t user = geteuid() == 0 ? 65534 : geteuid();
    const gid_t group = geteuid() == 0 ? 65533 : getegid();
    support::WriteFile(file, "old");
    ASSERT_EQ(0, chown(file.c_str(), user, group));
    ASSERT_EQ(0, chmod(file.c_str(), 07750));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    struct stat status = {};
    ASSERT_EQ(0, stat(file.c_str(), &status));
    EXPECT_EQ(0750u, status.st_mode & 07777);
    EXPECT_EQ(user, status.st_uid);
    EXPECT_EQ(group, status.st_gid);
}

TEST_F(FileTest, PermissionsOfAFileThatVanishesAreKept)
{
    const FaultyServer slow("slow_drip", {"--size", "60"});
    Use(RecordFor(slow));
    support::WriteFile(m_directory.File("f"), "old");
    ASSERT_EQ(0, chmod(m_directory.File("f").c_str(), 0654));
    const unsigned int task = Start("f", "f");
    ASSERT_TRUE(WaitUntil([&] { return slow.Count("DATA") == 1; }));
    ASSERT_EQ(0, unlink(m_directory.File("f").c_str()));
    EXPECT_EQ("0 12", ftp_test::OutcomeOf(task));
    EXPECT_EQ(0654u, ModeOf("f") & 07777);
}

TEST_F(FileTest, SymbolicLinkIsReplacedNotFollowed)
{
    support::WriteFile(m_directory.File("precious"), "precious");
    ASSERT_EQ(0, symlink("precious", m_directory.File("link").c_str()));
    EXPECT_EQ("0 12", Fetch("f", "link"));
    EXPECT_TRUE(S_ISREG(ModeOf("link")));
    EXPECT_EQ("precious", Content("precious"));
}

TEST_F(FileTest, ImpossibleTargetsFailBeforeConnecting)
{
    ASSERT_EQ(0, mkdir(m_directory.File("directory").c_str(), 0700));
    EXPECT_EQ(
        "3 25/LOCAL_FILE/0 cannot replace " + m_directory.Path() + "/directory: Is a directory",
        Fetch("f", "directory"));
    ASSERT_EQ(0, mkfifo(m_directory.File("pipe").c_str(), 0600));
    EXPECT_EQ(
        "3 25/LOCAL_FILE/0 cannot replace " + m_directory.Path() + "/pipe: not a regular file",
        Fetch("f", "pipe"));
    EXPECT_TRUE(S_ISFIFO(ModeOf("pipe")));
    unsigned int task = 0;
    ASSERT_EQ(0u,
              TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "f", "missing", "v", ftp_test::Record));
    EXPECT_EQ("3 25/LOCAL_FILE/0 cannot open the directory of " + m_directory.Path() +
                  "/missing/v: No such file or directory",
              ftp_test::OutcomeOf(task));
    EXPECT_EQ(0u, m_server.Count("CONNECT"));
}

TEST_F(FileTest, OrphansAreRemovedAndFilesInUseAreNot)
{
    const std::string orphan = m_directory.File(".travex_ftp-0123456789abcdef.part");
    const std::string held = m_directory.File(".travex_ftp-fedcba9876543210.part");
    const std::string others = m_directory.File(".travex_ftp-of-somebody.part");
    for (const std::string& file : {orphan, held, others})
    {
        support::WriteFile(file, "x");
    }
    const int fd = open(held.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_FALSE(support::FileExists(orphan));
    EXPECT_TRUE(support::FileExists(held));
    EXPECT_TRUE(support::FileExists(others));
    close(fd);
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_FALSE(support::FileExists(held));
    ASSERT_EQ(0, unlink(others.c_str()));
}

// The replacement of a read-only file leaves a read-only orphan. Root, who may write to any file,
// runs this as another user.
TEST_F(FileTest, ReadOnlyOrphansAreRemoved)
{
    const std::string orphan = m_directory.File(".travex_ftp-0123456789abcdef.part");
    support::WriteFile(orphan, "x");
    ASSERT_EQ(0, chmod(orphan.c_str(), 0444));
    const uid_t before = geteuid();
    const uid_t user = before == 0 ? 65534 : before;
    for (const std::string& name : {m_directory.Path(), orphan})
    {
        ASSERT_EQ(0, chown(name.c_str(), user, static_cast<gid_t>(-1)));
    }
    ASSERT_EQ(0, seteuid(user));
    const std::string outcome = Fetch("f", "f");
    ASSERT_EQ(0, seteuid(before));
    EXPECT_EQ("0 12", outcome);
    EXPECT_FALSE(support::FileExists(orphan));
}

// Root changes the owner of a replacement before the rename, so orphans of other users may be its
// own. Without root all files here have one owner.
TEST_F(FileTest, OrphansOfOtherUsersAreRemovedByRootOnly)
{
    const bool root = geteuid() == 0;
    const std::string orphan = m_directory.File(".travex_ftp-0123456789abcdef.part");
    support::WriteFile(orphan, "x");
    ASSERT_EQ(0, chmod(orphan.c_str(), 0666));
    if (root)
    {
        ASSERT_EQ(0, chown(orphan.c_str(), 65533, 65533));
        ASSERT_EQ(0, chown(m_directory.Path().c_str(), 65534, 65534));
        ASSERT_EQ(0, seteuid(65534));
    }
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(root, support::FileExists(orphan));
    if (root)
    {
        ASSERT_EQ(0, seteuid(0));
    }
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_FALSE(support::FileExists(orphan));
}

// The next download would remove it.
TEST_F(FileTest, NameOfATemporaryFileIsRefused)
{
    unsigned int task = 0;
    captured_log::Clear();
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM,
              TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "f", ".",
                                          ".travex_ftp-0123456789abcdef.part", nullptr));
    EXPECT_EQ(1u,
              captured_log::CountWith("the local file name \".travex_ftp-0123456789abcdef.part\" "
                                      "is reserved for temporary files"));
    EXPECT_EQ("0 12", Fetch("f", ".travex_ftp-0123456789abcdeg.part"));
    EXPECT_EQ("0 12", Fetch("f", "g"));
    EXPECT_THAT(support::FilesIn(m_directory.Path()),
                ElementsAre(".travex_ftp-0123456789abcdeg.part", "g"));
    ASSERT_EQ(0, unlink(m_directory.File(".travex_ftp-0123456789abcdeg.part").c_str()));
}

class LockTest : public FileTest
{
protected:
    std::string FetchWith(int error, int count)
    {
        g_lock_fault.waiting = 0;
        g_lock_fault.error = error;
        g_lock_fault.count = count;
        const std::string outcome = Fetch("f", "f");
        EXPECT_EQ(0, g_lock_fault.waiting) << "waits for a lock";
        g_lock_fault.count = 0;
        return outcome;
    }
};

TEST_F(LockTest, AnotherNameIsUsedIfTheNewFileIsLocked)
{
    EXPECT_EQ("0 12", FetchWith(EWOULDBLOCK, 3));
    EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre("f"));
    EXPECT_EQ("3 25/LOCAL_FILE/0 cannot lock " + m_directory.Path() +
                  "/f: other processes lock every temporary file",
              FetchWith(EWOULDBLOCK, 1000000));
    EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre("f"));
}

TEST_F(LockTest, AFileSystemWithoutLocksWorks)
{
    for (const int error : {ENOLCK, EOPNOTSUPP, ENOSYS, EINVAL})
    {
        EXPECT_EQ("0 12", FetchWith(error, 1000000)) << error;
        EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre("f"));
    }
    EXPECT_EQ("3 25/LOCAL_FILE/0 cannot lock " + m_directory.Path() + "/f: Input/output error",
              FetchWith(EIO, 1000000));
}

TEST_F(FileTest, RunningTransfersDoNotRemoveEachOthersFiles)
{
    std::vector<unsigned int> tasks;
    for (int i = 0; i != 40; ++i)
    {
        const auto record = RecordFor(m_server);
        tasks.push_back(
            ftp_test::StartOn(ftp_test::HandleWith(record), "f", "f" + std::to_string(i % 4)));
    }
    for (const unsigned int task : tasks)
    {
        EXPECT_EQ("0 12", ftp_test::OutcomeOf(task));
    }
    EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre("f0", "f1", "f2", "f3"));
}

TEST_F(FileTest, FullDiskLeavesTheOldFile)
{
    // A file-size limit acts like a full disk and needs no mount.
    support::WriteFile(m_directory.File("f"), "old");
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
    const rlimit small{50000, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    signal(SIGXFSZ, SIG_IGN);
    const std::string outcome = Fetch("f", "f");
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    EXPECT_EQ("3 25/LOCAL_FILE/0 cannot write " + m_directory.Path() + "/f: File too large",
              outcome);
    EXPECT_EQ("old", Content("f"));
    EXPECT_EQ("0 12", Fetch("f", "f"));
}

// A slow earlier download must not replace the file of a later request.
TEST_F(FileTest, TheFileOfTheLaterRequestStays)
{
    FaultyServer slow("slow_drip", {"--size", "30"});
    FaultyServer quick("none", {"--size", "2000"});
    Use(RecordFor(slow));
    const unsigned int old = Start("f", "f");
    Use(RecordFor(quick));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ("0 12", ftp_test::OutcomeOf(old));
    EXPECT_EQ(FaultyServer::Body(2000), Content("f"));
    EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre("f"));
}

// A server may announce a size above the limit and then refuse the file: the refusal is the reason.
TEST_F(FileTest, ARefusedFileIsNotReportedAsTooLarge)
{
    const ftp_test::Limits limits([](auto& each) { each.ullFileBytes = 1; });
    FaultyServer refusing("reply:RETR:550 gone");
    Use(RecordFor(refusing));
    EXPECT_EQ("3 20/RETRIEVE/550 RETR refused: 550 gone", Fetch("f", "f"));
    FaultyServer giving("none");
    Use(RecordFor(giving));
    EXPECT_EQ("3 24/RECEIVE/0 the file is larger than 1 bytes", Fetch("f", "f"));
}

// With a limit of 1 byte a program only asks whether the file is there.
TEST_F(FileTest, ALimitOfOneByteIsNoErrorInTheLog)
{
    for (const char* kind : {"none", "unknown_size"})
    {
        FaultyServer server(kind);
        Use(RecordFor(server));
        for (const uint64_t limit : {1ull, 2ull})
        {
            const ftp_test::Limits limits([=](auto& each) { each.ullFileBytes = limit; });
            captured_log::Clear();
            EXPECT_THAT(Fetch("f", "f"), testing::StartsWith("3 24/RECEIVE/0 "));
            const std::string cancelled =
                "f cancelled at its first byte, as the limit of 1 byte asks";
            EXPECT_EQ(limit == 1 ? 1u : 0u, captured_log::CountWith(cancelled));
            EXPECT_EQ(limit == 1 ? 0u : 1u, captured_log::Texts(CORPDIR_LOG_ERROR).size());
        }
    }
}

// Recorded observations; for one task at a time.
struct Watch
{
    std::mutex mutex;
    std::vector<std::string> seen;
    std::vector<std::string> servers;
    std::vector<std::array<unsigned int, 4>> causes;  // code, step, reply, detail
    std::vector<tagTRAVEX_FTP_S_OBSERVATION> steps;   // pointers in it are not valid
    std::vector<tagTRAVEX_FTP_S_TIMINGS> timings;
    uint64_t last = 0;
    bool forward = true;
    std::string sequence;  // the steps' names; "*" for progress in a row, "." for the end

    static void See(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
    {
        auto& watch = *static_cast<Watch*>(user);
        const std::lock_guard<std::mutex> lock(watch.mutex);
        watch.Continue(*seen);
        if (seen->ulKind == TRAVEX_FTP_OBSERVED_STEP)
        {
            watch.steps.push_back(*seen);
            return;
        }
        watch.forward = watch.forward && seen->ullBytes >= watch.last;
        watch.last = seen->ullBytes;
        watch.seen.push_back(std::to_string(seen->ulKind) + " " + seen->pcServerFile + " " +
                             std::to_string(seen->ullTotal) + " " + seen->pcReason);
        watch.servers.emplace_back(seen->pcServer);
        watch.causes.push_back({seen->ulRet, seen->ulStep, seen->ulReply, seen->ulDetail});
        if (seen->pstTimings != nullptr)
        {
            watch.timings.push_back(*seen->pstTimings);
        }
    }

    void Continue(const tagTRAVEX_FTP_S_OBSERVATION& next)
    {
        const bool progress = next.ulKind == TRAVEX_FTP_OBSERVED_PROGRESS;
        const bool repeated = progress && !sequence.empty() && sequence.back() == '*';
        if (next.ulKind != TRAVEX_FTP_OBSERVED_ACCEPTED && !repeated)
        {
            const bool step = next.ulKind == TRAVEX_FTP_OBSERVED_STEP;
            sequence += sequence.empty() ? "" : " ";
            sequence += step ? ftp_test::StepName(next.ulStep) : progress ? "*" : ".";
        }
    }
};

// Whether progress is seen depends on the time.
std::string WithoutProgress(std::string sequence)
{
    for (size_t at = 0; (at = sequence.find("* ")) != std::string::npos;)
    {
        sequence.erase(at, 2);
    }
    return sequence;
}

class ObserverTest : public LayerTest
{
protected:
    ~ObserverTest() override
    {
        TRAVEX_FTP_SetObserver(nullptr, nullptr);
    }

    // Steps, progress and the end since the last call.
    std::string Sequence()
    {
        const std::lock_guard<std::mutex> lock(m_watch.mutex);
        return std::exchange(m_watch.sequence, {});
    }

    std::string Steps()
    {
        return WithoutProgress(Sequence());
    }

    const ftp_test::Limits m_limits{[](auto& limits) { limits.ulObserveMs = 1; }};
    Watch m_watch;
};

// The outcome replaces a progress that was not reported yet; so it comes two seconds later.
TEST_F(ObserverTest, SeesProgressAndOutcomeBeforeTheNotification)
{
    FaultyServer server("slow_226", {"--size", "30000000"});
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    size_t seenBefore = 0;
    ftp_test::SetHook(
        [&](const ftp_test::Notice& notice)
        {
            const std::lock_guard<std::mutex> lock(m_watch.mutex);
            seenBefore = notice.type == 0 ? m_watch.seen.size() : seenBefore;
        });
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ(0u, TRAVEX_FTP_UnInit());  // waits for the last notification, which uses our stack
    ASSERT_GE(m_watch.seen.size(), 3u);
    EXPECT_EQ(seenBefore, m_watch.seen.size());
    EXPECT_EQ("4 f 18446744073709551615 ", m_watch.seen.front());
    EXPECT_EQ("0 f 30000000 ", m_watch.seen[1]);
    EXPECT_EQ("1 f 30000000 ", m_watch.seen.back());
    EXPECT_TRUE(m_watch.forward);
    EXPECT_EQ(30000000u, m_watch.last);
}

TEST_F(ObserverTest, SeesFailuresWithTheReasonAndRefusalsAtOnce)
{
    FaultyServer server("reply:RETR:550 gone");
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_EQ("3 20/RETRIEVE/550 RETR refused: 550 gone", Fetch("f", "f"));
    unsigned int task = 0;
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM,
              TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "f", ".", "..", nullptr));
    const std::string name = "127.0.0.1:" + std::to_string(server.Port());
    EXPECT_THAT(
        m_watch.seen,
        ElementsAre("4 f 18446744073709551615 ", "2 f 100000 RETR refused: 550 gone",
                    "3 f 18446744073709551615 the local file name \"..\" is not a plain name"));
    EXPECT_THAT(m_watch.servers, ElementsAre(name, name, name));
    using Cause = std::array<unsigned int, 4>;
    EXPECT_THAT(m_watch.causes,
                ElementsAre(Cause{}, Cause{TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 550, 0},
                            Cause{TRAVEX_FTP_ERR_PARAM, 0, 0, 0}));
}

constexpr char kPlainSteps[] =
    "LOCAL_FILE CONNECT GREETING LOGIN TYPE PASSIVE DATA_CONNECT SIZE RETRIEVE RECEIVE CONFIRM "
    "LOCAL_FILE .";

TEST_F(ObserverTest, SeesTheStepsOfATransferInOrder)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    const unsigned int task = Start("f", "f");
    ASSERT_EQ("0 12", ftp_test::OutcomeOf(task));
    EXPECT_EQ(kPlainSteps, Steps());
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ("LOCAL_FILE PASSIVE DATA_CONNECT RETRIEVE RECEIVE CONFIRM LOCAL_FILE .", Steps());
    const tagTRAVEX_FTP_S_OBSERVATION& first = m_watch.steps.front();
    EXPECT_EQ(task, first.ulTaskID);
    EXPECT_EQ(0u, first.ullBytes);
    EXPECT_EQ(TRAVEX_FTP_SIZE_UNKNOWN, first.ullTotal);
    EXPECT_EQ(0u, first.ulRet + first.ulReply + first.ulDetail);
    EXPECT_EQ(nullptr, first.pstTimings);
}

TEST_F(ObserverTest, SeesTheStepsOfFtps)
{
    FaultyServer server("none", ftp_test::TlsOptions());
    Use(RecordFor(server, true));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(
        "LOCAL_FILE CONNECT GREETING AUTH TLS LOGIN PROTECT TYPE PASSIVE DATA_CONNECT SIZE "
        "RETRIEVE "
        "DATA_TLS RECEIVE CONFIRM LOCAL_FILE .",
        Steps());
}

// Neither lines of a reply nor several replies to one command are steps.
TEST_F(ObserverTest, SeesNoStepWhenOnlyRepliesArrive)
{
    for (const char* const fault :
         {"banner_of_400_lines", "early_greeting", "second_welcome", "foreign_pasv"})
    {
        FaultyServer server(fault);
        Use(RecordFor(server));
        TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
        ASSERT_EQ("0 12", Fetch("f", "f"));
        EXPECT_EQ(kPlainSteps, Steps()) << fault;
    }
    FaultyServer server("endless_banner");
    Use(RecordFor(server));
    ASSERT_EQ("3 21/GREETING/0 the reply exceeds 1000 lines", Fetch("f", "f"));
    EXPECT_EQ("LOCAL_FILE CONNECT GREETING .", Steps());
}

// Progress follows the beginning of the receiving. The last bytes may be reported while the
// confirmation is awaited.
TEST_F(ObserverTest, SeesStepsAndProgressInOrder)
{
    FaultyServer server("slow_226", {"--size", "30000000"});
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_THAT(
        Sequence(),
        testing::AnyOf("LOCAL_FILE CONNECT GREETING LOGIN TYPE PASSIVE DATA_CONNECT SIZE RETRIEVE "
                       "RECEIVE * CONFIRM LOCAL_FILE .",
                       "LOCAL_FILE CONNECT GREETING LOGIN TYPE PASSIVE DATA_CONNECT SIZE RETRIEVE "
                       "RECEIVE * CONFIRM * LOCAL_FILE ."));
}

// All bytes arrive before the first progress is due, and then nothing more.
TEST_F(ObserverTest, SeesTheBytesBeforeAServerHangs)
{
    const ftp_test::Limits limits([](auto& each) { each.ulObserveMs = 500; });
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    const std::pair<const char*, uint64_t> cases[] = {{"stall", 50000}, {"hang:CLOSING", 100000}};
    for (const auto& one : cases)
    {
        FaultyServer server(one.first);
        const TRAVEX_FTP_HANDLE handle = ftp_test::HandleWith(RecordFor(server));
        ASSERT_NE(0u, ftp_test::StartOn(handle, "f", "f"));
        EXPECT_TRUE(support::WaitUntil(
            [&]
            {
                const std::lock_guard<std::mutex> lock(m_watch.mutex);
                return m_watch.last == one.second;
            },
            std::chrono::seconds(5)))
            << one.first;
        EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(handle));
    }
}

// Waits in its first call on the notification thread until the file is in place.
struct SlowWatch : Watch
{
    std::string file;

    static void Wait(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
    {
        auto& watch = *static_cast<SlowWatch*>(user);
        const bool inPlace = seen->ulKind == TRAVEX_FTP_OBSERVED_ACCEPTED ||
                             support::WaitUntil([&] { return support::FileExists(watch.file); });
        EXPECT_TRUE(inPlace);
        See(static_cast<Watch*>(&watch), seen);
    }
};

TEST_F(ObserverTest, ASlowObserverMissesNoStep)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    SlowWatch watch;
    watch.file = m_directory.File("f");
    TRAVEX_FTP_SetObserver(SlowWatch::Wait, &watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    TRAVEX_FTP_SetObserver(nullptr, nullptr);
    EXPECT_EQ(kPlainSteps, WithoutProgress(watch.sequence));
}

// Steps may wait for each other, but not for a server that hangs.
TEST_F(ObserverTest, SeesTheStepInWhichATransferHangs)
{
    FaultyServer server("hang:RETR");
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_NE(0u, Start("f", "f"));
    std::string steps;
    EXPECT_TRUE(support::WaitUntil(
        [&]
        {
            const std::lock_guard<std::mutex> lock(m_watch.mutex);
            steps = m_watch.sequence;
            return steps.find("RETRIEVE") != std::string::npos;
        },
        std::chrono::seconds(5)));
    EXPECT_EQ("LOCAL_FILE CONNECT GREETING LOGIN TYPE PASSIVE DATA_CONNECT SIZE RETRIEVE", steps);
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
}

TEST_F(ObserverTest, SeesAStepAgainWhenItIsReachedAgain)
{
    FaultyServer unreachable("epsv_unreachable");
    Use(RecordFor(unreachable));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(
        "LOCAL_FILE CONNECT GREETING LOGIN TYPE PASSIVE DATA_CONNECT SIZE PASSIVE DATA_CONNECT "
        "RETRIEVE RECEIVE CONFIRM LOCAL_FILE .",
        Steps());
    FaultyServer lost("drop:EPSV");
    Use(RecordFor(lost));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(
        "LOCAL_FILE CONNECT GREETING LOGIN TYPE PASSIVE CONNECT GREETING LOGIN TYPE PASSIVE "
        "DATA_CONNECT SIZE RETRIEVE RECEIVE CONFIRM LOCAL_FILE .",
        Steps());
}

TEST_F(ObserverTest, SeesTheTimingsOfATransferInClear)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ(2u, m_watch.timings.size());
    const tagTRAVEX_FTP_S_TIMINGS& first = m_watch.timings[0];
    EXPECT_LT(0u, first.ullConnected);
    EXPECT_LT(first.ullConnected, first.ullLoggedIn);
    EXPECT_LT(first.ullLoggedIn, first.ullOpened);
    EXPECT_LT(first.ullOpened, first.ullEnded);
    EXPECT_EQ(0u, first.ullSecured);
    EXPECT_EQ(0u, first.ulReused);
    EXPECT_STREQ("", first.acTlsVersion);
    EXPECT_STREQ("", first.acTlsSuite);
    EXPECT_STREQ("", first.acSubject);
    EXPECT_STREQ("", first.acNames);
    EXPECT_EQ(0, first.llCertificateUntil);
    const tagTRAVEX_FTP_S_TIMINGS& second = m_watch.timings[1];
    EXPECT_EQ(1u, second.ulReused);
    EXPECT_EQ(0u, second.ullConnected);
    EXPECT_EQ(0u, second.ullLoggedIn);
    EXPECT_LT(0u, second.ullOpened);
    EXPECT_LT(second.ullOpened, second.ullEnded);
}

TEST_F(ObserverTest, SeesVersionSuiteAndCertificate)
{
    support::FtpServerOptions options;
    options.tls = support::Tls::kExplicit;
    options.certificate = ftp_test::Certificates().Good();
    support::VsftpdServer server(options);
    server.AddFile("f", "bytes");
    auto record = ftp_test::ParametersOf(server, m_directory.Path());
    const int suite = 0x0300003D;
    record.piCipherList = &suite;
    record.ulCipherNum = 1;
    Use(record);
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ(2u, m_watch.timings.size());
    EXPECT_LT(m_watch.timings[0].ullConnected, m_watch.timings[0].ullSecured);
    EXPECT_LT(m_watch.timings[0].ullSecured, m_watch.timings[0].ullLoggedIn);
    EXPECT_EQ(0u, m_watch.timings[1].ullSecured);
    for (const tagTRAVEX_FTP_S_TIMINGS& each : m_watch.timings)
    {
        EXPECT_STREQ("TLSv1.2", each.acTlsVersion);
        EXPECT_STREQ("TLS_RSA_WITH_AES_256_CBC_SHA256", each.acTlsSuite);
        EXPECT_STREQ("CN=server", each.acSubject);
        EXPECT_STREQ("127.0.0.1, ::1, directory.test", each.acNames);
        EXPECT_LT(std::time(nullptr), each.llCertificateUntil);
        EXPECT_EQ(1u, each.ulDataResumed);
    }
}

// The subject helps to find out why a certificate was rejected.
TEST_F(ObserverTest, SeesARejectedCertificate)
{
    FaultyServer server("none", ftp_test::TlsOptions());
    auto record = RecordFor(server);
    record.ulServerType = 1;
    record.ulCertVerify = 1;
    record.pcFtpCtrlInfo = ftp_test::Certificates().OtherAuthority().c_str();
    Use(record);
    TRAVEX_FTP_SetObserver(Watch::See, &m_watch);
    EXPECT_EQ("3 18", Fetch("f", "f").substr(0, 4));
    ASSERT_EQ(1u, m_watch.timings.size());
    const tagTRAVEX_FTP_S_TIMINGS& refused = m_watch.timings[0];
    EXPECT_STREQ("CN=server", refused.acSubject);
    EXPECT_STREQ("127.0.0.1, ::1, directory.test", refused.acNames);
    EXPECT_LT(std::time(nullptr), refused.llCertificateUntil);
    EXPECT_LT(0u, refused.ullConnected);
    EXPECT_EQ(0u, refused.ullSecured);
    EXPECT_EQ(0u, refused.ullLoggedIn);
    EXPECT_STREQ("", refused.acTlsVersion);
}

// After SetObserver has returned, the earlier observer's state may be destroyed.
TEST_F(ObserverTest, ReplacedObserverIsNotCalledAnyMore)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    std::vector<unsigned int> tasks;
    for (int i = 0; i != 50; ++i)
    {
        auto watch = std::make_unique<Watch>();
        TRAVEX_FTP_SetObserver(Watch::See, watch.get());
        tasks.push_back(Start("f", "f" + std::to_string(i)));
        TRAVEX_FTP_SetObserver(nullptr, nullptr);
    }
    for (const unsigned int task : tasks)
    {
        EXPECT_EQ("0 12", ftp_test::OutcomeOf(task));
    }
}

TEST_F(ObserverTest, MayReplaceItself)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    TRAVEX_FTP_SetObserver([](void* user, const tagTRAVEX_FTP_S_OBSERVATION*)
                           { TRAVEX_FTP_SetObserver(Watch::See, user); },
                           &m_watch);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_FALSE(m_watch.seen.empty());
}

}  // namespace
