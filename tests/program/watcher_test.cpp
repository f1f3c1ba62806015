// The watcher, with a scripted service.
#include <gmock/gmock.h>
#include <signal.h>

#include <functional>
#include <regex>
#include <sstream>

#include "commands/watcher.h"
#include "fake_layers.h"
#include "fake_service.h"
#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr seconds kPatience{20};

// The output of the watcher so far; may be read while it runs.
class Said
{
public:
    Said() : m_stream(std::fopen((m_directory.Path() + "/said").c_str(), "w")) {}
    ~Said()
    {
        (void)std::fclose(m_stream);
    }
    Said(const Said&) = delete;
    Said& operator=(const Said&) = delete;

    std::FILE* Get() const
    {
        return m_stream;
    }

    std::string Text() const
    {
        std::ifstream file(m_directory.Path() + "/said", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    TemporaryDirectory m_directory;
    std::FILE* m_stream;
};

class ScriptedService;

// The events after a request; the last script is used for all later requests.
using Script = std::function<void(ScriptedService& service)>;

// The functions below do what the service and the FTP layer would do, and end the script when the
// service is stopped.
class ScriptedService final : public FakeService
{
public:
    struct Stopped
    {
    };

    explicit ScriptedService(const Said& output) : m_output(output) {}
    ~ScriptedService()
    {
        CorpDirUninit();
    }

    // The version file arrives.
    void Version(const std::string& server, const std::string& firstLine)
    {
        Begin(server, lastRequest.szVersionServerFile);
        const std::string path =
            std::string(lastRequest.szVersionLocalDir) + lastRequest.szVersionLocalFileName;
        std::ofstream(path, std::ios::binary) << firstLine << "\n";
        Observe(TRAVEX_FTP_OBSERVED_SUCCESS, server, lastRequest.szVersionServerFile, 0, "");
    }

    void VersionFails(const std::string& server)
    {
        Begin(server, lastRequest.szVersionServerFile);
        Observe(TRAVEX_FTP_OBSERVED_FAILED, server, lastRequest.szVersionServerFile,
                TRAVEX_FTP_ERR_CONNECT, "no connection");
        m_callback(1, 1, nullptr, nullptr);
    }

    void DirectoryBegins(const std::string& server)
    {
        Begin(server, lastRequest.szCorpDirServerFile);
    }

    void DirectoryArrives(const std::string& server, unsigned int task)
    {
        DirectoryIsInPlace(server, task);
        m_callback(1, 0, nullptr, nullptr);
    }

    // The service has forgotten the task, and calls no callback.
    void DirectoryIsInPlace(const std::string& server, unsigned int task)
    {
        m_task = task;
        Observe(TRAVEX_FTP_OBSERVED_SUCCESS, server, lastRequest.szCorpDirServerFile, 0, "");
    }

    void Directory(const std::string& server)
    {
        DirectoryBegins(server);
        DirectoryArrives(server, m_task);
    }

    void DirectoryFails(const std::string& server, unsigned int code = TRAVEX_FTP_ERR_PARTIAL)
    {
        DirectoryBegins(server);
        DirectoryEndsEarly(server, m_task, code);
    }

    void DirectoryEndsEarly(const std::string& server, unsigned int task,
                            unsigned int code = TRAVEX_FTP_ERR_PARTIAL)
    {
        m_task = task;
        Observe(TRAVEX_FTP_OBSERVED_FAILED, server, lastRequest.szCorpDirServerFile, code,
                "ended early");
        m_callback(1, 1, nullptr, nullptr);
    }

    void TransferRefused()
    {
        Observe(TRAVEX_FTP_OBSERVED_REFUSED, "", "", TRAVEX_FTP_ERR_TRUST, "no such file");
    }

    // Both files arrive.
    void Update(const std::string& server, const std::string& firstLine)
    {
        Version(server, firstLine);
        Directory(server);
    }

    // Waits until the output has this text so many times.
    void Await(const std::string& text, std::size_t times = 1)
    {
        const auto said = [this, &text]
        {
            const std::string all = m_output.Text();
            std::size_t count = 0;
            for (std::size_t at = all.find(text); at != std::string::npos;
                 at = all.find(text, at + 1))
            {
                ++count;
            }
            return count;
        };
        const auto end = std::chrono::steady_clock::now() + kPatience;
        std::unique_lock<std::mutex> lock(m_mutex);
        while (said() < times)
        {
            if (m_stop)
            {
                throw Stopped();
            }
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "not said: " << text;
            m_changed.wait_for(lock, milliseconds(1));
        }
    }

    unsigned int Task() const
    {
        return m_task;
    }

    std::vector<Script> scripts;
    unsigned int refuseWith = 0;

private:
    unsigned int Refuse() override
    {
        if (refuseWith == 0)
        {
            return 0;
        }
        Observe(TRAVEX_FTP_OBSERVED_REFUSED, "", "", refuseWith, "refused: bad suite");
        return 1;
    }

    // After the script nothing happens until the stop.
    void Play() override
    {
        try
        {
            scripts[std::min(requests.size(), scripts.size()) - 1](*this);
        }
        catch (const Stopped&)
        {
        }
    }

    void Begin(const std::string& server, const char* file)
    {
        ++m_task;
        Observe(TRAVEX_FTP_OBSERVED_ACCEPTED, server, file, 0, "");
    }

    void Observe(unsigned int kind, const std::string& server, const char* file, unsigned int code,
                 const char* reason) const
    {
        Layers().Observe(kind, m_task, server.empty() ? "" : server + ":21", file, code, reason);
    }

    const Said& m_output;
    unsigned int m_task = 0;
};

const char A[] = "192.0.2.1";
const char B[] = "192.0.2.2";
const char C[] = "192.0.2.3";

class ToolWatcher : public testing::Test
{
protected:
    ToolWatcher()
    {
        m_options.servers = "192.0.2.1;192.0.2.2";
        m_options.user = "phone";
        m_options.versionFile = "version.txt";
        m_options.directoryFile = "directory.csv";
        m_options.outputDir = m_directory.Path();
        m_options.retrySeconds = 1;
        EXPECT_TRUE(m_password.Append('s'));
    }

    ~ToolWatcher() override
    {
        EXPECT_EQ(Layers().observer, nullptr) << "the observer was left behind";
    }

    // A script: both files arrive.
    static Script Fetch(const std::string& server)
    {
        return [server](ScriptedService& service)
        {
            service.Update(server, "edition 1");
            service.Await("downloaded");
        };
    }

    // Runs the scripts; at the end of the last one a signal ends the watch, with success.
    template <typename... Scripts>
    void Watch(Scripts... scripts)
    {
        std::vector<Script> all = {scripts...};
        all.back() = [this, last = all.back()](ScriptedService& service)
        {
            last(service);
            m_events.Push(EventKind::kSignal, SIGTERM);
        };
        EXPECT_EQ(Run(all), 0);
    }

    int Run(std::vector<Script> scripts)
    {
        m_service.scripts = std::move(scripts);
        const Plan plan = MakePlan(m_options, SomeCiphers);
        const Lookup lookup = [this](const std::string&, int)
        {
            const std::size_t number = std::min(m_lookups++, m_found.size() - 1);
            return m_found[number];
        };
        WatchOutput output(m_output.Get(), m_options.json, m_options.quiet);
        std::optional<ChildCommand> command;
        if (!m_options.execute.empty())
        {
            command.emplace(m_options.execute, STDERR_FILENO,
                            [this](int status)
                            { m_events.Push(EventKind::kCommandEnded, status); });
        }
        Watcher watcher(m_service, plan, lookup, m_password, m_events, output,
                        command ? &*command : nullptr);
        return watcher.Run();
    }

    // The output lines without their times.
    std::vector<std::string> Lines() const
    {
        static const std::regex time(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ )");
        std::istringstream text(m_output.Text());
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);)
        {
            EXPECT_TRUE(m_options.json || std::regex_search(line, time)) << line;
            lines.push_back(std::regex_replace(line, time, ""));
        }
        return lines;
    }

