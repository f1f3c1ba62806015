// The session of `fetch`, with a scripted service.
#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>

#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "commands/session.h"
#include "fake_layers.h"
#include "fake_service.h"
#include "parts_support.h"
#include "suites.h"

namespace corpdir_tool
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The result of each transfer from a server. Codes: tagTRAVEX_FTP_RESULT.
struct ServerScript
{
    unsigned int refuseRequest = 0;  // the request itself is refused, observed
    bool refuseUnseen = false;       // the same without an observation
    unsigned int versionFails = 0;
    int versionFailures = 1000;  // how often
    std::string version = "2024-01-01\n";
    bool hangVersion = false;
    unsigned int refuseDirectory = 0;
    unsigned int directoryFails = 0;
    bool hangDirectory = false;
    bool versionFailsLate = false;  // a repeated check fails while the directory file comes
};

// Rotates as the service does: after each version failure to the next server, a single server is
// tried twice, and the rotation ends with the list.
class RotatingService final : public FakeService
{
public:
    ~RotatingService()
    {
        CorpDirUninit();
    }

    void WaitUntilHanging()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_hanging; });
    }

    std::map<std::string, ServerScript> scripts;

private:
    unsigned int Refuse() override
    {
        const std::string& all = requests.back();
        m_current = all.substr(0, all.find(';'));
        m_working = all.find(';') == std::string::npos ? all : all.substr(all.find(';') + 1);
        const ServerScript& script = scripts[m_current];
        if (script.refuseUnseen)
        {
            return 7;
        }
        if (script.refuseRequest != 0)
        {
            Observe(TRAVEX_FTP_OBSERVED_REFUSED, "", script.refuseRequest, "refused: bad suite");
            return 1;
        }
        return 0;
    }

    void Play() override
    {
        while (!Version())
        {
            if (m_working.empty())
            {
                return;  // the pass ends without a retry
            }
            const std::size_t end = m_working.find(';');
            m_current = m_working.substr(0, end);
            m_working = end == std::string::npos ? "" : m_working.substr(end + 1);
        }
        const std::string version = scripts[m_current].version;
        if (version.find('\n') >= 5)
        {
            Directory();
        }
    }

    bool Version()
    {
        ServerScript& script = scripts[m_current];
        if (script.hangVersion)
        {
            Hang();
            return true;
        }
        if (script.versionFails != 0 && script.versionFailures-- > 0)
        {
            Observe(TRAVEX_FTP_OBSERVED_FAILED, lastRequest.szVersionServerFile,
                    script.versionFails, "version refused");
            m_callback(1, 1, nullptr, nullptr);
            return false;
        }
        Store(lastRequest.szVersionLocalDir, lastRequest.szVersionLocalFileName, script.version);
        Observe(TRAVEX_FTP_OBSERVED_SUCCESS, lastRequest.szVersionServerFile, 0, "");
        return true;
    }

    void Directory()
    {
        const ServerScript& script = scripts[m_current];
        if (script.refuseDirectory != 0)
        {
            Observe(TRAVEX_FTP_OBSERVED_REFUSED, "", script.refuseDirectory, "directory not begun");
            return;
        }
        Observe(TRAVEX_FTP_OBSERVED_PROGRESS, lastRequest.szCorpDirServerFile, 0, "");
        if (script.versionFailsLate)
        {
            Observe(TRAVEX_FTP_OBSERVED_FAILED, lastRequest.szVersionServerFile,
                    TRAVEX_FTP_ERR_CONNECT, "late");
        }
        if (script.hangDirectory)
        {
            Hang();
            return;
        }
        if (script.directoryFails != 0)
        {
            Observe(TRAVEX_FTP_OBSERVED_FAILED, lastRequest.szCorpDirServerFile,
                    script.directoryFails, "directory refused");
            m_callback(1, 1, nullptr, nullptr);
            return;
        }
        Observe(TRAVEX_FTP_OBSERVED_SUCCESS, lastRequest.szCorpDirServerFile, 0, "");
        m_callback(1, 0, nullptr, nullptr);
    }

    static void Store(const std::string& directory, const std::string& name,
                      const std::string& text)
    {
        std::ofstream(directory + name, std::ios::binary) << text;
    }

    void Observe(unsigned int kind, const char* file, unsigned int code, const char* reason) const
    {
        const bool known = kind != TRAVEX_FTP_OBSERVED_REFUSED;
        const std::string endpoint =
            m_current.find(':') == std::string::npos ? m_current + ":21" : "[" + m_current + "]:21";
        Layers().Observe(kind, known ? 1U : 0U, known ? endpoint : "", file, code, reason);
    }

    void Hang()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_hanging = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_stop; });
    }

    std::string m_current;
    std::string m_working;
    bool m_hanging = false;
};

