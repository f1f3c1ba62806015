// The end of a process that did not stop the service: worker, timer and transfer are alive.
//
// CORPDIR_EXITS: how many processes; CORPDIR_EXIT_SEED: the seed of their moments.
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exit_client.h"
#include "lifecycle_counts.h"
#include "service_client.h"

namespace integration
{
namespace
{

using support::FtpServerOptions;
using support::PyFtpServer;
using support::TestCertificates;
using support::Tls;
using ::testing::AnyOf;
using ::testing::Each;

constexpr std::chrono::seconds kLongest(5);
#ifdef CORPDIR_TESTS_SLOWED_DOWN
constexpr unsigned int kLongestPause = 240000;  // us
#else
constexpr unsigned int kLongestPause = 80000;
#endif

const std::string& NewDirectory()
{
    static const std::string s_bytes = support::PatternBytes(300000, 5);
    return s_bytes;
}

const std::string& OldDirectory()
{
    static const std::string s_bytes = support::PatternBytes(200000, 6);
    return s_bytes;
}

// By default the thread sanitizer delays the end of every process by a second.
std::string ThreadSanitizerOptions()
{
    const char* const options = std::getenv("TSAN_OPTIONS");
    return std::string(options == nullptr ? "" : options) + ":atexit_sleep_ms=50";
}

class Exit : public ::testing::TestWithParam<Tls>
{
protected:
    Exit() : m_fast(MakeServer(0)), m_slow(MakeServer(50000)) {}

    // Runs a client to its end. Every file that it leaves is complete.
    void RunClient(const char* way, int microseconds, int port)
    {
        support::WriteFile(m_output.File("directory.csv"), OldDirectory());
        support::Command command;
        command.arguments = {CORPDIR_EXIT_CLIENT,
                             way,
                             std::to_string(microseconds),
                             std::to_string(port),
                             GetParam() == Tls::kNone ? "plain" : "tls",
                             "ca=" + m_certificates.Authority(),
                             m_log.Path(),
                             m_output.Path()};
        command.output_file = m_messages.File("output");
        command.environment = {{"TSAN_OPTIONS", ThreadSanitizerOptions()}};
        support::Process client(command);
        ASSERT_EQ(client.Wait(kLongest).value_or(-1), exit_client::kEnded)
            << support::ReadFile(command.output_file);
        EXPECT_EQ(support::ReadFile(command.output_file), "");
        EXPECT_THAT(support::FilesIn(m_output.Path()), Each(AnyOf("version.txt", "directory.csv")));
        const std::string directory = support::ReadFile(m_output.File("directory.csv"));
        EXPECT_TRUE(directory == OldDirectory() || directory == NewDirectory())
            << directory.size() << " bytes";
        m_fetched += directory == NewDirectory() ? 1 : 0;
    }

    std::unique_ptr<PyFtpServer> MakeServer(int bytes_per_second) const
    {
        FtpServerOptions options;
        options.tls = GetParam();
        options.certificate = m_certificates.Good();
        options.bytes_per_second = bytes_per_second;
        auto server = std::make_unique<PyFtpServer>(options);
        server->AddFile("version.txt", "edition 17\n");
        server->AddFile("directory.csv", NewDirectory());
        return server;
    }

    const TestCertificates m_certificates;
    const std::unique_ptr<PyFtpServer> m_fast;
    const std::unique_ptr<PyFtpServer> m_slow;  // needs seconds for the directory
    support::TemporaryDirectory m_output;
    support::TemporaryDirectory m_log;
    support::TemporaryDirectory m_messages;
    std::size_t m_fetched = 0;
};

TEST_P(Exit, WithoutAStopIsCleanAtAnyMoment)
{
    const std::size_t count = Count("CORPDIR_EXITS", 300, 100) / 2;  // of each kind of server
    const auto seed = static_cast<unsigned int>(Count("CORPDIR_EXIT_SEED", 1, 1));
    std::mt19937 random(seed);
    constexpr const char* kWays[] = {exit_client::kExit,
                                     exit_client::kExit,
                                     exit_client::kReturn,
                                     exit_client::kReturn,
                                     exit_client::kExitOnThread,
                                     exit_client::kExitInCallback,
                                     exit_client::kExitBesideCallback};
    for (std::size_t i = 0; i < count; ++i)
    {
        const char* const way = kWays[random() % std::size(kWays)];
        const auto microseconds = static_cast<int>(random() % kLongestPause);
        const bool awaits =
            way == exit_client::kExitInCallback || way == exit_client::kExitBesideCallback;
        // Sometimes nothing listens on the port, so that the callbacks report failures.
        const int port = random() % 8 == 0              ? 1
                         : random() % 2 == 0 && !awaits ? m_slow->Port()
                                                        : m_fast->Port();
        const int moment =
            way == exit_client::kExitBesideCallback ? microseconds / 4 : microseconds;
        RunClient(way, moment, port);
        ASSERT_FALSE(HasFailure()) << "seed " << seed << ", process " << i << ": " << way
                                   << " after " << moment << " us, port " << port;
    }
    const std::size_t interrupted = m_slow->CountCommands("RETR directory.csv");
    RecordProperty("fetched", static_cast<int>(m_fetched));
    RecordProperty("interrupted", static_cast<int>(interrupted));
    // The moments are before, during and after the transfers.
    EXPECT_TRUE(count < 50 || m_fetched > 0);
    EXPECT_TRUE(count < 50 || interrupted > 0);
    EXPECT_LT(m_fetched + interrupted, count);
}

INSTANTIATE_TEST_SUITE_P(Service, Exit, ::testing::Values(Tls::kNone, Tls::kExplicit), NameOfTls);

}  // namespace
}  // namespace integration