    std::string Downloaded(const std::string& version, const std::string& server) const
    {
        return "downloaded " + m_directory.Path() + "/directory.csv, version '" + version +
               "', 24 bytes from " + server;
    }

    TemporaryDirectory m_directory;
    Options m_options;
    Secret m_password;
    EventQueue m_events;
    Said m_output;
    ScriptedService m_service{m_output};
    std::vector<LookupResult> m_found{{{A, B}, ""}};
    std::size_t m_lookups = 0;
};

TEST_F(ToolWatcher, ReportsEachCheckAndEachNewVersion)
{
    Watch(
        [](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            service.Await("downloaded");
            service.Version(A, "edition 1");
            service.Await("unchanged");
            service.Update(A, "edition 2");
            service.Await("edition 2', 24 bytes");
        });
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
    Watch(
        [](ScriptedService& service)
        {
            service.VersionFails(A);
            service.Update(B, "edition 1");
            service.Await("downloaded");
        });
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1",
                                     "failed: version.txt from 192.0.2.1: no connection",
                                     "next server 192.0.2.2", "checking 192.0.2.2",
                                     "new version 'edition 1' at 192.0.2.2",
                                     Downloaded("edition 1", B), "stopped by SIGTERM"));
}

TEST_F(ToolWatcher, EventsAreJsonObjectsWhenAskedFor)
{
    m_options.json = true;
    m_options.servers = "dir.example";
    m_found = {{{A}, ""}};
    Watch(
        [](ScriptedService& service)
        {
            service.VersionFails(A);
            service.Update(A, "edition\t1\xff");
            service.Await("downloaded");
        });
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 7U);
    static const std::regex time(R"(^\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ",)");
    std::vector<std::string> rests;
    for (const std::string& line : lines)
    {
        EXPECT_TRUE(std::regex_search(line, time)) << line;
        rests.push_back(std::regex_replace(line, time, "{"));
    }
    const std::string server = R"("server":"192.0.2.1","name":"dir.example")";
    const std::string version = R"("version":"edition\t1)"
                                "\xef\xbf\xbd\"";
    EXPECT_THAT(
        rests,
        ElementsAre(
            R"({"event":"checking",)" + server + "}",
            R"({"event":"failed",)" + server +
                R"(,"remote_file":"version.txt","code":16,"step":0,"reply":0,"reason":"no connection"})",
            R"({"event":"next_server",)" + server + "}", R"({"event":"checking",)" + server + "}",
            R"({"event":"new_version",)" + server + "," + version + "}",
            R"({"event":"downloaded",)" + server + "," + version + R"(,"file":")" +
                m_directory.Path() + R"(/directory.csv","bytes":24})",
            R"({"event":"stopped","signal":"SIGTERM"})"));
}

