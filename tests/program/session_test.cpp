// The session of `fetch`, with a scripted service.
#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <thread>

#include "commands/session.h"
#include "fake_service.h"
#include "parts_support.h"
#include "state.h"
#include "suites.h"

namespace corpdir_tool
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::FilesIn;
using support::ReadFile;
using support::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::chrono::hours kForever{1};

const char A[] = "192.0.2.1";
const char B[] = "192.0.2.2";
const char C[] = "192.0.2.3";

class ToolSession : public testing::Test
{
protected:
    ToolSession()
    {
        Layers() = {};
        WriteFile(m_secrets.Path() + "/password", "secret\n");
        m_options.user = "phone";
        m_options.versionFile = "pub/version.txt";
        m_options.directoryFile = "pub/directory.csv";
        m_options.outputDir = m_directory.Path();
        m_options.servers = "192.0.2.1;192.0.2.2";
    }

    ~ToolSession() override
    {
        EXPECT_EQ(Layers().observer, nullptr) << "the observer was left behind";
        EXPECT_FALSE(m_service.running);
        EXPECT_EQ(m_service.starts, m_service.stops) << "each start needs a stop";
        for (const std::string& name : FilesIn(m_directory.Path()))
        {
            EXPECT_NE(name.rfind(".corpdir-", 0), 0U) << name << " was left behind";
        }
    }

    // One request.
    Outcome Run(const FakeService::Script& script)
    {
        return Run(std::vector<FakeService::Script>{script});
    }

    // One script for each request.
    Outcome Run(std::vector<FakeService::Script> scripts)
    {
        m_service.scripts = std::move(scripts);
        const Plan plan = MakePlan(m_options, SomeCiphers);
        const Lookup lookup = [this](const std::string&, int) { return m_found; };
        const Terminal terminal(m_messages.Get(), m_progress ? 60 : 0, false);
        PasswordSource password(m_secrets.Path() + "/password");
        Report report({m_options.quiet, m_progress}, terminal);
        Session session(m_service, plan, lookup, password, m_events, report);
        return session.Run();
    }

    // A signal comes as soon as this has been shown.
    int RunUntilShown(const std::string& text, const FakeService::Script& script)
    {
        m_progress = true;
        m_messages.When(text, [this] { m_events.Push(Event::Kind::kSignal, SIGTERM); });
        return Run(script).status;
    }

    static void Deliver(FakeService& service)
    {
        service.Deliver(service.requests.back().substr(0, service.requests.back().find(';')),
                        "edition 1");
    }

    // The messages without hints.
    std::string Messages() const
    {
        std::istringstream text(m_messages.Text());
        std::string kept;
        for (std::string line; std::getline(text, line);)
        {
            kept += line.rfind("hint: ", 0) == 0 ? "" : line + "\n";
        }
        return kept;
    }

    std::string Local(const std::string& name) const
    {
        return ReadFile(m_directory.Path() + "/" + name);
    }

    TemporaryDirectory m_directory;
    TemporaryDirectory m_secrets;
    Options m_options;
    LookupResult m_found{{"192.0.2.10", "192.0.2.11"}, ""};
    EventQueue m_events;
    FollowedStream m_messages;
    bool m_progress = false;
    FakeService m_service;
};

TEST_F(ToolSession, TheFirstServerDelivers)
{
    const Outcome outcome = Run(Deliver);
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_FALSE(outcome.unchanged);
    EXPECT_EQ(outcome.version, "edition 1");
    EXPECT_EQ(outcome.bytes, 9U);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2"));
    EXPECT_EQ(Messages(), "");
    EXPECT_EQ(Local("version.txt"), "edition 1\n");
    EXPECT_EQ(Local("directory.csv"), "edition 1");
}

