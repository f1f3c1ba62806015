// The watcher, with a scripted service.
#include <gmock/gmock.h>
#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

#include "captured_log.h"
#include "commands/watcher.h"
#include "fake_service.h"
#include "local_files.h"
#include "notify_receiver.h"
#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::FileExists;
using support::FilesIn;
using support::ReadFile;
using support::WriteFile;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

using Script = FakeService::Script;

constexpr seconds kPatience{20};

const char A[] = "192.0.2.1";
const char B[] = "192.0.2.2";
const char C[] = "192.0.2.3";

// Stops a watch that waits for something that does not come.
class Guard
{
public:
    explicit Guard(EventQueue& events) : m_thread([this, &events] { Watch(events); }) {}
    ~Guard()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_over = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    void Watch(EventQueue& events)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_changed.wait_for(lock, kPatience, [this] { return m_over; }))
        {
            ADD_FAILURE() << "the watch did not end";
            events.Push(Event::Kind::kSignal, SIGTERM);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_over = false;
    std::thread m_thread;
};

class ToolWatcher : public testing::Test
{
protected:
    ToolWatcher()
    {
        Layers() = {};
        m_options.servers = "192.0.2.1;192.0.2.2";
        m_options.user = "phone";
        m_options.versionFile = "version.txt";
        m_options.directoryFile = "directory.csv";
        m_options.outputDir = m_directory.Path();
        m_options.retrySeconds = 3600;
        WriteFile(m_secrets.Path() + "/password", "old");
        (void)unsetenv("NOTIFY_SOCKET");
    }

    ~ToolWatcher() override
    {
        g_LogMode = 0;
        EXPECT_EQ(Layers().observer, nullptr) << "the observer was left behind";
        EXPECT_FALSE(m_service.running);
        EXPECT_THAT(m_output->Missing(), IsEmpty()) << m_output->Text();
        for (const std::string& name : FilesIn(m_directory.Path()))
        {
            EXPECT_NE(name.rfind(".corpdir-", 0), 0U) << name << " was left behind";
        }
    }

    // A script: both files arrive.
    static Script Deliver(const std::string& server)
    {
        return [server](FakeService& service) { service.Deliver(server, "edition 1"); };
    }

    // After the line, while it is being written: the service goes on, or a request comes.
    void When(const std::string& line, const std::function<void()>& action)
    {
        m_output->When(line, action);
    }
    void When(const std::string& line, Event::Kind kind)
    {
        When(line, [this, kind] { m_events.Push(kind); });
    }
    void StopWhen(const std::string& line)
    {
        When(line, [this] { Stop(); });
    }
    void Stop()
    {
        m_events.Push(Event::Kind::kSignal, SIGTERM);
    }

    // Runs until it is stopped. One script for each request.
    void Watch(std::vector<Script> scripts)
    {
        EXPECT_EQ(Run(std::move(scripts)), SIGTERM);
    }

    int Run(std::vector<Script> scripts)
    {
        m_service.scripts = std::move(scripts);
        const Lookup lookup = [this](const std::string&, int)
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return m_found[std::min(m_lookups++, m_found.size() - 1)];
        };
        const ServiceManager manager;
        const Guard guard(m_events);
        const WatchSettings settings = Settings();
        RunLog log("watch", settings.plan);
        Watcher watcher(
            m_service, settings, [this] { return m_reload(); }, lookup, log, m_events,
            m_output->Get(), manager);
        return watcher.Run();
    }

    WatchSettings Settings() const
    {
        return {MakePlan(m_options, SomeCiphers),
                std::make_shared<PasswordSource>(m_secrets.Path() + "/password")};
    }

    // The output lines without their times.
    std::vector<std::string> Lines() const
    {
        static const std::regex time(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ )");
        static const std::regex field(R"(^\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ",)");
        std::istringstream text(m_output->Text());
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);)
        {
            EXPECT_TRUE(std::regex_search(line, line[0] == '{' ? field : time)) << line;
            lines.push_back(std::regex_replace(std::regex_replace(line, time, ""), field, "{"));
        }
        return lines;
    }

    std::string Downloaded(const std::string& version, const std::string& server) const
    {
        return "downloaded " + m_directory.Path() + "/directory.csv, version '" + version +
               "', 9 bytes from " + server;
    }

    TemporaryDirectory m_directory;
    TemporaryDirectory m_secrets;
    Options m_options;
    EventQueue m_events;
    std::unique_ptr<FollowedStream> m_output = std::make_unique<FollowedStream>();
    FakeService m_service;
    std::function<WatchSettings()> m_reload = [this] { return Settings(); };
    std::vector<LookupResult> m_found{{{A, B}, ""}};

private:
    std::mutex m_mutex;
    std::size_t m_lookups = 0;
};

TEST_F(ToolWatcher, ReportsEachCheckAndEachNewVersion)
{
    When("downloaded", [this] { m_service.Version(A, "edition 1\n"); });
    When("unchanged", [this] { m_service.Deliver(A, "edition 2"); });
    StopWhen("edition 2', 9 bytes");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1", "new version 'edition 1' at 192.0.2.1",
                                     Downloaded("edition 1", A), "checking 192.0.2.1",
                                     "unchanged: version 'edition 1' at 192.0.2.1",
                                     "checking 192.0.2.1", "new version 'edition 2' at 192.0.2.1",
                                     Downloaded("edition 2", A), "stopped by SIGTERM"));
    EXPECT_EQ(m_service.requests.size(), 1U) << "the service repeats its checks by itself";
    EXPECT_GE(m_service.stops, m_service.starts);
}

TEST_F(ToolWatcher, ReportsTheNextServer)
{
    StopWhen("downloaded");
    Watch({[](FakeService& service)
           {
               service.VersionFails(A);
               service.Deliver(B, "edition 1");
           }});
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1",
                                     "failed: version.txt from 192.0.2.1: version refused",
                                     "next server 192.0.2.2", "checking 192.0.2.2",
                                     "new version 'edition 1' at 192.0.2.2",
                                     Downloaded("edition 1", B), "stopped by SIGTERM"));
}