class ToolSession : public testing::Test
{
protected:
    ToolSession()
    {
        m_options.user = "phone";
        m_options.versionFile = "pub/version.txt";
        m_options.directoryFile = "pub/directory.csv";
        m_options.outputDir = m_directory.Path();
        for (const char byte : std::string("secret"))
        {
            EXPECT_TRUE(m_password.Append(byte));
        }
    }

    ~ToolSession() override
    {
        EXPECT_EQ(Layers().observer, nullptr) << "the observer was left behind";
        EXPECT_EQ(m_service.starts, m_service.stops) << "each start wants a stop";
    }

    Outcome Run(const std::string& list)
    {
        m_options.servers = list;
        const Plan plan = MakePlan(m_options, SomeCiphers);
        const Lookup lookup = [](const std::string&, int) {
            return LookupResult{{"192.0.2.10", "192.0.2.11"}, ""};
        };
        const Terminal terminal(m_messages.Get(), m_progress ? 60 : 0, false);
        Report report({false, m_progress}, terminal);
        client::ServerLookup servers(plan.entries, plan.family, lookup);
        Session session(m_service, plan, servers.Wait().servers, m_password, m_events, report);
        return session.Run(m_deadline);
    }

    // Calls the function once the service hangs; returns the exit status.
    int RunUntilHanging(const std::string& list, const std::function<void()>& action)
    {
        std::thread other(
            [this, &action]
            {
                m_service.WaitUntilHanging();
                action();
            });
        const Outcome outcome = Run(list);
        other.join();
        return outcome.status;
    }