TEST_F(ToolSession, TheRequestHoldsWhatWasAskedFor)
{
    m_options.port = 2121;
    m_options.localIp = "192.0.2.100";
    m_options.versionName = "v";
    Run(Deliver);
    const tag_CORPDIR_DOWNLOADINFO& request = m_service.lastRequest;
    EXPECT_STREQ(request.szFtpCtrlInfo, "ca=system");
    EXPECT_STREQ(request.szUserName, "phone");
    EXPECT_STREQ(request.szPassword, "secret");
    EXPECT_STREQ(request.szVersionServerFile, "pub/version.txt");
    EXPECT_STREQ(request.szCorpDirServerFile, "pub/directory.csv");
    EXPECT_EQ(request.szVersionLocalDir, m_directory.Path() + "/");
    EXPECT_EQ(request.szCorpDirLocalDir, m_directory.Path() + "/");
    EXPECT_EQ(request.ulPort, 2121U);
    EXPECT_EQ(request.ulFtpMode, 0U);
    EXPECT_EQ(request.ulCertVerify, 1U);
    EXPECT_THAT(FilesIn(m_directory.Path()),
                UnorderedElementsAre("v", "directory.csv", ".directory.csv.corpdir.json"));
}

TEST_F(ToolSession, TheNamesOfEachAddressAreRegistered)
{
    m_options.servers = "dir.example;192.0.2.11;192.0.2.12";
    const Outcome outcome = Run({[](FakeService& service)
                                 {
                                     service.Version("192.0.2.10", "edition 1\n");
                                     service.DirectoryFails("192.0.2.10", TRAVEX_FTP_ERR_FILE);
                                 },
                                 Deliver});
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_STREQ(m_service.lastRequest.szFtpCtrlInfo, "ca=system") << "names go to the layer alone";
    EXPECT_THAT(Layers().names,
                UnorderedElementsAre("192.0.2.10=dir.example", "192.0.2.11=dir.example",
                                     "192.0.2.11=192.0.2.11", "192.0.2.12=192.0.2.12"));
}

TEST_F(ToolSession, NamesToVerifyTakeThePlaceOfTheListedOnes)
{
    m_options.servers = "dir.example";
    m_options.verifyNames = {"a.example", "b.example"};
    EXPECT_EQ(Run(Deliver).status, kExitFetched);
    EXPECT_THAT(Layers().names, ElementsAre("192.0.2.10=a.example", "192.0.2.10=b.example",
                                            "192.0.2.11=a.example", "192.0.2.11=b.example"));
}

TEST_F(ToolSession, NamesThatCannotBeRegisteredEndIt)
{
    Layers().nameResult = TRAVEX_FTP_ERR_SYSTEM;
    const Thrown thrown = ExitErrorOf([this] { Run(Deliver); });
    EXPECT_EQ(thrown.status, kExitInternal);
    EXPECT_EQ(thrown.message, "the names of the servers could not be registered (code 7)");
    EXPECT_THAT(m_service.requests, IsEmpty());
}

TEST_F(ToolSession, LimitsAreSetByFunction)
{
    m_options.maxSize = 5000;
    m_options.connectTimeout = 3600;
    EXPECT_EQ(Run(Deliver).status, kExitFetched);
    EXPECT_EQ(Layers().limits.ullFileBytes, 5000U);
    EXPECT_EQ(Layers().limits.ulConnectMs, 3600000U);
    tagTRAVEX_FTP_S_LIMITS others = Layers().limits;
    others.ullFileBytes = 0;
    others.ulConnectMs = 0;
    const tagTRAVEX_FTP_S_LIMITS none = {};
    EXPECT_EQ(memcmp(&others, &none, sizeof none), 0) << "the operator's";

    m_options.maxSize = 0;
    m_options.connectTimeout = 0;
    EXPECT_EQ(Run(Deliver).status, kExitFetched);
    EXPECT_EQ(memcmp(&Layers().limits, &none, sizeof none), 0);
}

TEST_F(ToolSession, LimitsThatCannotBeSetEndIt)
{
    Layers().limitsResult = TRAVEX_FTP_ERR_SYSTEM;
    const Thrown thrown = ExitErrorOf([this] { Run(Deliver); });
    EXPECT_EQ(thrown.status, kExitInternal);
    EXPECT_EQ(thrown.message, "the limits could not be set (code 7)");
}

TEST_F(ToolSession, PlainAndUnverifiedReachTheRequest)
{
    m_options.plain = true;
    Run(Deliver);
    EXPECT_EQ(m_service.lastRequest.ulFtpMode, 1U);
    EXPECT_EQ(m_service.lastRequest.ulCertVerify, 0U);
    EXPECT_STREQ(m_service.lastRequest.szFtpCtrlInfo, "system");
    m_options.plain = false;
    m_options.noVerify = true;
    Run(Deliver);
    EXPECT_EQ(m_service.lastRequest.ulFtpMode, 0U);
    EXPECT_EQ(m_service.lastRequest.ulCertVerify, 0U);
}