TEST_F(ToolWatcher, QuietLeavesFailures)
{
    m_options.quiet = true;
    Watch(
        [](ScriptedService& service)
        {
            service.VersionFails(A);
            service.Version(B, "oops");
            service.Await("not valid");
        });
    EXPECT_THAT(Lines(), ElementsAre("failed: version.txt from 192.0.2.1: no connection",
                                     "failed: version.txt from 192.0.2.2: the version file is not "
                                     "valid: its first line 'oops' is shorter than 5 bytes"));
}

// The service itself would only try the same server again.
TEST_F(ToolWatcher, AVersionFileThatIsNotValidIsAskedForAtTheNextServerAtOnce)
{
    const Script bad = [](ScriptedService& service) { service.Version(A, "oops"); };
    Watch(bad, Fetch(B));
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1"));
}

// The version is that of the file when it arrived, not when the event is handled.
TEST_F(ToolWatcher, VersionsThatComeFastAreNotMixedUp)
{
    Watch(
        [](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            service.Update(A, "edition 2");
            service.Await("downloaded", 2);
        });
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 1", A)));
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 2", A)));
}

// The service starts the newer transfer after it has reported the old one.
TEST_F(ToolWatcher, AFileThatArrivesWhenANewerVersionIsAnnouncedHasItsOwnVersion)
{
    Watch(
        [](ScriptedService& service)
        {
            service.Version(A, "edition 1");
            service.DirectoryBegins(A);
            const unsigned int old = service.Task();
            service.Version(A, "edition 2");
            service.DirectoryArrives(A, old);
            service.Directory(A);
            service.Await("downloaded", 2);
        });
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 1", A)).Times(1));
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 2", A)).Times(1));
}

TEST_F(ToolWatcher, AnOldDirectoryFileThatEndsLastIsNotTakenForTheNewOne)
{
    Watch(
        [](ScriptedService& service)
        {
            service.Version(A, "edition 1");
            service.DirectoryBegins(A);
            const unsigned int old = service.Task();
            service.Update(A, "edition 2");
            service.Await("downloaded");
            service.DirectoryIsInPlace(A, old);
            service.Version(A, "edition 2");
            service.Await("unchanged");
        });
    EXPECT_THAT(Lines(), testing::Contains(HasSubstr("downloaded")).Times(1));
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 2", A)));
}