TEST_F(ToolWatcher, EventsAreJsonObjectsWhenAskedFor)
{
    m_options.json = true;
    m_options.servers = "dir.example";
    StopWhen("downloaded");
    Watch({[](FakeService& service)
           {
               service.VersionFails(A);
               service.Version(B, "edition\t1\xff\n");
               service.DirectoryArrives(B, "a,b\n", service.DirectoryBegins(B));
           }});
    const std::string first = R"("server":"192.0.2.1","name":"dir.example")";
    const std::string server = R"("server":"192.0.2.2","name":"dir.example")";
    const std::string version = R"("version":"edition\t1)"
                                "\xef\xbf\xbd\"";
    EXPECT_THAT(
        Lines(),
        ElementsAre(
            R"({"event":"checking",)" + first + "}",
            R"({"event":"failed",)" + first +
                R"(,"remote_file":"version.txt","code":16,"step":0,"reply":0,"reason":"version refused"})",
            R"({"event":"next_server",)" + server + "}", R"({"event":"checking",)" + server + "}",
            R"({"event":"new_version",)" + server + "," + version + "}",
            R"({"event":"downloaded",)" + server + "," + version + R"(,"file":")" +
                m_directory.Path() + R"(/directory.csv","bytes":4})",
            R"({"event":"stopped","signal":"SIGTERM"})"));
}

TEST_F(ToolWatcher, QuietLeavesFailures)
{
    m_options.quiet = true;
    StopWhen("retrying");
    Watch({[](FakeService& service)
           {
               service.VersionFails(A);
               service.Version(B, "oops\n");
           }});
    EXPECT_THAT(Lines(), ElementsAre("failed: version.txt from 192.0.2.1: version refused",
                                     "failed: version.txt from 192.0.2.2: the version file is not "
                                     "valid: its first line 'oops' is shorter than 5 bytes",
                                     "all servers failed", "retrying in 3600 s"));
}

TEST_F(ToolWatcher, AVersionFileThatIsNotValidIsAnEvent)
{
    const Script bad = [](FakeService& service) { service.Version(A, "oo\x01s\n"); };
    StopWhen("downloaded");
    Watch({bad, Deliver(B)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1"));
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1",
                                     "failed: version.txt from 192.0.2.1: the version file is not "
                                     "valid: its first line 'oo\\x01s' is shorter than 5 bytes",
                                     "next server 192.0.2.2", "checking 192.0.2.2",
                                     "new version 'edition 1' at 192.0.2.2",
                                     Downloaded("edition 1", B), "stopped by SIGTERM"));
}

TEST_F(ToolWatcher, AVersionFileThatIsNotValidIsAJsonObject)
{
    m_options.json = true;
    const Script bad = [](FakeService& service) { service.Version(A, "oops\n"); };
    StopWhen("downloaded");
    Watch({bad, Deliver(B)});
    EXPECT_THAT(Lines(),
                Contains(R"({"event":"invalid_version","server":"192.0.2.1","name":null,)"
                         R"("remote_file":"version.txt","version":"oops","reason":"the version )"
                         R"(file is not valid: its first line 'oops' is shorter than 5 bytes"})"));
}

TEST_F(ToolWatcher, AVersionThatIsNotWhatItSeemsIsAWarning)
{
    const Script carriageReturn = [](FakeService& service)
    {
        service.Version(A, "edition 1\r\n");
        service.DirectoryArrives(A, "a,b\n", service.DirectoryBegins(A));
    };
    StopWhen("downloaded");
    Watch({carriageReturn});
    const std::string reason = "the version ends with a carriage return, which is compared too";
    EXPECT_THAT(Lines(), Contains("warning: " + reason));
    m_options.json = true;
    StopWhen("unchanged");
    Watch({carriageReturn});
    EXPECT_THAT(Lines(), Contains(R"({"event":"warning","reason":")" + reason + "\"}"));
}

// A restart: the service fetches the directory file in any case.
TEST_F(ToolWatcher, AnEqualDirectoryFileAfterARestartIsUnchanged)
{
    StopWhen("downloaded");
    Watch({Deliver(A)});
    m_output = std::make_unique<FollowedStream>();
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(),
                ElementsAre("checking 192.0.2.1", "unchanged: version 'edition 1' at 192.0.2.1",
                            "stopped by SIGTERM"));
}

// A missing log directory must not end the watch.
TEST_F(ToolWatcher, AStartThatFailsLaterIsTriedAgain)
{
    const Script failing = [this](FakeService& service)
    {
        service.Version(A, "edition 1\n");
        service.DirectoryFails(A);
        m_service.initResult = 2;
        m_service.initFailures = 1;
    };
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({failing, Deliver(A)});
    EXPECT_THAT(Lines(), Contains("failed: the log cannot be written: No such file or directory"));
    EXPECT_THAT(Lines(), Contains("the check failed"));
    EXPECT_THAT(Lines(), Not(Contains("all servers failed")));
}

// The service itself would retry the directory file only when the version changes.
TEST_F(ToolWatcher, AFailedDirectoryFileIsAskedForAtTheNextServerAtOnce)
{
    const Script failing = [](FakeService& service)
    {
        service.Version(A, "edition 1\n");
        service.DirectoryFails(A);
    };
    StopWhen("downloaded");
    Watch({failing, Deliver(B)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1"));
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1", "new version 'edition 1' at 192.0.2.1",
                                     "failed: directory.csv from 192.0.2.1: directory refused",
                                     "next server 192.0.2.2", "checking 192.0.2.2",
                                     "new version 'edition 1' at 192.0.2.2",
                                     Downloaded("edition 1", B), "stopped by SIGTERM"));
}

// Otherwise a version would be missed. The retry is sooner than the next check.
TEST_F(ToolWatcher, ADirectoryFileThatFailedEverywhereIsAskedForAgainAfterTheRetryTime)
{
    m_options.retrySeconds = 1;
    const auto failing = [](const std::string& server)
    {
        return [server](FakeService& service)
        {
            service.Version(server, "edition 1\n");
            service.DirectoryFails(server);
        };
    };
    StopWhen("downloaded");
    const auto begun = std::chrono::steady_clock::now();
    Watch({failing(A), failing(B), Deliver(A)});
    EXPECT_GE(std::chrono::steady_clock::now() - begun, seconds(1));
    EXPECT_THAT(m_service.requests,
                ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1", "192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Contains("retrying in 1 s"));
    EXPECT_THAT(Lines(), Contains(Downloaded("edition 1", A)));
}