TEST_F(ToolSession, TheLogSettingsReachTheService)
{
    m_options.logDir = m_secrets.Path();
    m_options.logLevel = 1;
    Run(Deliver);
    EXPECT_EQ(m_service.lastLog.szLogDir, m_secrets.Path());
    EXPECT_EQ(m_service.lastLog.ulLogLevel, 1U);
}

TEST_F(ToolSession, EachServerThatFailsIsNamedAsTheServiceMovesOn)
{
    m_options.servers = "192.0.2.1;dir.example";
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.VersionFails(A);
            service.VersionFails("192.0.2.10", TRAVEX_FTP_ERR_LOGIN);
            service.Deliver("192.0.2.11", "edition 1");
        });
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.10;192.0.2.11"));
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying next server\n"
              "192.0.2.10 (dir.example): version refused; trying next server\n");
}

TEST_F(ToolSession, AfterTheLastServerNoneIsLeft)
{
    m_options.servers = "192.0.2.1;2001:db8::2;192.0.2.3";
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            for (const char* server : {A, "2001:db8::2", C})
            {
                service.VersionFails(server);
            }
        });
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying next server\n"
              "2001:db8::2: version refused; trying next server\n"
              "192.0.2.3: version refused\n"
              "corpdir: all 3 servers failed\n");
    EXPECT_EQ(m_service.requests.size(), 1U);
}

TEST_F(ToolSession, TheOnlyServerIsAskedTwice)
{
    m_options.servers = A;
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.VersionFails(A);
            service.VersionFails(A);
        });
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying again\n"
              "192.0.2.1: version refused\n"
              "corpdir: the server failed\n");
}

TEST_F(ToolSession, TheOnlyServerMayRecover)
{
    m_options.servers = A;
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.VersionFails(A);
            service.Deliver(A, "edition 1");
        });
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_EQ(Messages(), "192.0.2.1: version refused; trying again\n");
}

TEST_F(ToolSession, ADirectoryFileThatFailsIsAskedFromTheNextServer)
{
    m_options.servers = "192.0.2.1;192.0.2.2;192.0.2.3;192.0.2.4";
    const Outcome outcome = Run({[](FakeService& service)
                                 {
                                     service.VersionFails(A);
                                     service.Version(B, "edition 1\n");
                                     service.DirectoryFails(B);
                                 },
                                 Deliver});
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2;192.0.2.3;192.0.2.4",
                                                "192.0.2.3;192.0.2.4;192.0.2.1;192.0.2.2"));
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying next server\n"
              "192.0.2.2: pub/directory.csv: directory refused; trying next server\n");
}

TEST_F(ToolSession, ADirectoryFileThatFailsEverywhereLeavesNoServer)
{
    const Outcome outcome = Run({[](FakeService& service)
                                 {
                                     service.Version(A, "edition 1\n");
                                     service.DirectoryFails(A);
                                 },
                                 [](FakeService& service)
                                 {
                                     service.Version(B, "edition 1\n");
                                     service.DirectoryFails(B, TRAVEX_FTP_ERR_FILE);
                                 }});
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(m_service.requests.size(), 2U);
    EXPECT_EQ(Messages(),
              "192.0.2.1: pub/directory.csv: directory refused; trying next server\n"
              "192.0.2.2: pub/directory.csv: directory refused\n"
              "corpdir: all 2 servers failed\n");
}

TEST_F(ToolSession, TheRemainingServersAreRotatedAgain)
{
    m_options.servers = "192.0.2.1;192.0.2.2;192.0.2.3";
    const Outcome outcome = Run({[](FakeService& service)
                                 {
                                     service.Version(A, "edition 1\n");
                                     service.DirectoryFails(A);
                                 },
                                 [](FakeService& service)
                                 {
                                     service.VersionFails(B);
                                     service.VersionFails(C);
                                 }});
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: pub/directory.csv: directory refused; trying next server\n"
              "192.0.2.2: version refused; trying next server\n"
              "192.0.2.3: version refused\n"
              "corpdir: all 3 servers failed\n");
}