// A missing log directory must not end the watch.
TEST_F(ToolWatcher, AStartThatFailsLaterIsTriedAgain)
{
    const Script failing = [this](ScriptedService& service)
    {
        service.Version(A, "edition 1");
        m_service.initResult = 2;
        service.DirectoryFails(A);
    };
    m_service.initFailures = 1;
    Watch(failing, Fetch(A));
    EXPECT_THAT(Lines(), testing::Contains("failed: the service could not be started (code 2)"));
}

// The service itself would retry the directory file only when the version changes.
TEST_F(ToolWatcher, AFailedDirectoryFileIsAskedForAtTheNextServerAtOnce)
{
    const Script failing = [](ScriptedService& service)
    {
        service.Version(A, "edition 1");
        service.DirectoryFails(A);
    };
    Watch(failing, Fetch(B));
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1"));
    EXPECT_THAT(Lines(), ElementsAre("checking 192.0.2.1", "new version 'edition 1' at 192.0.2.1",
                                     "failed: directory.csv from 192.0.2.1: ended early",
                                     "next server 192.0.2.2", "checking 192.0.2.2",
                                     "new version 'edition 1' at 192.0.2.2",
                                     Downloaded("edition 1", B), "stopped by SIGTERM"));
}

// Otherwise a version would be missed. The retry is sooner than the next check.
TEST_F(ToolWatcher, ADirectoryFileThatFailedEverywhereIsAskedForAgainAfterTheRetryTime)
{
    const Script first = [](ScriptedService& service)
    {
        service.Version(A, "edition 1");
        service.DirectoryFails(A);
    };
    const Script second = [](ScriptedService& service)
    {
        service.Version(B, "edition 1");
        service.DirectoryFails(B);
        service.Version(B, "edition 1");  // the service's own check finds nothing new
    };
    const auto begun = std::chrono::steady_clock::now();
    Watch(first, second, Fetch(A));
    EXPECT_GE(std::chrono::steady_clock::now() - begun, seconds(1));
    EXPECT_THAT(m_service.requests,
                ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.2;192.0.2.1", "192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), testing::Contains("retrying in 1 s"));
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 1", A)));
}

TEST_F(ToolWatcher, ADirectoryFileThatCannotBeWrittenIsNotTriedElsewhere)
{
    const Script full = [](ScriptedService& service)
    {
        service.Version(A, "edition 1");
        service.DirectoryFails(A, TRAVEX_FTP_ERR_LOCAL_FILE);
    };
    Watch(full, Fetch(A));
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2", "192.0.2.1;192.0.2.2"));
}

// The failure of an outdated file is reported, without a retry.
TEST_F(ToolWatcher, AnOldDirectoryFileThatFailsIsNotAskedForAgain)
{
    Watch(
        [](ScriptedService& service)
        {
            service.Version(A, "edition 1");
            service.DirectoryBegins(A);
            const unsigned int old = service.Task();
            service.Await("edition 1");
            service.Version(A, "edition 2");
            service.DirectoryBegins(A);
            const unsigned int newer = service.Task();
            service.Await("edition 2");
            service.DirectoryEndsEarly(A, old);
            service.Await("ended early");
            service.DirectoryArrives(A, newer);
            service.Await("downloaded");
        });
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), testing::Contains(Downloaded("edition 2", A)));
}

// A failed check alone does not lead to a new request.
TEST_F(ToolWatcher, AnOutageAfterAVersionIsLeftToTheService)
{
    Watch(
        [](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            service.VersionFails(A);  // after a success, the first of the list again
            service.VersionFails(A);
            service.VersionFails(B);
            service.Await("next check within 600 s");
            service.Version(A, "edition 1");
            service.Await("unchanged");
        });
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1;192.0.2.2"));
    EXPECT_THAT(Lines(), testing::Contains("next check within 600 s"));
    EXPECT_THAT(Lines(), testing::Contains(HasSubstr("next server")).Times(2));
}

TEST_F(ToolWatcher, ServersThatNeverGaveAVersionAreAskedAgainAfterTheRetryTime)
{
    const Script down = [](ScriptedService& service)
    {
        service.VersionFails(A);
        service.VersionFails(B);
    };
    Watch(down, down, Fetch(A));
    EXPECT_EQ(m_service.requests.size(), 3U);
    EXPECT_THAT(Lines(), testing::Contains("retrying in 1 s").Times(2));
}