    int RunUntilSignal(const std::string& list)
    {
        return RunUntilHanging(list, [this] { m_events.Push(EventKind::kSignal, SIGTERM); });
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

    TemporaryDirectory m_directory;
    Options m_options;
    Secret m_password;
    EventQueue m_events;
    EventQueue::Clock::time_point m_deadline = EventQueue::Clock::now() + std::chrono::minutes(1);
    TextStream m_output;
    TextStream m_messages;
    bool m_progress = false;
    RotatingService m_service;
};

TEST_F(ToolSession, TheFirstServerDelivers)
{
    const Outcome outcome = Run("192.0.2.1;192.0.2.2");
    EXPECT_EQ(outcome.status, kExitFetched);
    EXPECT_EQ(outcome.version, "2024-01-01");
    EXPECT_EQ(outcome.bytes, 24U);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2"));
    EXPECT_EQ(Messages(), "");
}

TEST_F(ToolSession, TheRequestHoldsWhatWasAskedFor)
{
    m_options.port = 2121;
    m_options.localIp = "192.0.2.100";
    m_options.versionName = "v";
    Run("192.0.2.1");
    const tag_CORPDIR_DOWNLOADINFO& request = m_service.lastRequest;
    EXPECT_STREQ(request.szFtpCtrlInfo, "ca=system");
    EXPECT_STREQ(request.szUserName, "phone");
    EXPECT_STREQ(request.szPassword, "secret");
    EXPECT_STREQ(request.szVersionServerFile, "pub/version.txt");
    EXPECT_STREQ(request.szCorpDirServerFile, "pub/directory.csv");
    EXPECT_EQ(request.szVersionLocalDir, m_directory.Path() + "/");
    EXPECT_EQ(request.szCorpDirLocalDir, m_directory.Path() + "/");
    EXPECT_STREQ(request.szVersionLocalFileName, "v");
    EXPECT_STREQ(request.szCorpDirLocalFileName, "directory.csv");
    EXPECT_EQ(request.ulPort, 2121U);
    EXPECT_EQ(request.ulFtpMode, 0U);
    EXPECT_EQ(request.ulCertVerify, 1U);
}

TEST_F(ToolSession, TheNamesOfEachAddressAreRegistered)
{
    m_service.scripts["192.0.2.10"].directoryFails = TRAVEX_FTP_ERR_FILE;
    EXPECT_EQ(Run("dir.example;192.0.2.11;192.0.2.12").status, kExitFetched);
    EXPECT_STREQ(m_service.lastRequest.szFtpCtrlInfo, "ca=system") << "names go to the layer alone";
    EXPECT_THAT(Layers().names, ElementsAre("192.0.2.11=dir.example", "192.0.2.11=192.0.2.11",
                                            "192.0.2.12=192.0.2.12"))
        << "the servers of the request that came last";
}

TEST_F(ToolSession, NamesToVerifyTakeThePlaceOfTheListedOnes)
{
    m_options.verifyNames = {"a.example", "b.example"};
    EXPECT_EQ(Run("dir.example").status, kExitFetched);
    EXPECT_THAT(Layers().names, ElementsAre("192.0.2.10=a.example", "192.0.2.10=b.example",
                                            "192.0.2.11=a.example", "192.0.2.11=b.example"));
}

TEST_F(ToolSession, NamesThatCannotBeRegisteredEndIt)
{
    Layers().nameResult = TRAVEX_FTP_ERR_SYSTEM;
    const Thrown thrown = ExitErrorOf([this] { Run("192.0.2.1"); });
    Layers().nameResult = 0;
    EXPECT_EQ(thrown.status, kExitInternal);
    EXPECT_EQ(thrown.message, "the names of the servers could not be registered (code 7)");
    EXPECT_THAT(m_service.requests, IsEmpty());
}

TEST_F(ToolSession, LimitsAreSetByFunction)
{
    m_options.maxSize = 5000;
    m_options.connectTimeout = 3600;
    EXPECT_EQ(Run("192.0.2.1").status, kExitFetched);
    EXPECT_EQ(Layers().limits.ullFileBytes, 5000U);
    EXPECT_EQ(Layers().limits.ulConnectMs, 3600000U);
    tagTRAVEX_FTP_S_LIMITS others = Layers().limits;
    others.ullFileBytes = 0;
    others.ulConnectMs = 0;
    const tagTRAVEX_FTP_S_LIMITS none = {};
    EXPECT_EQ(memcmp(&others, &none, sizeof none), 0) << "the operator's";

    m_options.maxSize = 0;
    m_options.connectTimeout = 0;
    EXPECT_EQ(Run("192.0.2.1").status, kExitFetched);
    EXPECT_EQ(memcmp(&Layers().limits, &none, sizeof none), 0);
}

TEST_F(ToolSession, LimitsThatCannotBeSetEndIt)
{
    Layers().limitsResult = TRAVEX_FTP_ERR_SYSTEM;
    const Thrown thrown = ExitErrorOf([this] { Run("192.0.2.1"); });
    Layers().limitsResult = 0;
    EXPECT_EQ(thrown.status, kExitInternal);
    EXPECT_EQ(thrown.message, "the limits could not be set (code 7)");
}

TEST_F(ToolSession, PlainAndUnverifiedReachTheRequest)
{
    m_options.plain = true;
    Run("192.0.2.1");
    EXPECT_EQ(m_service.lastRequest.ulFtpMode, 1U);
    EXPECT_EQ(m_service.lastRequest.ulCertVerify, 0U);
    EXPECT_STREQ(m_service.lastRequest.szFtpCtrlInfo, "system");
    m_options.plain = false;
    m_options.noVerify = true;
    Run("192.0.2.1");
    EXPECT_EQ(m_service.lastRequest.ulFtpMode, 0U);
    EXPECT_EQ(m_service.lastRequest.ulCertVerify, 0U);
}

TEST_F(ToolSession, TheLogSettingsReachTheService)
{
    m_options.logDir = m_directory.Path();
    m_options.logLevel = 1;
    Run("192.0.2.1");
    EXPECT_EQ(m_service.lastLog.szLogDir, m_directory.Path());
    EXPECT_EQ(m_service.lastLog.ulLogLevel, 1U);
}

TEST_F(ToolSession, EachServerThatFailsIsNamedAsTheServiceMovesOn)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    m_service.scripts["192.0.2.10"].versionFails = TRAVEX_FTP_ERR_LOGIN;
    EXPECT_EQ(Run("192.0.2.1;dir.example").status, kExitFetched);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.10;192.0.2.11"));
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying next server\n"
              "192.0.2.10 (dir.example): version refused; trying next server\n");
}