// The cause is on this machine.
TEST_F(ToolSession, ATransferThatDoesNotBeginEndsIt)
{
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.Version(A, "edition 1\n");
            service.Refuse(A, TRAVEX_FTP_ERR_SYSTEM);
        });
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: bad suite\n"
              "corpdir: the server failed\n");
}

TEST_F(ToolSession, ARequestThatIsNotStartedIsReported)
{
    const Outcome outcome = Run([](FakeService& service) { service.requestResult = 7; });
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: the request could not be started (code 7)\n"
              "corpdir: the server failed\n");
}

TEST_F(ToolSession, ARefusedArgumentIsNotTriedElsewhere)
{
    for (const unsigned int code :
         {TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_ERR_CIPHER, TRAVEX_FTP_ERR_TRUST})
    {
        const Outcome outcome = Run(
            [code](FakeService& service)
            {
                service.Refuse("", code);
                service.requestResult = 1;
            });
        EXPECT_EQ(outcome.status, kExitArguments);
    }
    EXPECT_EQ(m_service.requests.size(), 3U);
    EXPECT_EQ(Messages(),
              "corpdir: bad suite\n"
              "corpdir: --ciphers: bad suite\n"
              "corpdir: --ca: bad suite\n");
}

TEST_F(ToolSession, ARefusedArgumentOfTheDirectoryTransferEndsIt)
{
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.Version(A, "edition 1\n");
            service.Refuse(A, TRAVEX_FTP_ERR_PARAM);
        });
    EXPECT_EQ(outcome.status, kExitArguments);
}

TEST_F(ToolSession, AFileThatCannotBeWrittenEndsIt)
{
    const Outcome version =
        Run([](FakeService& service) { service.VersionFails(A, TRAVEX_FTP_ERR_LOCAL_FILE); });
    EXPECT_EQ(version.status, kExitLocalFile);
    const Outcome directory = Run(
        [](FakeService& service)
        {
            service.Version(A, "edition 1\n");
            service.DirectoryFails(A, TRAVEX_FTP_ERR_LOCAL_FILE);
        });
    EXPECT_EQ(directory.status, kExitLocalFile);
    EXPECT_EQ(m_service.requests.size(), 2U);
    EXPECT_EQ(Messages(),
              "corpdir: version refused\n"
              "corpdir: directory refused\n");
}

TEST_F(ToolSession, AnInvalidVersionIsFollowedByTheNextServer)
{
    const Outcome outcome =
        Run({[](FakeService& service) { service.Version(A, "1.\x01\nlater lines do not count\n"); },
             Deliver});
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1"));
    EXPECT_EQ(Messages(),
              "192.0.2.1: the version file is not valid: its first line '1.\\x01' is shorter than "
              "5 bytes; trying next server\n");
    ASSERT_EQ(outcome.attempts.size(), 2U);
    EXPECT_EQ(outcome.attempts[0].failure.file, "pub/version.txt");
    EXPECT_EQ(outcome.attempts[0].failure.reason,
              "the version file is not valid: its first line '1.\x01' is shorter than 5 bytes");
}

// Of all servers that were asked: the invalid version is the one to report.
TEST_F(ToolSession, AnInvalidVersionOfAnyServerDecidesTheStatus)
{
    const Outcome outcome = Run({[](FakeService& service) { service.Version(A, "\xFF\xFE"); },
                                 [](FakeService& service) { service.VersionFails(B); }});
    EXPECT_EQ(outcome.status, kExitBadVersion);
    EXPECT_EQ(outcome.error, "all 2 servers failed");
    EXPECT_EQ(Messages(),
              "192.0.2.1: the version file is not valid: it is UTF-16 text; store it as ASCII or "
              "UTF-8; trying next server\n"
              "192.0.2.2: version refused\n"
              "corpdir: all 2 servers failed\n");
}

TEST_F(ToolSession, AVersionThatIsNotWhatItSeemsIsAWarning)
{
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.Version(A, "edition 1\r\n");
            service.DirectoryArrives(A, "a,b\n", service.DirectoryBegins(A));
        });
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_EQ(outcome.version, "edition 1\r");
    EXPECT_EQ(Messages(),
              "warning: the version ends with a carriage return, which is compared too\n");
}

