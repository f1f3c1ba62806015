// The certificate must have the name or address by which the server is listed. Names have addresses
// that the test defines.
#include <signal.h>

#include <chrono>

#include "program_fixture.h"

namespace integration
{
namespace
{

using std::chrono::seconds;
using std::chrono::steady_clock;
using support::Command;
using support::CommandResult;
using support::Process;
using support::ReadFile;
using support::RunCommand;
using support::TemporaryDirectory;
using ::testing::HasSubstr;

class ProgramNames : public Program
{
protected:
    Command StagedFetch(const std::string& hosts, const std::vector<std::string>& more) const
    {
        Command command = Line("fetch", more, CORPDIR_STAGED_PROGRAM);
        command.environment.emplace_back("CORPDIR_TEST_HOSTS", hosts);
        return command;
    }
};

struct Identity
{
    const char* name;
    const char* certificate;  // subjectAltName of the server at 127.0.0.1
    std::vector<std::string> options;
    const char* refused;  // the reason; null: accepted
};

void PrintTo(const Identity& identity, std::ostream* stream)
{
    *stream << identity.name;
}

// dir.test and alias.test are the server; both.test is a dead address, and then the server.
const char kHosts[] =
    "dir.test=127.0.0.1 alias.test=127.0.0.1 alias.test.=127.0.0.1 dir.example.test=127.0.0.1 "
    "both.test=127.0.0.2,127.0.0.1";

const Identity kIdentities[] = {
    {"NameForThatName", "DNS:dir.test", {"--servers=dir.test"}, nullptr},
    {"NameInOtherLetters", "DNS:DIR.Test", {"--servers=dir.test"}, nullptr},
    {"NameWithADotAtItsEnd", "DNS:alias.test", {"--servers=127.0.0.1;alias.test."}, nullptr},
    {"NameForAWildcard", "DNS:*.example.test", {"--servers=dir.example.test"}, nullptr},
    {"NameForTheAddressOnly",
     "IP:127.0.0.1",
     {"--servers=dir.test"},
     "certificate is not valid for host dir.test"},
    {"NameForAnotherName",
     "DNS:other.test",
     {"--servers=dir.test"},
     "certificate is not valid for host dir.test"},
    {"AddressForThatAddress", "IP:127.0.0.1", {"--servers=127.0.0.1"}, nullptr},
    {"AddressForTheNameOnly",
     "DNS:dir.test",
     {"--servers=127.0.0.1"},
     "certificate is not valid for host 127.0.0.1"},
    {"AddressForAnotherAddress",
     "IP:127.0.0.9",
     {"--servers=127.0.0.1"},
     "certificate is not valid for host 127.0.0.1"},
    {"NameAndAddressForTheAddress", "IP:127.0.0.1", {"--servers=dir.test;127.0.0.1"}, nullptr},
    {"NameAndAddressForTheName", "DNS:dir.test", {"--servers=dir.test;127.0.0.1"}, nullptr},
    {"TwoNamesForTheSecond", "DNS:alias.test", {"--servers=dir.test;alias.test"}, nullptr},
    {"TwoNamesForAThird",
     "DNS:other.test",
     {"--servers=dir.test;alias.test"},
     "certificate is not valid for host dir.test or alias.test"},
    {"NameOfTwoAddresses", "DNS:both.test", {"--servers=both.test"}, nullptr},
    {"NameOfTwoAddressesForTheAddress",
     "IP:127.0.0.1",
     {"--servers=both.test"},
     "certificate is not valid for host both.test"},
    {"GivenNameForThatName",
     "DNS:given.test",
     {"--servers=127.0.0.1", "--verify-name=given.test"},
     nullptr},
    {"GivenNamesForTheSecond",
     "DNS:given.test",
     {"--servers=dir.test", "--verify-name=first.test,given.test"},
     nullptr},
    {"GivenNameForTheAddressOnly",
     "IP:127.0.0.1",
     {"--servers=127.0.0.1", "--verify-name=given.test"},
     "certificate is not valid for host given.test"},
    {"GivenNameForTheListedName",
     "DNS:dir.test",
     {"--servers=dir.test", "--verify-name=given.test"},
     "certificate is not valid for host given.test"},
    {"Unverified",
     "DNS:other.test",
     {"--servers=dir.test", "--ca=" + kLeftOut, "--no-verify"},
     nullptr},
};

class ProgramIdentity : public ProgramNames, public ::testing::WithParamInterface<Identity>
{
};

TEST_P(ProgramIdentity, IsWhatWasListed)
{
    m_options.certificate = m_certificates.WithNames(GetParam().certificate);
    Serve();
    const CommandResult result = RunCommand(StagedFetch(kHosts, GetParam().options));
    if (GetParam().refused == nullptr)
    {
        EXPECT_EQ(result.status, kFetched) << result.output;
        ExpectBothFiles();
        return;
    }
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_THAT(result.output, HasSubstr(std::string(": ") + GetParam().refused + "\n"));
    EXPECT_EQ(m_server->CountCommands("USER"), 0U) << "nothing is sent to a stranger";
}

INSTANTIATE_TEST_SUITE_P(Listed, ProgramIdentity, ::testing::ValuesIn(kIdentities),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_F(ProgramNames, AnIpv6AddressIsForItself)
{
    m_options.host = "::1";
    m_options.certificate = m_certificates.WithNames("IP:::1,DNS:dir.test");
    Serve();
    EXPECT_EQ(RunCommand(StagedFetch("", {"--servers=[0:0::1]"})).status, kFetched);
    const std::string hosts = "dir.test=::1 other.test=::1";
    EXPECT_EQ(RunCommand(StagedFetch(hosts, {"--servers=dir.test"})).status, kFetched);
    EXPECT_EQ(RunCommand(StagedFetch(hosts, {"--servers=other.test"})).status, kNoServer);
}

TEST_F(ProgramNames, TwoHundredLongNamesStandInOneList)
{
    std::string hosts;
    std::string servers;
    std::string last;
    for (int i = 100; i < 300; ++i)
    {
        last = std::string(52, 'a') + std::to_string(i) + ".test";
        ASSERT_EQ(last.size(), 60U);
        hosts += last + "=127.0.0.1 ";
        servers += (servers.empty() ? "" : ";") + last;
    }
    m_options.certificate = m_certificates.WithNames("DNS:" + last);
    Serve();
    const CommandResult result = RunCommand(StagedFetch(hosts, {"--servers=" + servers}));
    EXPECT_EQ(result.status, kFetched) << result.output;
    ExpectBothFiles();
}

// The names of a list are looked up in parallel, with one limit of ten seconds.
TEST_F(ProgramNames, ThoseWithoutAnAnswerDelayTheOthersForTenSeconds)
{
    Serve();
    const auto begun = steady_clock::now();
    const CommandResult result =
        RunCommand(StagedFetch("slow1.test=hang slow2.test=hang slow3.test=hang",
                               {"--servers=slow1.test;slow2.test;127.0.0.1;slow3.test"}));
    const auto spent = steady_clock::now() - begun;
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_GE(spent, seconds(10));
    EXPECT_LT(spent, seconds(18));
    for (const char* name : {"slow1.test", "slow2.test", "slow3.test"})
    {
        EXPECT_THAT(result.output, HasSubstr(std::string(name) +
                                             ": no answer from the resolver within 10 s; skipped"));
    }
    ExpectBothFiles();
}

// A lookup cannot be interrupted; the program ends nevertheless.
TEST_F(ProgramNames, AStopDoesNotWaitForALookup)
{
    TemporaryDirectory files;
    Command command = StagedFetch("slow.test=hang", {"--servers=slow.test"});
    command.output_file = files.File("said");
    Process program(command);
    EXPECT_FALSE(program.Wait(seconds(1)).has_value()) << ReadFile(command.output_file);
    const auto begun = steady_clock::now();
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(seconds(20)), 128 + SIGTERM);
    EXPECT_LT(steady_clock::now() - begun, seconds(5));
    EXPECT_EQ(ReadFile(command.output_file),
              "corpdir: stopped by SIGTERM while looking up the names of the servers\n");
}

TEST_F(ProgramNames, TheTimeOfTheProgramGoesBeforeThatOfALookup)
{
    const CommandResult result =
        RunCommand(StagedFetch("slow.test=hang", {"--servers=slow.test;127.0.0.1", "--timeout=1"}));
    EXPECT_EQ(result.status, kNoOutcome) << result.output;
    EXPECT_THAT(result.output, HasSubstr("timed out while looking up the names of the servers: "
                                         "no progress for 1 s (--timeout)\n"));
}

TEST_F(ProgramNames, AWatchStopsWhileItLooksUp)
{
    Command command = StagedFetch("slow.test=hang", {"--servers=slow.test"});
    command.arguments[1] = "watch";
    Process program(command);
    EXPECT_FALSE(program.Wait(seconds(1)).has_value());
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(seconds(20)), 0);
}

}  // namespace
}  // namespace integration