TEST_F(ToolSession, AfterTheLastServerNoneIsLeft)
{
    for (const char* address : {"192.0.2.1", "2001:db8::2", "192.0.2.3"})
    {
        m_service.scripts[address].versionFails = TRAVEX_FTP_ERR_CONNECT;
    }
    EXPECT_EQ(Run("192.0.2.1;2001:db8::2;192.0.2.3").status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying next server\n"
              "2001:db8::2: version refused; trying next server\n"
              "192.0.2.3: version refused\n"
              "corpdir: all 3 servers failed\n");
    EXPECT_EQ(m_service.requests.size(), 1U);
}

TEST_F(ToolSession, TheOnlyServerIsAskedTwice)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    EXPECT_EQ(Run("192.0.2.1").status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying again\n"
              "192.0.2.1: version refused\n"
              "corpdir: the server failed\n");
}

TEST_F(ToolSession, TheOnlyServerMayRecover)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    m_service.scripts["192.0.2.1"].versionFailures = 1;
    EXPECT_EQ(Run("192.0.2.1").status, kExitFetched);
}

TEST_F(ToolSession, ADirectoryFileThatFailsIsAskedFromTheNextServer)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    m_service.scripts["192.0.2.2"].directoryFails = TRAVEX_FTP_ERR_PARTIAL;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2;192.0.2.3;192.0.2.4").status, kExitFetched);
    EXPECT_THAT(m_service.requests,
                ElementsAre("192.0.2.1;192.0.2.2;192.0.2.3;192.0.2.4", "192.0.2.3;192.0.2.4"));
    EXPECT_EQ(Messages(),
              "192.0.2.1: version refused; trying next server\n"
              "192.0.2.2: pub/directory.csv: directory refused; trying next server\n");
}

TEST_F(ToolSession, ADirectoryFileThatFailsEverywhereLeavesNoServer)
{
    m_service.scripts["192.0.2.1"].directoryFails = TRAVEX_FTP_ERR_PARTIAL;
    m_service.scripts["192.0.2.2"].directoryFails = TRAVEX_FTP_ERR_FILE;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitNoServer);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2"));
    EXPECT_THAT(Messages(), HasSubstr("192.0.2.2: pub/directory.csv: directory refused\n"));
}

TEST_F(ToolSession, TheRemainingServersAreRotatedAgain)
{
    m_service.scripts["192.0.2.1"].directoryFails = TRAVEX_FTP_ERR_PARTIAL;
    m_service.scripts["192.0.2.2"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    m_service.scripts["192.0.2.3"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2;192.0.2.3").status, kExitNoServer);
    EXPECT_EQ(Messages(),
              "192.0.2.1: pub/directory.csv: directory refused; trying next server\n"
              "192.0.2.2: version refused; trying next server\n"
              "192.0.2.3: version refused\n"
              "corpdir: all 3 servers failed\n");
}

TEST_F(ToolSession, ADirectoryTransferThatDoesNotBeginCountsAsAFailure)
{
    m_service.scripts["192.0.2.1"].refuseDirectory = TRAVEX_FTP_ERR_SYSTEM;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitFetched);
    EXPECT_EQ(Messages(), "192.0.2.1: directory not begun; trying next server\n");
}

TEST_F(ToolSession, ARequestThatIsNotStartedIsRepeatedWithTheNextServer)
{
    m_service.scripts["192.0.2.1"].refuseUnseen = true;
    m_service.scripts["192.0.2.2"].refuseRequest = TRAVEX_FTP_ERR_SYSTEM;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2;192.0.2.3").status, kExitFetched);
    EXPECT_THAT(m_service.requests,
                ElementsAre("192.0.2.1;192.0.2.2;192.0.2.3", "192.0.2.2;192.0.2.3", "192.0.2.3"));
    EXPECT_EQ(Messages(),
              "192.0.2.1: the request could not be started (code 7); trying next server\n"
              "192.0.2.2: refused: bad suite; trying next server\n");
}

TEST_F(ToolSession, NoRequestStartedLeavesNoServer)
{
    m_service.scripts["192.0.2.1"].refuseUnseen = true;
    EXPECT_EQ(Run("192.0.2.1").status, kExitNoServer);
}

TEST_F(ToolSession, ARefusedArgumentIsNotTriedElsewhere)
{
    for (const unsigned int code :
         {TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_ERR_CIPHER, TRAVEX_FTP_ERR_TRUST})
    {
        m_service.scripts["192.0.2.1"].refuseRequest = code;
        EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitArguments);
    }
    EXPECT_EQ(m_service.requests.size(), 3U);
    EXPECT_THAT(Messages(), HasSubstr("corpdir: --ciphers: refused: bad suite\n"));
    EXPECT_THAT(Messages(), HasSubstr("corpdir: --ca: refused: bad suite\n"));
}