TEST_F(ToolWatcher, OneServerIsTriedTwice)
{
    m_options.servers = "192.0.2.1";
    Watch(
        [](ScriptedService& service)
        {
            service.VersionFails(A);
            service.VersionFails(A);
            service.Await("retrying in");
        });
    EXPECT_THAT(
        Lines(),
        ElementsAre("checking 192.0.2.1", "failed: version.txt from 192.0.2.1: no connection",
                    "next server 192.0.2.1", "checking 192.0.2.1",
                    "failed: version.txt from 192.0.2.1: no connection", "all servers failed",
                    "retrying in 1 s", "stopped by SIGTERM"));
}

TEST_F(ToolWatcher, NewAddressesAreTakenWhenTheOldOnesFail)
{
    m_options.servers = "dir.example";
    m_found = {{{A}, ""}, {{}, "no network"}, {{B, C}, ""}};
    const Script moved = [](ScriptedService& service)
    {
        service.Update(A, "edition 1");
        service.VersionFails(A);
        service.VersionFails(A);
        service.Await("no network");
        service.VersionFails(A);
        service.VersionFails(A);
    };
    const Script there = [](ScriptedService& service)
    {
        service.Update(B, "edition 1");
        service.Await("bytes from 192.0.2.2");
    };
    Watch(moved, there);
    EXPECT_THAT(m_service.requests, ElementsAre("192.0.2.1", "192.0.2.2;192.0.2.3"));
    EXPECT_THAT(Lines(), testing::Contains("failed: dir.example: no network"));
    EXPECT_THAT(Lines(), testing::Contains("checking 192.0.2.2 (dir.example)"));
}

TEST_F(ToolWatcher, WaitsForANameThatHasNoAddressYet)
{
    m_options.servers = "dir.example";
    m_found = {{{}, "no network"}, {{A}, ""}};
    Watch(
        [](ScriptedService& service)
        {
            service.Version(A, "edition 1");
            service.Await("new version");
        });
    EXPECT_THAT(Lines(), ElementsAre("failed: dir.example: no network", "retrying in 1 s",
                                     "checking 192.0.2.1 (dir.example)",
                                     "new version 'edition 1' at 192.0.2.1 (dir.example)",
                                     "stopped by SIGTERM"));
}

TEST_F(ToolWatcher, ARefusedArgumentEndsItAtTheStartOnly)
{
    m_service.refuseWith = TRAVEX_FTP_ERR_CIPHER;
    const Thrown thrown = ExitErrorOf([this] { Run({}); });
    EXPECT_EQ(thrown.status, kExitArguments);
    EXPECT_EQ(thrown.message, "--ciphers: refused: bad suite");
}

TEST_F(ToolWatcher, ATransferThatIsRefusedLaterIsAskedForAgain)
{
    const Script gone = [](ScriptedService& service)
    {
        service.Version(A, "edition 1");
        service.TransferRefused();
    };
    Watch(gone, Fetch(A));
    EXPECT_EQ(m_service.requests.size(), 2U);
    EXPECT_THAT(Lines(), testing::Contains(HasSubstr("no such file")));
}

TEST_F(ToolWatcher, AServiceThatDoesNotStartEndsIt)
{
    m_service.initResult = 5;
    EXPECT_EQ(ExitErrorOf([this] { Run({}); }).status, kExitInternal);
}

TEST_F(ToolWatcher, LackOfMemoryEndsIt)
{
    const Thrown thrown = ExitErrorOf(
        [this] { Run({[this](ScriptedService&) { m_events.Push(EventKind::kOutOfMemory); }}); });
    EXPECT_EQ(thrown.status, kExitInternal);
    EXPECT_EQ(thrown.message, "out of memory");
}

TEST_F(ToolWatcher, AnOutputThatCannotBeWrittenEndsIt)
{
    std::FILE* const full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    const Plan plan = MakePlan(m_options, SomeCiphers);
    WatchOutput output(full, false, false);
    m_service.scripts = {[](ScriptedService& service) { service.Version(A, "edition 1"); }};
    {
        Watcher watcher(m_service, plan, SystemLookup, m_password, m_events, output, nullptr);
        const Thrown thrown = ExitErrorOf([&watcher] { watcher.Run(); });
        EXPECT_EQ(thrown.status, kExitLocalFile);
    }
    (void)std::fclose(full);
}