// A download of more than ten minutes: the service's next check waits for its end.
TEST_F(ToolSession, ACheckDuringTheDownloadDoesNotMatter)
{
    m_options.servers = A;
    m_progress = true;
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.Version(A, "edition 1\n");
            const unsigned int task = service.DirectoryBegins(A);
            service.VersionBegins(A);
            service.DirectoryProgress(A);
            service.DirectoryArrives(A, "a,b\n", task);
        });
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_EQ(outcome.bytes, 4U);
    // Not "version".
    EXPECT_THAT(m_messages.Text(), HasSubstr("directory ["));
}

TEST_F(ToolSession, ASignalStopsTheVersionFile)
{
    const int status = RunUntilShown("24 bytes of 48",
                                     [](FakeService& service)
                                     {
                                         service.VersionBegins(A);
                                         service.VersionProgress(A);
                                     });
    EXPECT_EQ(status, 128 + SIGTERM);
    EXPECT_THAT(Messages(), HasSubstr("corpdir: stopped by SIGTERM while fetching version file "
                                      "'pub/version.txt' from 192.0.2.1, 24 of 48 bytes (50%)\n"));
}

TEST_F(ToolSession, ASignalStopsTheDirectoryFile)
{
    WriteFile(m_directory.Path() + "/directory.csv", "older");
    const int status = RunUntilShown("24 bytes of 48",
                                     [](FakeService& service)
                                     {
                                         service.Version(B, "edition 1\n");
                                         (void)service.DirectoryBegins(B);
                                         service.DirectoryProgress(B);
                                     });
    EXPECT_EQ(status, 128 + SIGTERM);
    EXPECT_THAT(Messages(),
                HasSubstr("corpdir: stopped by SIGTERM while fetching directory file "
                          "'pub/directory.csv' from 192.0.2.2, 24 of 48 bytes (50%)\n"));
    EXPECT_THAT(FilesIn(m_directory.Path()), ElementsAre("directory.csv"));
    EXPECT_EQ(Local("directory.csv"), "older");
}

TEST_F(ToolSession, ASignalBeforeTheFirstServerIsReported)
{
    m_events.Push(Event::Kind::kSignal, SIGINT);
    const auto begun = EventQueue::Clock::now();
    EXPECT_EQ(Run([](FakeService&) {}).status, 128 + SIGINT);
    EXPECT_LT(EventQueue::Clock::now() - begun, seconds(60)) << "not only at the timeout";
    EXPECT_EQ(Messages(), "corpdir: stopped by SIGINT while looking up the names of the servers\n");
}

TEST_F(ToolSession, TimeWithoutProgressRunsOut)
{
    m_options.timeoutSeconds = 1;
    m_options.servers = "192.0.2.1;dir.example";
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.VersionFails(A);
            service.Version("192.0.2.10", "edition 1\n");
            (void)service.DirectoryBegins("192.0.2.10");
            service.DirectoryProgress("192.0.2.10");
        });
    EXPECT_EQ(outcome.status, kExitNoOutcome);
    EXPECT_EQ(
        m_messages.Text(),
        "192.0.2.1: version refused; trying next server\n"
        "corpdir: timed out while fetching directory file 'pub/directory.csv' from 192.0.2.10 "
        "(dir.example), 24 of 48 bytes (50%): no progress for 1 s (--timeout)\n"
        "hint: raise --timeout to allow more time\n");
    ASSERT_EQ(outcome.attempts.size(), 2U);
    EXPECT_EQ(outcome.attempts[1].server.address, "192.0.2.10");
    EXPECT_EQ(outcome.attempts[1].failure.reason, outcome.error);
}

// The directory file makes progress, on another thread, for this time or until the service stops.
FakeService::Script DeliverSlowly(milliseconds time)
{
    return [time](FakeService& service)
    {
        service.Version(A, "edition 1\n");
        (void)service.DirectoryBegins(A);
        const auto stopped = std::make_shared<std::atomic<bool>>(false);
        const auto layer = std::make_shared<std::thread>(
            [&service, stopped, end = EventQueue::Clock::now() + time]
            {
                while (!*stopped && EventQueue::Clock::now() < end)
                {
                    std::this_thread::sleep_for(milliseconds(50));
                    service.DirectoryProgress(A);
                }
            });
        service.onStop = [stopped, layer]
        {
            *stopped = true;
            layer->join();
        };
    };
}