TEST_F(ToolSession, ARefusedArgumentOfTheDirectoryTransferEndsIt)
{
    m_service.scripts["192.0.2.1"].refuseDirectory = TRAVEX_FTP_ERR_PARAM;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitArguments);
}

TEST_F(ToolSession, AFileThatCannotBeWrittenEndsIt)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_LOCAL_FILE;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitLocalFile);
    m_service.scripts["192.0.2.1"].versionFails = 0;
    m_service.scripts["192.0.2.1"].directoryFails = TRAVEX_FTP_ERR_LOCAL_FILE;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitLocalFile);
}

TEST_F(ToolSession, AnInvalidVersionEndsIt)
{
    m_service.scripts["192.0.2.1"].version = "1.2\nlater lines do not count\n";
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitBadVersion);
    EXPECT_EQ(Messages(), "corpdir: version file '" + m_directory.Path() +
                              "/version.txt' from 192.0.2.1 is not valid: its first line "
                              "'1.2' is shorter than 5 bytes\n");
}

TEST_F(ToolSession, ALateVersionFailureDoesNotMatter)
{
    m_service.scripts["192.0.2.1"].versionFailsLate = true;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitFetched);
    EXPECT_EQ(Messages(), "");
}

TEST_F(ToolSession, ASignalStopsTheVersionFile)
{
    m_service.scripts["192.0.2.1"].hangVersion = true;
    EXPECT_EQ(RunUntilSignal("192.0.2.1"), 128 + SIGTERM);
    EXPECT_EQ(Messages(),
              "corpdir: stopped by SIGTERM while fetching version file 'pub/version.txt' from "
              "192.0.2.1: 0 bytes\n");
}

TEST_F(ToolSession, ASignalStopsTheDirectoryFile)
{
    m_service.scripts["192.0.2.2"].hangDirectory = true;
    EXPECT_EQ(RunUntilSignal("192.0.2.2"), 128 + SIGTERM);
    EXPECT_EQ(Messages(),
              "corpdir: stopped by SIGTERM while fetching directory file 'pub/directory.csv' from "
              "192.0.2.2: 24 of 48 bytes (50%)\n");
}

TEST_F(ToolSession, TimeRunsOut)
{
    m_service.scripts["192.0.2.1"].hangVersion = true;
    m_deadline = EventQueue::Clock::now();
    EXPECT_EQ(Run("192.0.2.1").status, kExitNoOutcome);
}

TEST_F(ToolSession, TheMessageSaysWhatWasGoingOn)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    m_service.scripts["192.0.2.10"].hangDirectory = true;
    EXPECT_EQ(
        RunUntilHanging("192.0.2.1;dir.example", [this] { m_events.Push(EventKind::kDeadline); }),
        kExitNoOutcome);
    EXPECT_THAT(Messages(),
                HasSubstr("corpdir: timed out after 120 s while fetching directory file "
                          "'pub/directory.csv' from 192.0.2.10 (dir.example): 24 of 48 bytes"));
}

TEST_F(ToolSession, TheCipherListIsSetAfterEachStart)
{
    m_options.ciphers = {"0x0035", "61"};
    m_service.scripts["192.0.2.1"].directoryFails = TRAVEX_FTP_ERR_PARTIAL;
    EXPECT_EQ(Run("192.0.2.1;192.0.2.2").status, kExitFetched);
    EXPECT_THAT(m_service.cipherLists, ElementsAre(ElementsAre(0x03000035, 0x0300003d),
                                                   ElementsAre(0x03000035, 0x0300003d)));
    m_options.ciphers.clear();
    m_service.cipherLists.clear();
    EXPECT_EQ(Run("192.0.2.2").status, kExitFetched);
    EXPECT_THAT(m_service.cipherLists,
                ElementsAre(client::SuitesOf(client::SuiteSet::kCompatible)));
}

