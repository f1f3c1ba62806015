// Local faults: a killed process, a full or read-only disk, no descriptors left. The old file
// stays.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>

#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Parameters;
using support::Command;
using support::Process;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr size_t kBytes = 4000000;

class KilledProcess : public LayerTest
{
protected:
    Command FetchCommand() const
    {
        return {{CORPDIR_FTP_FETCH, std::to_string(m_server.Port()), m_directory.Path(), "f"},
                {},
                m_output.File("output")};
    }

    std::set<std::string> TemporaryFiles() const
    {
        std::set<std::string> found;
        for (const std::string& name : support::FilesIn(m_directory.Path()))
        {
            if (name[0] == '.')
            {
                found.insert(name);
            }
        }
        return found;
    }

    support::TemporaryDirectory m_output;
    FaultyServer m_server{"none", {"--size", std::to_string(kBytes)}};
};

// The process is killed at random times, from before its start-up is complete until after its end.
TEST_F(KilledProcess, LeavesTheOldFileOrTheCompleteNewOne)
{
    using Clock = std::chrono::steady_clock;
    const std::string body = FaultyServer::Body(kBytes);
    auto wholeRun = Clock::duration::zero();
    for (int run = 0; run != 3; ++run)
    {
        const auto begin = Clock::now();
        Process process(FetchCommand());
        ASSERT_EQ(0, process.Wait(std::chrono::seconds(30)));
        wholeRun = Clock::now() - begin;
    }
    ASSERT_TRUE(body == Content("f"));

    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> part(0.0, 1.2);
    int oldFiles = 0;
    int interrupted = 0;
    for (int round = 0; round != 100; ++round)
    {
        support::WriteFile(m_directory.File("f"), "old");
        const std::set<std::string> orphans = TemporaryFiles();
        Process process(FetchCommand());
        std::this_thread::sleep_for(
            std::chrono::duration_cast<std::chrono::microseconds>(wholeRun * part(random)));
        process.Signal(SIGKILL);
        ASSERT_TRUE(process.Wait(std::chrono::seconds(10)).has_value());
        const std::string content = Content("f");
        ASSERT_TRUE(content == "old" || content == body) << "round " << round;
        oldFiles += content == "old" ? 1 : 0;
        const std::set<std::string> left = TemporaryFiles();
        interrupted +=
            std::includes(orphans.begin(), orphans.end(), left.begin(), left.end()) ? 0 : 1;
    }
    EXPECT_GT(oldFiles, 20) << "killed too late";
    EXPECT_GT(interrupted, 5) << "no transfer was interrupted";

    Use(RecordFor(m_server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_TRUE(body == Content("f"));
    EXPECT_TRUE(TemporaryFiles().empty()) << "the next transfer removes orphans";
}

// A small file system in a mount namespace; without root also in a user namespace.
class SmallFileSystem : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        const std::string mount = m_directory.File("mount");
        ASSERT_TRUE(std::filesystem::create_directory(mount));
        // After chroot the propagation of mounts cannot be set.
        for (const char* const propagation : {"private", "unchanged"})
        {
            m_propagation = propagation;
            if (support::RunCommand({Confined("true"), {}, ""}).status == 0)
            {
                return;
            }
        }
        FAIL() << "cannot mount in a namespace: " << Run("true");
    }

    // In the command $1 is the file system, $2 the program, $3 the server's port.
    std::vector<std::string> Confined(const std::string& command) const
    {
        std::vector<std::string> arguments{"unshare", "--propagation", m_propagation};
        arguments.insert(arguments.end(),
                         geteuid() == 0 ? std::initializer_list<std::string>{"-m"}
                                        : std::initializer_list<std::string>{"-U", "-r", "-m"});
        const std::string mounted = "mount -t tmpfs -o size=256k none \"$1\" && cd \"$1\" && { " +
                                    command + "; } && cd / && umount \"$1\"";
        const std::vector<std::string> rest{"sh",
                                            "-c",
                                            mounted,
                                            "sh",
                                            m_directory.File("mount"),
                                            CORPDIR_FTP_FETCH,
                                            std::to_string(m_server.Port())};
        arguments.insert(arguments.end(), rest.begin(), rest.end());
        return arguments;
    }

    std::string Run(const std::string& command) const
    {
        return support::RunCommand({Confined(command), {}, ""}).output;
    }

    std::string m_propagation;
    FaultyServer m_server{"none", {"--size", std::to_string(kBytes)}};
};