TEST_F(ToolSession, ProgressExtendsTheTimeout)
{
    m_options.timeoutSeconds = 1;
    const auto begun = EventQueue::Clock::now();
    const Outcome outcome = Run(DeliverSlowly(milliseconds(1500)));
    EXPECT_EQ(outcome.status, kExitNoOutcome);
    EXPECT_GE(EventQueue::Clock::now() - begun, milliseconds(2500));
}

TEST_F(ToolSession, TheWholeTimeRunsOutInSpiteOfProgress)
{
    m_options.maxTimeSeconds = 1;
    const auto begun = EventQueue::Clock::now();
    const Outcome outcome = Run(DeliverSlowly(kForever));
    const auto spent = EventQueue::Clock::now() - begun;
    EXPECT_EQ(outcome.status, kExitNoOutcome);
    EXPECT_GE(spent, seconds(1));
    EXPECT_LT(spent, seconds(20));
    EXPECT_EQ(
        m_messages.Text(),
        "corpdir: timed out while fetching directory file 'pub/directory.csv' from 192.0.2.1, "
        "24 of 48 bytes (50%): not done within 1 s (--max-time)\n"
        "hint: raise --max-time to allow more time\n");
    std::string problem;
    const std::optional<client::State> state =
        client::ReadState(m_options.outputDir + "/.directory.csv.corpdir.json", problem);
    ASSERT_TRUE(state.has_value()) << problem;
    EXPECT_EQ(state->outcome, "failed");
    EXPECT_THAT(state->reason, testing::HasSubstr("not done within 1 s (--max-time)"));
}

TEST_F(ToolSession, TheCipherListIsSetAfterEachStart)
{
    m_options.ciphers = {"0x0035", "61"};
    const FakeService::Script failing = [](FakeService& service)
    {
        service.Version(A, "edition 1\n");
        service.DirectoryFails(A);
    };
    EXPECT_EQ(Run({failing, Deliver}).status, kExitFetched);
    EXPECT_THAT(m_service.cipherLists, ElementsAre(ElementsAre(0x03000035, 0x0300003d),
                                                   ElementsAre(0x03000035, 0x0300003d)));
    m_options.ciphers.clear();
    m_service.cipherLists.clear();
    EXPECT_EQ(Run(Deliver).status, kExitFetched);
    EXPECT_THAT(m_service.cipherLists,
                ElementsAre(client::SuitesOf(client::SuiteSet::kCompatible)));
}

TEST_F(ToolSession, AStartThatFailsIsStopped)
{
    m_service.initResult = 1;
    const Thrown start = ExitErrorOf([this] { Run(Deliver); });
    EXPECT_EQ(start.status, kExitInternal);
    EXPECT_EQ(start.message, "the service could not be started (code 1)");
    m_service.initResult = 0;
    m_service.cipherResult = 1;
    EXPECT_EQ(ExitErrorOf([this] { Run(Deliver); }).message,
              "the cipher list could not be set (code 1)");
}

TEST_F(ToolSession, ALogThatCannotBeOpenedIsNamed)
{
    m_options.logDir = m_secrets.Path();
    m_options.logLevel = 1;
    m_service.initResult = ENOSPC;
    const Thrown start = ExitErrorOf([this] { Run(Deliver); });
    EXPECT_EQ(start.status, kExitLocalFile);
    EXPECT_EQ(start.message, "cannot write the log to --log-dir '" + m_secrets.Path() +
                                 "': No space left on device");
}

TEST_F(ToolSession, MemoryThatRunsOutEndsIt)
{
    m_events.Push(Event::Kind::kOutOfMemory);
    const auto begun = EventQueue::Clock::now();
    EXPECT_EQ(Run([](FakeService&) {}).status, kExitInternal);
    EXPECT_LT(EventQueue::Clock::now() - begun, seconds(60)) << "not only at the timeout";
    EXPECT_EQ(Messages(), "corpdir: out of memory\n");
}