TEST_F(ToolSession, AStartThatFailsIsStopped)
{
    m_service.initResult = 9;
    const Thrown start = ExitErrorOf([this] { Run("192.0.2.1"); });
    EXPECT_EQ(start.status, kExitInternal);
    EXPECT_EQ(start.message, "the service could not be started (code 9)");
    m_service.initResult = 0;
    m_service.cipherResult = 1;
    m_options.ciphers = {"53"};
    EXPECT_EQ(ExitErrorOf([this] { Run("192.0.2.1"); }).message,
              "the cipher list could not be set (code 1)");
}

TEST_F(ToolSession, MemoryThatRunsOutEndsIt)
{
    m_service.scripts["192.0.2.1"].hangVersion = true;
    m_events.Push(EventKind::kOutOfMemory);
    // Pushed before the start, which discards only events of the service.
    EXPECT_EQ(Run("192.0.2.1").status, kExitInternal);
}

TEST_F(ToolSession, ProgressIsShownByFile)
{
    m_progress = true;
    EXPECT_EQ(Run("192.0.2.1").status, kExitFetched);
    EXPECT_EQ(
        m_messages.Text(),
        "\r\033[K\033[Jdirectory [==========>         ]  50%  24 bytes of 48 bytes\r\033[K\033[J");
}

TEST_F(ToolSession, AFailureIsFollowedByAdviceOnceForEachKind)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    m_service.scripts["192.0.2.2"].versionFails = TRAVEX_FTP_ERR_LOGIN;
    m_service.scripts["192.0.2.3"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    const Outcome outcome = Run("192.0.2.1;192.0.2.2;192.0.2.3");
    EXPECT_EQ(outcome.status, kExitNoServer);
    EXPECT_EQ(outcome.error, "all 3 servers failed");
    const std::string text = m_messages.Text();
    EXPECT_EQ(text.substr(text.find("hint: ")),
              "hint: check that the server is running and that --port 21 is right\n"
              "hint: check --user and the password\n");
    ASSERT_EQ(outcome.attempts.size(), 3U);
    EXPECT_EQ(outcome.attempts[1].server.address, "192.0.2.2");
    EXPECT_EQ(outcome.attempts[1].failure.code, TRAVEX_FTP_ERR_LOGIN);
    EXPECT_EQ(outcome.attempts[1].failure.reason, "version refused");
}

TEST_F(ToolSession, TheServerThatGaveTheFileIsTheLastAttempt)
{
    m_service.scripts["192.0.2.1"].versionFails = TRAVEX_FTP_ERR_CONNECT;
    const Outcome outcome = Run("192.0.2.1;192.0.2.2");
    ASSERT_EQ(outcome.attempts.size(), 2U);
    EXPECT_EQ(outcome.attempts[1].server.address, "192.0.2.2");
    EXPECT_EQ(outcome.attempts[1].failure.reason, "");
    EXPECT_EQ(outcome.error, "");
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
    const Event event = events.WaitUntil({});
    EXPECT_EQ(event.code, TRAVEX_FTP_ERR_LOGIN);
    EXPECT_EQ(event.step, TRAVEX_FTP_STEP_LOGIN);
    EXPECT_EQ(event.reply, 530U);
    EXPECT_EQ(event.detail, TRAVEX_FTP_DETAIL_CERT_NAME);
    EXPECT_EQ(event.reason, "login refused: 530 no");
}

TEST(ToolEvents, SignalsOutliveAService)
{
    EventQueue events;
    events.Push(EventKind::kDelivered);
    events.Push(EventKind::kSignal, SIGINT);
    events.Push(EventKind::kFailed);
    const std::vector<Event> taken = events.TakeServiceEvents();
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_EQ(taken[0].kind, EventKind::kDelivered);
    EXPECT_EQ(taken[1].kind, EventKind::kFailed);
    EXPECT_EQ(events.WaitUntil({}).number, SIGINT);
    EXPECT_EQ(events.WaitUntil({}).kind, EventKind::kDeadline);
}

}  // namespace
}  // namespace corpdir_tool