TEST_F(SmallFileSystem, AFullDiskLeavesTheOldFileAndNothingElse)
{
    EXPECT_THAT(
        Run("printf old > f; \"$2\" \"$3\" \"$1\" f; cat f; echo; ls -A"),
        MatchesRegex(
            "3 25/LOCAL_FILE/0 [^\n]*cannot write [^\n]*/f: No space left on device\nold\nf\n"));
}

TEST_F(SmallFileSystem, AReadOnlyDirectoryFailsBeforeAnythingIsFetched)
{
    EXPECT_THAT(
        Run("printf old > f; mount -o remount,ro \"$1\"; \"$2\" \"$3\" \"$1\" f; cat f; echo; "
            "ls -A"),
        MatchesRegex("3 25/LOCAL_FILE/0 [^\n]*/f: Read-only file system\nold\nf\n"));
    EXPECT_EQ(0u, m_server.Count("COMMAND RETR"));
}

// Root, who may write everywhere, runs this as another user.
TEST_F(LayerTest, ADirectoryThatMayNotBeWrittenFailsBeforeConnecting)
{
    FaultyServer server("none");
    const std::string closed = m_directory.File("closed");
    ASSERT_EQ(0, mkdir(closed.c_str(), 0700));
    support::WriteFile(closed + "/f", "old");
    ASSERT_EQ(0, chmod(closed.c_str(), 0555));
    ASSERT_EQ(0, chmod(m_directory.Path().c_str(), 0755));
    const std::string user = std::to_string(geteuid() == 0 ? 65534 : geteuid());
    const auto result =
        support::RunCommand({{CORPDIR_FTP_FETCH, std::to_string(server.Port()), closed, "f"},
                             {{"TRAVEX_FTP_FETCH_USER", user}},
                             ""});
    EXPECT_THAT(result.output, MatchesRegex("3 25/LOCAL_FILE/0 [^\n]*cannot create " + closed +
                                            "/f: Permission denied\n"));
    ASSERT_EQ(0, chmod(closed.c_str(), 0700));
    EXPECT_EQ("old", support::ReadFile(closed + "/f"));
    EXPECT_THAT(support::FilesIn(closed), testing::ElementsAre("f"));
    EXPECT_EQ(0u, server.Count("CONNECT"));
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS  // which need descriptors for their own checks

class FewDescriptors : public LayerTest
{
};

TEST_F(FewDescriptors, LackOfThemIsReportedAndTheNextTransferWorks)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    support::WriteFile(m_directory.File("f"), "old");
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const int lowestFree = dup(0);
    ASSERT_GE(lowestFree, 0);
    close(lowestFree);
    // From none at all to one too few for a transfer.
    std::string outcome;
    for (rlim_t more = 0; more != 10 && outcome != "0 12"; ++more)
    {
        const rlimit small{static_cast<rlim_t>(lowestFree) + more, limit.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &small));
        outcome = Fetch("f", "f");
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        if (outcome != "0 12")
        {
            EXPECT_THAT(outcome, HasSubstr("Too many open files")) << "with " << more << " more";
            EXPECT_EQ("old", Content("f"));
        }
    }
    EXPECT_EQ("0 12", outcome);
    rlimit after{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &after));
    EXPECT_EQ(limit.rlim_cur, after.rlim_cur);
}

#endif

// The environment is read once for each process; the program's own limits take precedence.
TEST_F(LayerTest, TheEnvironmentSetsLimitsThatTheProgramLeavesOpen)
{
    FaultyServer server("hang:USER");
    const auto fetch = [&](const std::vector<std::pair<std::string, std::string>>& environment)
    {
        return support::RunCommand(
                   {{CORPDIR_FTP_FETCH, std::to_string(server.Port()), m_directory.Path(), "f"},
                    environment,
                    ""})
            .output;
    };
    EXPECT_EQ("3 22/LOGIN/0 no reply to USER within 0.3 s\n",
              fetch({{"CORPDIR_FTP_RESPONSE_MS", "300"}}));
    EXPECT_EQ("3 22/LOGIN/0 no reply to USER within 0.4 s\n",
              fetch({{"CORPDIR_FTP_RESPONSE_MS", "300"}, {"TRAVEX_FTP_FETCH_RESPONSE_MS", "400"}}));
    // A variable that is not a positive number is ignored.
    EXPECT_EQ("3 22/LOGIN/0 transfer timed out after 0.5 s\n",
              fetch({{"CORPDIR_FTP_RESPONSE_MS", "-1"}, {"CORPDIR_FTP_TRANSFER_MS", "500"}}));
}

}  // namespace