TEST_F(ToolWatcher, ADirectoryFileThatCannotBeWrittenIsNotTriedElsewhere)
{
    const Script full = [](FakeService& service)
    {
        service.Version(A, "edition 1\n");
        service.DirectoryFails(A, TRAVEX_FTP_ERR_LOCAL_FILE);
    };
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({full, Deliver(A)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Contains("the check failed"));
    EXPECT_THAT(Lines(), Not(Contains("all servers failed")));
}

TEST_F(ToolWatcher, ACheckThatFailedHereIsAJsonObject)
{
    m_options.json = true;
    StopWhen("\"waiting\"");
    Watch({[](FakeService& service) { service.VersionFails(A, TRAVEX_FTP_ERR_LOCAL_FILE); }});
    EXPECT_THAT(Lines(), Contains(R"({"event":"check_failed"})"));
}

// The failure of an outdated file is reported, without a retry.
TEST_F(ToolWatcher, AnOldDirectoryFileThatFailsIsNotAskedForAgain)
{
    StopWhen("downloaded");
    Watch({[](FakeService& service)
           {
               service.Version(A, "edition 1\n");
               const unsigned int old = service.DirectoryBegins(A);
               service.Version(A, "edition 2\n");
               const unsigned int newer = service.DirectoryBegins(A);
               service.DirectoryEndsEarly(A, old);
               service.DirectoryArrives(A, "edition 2", newer);
           }});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Contains("failed: directory.csv from 192.0.2.1: directory refused"));
    EXPECT_THAT(Lines(), Contains(Downloaded("edition 2", A)));
}