TEST_F(ToolSession, ProgressIsShownByFile)
{
    m_progress = true;
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.Version(A, "edition 1\n");
            const unsigned int task = service.DirectoryBegins(A);
            service.DirectoryProgress(A);
            service.DirectoryArrives(A, "a,b\n", task);
        });
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_EQ(
        m_messages.Text(),
        "\r\033[K\033[Jdirectory [==========>         ]  50%  24 bytes of 48 bytes\r\033[K\033[J");
}

TEST_F(ToolSession, FailuresAreFollowedByOneHint)
{
    m_options.servers = "192.0.2.1;192.0.2.2;192.0.2.3";
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.VersionFails(A);
            service.VersionFails(B, TRAVEX_FTP_ERR_LOGIN);
            service.VersionFails(C);
        });
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(outcome.error, "all 3 servers failed");
    const std::string& text = m_messages.Text();
    EXPECT_EQ(text.substr(text.find("hint: ")),
              "hint: 192.0.2.1: check that the server is running and can be reached, and that "
              "--port 21 is right\n");
    ASSERT_EQ(outcome.attempts.size(), 3U);
    EXPECT_EQ(outcome.attempts[1].server.address, "192.0.2.2");
    EXPECT_EQ(outcome.attempts[1].failure.code, TRAVEX_FTP_ERR_LOGIN);
    EXPECT_EQ(outcome.attempts[1].failure.reason, "version refused");
}

TEST_F(ToolSession, TheServerThatGaveTheFileIsTheLastAttempt)
{
    const Outcome outcome = Run(
        [](FakeService& service)
        {
            service.VersionFails(A);
            service.Deliver(B, "edition 1");
        });
    ASSERT_EQ(outcome.attempts.size(), 2U);
    EXPECT_EQ(outcome.attempts[1].server.address, "192.0.2.2");
    EXPECT_EQ(outcome.attempts[1].failure.reason, "");
    EXPECT_EQ(outcome.error, "");
}

TEST_F(ToolSession, ANameWithoutAnAddressIsSkipped)
{
    m_options.servers = "dir.example;192.0.2.1";
    m_found = {{}, "no such name"};
    const Outcome outcome = Run(Deliver);
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_THAT(outcome.leftOut, ElementsAre("dir.example: no such name"));
    EXPECT_EQ(Messages(), "dir.example: no such name; skipped\n");
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1"));
}

TEST_F(ToolSession, NoNameWithAnAddressEndsIt)
{
    m_options.servers = "dir.example";
    m_found = {{}, "no such name"};
    const Outcome outcome = Run(Deliver);
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_THAT(outcome.leftOut, ElementsAre("dir.example: no such name"));
    EXPECT_EQ(m_messages.Text(),
              "dir.example: no such name; skipped\n"
              "corpdir: no name in --servers could be resolved: check the spelling; 'getent hosts "
              "NAME' asks this machine's resolver\n");
    EXPECT_THAT(m_service.requests, IsEmpty());
}

// The service is stopped within the observer, which must not be called within the request.
TEST_F(ToolSession, AVersionThatIsUnchangedIsNotFetchedWhenOnlyAChangeIsWanted)
{
    EXPECT_EQ(Run(Deliver).status, kExitFetched);
    m_options.ifChanged = true;
    std::thread layer;
    const auto check = [&layer](const std::string& version)
    {
        return [&layer, version](FakeService& service)
        {
            layer = std::thread(
                [&service, version]
                {
                    service.Version(A, version + "\n");
                    if (service.running)
                    {
                        service.DirectoryArrives(A, version, service.DirectoryBegins(A));
                    }
                });
        };
    };
    const Outcome unchanged = Run(check("edition 1"));
    layer.join();
    EXPECT_EQ(unchanged.status, kExitFetched);
    EXPECT_TRUE(unchanged.unchanged);
    EXPECT_EQ(unchanged.version, "edition 1");
    EXPECT_EQ(unchanged.bytes, 0U);
    ASSERT_EQ(unchanged.attempts.size(), 1U);
    EXPECT_EQ(unchanged.attempts[0].server.address, A);
    EXPECT_EQ(unchanged.attempts[0].failure.reason, "");

    const Outcome changed = Run(check("edition 2"));
    layer.join();
    EXPECT_EQ(changed.status, kExitFetched);
    EXPECT_FALSE(changed.unchanged);
    EXPECT_EQ(changed.version, "edition 2");
    EXPECT_EQ(changed.bytes, 9U);
    EXPECT_EQ(Local("directory.csv"), "edition 2");
    EXPECT_EQ(Messages(), "");
}