// The command writes its variables to a file.
class ToolWatcherCommand : public ToolWatcher
{
protected:
    std::vector<std::string> Given() const
    {
        std::ifstream file(m_directory.Path() + "/given");
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(line);
        }
        return lines;
    }

    const std::string m_note = "echo \"$CORPDIR_FILE $CORPDIR_VERSION $CORPDIR_SERVER\" >>" +
                               m_directory.Path() + "/given";
};

TEST_F(ToolWatcherCommand, IsRunForEachNewVersion)
{
    m_options.execute = m_note;
    Watch(
        [](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            service.Await("the command succeeded");
            service.Update(A, "edition 2");
            service.Await("the command succeeded", 2);
        });
    const std::string file = m_directory.Path() + "/directory.csv ";
    EXPECT_THAT(Given(), ElementsAre(file + "edition 1 192.0.2.1", file + "edition 2 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, IsNotRunForTheSameVersionAgain)
{
    m_options.execute = m_note;
    m_options.servers = "dir.example";
    m_found = {{{A}, ""}, {{B}, ""}};
    const Script first = [](ScriptedService& service)
    {
        service.Update(A, "edition 1");
        service.Await("the command succeeded");
        service.VersionFails(A);
        service.VersionFails(A);
    };
    const Script moved = [](ScriptedService& service)
    {
        service.Update(B, "edition 1");
        service.Await("bytes from 192.0.2.2");
    };
    Watch(first, moved);
    EXPECT_EQ(Given().size(), 1U);
}

TEST_F(ToolWatcherCommand, RunsOnceForSeveralVersionsDuringARun)
{
    const std::string gate = m_directory.Path() + "/gate";
    m_options.execute = "while [ ! -e " + gate + " ]; do sleep 0.01; done; " + m_note;
    Watch(
        [&gate](ScriptedService& service)
        {
            for (const char* version : {"edition 1", "edition 2", "edition 3"})
            {
                service.Update(A, version);
                service.Await("downloaded", static_cast<std::size_t>(version[8] - '0'));
            }
            std::ofstream(gate) << "open";
            service.Await("the command succeeded", 2);
        });
    const std::string file = m_directory.Path() + "/directory.csv ";
    EXPECT_THAT(Given(), ElementsAre(file + "edition 1 192.0.2.1", file + "edition 3 192.0.2.1"));
}

TEST_F(ToolWatcherCommand, AFailureIsReported)
{
    m_options.execute = "exit 3";
    Watch(
        [](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            service.Await("the command failed");
        });
    EXPECT_THAT(Lines(), testing::Contains("the command failed with status 3"));
}

TEST_F(ToolWatcherCommand, IsEndedWithTheWatch)
{
    m_options.execute = "trap 'echo asked to end >>" + m_directory.Path() +
                        "/given; exit' TERM; echo begun >>" + m_directory.Path() +
                        "/given; while :; do sleep 0.01; done";
    Watch(
        [this](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            while (Given().empty())
            {
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
    EXPECT_THAT(Given(), ElementsAre("begun", "asked to end"));
}

TEST_F(ToolWatcherCommand, ThatDoesNotEndIsKilled)
{
    m_options.execute =
        "trap '' TERM; echo begun >>" + m_directory.Path() + "/given; while :; do sleep 0.01; done";
    const auto begun = std::chrono::steady_clock::now();
    Watch(
        [this](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            while (Given().empty())
            {
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
    EXPECT_LT(std::chrono::steady_clock::now() - begun, kPatience);
}

// The command inherits no signal settings of the watch.
TEST_F(ToolWatcherCommand, InheritsNoSignalSettings)
{
    m_options.execute =
        "grep -E '^Sig(Blk|Ign)' /proc/self/status >>" + m_directory.Path() + "/given";
    sigset_t blocked;
    sigset_t saved;
    (void)sigemptyset(&blocked);
    (void)sigaddset(&blocked, SIGTERM);
    (void)pthread_sigmask(SIG_BLOCK, &blocked, &saved);
    const auto previous = signal(SIGPIPE, SIG_IGN);
    Watch(
        [](ScriptedService& service)
        {
            service.Update(A, "edition 1");
            service.Await("the command succeeded");
        });
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