// A failed check alone does not lead to a new request.
TEST_F(ToolWatcher, AnOutageAfterAVersionIsLeftToTheService)
{
    When("downloaded",
         [this]
         {
             m_service.VersionFails(A);  // after a success, the first of the list again
             m_service.VersionFails(A);
             m_service.VersionFails(B);
         });
    When("next check within 600 s", [this] { m_service.Version(A, "edition 1\n"); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Contains(HasSubstr("next server")).Times(1));
    EXPECT_THAT(Lines(), Contains("all servers failed").Times(1));
}

// It may have begun in an earlier process.
TEST_F(ToolWatcher, TheEndOfAnOutageIsAnEvent)
{
    m_options.servers = A;
    m_options.json = true;
    const Script down = [](FakeService& service)
    {
        service.VersionFails(A);
        service.VersionFails(A);
    };
    StopWhen("no_server_left");
    Watch({down});
    m_output = std::make_unique<FollowedStream>();
    When("\"recovered\"", [this] { m_service.Version(A, "edition 1\n"); });
    StopWhen("\"unchanged\"");
    Watch({down, Deliver(A)});  // the second script: this is the second request
    EXPECT_THAT(Lines(), Contains(R"({"event":"recovered","failures":1})").Times(1));
}

TEST_F(ToolWatcher, ServersThatNeverGaveAVersionAreAskedAgainAfterTheRetryTime)
{
    m_options.retrySeconds = 1;
    const Script down = [](FakeService& service)
    {
        service.VersionFails(A);
        service.VersionFails(B);
    };
    StopWhen("downloaded");
    const auto begun = std::chrono::steady_clock::now();
    Watch({down, down, Deliver(A)});
    EXPECT_GE(std::chrono::steady_clock::now() - begun, seconds(2));
    EXPECT_EQ(m_service.requests.size(), 3U);
    EXPECT_THAT(Lines(), Contains("retrying in 1 s").Times(2));
}

TEST_F(ToolWatcher, OneServerIsTriedTwice)
{
    m_options.servers = A;
    StopWhen("retrying in");
    Watch({[](FakeService& service)
           {
               service.VersionFails(A);
               service.VersionFails(A);
           }});
    EXPECT_THAT(
        Lines(),
        ElementsAre("checking 192.0.2.1", "failed: version.txt from 192.0.2.1: version refused",
                    "checking 192.0.2.1", "failed: version.txt from 192.0.2.1: version refused",
                    "all servers failed", "retrying in 3600 s", "stopped by SIGTERM"));
}

TEST_F(ToolWatcher, NewAddressesAreTakenWhenTheOldOnesFail)
{
    m_options.servers = "dir.example";
    m_found = {{{A}, ""}, {{}, "no network"}, {{B, C}, ""}};
    const auto failTwice = [this]
    {
        m_service.VersionFails(A);
        m_service.VersionFails(A);
    };
    When("downloaded", failTwice);
    When("failed: dir.example: no network", failTwice);
    StopWhen("unchanged");
    Watch({Deliver(A), Deliver(B)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1", "192.0.2.2;192.0.2.3"));
    EXPECT_THAT(Lines(), Contains("checking 192.0.2.2 (dir.example)"));
}

TEST_F(ToolWatcher, WaitsForANameThatHasNoAddressYet)
{
    m_options.servers = "dir.example";
    m_found = {{{}, "no network"}, {{A}, ""}};
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("new version");
    Watch({[](FakeService& service) { service.Version(A, "edition 1\n"); }});
    EXPECT_THAT(Lines(), ElementsAre("failed: dir.example: no network", "all servers failed",
                                     "retrying in 3600 s", "checking 192.0.2.1 (dir.example)",
                                     "new version 'edition 1' at 192.0.2.1 (dir.example)",
                                     "stopped by SIGTERM"));
}

Script Refuse(unsigned int code)
{
    return [code](FakeService& service)
    {
        service.Refuse("", code);
        service.requestResult = 1;
    };
}

TEST_F(ToolWatcher, ARefusedArgumentEndsItAtTheStartOnly)
{
    const Thrown thrown = ExitErrorOf([this] { Run({Refuse(TRAVEX_FTP_ERR_CIPHER)}); });
    EXPECT_EQ(thrown.status, kExitArguments);
    EXPECT_EQ(thrown.message, "--ciphers: bad suite");
}

TEST_F(ToolWatcher, ATransferThatIsRefusedLaterIsAskedForAgain)
{
    const Script gone = [](FakeService& service)
    {
        service.Version(A, "edition 1\n");
        service.Refuse(A, TRAVEX_FTP_ERR_TRUST);
    };
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({gone, Deliver(A)});
    EXPECT_EQ(m_service.requests.size(), 2U);
    EXPECT_THAT(Lines(), Contains("failed: 192.0.2.1: bad suite"));
    EXPECT_THAT(Lines(), Contains("the check failed"));
}

TEST_F(ToolWatcher, AServiceThatDoesNotStartEndsIt)
{
    m_service.initResult = 1;
    EXPECT_EQ(ExitErrorOf([this] { Run({}); }).status, kExitInternal);
}

TEST_F(ToolWatcher, LackOfMemoryEndsIt)
{
    const Script lost = [this](FakeService&) { m_events.Push(Event::Kind::kOutOfMemory); };
    const Thrown thrown = ExitErrorOf([&] { Run({lost}); });
    EXPECT_EQ(thrown.status, kExitInternal);
    EXPECT_EQ(thrown.message, "out of memory");
}

TEST_F(ToolWatcher, AnOutputThatCannotBeWrittenEndsIt)
{
    std::FILE* const full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    m_service.scripts = {[](FakeService& service) { service.Version(A, "edition 1\n"); }};
    {
        const ServiceManager manager;
        RunLog log("watch", Settings().plan);
        Watcher watcher(m_service, Settings(), m_reload, SystemLookup, log, m_events, full,
                        manager);
        const Thrown thrown = ExitErrorOf([&watcher] { watcher.Run(); });
        EXPECT_EQ(thrown.status, kExitLocalFile);
    }
    (void)std::fclose(full);
}

TEST_F(ToolWatcher, ACheckAtOnceLetsTheTimerOfTheServiceExpire)
{
    When("downloaded",
         [this]
         {
             // One wake, two events.
             m_events.Push(Event::Kind::kCheckNow);
             Stop();
         });
    Watch({Deliver(A)});
    EXPECT_EQ(Layers().expiries, 1);
    EXPECT_EQ(m_service.requests.size(), 1U) << "a new request would fetch all again";
}

TEST_F(ToolWatcher, ACheckAtOnceLeavesATransferAlone)
{
    When("new version",
         [this]
         {
             m_events.Push(Event::Kind::kCheckNow);
             Stop();
         });
    Watch({[](FakeService& service)
           {
               service.Version(A, "edition 1\n");
               (void)service.DirectoryBegins(A);
           }});
    EXPECT_EQ(Layers().expiries, 0);
    EXPECT_EQ(m_service.requests.size(), 1U);
}

class ToolWatcherSplay : public ToolWatcher
{
};

TEST_F(ToolWatcherSplay, WaitsBeforeTheFirstRequest)
{
    m_options.splaySeconds = 1;
    StopWhen("downloaded");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(), Contains(Downloaded("edition 1", A)));
    EXPECT_THAT(Lines().front(), MatchesRegex("first check in [01] s"));
}

TEST_F(ToolWatcherSplay, EndsWithASignal)
{
    m_options.splaySeconds = 1000000;
    StopWhen("first check in ");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(), ElementsAre(StartsWith("first check in "), "stopped by SIGTERM"));
    EXPECT_EQ(m_service.starts, 0);
}

TEST_F(ToolWatcherSplay, EndsWithACheckAtOnce)
{
    m_options.splaySeconds = 1000000;
    When("first check in ", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({Deliver(A)});
}

TEST_F(ToolWatcherSplay, EndsWithAReload)
{
    m_options.splaySeconds = 1000000;
    When("first check in ",
         [this]
         {
             m_options.servers = C;
             m_events.Push(Event::Kind::kReload);
         });
    When("settings reloaded", [] {});
    StopWhen("downloaded");
    Watch({Deliver(C)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.3"));
}

TEST_F(ToolWatcherSplay, GoesOnAfterAReloadThatFailed)
{
    m_options.splaySeconds = 1000000;
    When("first check in ",
         [this]
         {
             m_options.localIp = "nowhere";
             m_events.Push(Event::Kind::kReload);
         });
    When("settings not reloaded", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({Deliver(A)});
    EXPECT_EQ(m_service.requests.size(), 1U);
}

class ToolWatcherReload : public ToolWatcher
{
protected:
    // Reloads after the first download, with the options as the function leaves them.
    void ReloadWith(const std::function<void()>& change)
    {
        When("downloaded",
             [this, change]
             {
                 change();
                 m_events.Push(Event::Kind::kReload);
             });
    }
};

TEST_F(ToolWatcherReload, TakesNewSettingsAndChecks)
{
    ReloadWith(
        [this]
        {
            m_options.servers = C;
            m_options.user = "other";
            m_options.json = true;
            WriteFile(m_secrets.Path() + "/password", "new");
        });
    StopWhen("unchanged");
    Watch({Deliver(A), Deliver(C)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.3"));
    EXPECT_STREQ(m_service.lastRequest.szUserName, "other");
    EXPECT_STREQ(m_service.lastRequest.szPassword, "new");
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1", "new version 'edition 1' at 192.0.2.1",
                                     Downloaded("edition 1", A), R"({"event":"reloaded"})",
                                     R"({"event":"checking","server":"192.0.2.3","name":null})",
                                     StartsWith(R"({"event":"unchanged",)"),
                                     StartsWith(R"({"event":"stopped",)")));
}

TEST_F(ToolWatcherReload, AMistakeKeepsTheOldSettings)
{
    ReloadWith(
        [this]
        {
            m_options.servers = C;
            m_options.localIp = "nowhere";
        });
    When("settings not reloaded", [this] { m_service.Version(A, "edition 1\n"); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_EQ(m_service.requests.size(), 1U);
    EXPECT_THAT(Lines(), Contains(StartsWith("settings not reloaded: --local-ip")));
    EXPECT_THAT(Lines(), Contains("unchanged: version 'edition 1' at 192.0.2.1"));
}

TEST_F(ToolWatcherReload, AMistakeIsAJsonObject)
{
    m_options.json = true;
    ReloadWith([this] { std::filesystem::remove(m_secrets.Path() + "/password"); });
    StopWhen("reload_failed");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(),
                Contains(R"({"event":"reload_failed","reason":"cannot read the password from ')" +
                         m_secrets.Path() + R"(/password': No such file or directory"})"));
}

TEST_F(ToolWatcherReload, SettingsThatTheFirstRequestRefusesAreDropped)
{
    ReloadWith([this] { m_options.servers = C; });
    StopWhen("unchanged");
    Watch({Deliver(A), Refuse(TRAVEX_FTP_ERR_TRUST), Deliver(A)});
    EXPECT_THAT(m_service.requests,
                ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.3", "192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Contains("settings not reloaded: --ca: bad suite"));
    EXPECT_THAT(Lines(), Not(Contains("settings reloaded")));
}

// The content of a file of authorities has changed, not its name.
TEST_F(ToolWatcherReload, SettingsOfBeforeThatAreRefusedAsWellAreTriedAgain)
{
    ReloadWith([] {});
    When("settings not reloaded: --ca: bad suite", [] {});
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("unchanged");
    Watch({Deliver(A), Refuse(TRAVEX_FTP_ERR_TRUST), Refuse(TRAVEX_FTP_ERR_TRUST), Deliver(A)});
    EXPECT_EQ(m_service.requests.size(), 4U);
}

TEST_F(ToolWatcherReload, AServiceThatDoesNotStartWithTheSettingsOfBeforeIsTriedAgain)
{
    ReloadWith(
        [this]
        {
            m_service.initResult = 1;
            m_service.initFailures = 2;
        });
    When("settings not reloaded: the service could not be started (code 1)", [] {});
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("unchanged");
    Watch({Deliver(A), Deliver(A)});
}

// The second one comes before the settings of the first have been tried.
TEST_F(ToolWatcherReload, TwoReloadsKeepTheSettingsThatWorked)
{
    bool first = true;
    m_reload = [this, &first]
    {
        if (std::exchange(first, false))
        {
            m_events.Push(Event::Kind::kReload);
        }
        return Settings();
    };
    ReloadWith([this] { m_options.servers = C; });
    StopWhen("unchanged");
    Watch({Deliver(A), Refuse(TRAVEX_FTP_ERR_TRUST), Deliver(A)});
    EXPECT_THAT(m_service.requests,
                ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.3", "192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Not(Contains("settings reloaded")));
}

TEST_F(ToolWatcherReload, SettingsWithWhichTheServiceDoesNotStartAreDropped)
{
    ReloadWith(
        [this]
        {
            m_options.servers = C;
            m_options.logDir = m_secrets.Path();
            m_options.logLevel = 1;
            m_service.initResult = ENOSPC;
            m_service.initFailures = 1;
        });
    StopWhen("unchanged");
    Watch({Deliver(A), Deliver(A)});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), Contains("settings not reloaded: cannot write the log to --log-dir '" +
                                  m_secrets.Path() + "': No space left on device"));
}

// Settings that have worked are not given up for a later failure.
TEST_F(ToolWatcherReload, ARefusalAfterTheFirstCheckKeepsTheNewSettings)
{
    const Script gone = [](FakeService& service)
    {
        service.Version(C, "edition 2\n");
        service.Refuse(C, TRAVEX_FTP_ERR_TRUST);
    };
    ReloadWith([this] { m_options.servers = C; });
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({Deliver(A), gone, [](FakeService& service) { service.Deliver(C, "edition 2"); }});
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.3", "192.0.2.3"));
}

TEST_F(ToolWatcherReload, TheOutputDirectoryAndTheNamesCannotChange)
{
    const TemporaryDirectory other;
    const std::function<void()> changes[] = {[&] { m_options.outputDir = other.Path(); },
                                             [&]
                                             {
                                                 m_options.outputDir = m_directory.Path();
                                                 m_options.versionName = "v";
                                             },
                                             [&]
                                             {
                                                 m_options.versionName.clear();
                                                 m_options.directoryName = "d";
                                             }};
    ReloadWith(changes[0]);
    for (const auto& change : {changes[1], changes[2]})
    {
        When(
            "settings not reloaded: the output directory and the local names cannot change while "
            "'watch' runs; restart it\n",
            [this, change]
            {
                change();
                m_events.Push(Event::Kind::kReload);
            });
    }
    StopWhen("settings not reloaded: the output directory");
    Watch({Deliver(A)});
    EXPECT_EQ(m_service.requests.size(), 1U);
    EXPECT_THAT(FilesIn(other.Path()), IsEmpty());
}

// What the watch writes into the log.
class ToolWatcherLog : public ToolWatcherReload
{
protected:
    ToolWatcherLog()
    {
        m_options.logDir = m_logs.Path();
        captured_log::Clear();
    }

    // The program's records, each with its level; those of a closed log are marked.
    std::vector<std::string> Records(const std::string& directory) const
    {
        std::vector<std::string> texts;
        for (const captured_log::Record& record : captured_log::Records())
        {
            if (record.module == "corpdir" &&
                (record.directory == directory || record.directory.empty()))
            {
                texts.push_back((record.directory.empty() ? "closed: " : "") +
                                std::to_string(record.level) + " " + record.text);
            }
        }
        return texts;
    }

    std::string First(const std::string& directory) const
    {
        const std::vector<std::string> texts = Records(directory);
        return texts.empty() ? "" : texts.front();
    }
    std::string Last(const std::string& directory) const
    {
        const std::vector<std::string> texts = Records(directory);
        return texts.empty() ? "" : texts.back();
    }

    const TemporaryDirectory m_logs;
    const TemporaryDirectory m_others;
};

TEST_F(ToolWatcherLog, HasTheEvents)
{
    m_options.quiet = true;
    m_options.execute = "exit 3";
    const Script down = [](FakeService& service)
    {
        service.VersionFails(A);
        service.VersionFails(B);
    };
    When("retrying in 3600 s", Event::Kind::kCheckNow);
    StopWhen("the command of --exec failed");
    Watch({down, Deliver(A)});
    EXPECT_THAT(
        Records(m_logs.Path()),
        ElementsAre(StartsWith("1 Begin of corpdir watch, version "), "2 Event: checking 192.0.2.1",
                    "0 Event: failed: version.txt from 192.0.2.1: version refused",
                    "2 Event: next server 192.0.2.2", "2 Event: checking 192.0.2.2",
                    "0 Event: failed: version.txt from 192.0.2.2: version refused",
                    "0 Event: all servers failed", "1 Event: retrying in 3600 s",
                    "2 Event: checking 192.0.2.1", "2 Event: new version 'edition 1' at 192.0.2.1",
                    "1 Event: " + Downloaded("edition 1", A),
                    "1 Event: the check succeeded after 1 that failed",
                    "0 Event: the command of --exec failed with status 3",
                    "2 Event: stopped by SIGTERM"));
}

// The client logs them.
TEST_F(ToolWatcherLog, HasNoEventTwice)
{
    m_options.servers = A;
    StopWhen("retrying in");
    Watch({[](FakeService& service) { service.Version(A, "oops\n"); }});
    EXPECT_THAT(Records(m_logs.Path()),
                ElementsAre(StartsWith("1 Begin of"), "2 Event: checking 192.0.2.1",
                            "0 Event: all servers failed", "1 Event: retrying in 3600 s",
                            "2 Event: stopped by SIGTERM"));
}

TEST_F(ToolWatcherLog, ChangesWithAReload)
{
    ReloadWith(
        [this]
        {
            m_options.servers = C;
            m_options.given = "--servers 192.0.2.3";
            m_options.logDir = m_others.Path();
        });
    When("settings reloaded", [] {});
    StopWhen("unchanged");
    Watch({Deliver(A), Deliver(C)});
    EXPECT_EQ(Last(m_logs.Path()), "1 Event: " + Downloaded("edition 1", A));
    EXPECT_THAT(Records(m_others.Path()),
                ElementsAre("1 Settings of corpdir watch, settings file none: --servers 192.0.2.3",
                            "1 Event: settings reloaded", "2 Event: checking 192.0.2.3",
                            "1 Event: unchanged: version 'edition 1' at 192.0.2.3",
                            "2 Event: stopped by SIGTERM"));
}

TEST_F(ToolWatcherLog, BeginsWithAReload)
{
    m_options.logDir.clear();
    ReloadWith([this] { m_options.logDir = m_logs.Path(); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(First(m_logs.Path()),
                StartsWith("1 Settings of corpdir watch, settings file none: "));
}

TEST_F(ToolWatcherLog, EndsWithAReload)
{
    ReloadWith([this] { m_options.logDir.clear(); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_EQ(Last(m_logs.Path()), "1 Event: " + Downloaded("edition 1", A));
    EXPECT_NE(g_LogMode, 0U);
}

TEST_F(ToolWatcherLog, StaysWhenAReloadIsUndone)
{
    m_options.given = "--servers 192.0.2.1";
    ReloadWith(
        [this]
        {
            m_options.servers = C;
            m_options.given = "--servers 192.0.2.3";
            m_options.logDir = m_others.Path();
        });
    StopWhen("unchanged");
    Watch({Deliver(A), Refuse(TRAVEX_FTP_ERR_TRUST), Deliver(A)});
    EXPECT_THAT(
        Records(m_others.Path()),
        ElementsAre("1 Settings of corpdir watch, settings file none: --servers 192.0.2.3"));
    EXPECT_THAT(
        Records(m_logs.Path()),
        testing::IsSupersetOf(
            {StartsWith("1 Settings of corpdir watch, settings file none: --servers 192.0.2.1"),
             StartsWith("0 Event: settings not reloaded: --ca: bad suite")}));
}

// Events of the service manager.
class ToolWatcherStatus : public ToolWatcherReload
{
protected:
    // The datagrams so far, each without what differs from run to run.
    std::vector<std::string> Received() const
    {
        static const std::regex varying(R"((checked )\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ|(USEC=)\d+)");
        std::vector<std::string> texts;
        while (const std::optional<std::string> text = m_manager->Next())
        {
            texts.push_back(std::regex_replace(*text, varying, "$1$2..."));
        }
        return texts;
    }

    // Before the watch, which takes the address from the environment.
    std::unique_ptr<NotifyReceiver> m_manager =
        std::make_unique<NotifyReceiver>(m_secrets.Path() + "/notify");
};

TEST_F(ToolWatcherStatus, IsReported)
{
    When("downloaded",
         [this]
         {
             for (const char* server : {A, A, B})
             {
                 m_service.VersionFails(server);
             }
         });
    When("next check within", [this] { m_service.Version(B, "edition 1\n"); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(Received(),
                ElementsAre("READY=1", "STATUS=version edition 1 from 192.0.2.1, checked ...",
                            "STATUS=failed: version.txt from 192.0.2.2: version refused; version "
                            "edition 1 is in place",
                            "STATUS=version edition 1 from 192.0.2.2, checked ...", "STOPPING=1"));
}

TEST_F(ToolWatcherStatus, HasTheReasonOfAnInvalidVersion)
{
    m_options.servers = A;
    StopWhen("retrying in");
    Watch({[](FakeService& service) { service.Version(A, "oops\n"); }});
    EXPECT_THAT(Received(), ElementsAre("READY=1",
                                        "STATUS=failed: version.txt from 192.0.2.1: the version "
                                        "file is not valid: its first line 'oops' "
                                        "is shorter than 5 bytes",
                                        "STOPPING=1"));
}

TEST_F(ToolWatcherStatus, EveryReloadEndsInReady)
{
    ReloadWith([this] { m_options.servers = C; });
    When("unchanged",
         [this]
         {
             m_options.localIp = "nowhere";
             m_events.Push(Event::Kind::kReload);
         });
    StopWhen("settings not reloaded");
    Watch({Deliver(A), Deliver(C)});
    EXPECT_THAT(Received(),
                ElementsAre("READY=1", HasSubstr("STATUS="), "RELOADING=1\nMONOTONIC_USEC=...",
                            "READY=1", HasSubstr("STATUS="), "RELOADING=1\nMONOTONIC_USEC=...",
                            "STATUS=version edition 1 from 192.0.2.3, checked ...; settings not "
                            "reloaded: --local-ip 'nowhere' is not an IPv4 or IPv6 address",
                            "READY=1", "STOPPING=1"));
}

TEST_F(ToolWatcherStatus, HasACommandThatFailed)
{
    m_options.execute = "[ -e " + m_secrets.Path() + "/repaired ]";
    When("the command of --exec failed",
         [this]
         {
             WriteFile(m_secrets.Path() + "/repaired", "");
             m_service.Version(A, "edition 1\n");
         });
    When("the command of --exec succeeded", [this] { m_service.Version(A, "edition 1\n"); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    const std::string current = "STATUS=version edition 1 from 192.0.2.1, checked ...";
    const std::vector<std::string> received = Received();
    EXPECT_THAT(received, Contains(current + "; the command of --exec failed"));
    EXPECT_EQ(received[received.size() - 2], current);
}

TEST_F(ToolWatcherStatus, HasTheReasonWhenTheServiceDoesNotStart)
{
    m_options.onFailure =
        "echo \"$CORPDIR_FAILURES $CORPDIR_REASON\" >" + m_secrets.Path() + "/reason";
    StopWhen("the command of --on-failure succeeded");
    Watch({[this](FakeService& service)
           {
               service.Version(A, "edition 1\n");
               service.DirectoryFails(A);
               m_service.initResult = 2;
           }});
    EXPECT_THAT(Received(),
                ElementsAre("READY=1",
                            "STATUS=failed: the log cannot be written: No such file or directory",
                            "STOPPING=1"));
    EXPECT_EQ(ReadFile(m_secrets.Path() + "/reason"),
              "1 the log cannot be written: No such file or directory\n");
}

// A check begins only when a name has an address, which may take long.
TEST_F(ToolWatcherStatus, AReloadWithNamesWithoutAddressEndsInReady)
{
    m_options.servers = "dir.example";
    m_found = {{{A}, ""}, {{}, "no network"}, {{A}, ""}};
    ReloadWith([] {});
    When("retrying in 3600 s",
         [this]
         {
             EXPECT_THAT(Received(), ElementsAre("READY=1", HasSubstr("STATUS="),
                                                 "RELOADING=1\nMONOTONIC_USEC=...", "READY=1",
                                                 HasSubstr("STATUS=failed: ")));
             EXPECT_THAT(Lines(), Not(Contains("settings reloaded")));
             m_events.Push(Event::Kind::kCheckNow);
         });
    When("settings reloaded", [] {});
    StopWhen("unchanged");
    Watch({Deliver(A), Deliver(A)});
}

TEST_F(ToolWatcherStatus, IsReadyDuringTheSplay)
{
    m_options.splaySeconds = 1000000;
    // Written before the wait begins.
    When("first check in ", Event::Kind::kReload);
    StopWhen("settings reloaded");
    Watch({[](FakeService& service) { (void)service.VersionBegins(A); }});
    EXPECT_THAT(Received(),
                ElementsAre("READY=1", "RELOADING=1\nMONOTONIC_USEC=...", "READY=1", "STOPPING=1"));
}

// The command writes its variables to a file.
class ToolWatcherCommand : public ToolWatcherReload
{
protected:
    std::vector<std::string> Given() const
    {
        std::ifstream file(m_secrets.Path() + "/given");
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(line);
        }
        return lines;
    }

    void FetchElsewhere(const std::string& version)
    {
        client::Settings settings;
        settings.versionFolder = settings.directoryFolder = m_directory.Path() + "/";
        settings.versionName = "version.txt";
        settings.directoryName = "directory.csv";
        const client::Staging staging(settings.directoryFolder);
        client::LocalFiles files(settings, staging, staging);
        const std::string path = m_secrets.Path() + "/arrived";
        WriteFile(path, version);
        (void)files.Replace({client::ParseVersion(version + "\n"), {}, path, B});
    }

    // Stops the watch when the command has written something.
    void WatchUntilGiven()
    {
        std::thread reader(
            [this]
            {
                const auto end = std::chrono::steady_clock::now() + kPatience;
                while (Given().empty() && std::chrono::steady_clock::now() < end)
                {
                    std::this_thread::sleep_for(milliseconds(1));
                }
                Stop();
            });
        Watch({Deliver(A)});
        reader.join();
    }

    const std::string m_given = m_secrets.Path() + "/given";
    const std::string m_note =
        "echo \"$CORPDIR_FILE $CORPDIR_VERSION $CORPDIR_SERVER\" >>" + m_given;
    const std::string m_file = m_directory.Path() + "/directory.csv ";
};

// By hand, or by a second watch.
TEST_F(ToolWatcherCommand, IsRunForAFileThatAnotherProcessHasFetched)
{
    m_options.execute = m_note;
    When("the command of --exec succeeded",
         [&]
         {
             FetchElsewhere("edition 2");
             m_service.Deliver(A, "edition 2");
         });
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(), Contains("unchanged: version 'edition 2' at 192.0.2.1"));
    EXPECT_THAT(Given(),
                ElementsAre(m_file + "edition 1 192.0.2.1", m_file + "edition 2 192.0.2.1"));
}

// Before the first check of this watch.
TEST_F(ToolWatcherCommand, IsRunForAFileThatAnotherProcessFetchedMeanwhile)
{
    m_options.execute = m_note;
    m_options.servers = A;
    When("retrying in",
         [this]
         {
             FetchElsewhere("edition 1");
             m_events.Push(Event::Kind::kCheckNow);
         });
    StopWhen("the command of --exec succeeded");
    Watch({[](FakeService& service)
           {
               service.VersionFails(A);
               service.VersionFails(A);
           },
           Deliver(A)});
    EXPECT_THAT(Lines(), Contains("unchanged: version 'edition 1' at 192.0.2.1"));
    EXPECT_THAT(Given(), ElementsAre(m_file + "edition 1 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, IsRunAgainAfterARestartUntilItSucceeds)
{
    m_options.execute = "exit 3";
    StopWhen("the command of --exec failed");
    Watch({Deliver(A)});
    m_options.execute = m_note + "; sleep 60";
    WatchUntilGiven();
    m_options.execute = m_note;
    m_output = std::make_unique<FollowedStream>();
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A)});
    m_output = std::make_unique<FollowedStream>();
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(Given(),
                ElementsAre(m_file + "edition 1 192.0.2.1", m_file + "edition 1 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, IsRunForEachNewVersion)
{
    m_options.execute = m_note;
    When("the command of --exec succeeded", [this] { m_service.Deliver(A, "edition 2"); });
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A)});
    EXPECT_THAT(Given(),
                ElementsAre(m_file + "edition 1 192.0.2.1", m_file + "edition 2 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, IsNotRunForTheSameVersionAgain)
{
    m_options.execute = m_note;
    m_options.servers = "dir.example";
    m_found = {{{A}, ""}, {{B}, ""}};
    When("the command of --exec succeeded",
         [this]
         {
             m_service.VersionFails(A);
             m_service.VersionFails(A);
         });
    StopWhen("unchanged: version 'edition 1' at 192.0.2.2 (dir.example)");
    Watch({Deliver(A), Deliver(B)});
    EXPECT_EQ(Given().size(), 1U);
}

TEST_F(ToolWatcherCommand, IsNotRunForAnEqualFileAfterARestart)
{
    StopWhen("downloaded");
    Watch({Deliver(A)});
    m_options.execute = m_note;
    // Two checks: a command of the first would have been started before the second.
    When("unchanged", [this] { m_service.Version(A, "edition 1\n"); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(Given(), IsEmpty());
    EXPECT_THAT(Lines(), Not(Contains(HasSubstr("command"))));
}

TEST_F(ToolWatcherCommand, RunsOnceForSeveralVersionsDuringARun)
{
    const std::string gate = m_secrets.Path() + "/gate";
    m_options.execute = "while [ ! -e " + gate + " ]; do sleep 0.01; done; " + m_note;
    When("downloaded", [this] { m_service.Deliver(A, "edition 2"); });
    When("downloaded", [this] { m_service.Deliver(A, "edition 3"); });
    When("downloaded", [&gate] { WriteFile(gate, "open"); });
    When("the command of --exec succeeded", [] {});
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A)});
    EXPECT_THAT(Given(),
                ElementsAre(m_file + "edition 1 192.0.2.1", m_file + "edition 3 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, AFailureIsReportedAndTriedAgainAfterTheNextCheck)
{
    m_options.execute = m_note + "; [ $(wc -l <" + m_given + ") = 2 ] || exit 3";
    When("the command of --exec failed with status 3",
         [this] { m_service.Version(A, "edition 1\n"); });
    When("the command of --exec succeeded", [this] { m_service.Version(A, "edition 1\n"); });
    StopWhen("unchanged");
    Watch({Deliver(A)});
    EXPECT_THAT(Given(),
                ElementsAre(m_file + "edition 1 192.0.2.1", m_file + "edition 1 192.0.2.1"));
    EXPECT_THAT(Lines(), Contains("the command of --exec failed with status 3").Times(1));
    EXPECT_THAT(Lines(), Contains("the command of --exec succeeded").Times(1));
}

// A check that failed says nothing about the file.
TEST_F(ToolWatcherCommand, AFailureIsNotTriedAgainAfterACheckThatFailed)
{
    m_options.execute = m_note + "; exit 3";
    When("the command of --exec failed",
         [this]
         {
             for (const char* server : {A, A, B})
             {
                 m_service.VersionFails(server);
             }
         });
    StopWhen("next check within");
    Watch({Deliver(A)});
    EXPECT_EQ(Given().size(), 1U);
}

TEST_F(ToolWatcherCommand, TakesTooLong)
{
    m_options.execute = "sleep 60";
    m_options.execTimeoutSeconds = 1;
    StopWhen("the command of --exec exceeded --exec-timeout and was ended");
    Watch({Deliver(A)});
}

TEST_F(ToolWatcherCommand, TooLongIsAJsonObject)
{
    m_options.json = true;
    m_options.execute = "sleep 60";
    m_options.execTimeoutSeconds = 1;
    StopWhen("\"command\"");
    Watch({Deliver(A)});
    EXPECT_THAT(
        Lines(),
        Contains(R"({"event":"command","option":"--exec","status":143,"reason":"timed out"})"));
}

TEST_F(ToolWatcherCommand, OfAFailureHasTheReason)
{
    m_options.execute = "echo update >>" + m_given;
    m_options.onFailure = "echo \"$CORPDIR_FILE $CORPDIR_REASON\" >>" + m_given;
    StopWhen("the command of --on-failure succeeded");
    Watch({[](FakeService& service)
           {
               service.VersionFails(A);
               service.Version(B, "oops\n");
           }});
    EXPECT_THAT(
        Given(),
        ElementsAre(m_file +
                    "version.txt from 192.0.2.2: the version file is not valid: its first line "
                    "'oops' is shorter than 5 bytes"));
}

TEST_F(ToolWatcherCommand, OfAFailureRunsAfterEachCheckThatFailed)
{
    m_options.onFailure = "echo failed >>" + m_given + "; exit 1";
    const Script down = [](FakeService& service)
    {
        service.VersionFails(A);
        service.VersionFails(B);
    };
    When("the command of --on-failure failed with status 1", Event::Kind::kCheckNow);
    When("the command of --on-failure failed with status 1", Event::Kind::kCheckNow);
    StopWhen("downloaded");
    Watch({down, down, Deliver(A)});
    EXPECT_THAT(Given(), ElementsAre("failed", "failed"));
}

TEST_F(ToolWatcherCommand, IsTakenFromNewSettings)
{
    m_options.execute = "exit 3";
    When("the command of --exec failed",
         [this]
         {
             m_options.execute = m_note;
             m_events.Push(Event::Kind::kReload);
         });
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A), [](FakeService& service) { service.Deliver(A, "edition 2"); }});
    EXPECT_THAT(Given(), ElementsAre(m_file + "edition 2 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, ThatRunsGoesOnThroughAReload)
{
    const std::string gate = m_secrets.Path() + "/gate";
    m_options.execute = "while [ ! -e " + gate + " ]; do sleep 0.01; done; " + m_note;
    ReloadWith(
        [this]
        {
            m_options.servers = C;
            m_options.execute = "echo new >>" + m_given;
        });
    When("settings reloaded", [] {});
    When("downloaded", [&gate] { WriteFile(gate, "open"); });
    When("the command of --exec succeeded", [] {});
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A), [](FakeService& service) { service.Deliver(C, "edition 2"); }});
    EXPECT_THAT(Given(), ElementsAre(m_file + "edition 1 192.0.2.1", "new"));
}

TEST_F(ToolWatcherCommand, ThatRunsGoesOnThroughAReloadThatIsUndone)
{
    const std::string gate = m_secrets.Path() + "/gate";
    const std::string wait = "while [ ! -e " + gate + " ]; do sleep 0.01; done; ";
    m_options.onFailure = wait + "exit 4";
    const Script down = [](FakeService& service)
    {
        service.VersionFails(A);
        service.VersionFails(B);
    };
    When("retrying in 3600 s",
         [this]
         {
             m_options.onFailure.clear();
             m_events.Push(Event::Kind::kReload);
         });
    When("settings not reloaded", [] {});
    When("downloaded", [&gate] { WriteFile(gate, "open"); });
    StopWhen("the command of --on-failure failed with status 4");
    Watch({down, Refuse(TRAVEX_FTP_ERR_TRUST), Deliver(A)});
}

TEST_F(ToolWatcherCommand, ThatAnEarlierWatchHasEndedIsIgnored)
{
    m_events.Push(Event::Kind::kCommandEnded, 3);
    m_events.Push(Event::Kind::kFailureCommandEnded, 3);
    StopWhen("downloaded");
    Watch({Deliver(A)});
    EXPECT_THAT(Lines(), Not(Contains(HasSubstr("command"))));
}

TEST_F(ToolWatcherCommand, IsEndedWithTheWatch)
{
    m_options.execute = "trap 'echo asked to end >>" + m_given + "; exit' TERM; echo begun >>" +
                        m_given + "; while :; do sleep 0.01; done";
    WatchUntilGiven();
    EXPECT_THAT(Given(), ElementsAre("begun", "asked to end"));
}

TEST_F(ToolWatcherCommand, ThatDoesNotEndIsKilled)
{
    m_options.execute = "trap '' TERM; echo begun >>" + m_given + "; while :; do sleep 0.01; done";
    const auto begun = std::chrono::steady_clock::now();
    WatchUntilGiven();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, kPatience);
}

// The command inherits no signal settings of the watch.
TEST_F(ToolWatcherCommand, InheritsNoSignalSettings)
{
    m_options.execute = "grep -E '^Sig(Blk|Ign)' /proc/self/status >>" + m_given;
    sigset_t blocked;
    sigset_t saved;
    (void)sigemptyset(&blocked);
    (void)sigaddset(&blocked, SIGTERM);
    (void)pthread_sigmask(SIG_BLOCK, &blocked, &saved);
    const auto previous = signal(SIGPIPE, SIG_IGN);
    StopWhen("the command of --exec succeeded");
    Watch({Deliver(A)});
    (void)signal(SIGPIPE, previous);
    (void)pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    // Bits above 31 are used by the C library.
    ASSERT_EQ(Given().size(), 2U);
    for (const std::string& line : Given())
    {
        const std::string mask = line.substr(line.find('\t') + 1);
        EXPECT_EQ(std::stoull(mask, nullptr, 16) & 0x7fffffffU, 0U) << line;
    }
}

}  // namespace
}  // namespace corpdir_tool
