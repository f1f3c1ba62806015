// The load generator does what it says: counted by the server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "files.h"
#include "ftp_servers.h"
#include "process.h"

namespace integration
{
namespace
{

using support::Command;
using support::CommandResult;
using support::PatternBytes;
using support::Process;
using support::PyFtpServer;
using support::ReadFile;
using support::TestCertificates;
using support::Tls;
using support::WaitUntil;
using ::testing::HasSubstr;

class FleetTest : public ::testing::Test
{
protected:
    Command Clients(const PyFtpServer& server, const std::string& count,
                    const std::string& interval, const std::string& duration) const
    {
        Command command;
        command.arguments = {CORPDIR_FLEET,
                             "--port",
                             std::to_string(server.Port()),
                             "--clients",
                             count,
                             "--interval",
                             interval,
                             "--duration",
                             duration,
                             "--work-dir",
                             m_directory.Path(),
                             "--directory-file",
                             "directory.dat",
                             "--accepted",
                             "edition 16"};
        command.environment = {{"CORPDIR_PASSWORD", server.Options().password}};
        return command;
    }

    support::TemporaryDirectory m_directory;
    const std::string m_bytes = PatternBytes(100000, 1);
};

TEST_F(FleetTest, EachCheckIsAConnectionAndOnlyANewVersionBringsTheDirectory)
{
    const TestCertificates certificates;
    support::FtpServerOptions options;
    options.tls = Tls::kExplicit;
    options.certificate = certificates.Good();
    PyFtpServer server(options);
    server.AddFile("version.txt", "edition 17\n");
    server.AddFile("directory.dat", m_bytes);
    Command command = Clients(server, "8", "2", "4");
    command.arguments.insert(command.arguments.end(), {"--ca", certificates.Authority()});
    const CommandResult result = support::RunCommand(command);
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("\"checks\": 16, \"skipped\": 0, \"unfinished\": 0, \"failed\": 0,"));
    EXPECT_THAT(result.output, HasSubstr("\"versions\": {\"edition 17\": 16}"));
    EXPECT_THAT(result.output, HasSubstr("\"directories\": 8,"));
    EXPECT_THAT(result.output, HasSubstr("\"directory_bytes\": 800000,"));
    EXPECT_EQ(16U, server.CountCommands("USER ftp"));
    EXPECT_EQ(16U, server.CountCommands("QUIT"));
    EXPECT_EQ(16U, server.CountCommands("RETR version.txt"));
    EXPECT_EQ(8U, server.CountCommands("RETR directory.dat"));
}

TEST_F(FleetTest, AVersionPublishedMeanwhileIsFetchedOnceByEach)
{
    PyFtpServer server({});
    server.AddFile("version.txt", "edition 16\n");
    server.AddFile("directory.dat", "the one before");
    Command command = Clients(server, "8", "1", "4");
    command.output_file = m_directory.File("figures");
    Process fleet(command);
    ASSERT_TRUE(WaitUntil([&server] { return server.CountCommands("RETR version.txt") >= 8; }));
    server.AddFile("directory.dat", m_bytes);
    server.AddFile("version.txt", "edition 17\n");
    EXPECT_EQ(0, fleet.Wait(std::chrono::seconds(60)).value_or(-1));
    EXPECT_THAT(ReadFile(command.output_file), HasSubstr("\"directories\": 8,"));
    for (int client = 0; client != 8; ++client)
    {
        EXPECT_EQ(m_bytes, ReadFile(m_directory.File(std::to_string(client) + "/directory")));
    }
}

TEST_F(FleetTest, FailuresAreCountedWithTheirReason)
{
    PyFtpServer server({});
    server.AddFile("version.txt", "edition 17\n");
    const CommandResult result = support::RunCommand(Clients(server, "2", "1", "1"));
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("\"checks\": 0, \"skipped\": 0, \"unfinished\": 0, \"failed\": 2,"));
    EXPECT_THAT(result.output, HasSubstr("550"));
}

}  // namespace
}  // namespace integration