// Without --if-changed a fetch is a fetch, also of an equal file.
TEST_F(ToolSession, AnEqualFileCountsAsFetched)
{
    EXPECT_EQ(Run(Deliver).status, kExitFetched);
    const Outcome again = Run(Deliver);
    EXPECT_EQ(again.status, kExitFetched);
    EXPECT_FALSE(again.unchanged);
    EXPECT_EQ(again.bytes, 9U);
}

TEST_F(ToolSession, AStateThatCannotBeUsedIsAWarning)
{
    m_options.ifChanged = true;
    WriteFile(m_directory.Path() + "/.directory.csv.corpdir.json", "{");
    const Outcome outcome = Run(Deliver);
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_FALSE(outcome.unchanged);
    EXPECT_THAT(Messages(), testing::StartsWith("warning: '" + m_directory.Path() +
                                                "/.directory.csv.corpdir.json' is not used: "));
}

TEST(ToolEvents, EndpointsLoseTheirPort)
{
    EXPECT_EQ(client::AddressOfEndpoint("192.0.2.1:21"), "192.0.2.1");
    EXPECT_EQ(client::AddressOfEndpoint("[2001:db8::1]:21"), "2001:db8::1");
    EXPECT_EQ(client::AddressOfEndpoint(""), "");
}

TEST(ToolEvents, AFailureKeepsItsStructure)
{
    EventQueue events;
    tagTRAVEX_FTP_S_OBSERVATION seen = {};
    seen.ulKind = TRAVEX_FTP_OBSERVED_FAILED;
    seen.pcServer = "192.0.2.1:21";
    seen.pcServerFile = "f";
    seen.ulRet = TRAVEX_FTP_ERR_LOGIN;
    seen.ulStep = TRAVEX_FTP_STEP_LOGIN;
    seen.ulReply = 530;
    seen.ulDetail = TRAVEX_FTP_DETAIL_CERT_NAME;
    seen.pcReason = "login refused: 530 no";
    events.PushObservation(seen);
    const client::TransferEvent event = events.WaitUntil({}).transfer;
    EXPECT_EQ(event.code, TRAVEX_FTP_ERR_LOGIN);
    EXPECT_EQ(event.step, TRAVEX_FTP_STEP_LOGIN);
    EXPECT_EQ(event.reply, 530U);
    EXPECT_EQ(event.detail, TRAVEX_FTP_DETAIL_CERT_NAME);
    EXPECT_EQ(event.reason, "login refused: 530 no");
}

TEST(ToolEvents, SignalsStayWhenTheObservationsAreTaken)
{
    EventQueue events;
    tagTRAVEX_FTP_S_OBSERVATION seen = {};
    seen.pcServer = "192.0.2.1:21";
    seen.pcServerFile = "v";
    seen.pcReason = "";
    seen.ulKind = TRAVEX_FTP_OBSERVED_SUCCESS;
    events.PushObservation(seen);
    events.Push(Event::Kind::kSignal, SIGINT);
    seen.ulKind = TRAVEX_FTP_OBSERVED_FAILED;
    events.PushObservation(seen);
    const std::vector<client::TransferEvent> taken = events.TakeObservations();
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_EQ(taken[0].kind, client::EventKind::kTransferred);
    EXPECT_EQ(taken[1].kind, client::EventKind::kFailed);
    EXPECT_EQ(events.WaitUntil({}).number, SIGINT);
    EXPECT_EQ(events.WaitUntil({}).kind, Event::Kind::kDeadline);
}

// An event that came before the other wait must not be missed.
TEST(ToolEvents, WakesForEachEventAndForEarlierOnes)
{
    EventQueue events;
    int wakes = 0;
    const auto wake = [&wakes] { ++wakes; };
    events.SetWake(wake);
    EXPECT_EQ(wakes, 0);
    events.Push(Event::Kind::kSignal, SIGINT);
    EXPECT_EQ(wakes, 1);
    events.SetWake(wake);
    EXPECT_EQ(wakes, 2);
    (void)events.WaitUntil({});
    events.SetWake(wake);
    EXPECT_EQ(wakes, 2);
}

}  // namespace
}  // namespace corpdir_tool
