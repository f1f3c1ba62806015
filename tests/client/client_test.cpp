// The client on a scripted service: the test plays the service and the FTP layer on its own thread.
#include "client.h"
#include "settings_check.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>

#include "captured_log.h"
#include "failing_new.h"
#include "fake_layers.h"
#include "files.h"
#include "state.h"
#include "travex_ftp.h"

namespace client
{
namespace
{

using corpdir_tool::Layers;
using support::FileExists;
using support::ReadFile;
using support::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const char kVersionFile[] = "/dir/version.txt";
const char kDirectoryFile[] = "/dir/directory.csv";

// Records the calls.
class Service final : public IFtpCorpDir
{
public:
    unsigned int CorpDirInit(tag_CORPDIR_LOGINFO*) override
    {
        running = initResult == 0;
        return initResult;
    }
    void CorpDirUninit() override
    {
        running = false;
        ++stops;
    }
    unsigned int CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* info,
                                        CORPDIR_DOWNLOAD_CB callback) override
    {
        EXPECT_TRUE(running);
        EXPECT_NE(nullptr, callback);
        requests.emplace_back(info->pszFtpIPs);
        last = *info;
        passwords.emplace_back(info->szPassword);
        if (refuseWith != 0)
        {
            Layers().Observe(TRAVEX_FTP_OBSERVED_REFUSED, 0, "", "", refuseWith, "bad suite");
            return 1;
        }
        return 0;
    }
    unsigned int CorpDirSetFtpCipherListToDirImpl(const int* list, unsigned int count) override
    {
        suites.assign(list, list + count);
        return 0;
    }
    unsigned int CorpDirAddFtpCipherListToDirImplByOne(int) override
    {
        return 1;
    }
    unsigned int CorpDirAddFtpCipherListToDirImpl(const int*, unsigned int) override
    {
        return 1;
    }

    bool running = false;
    int stops = 0;
    unsigned int initResult = 0;
    unsigned int refuseWith = 0;
    std::vector<std::string> requests;
    std::vector<std::string> passwords;
    std::vector<int> suites;
    tag_CORPDIR_DOWNLOADINFO last = {};
};

std::string NextText(Next next)
{
    return next == Next::kNothing ? "" : next == Next::kSameServer ? " again" : " next";
}

// "delivered 192.0.2.1 V0001"
std::string TextOf(const Event& event)
{
    const std::string server = event.server.Label();
    switch (event.kind)
    {
        case Event::Kind::kChecking:
            return "checking " + server + NextText(event.next);
        case Event::Kind::kProgress:
            return "progress";
        case Event::Kind::kNewVersion:
            return (event.known ? "known " : "new ") + server + " " + event.version;
        case Event::Kind::kUnchanged:
            return "unchanged " + server + " " + event.version;
        case Event::Kind::kInvalidVersion:
            return "invalid " + server + ": " + event.transfer.reason + NextText(event.next);
        case Event::Kind::kDelivered:
            return "delivered " + server + " " + event.version;
        case Event::Kind::kFailed:
            return "failed " + server + " " + std::to_string(event.transfer.code) +
                   NextText(event.next);
        case Event::Kind::kRefused:
            return "refused " + event.transfer.reason;
        case Event::Kind::kNameFailed:
            return "no address " + event.server.name + ": " + event.transfer.reason;
        case Event::Kind::kPassFailed:
            return "all failed";
        case Event::Kind::kRecovered:
            return "recovered " + std::to_string(event.failures);
        case Event::Kind::kStartFailed:
            return "start failed: " + event.transfer.reason;
        case Event::Kind::kWaiting:
            return std::string(event.retries ? "retry" : "wait") + " " +
                   std::to_string(event.wait.count());
        case Event::Kind::kWarning:
            return "warning: " + event.transfer.reason;
    }
    return "?";
}

class ClientTest : public testing::Test
{
protected:
    ClientTest()
    {
        Layers() = {};
        settings.servers = {{"192.0.2.1", true}, {"192.0.2.2", true}, {"192.0.2.3", true}};
        settings.user = "phone";
        settings.trust = "system";
        settings.suites = {0x03001302};
        settings.versionFile = kVersionFile;
        settings.directoryFile = kDirectoryFile;
        settings.versionFolder = settings.directoryFolder = folder.Path() + "/";
        settings.versionName = "version.txt";
        settings.directoryName = "directory.csv";
        settings.readPassword = [this](Secret& password, bool refused)
        {
            for (const char byte : refused ? std::string("new") : secret)
            {
                ASSERT_TRUE(password.Append(byte));
            }
        };
    }

    void Start()
    {
        client.Start(settings);
    }

    // What the client has to say now.
    std::vector<std::string> Said()
    {
        std::vector<std::string> texts;
        while (const std::optional<Event> event = client.Next(Client::Clock::now()))
        {
            texts.push_back(TextOf(*event));
        }
        return texts;
    }

    // Names are looked up on other threads.
    std::vector<std::string> AwaitSaid(std::size_t count)
    {
        std::vector<std::string> texts;
        const Client::Clock::time_point end = Client::Clock::now() + std::chrono::seconds(20);
        while (texts.size() < count)
        {
            const std::optional<Event> event = client.Next(end);
            if (!event)
            {
                break;
            }
            texts.push_back(TextOf(*event));
        }
        return texts;
    }
    void AwaitRequests(std::size_t count)
    {
        const Client::Clock::time_point end = Client::Clock::now() + std::chrono::seconds(20);
        while (service.requests.size() < count && Client::Clock::now() < end)
        {
            (void)client.Next(Client::Clock::now() + std::chrono::milliseconds(1));
        }
        EXPECT_THAT(service.requests, testing::SizeIs(count));
    }

    std::string Staged(const char* name) const
    {
        return folder.Path() + "/" + name;
    }

    void Accept(const std::string& server, const char* file)
    {
        Layers().Observe(TRAVEX_FTP_OBSERVED_ACCEPTED, ++task, server + ":21", file, 0, "");
    }
    void Succeed(const std::string& server, const char* file, unsigned int ofTask)
    {
        Layers().Observe(TRAVEX_FTP_OBSERVED_SUCCESS, ofTask, server + ":21", file, 0, "");
    }
    void Version(const std::string& server, const std::string& text)
    {
        Accept(server, kVersionFile);
        WriteFile(Staged(service.last.szVersionLocalFileName), text);
        Succeed(server, kVersionFile, task);
    }
    void Arrive(const std::string& server, const std::string& text, unsigned int ofTask)
    {
        WriteFile(Staged(service.last.szCorpDirLocalFileName), text);
        Succeed(server, kDirectoryFile, ofTask);
    }
    void Directory(const std::string& server, const std::string& text)
    {
        Accept(server, kDirectoryFile);
        Arrive(server, text, task);
    }
    void Fail(const std::string& server, const char* file,
              unsigned int code = TRAVEX_FTP_ERR_CONNECT, unsigned int reply = 0)
    {
        Accept(server, file);
        Layers().Observe(TRAVEX_FTP_OBSERVED_FAILED, task, server + ":21", file, code, "no luck",
                         reply);
    }
    // A check of one server that delivers.
    void Deliver(const std::string& server, const std::string& version, const std::string& text)
    {
        Version(server, version + "\n");
        Directory(server, text);
    }

    State StateOfFile() const
    {
        std::string problem;
        const std::optional<State> state =
            ReadState(folder.Path() + "/.directory.csv.corpdir.json", problem);
        EXPECT_TRUE(state.has_value()) << problem;
        return state.value_or(State());
    }
    std::string Local(const char* name) const
    {
        return ReadFile(folder.Path() + "/" + name);
    }

    support::TemporaryDirectory folder;
    Settings settings;
    std::string secret = "old";
    Service service;
    std::map<std::string, LookupResult> addresses;
    unsigned int task = 0;
    Client client{service, [this](const std::string& name, int) { return addresses[name]; }};
};

TEST_F(ClientTest, PutsBothFilesAndTheStateIntoPlace)
{
    Start();
    EXPECT_THAT(Said(), IsEmpty());
    EXPECT_THAT(service.requests, ElementsAre("192.0.2.1;192.0.2.2;192.0.2.3"));
    EXPECT_THAT(service.suites, ElementsAre(0x03001302));
    Version("192.0.2.1", "V0001\nand more\n");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001"));
    EXPECT_FALSE(FileExists(folder.Path() + "/version.txt"));
    Directory("192.0.2.1", "a,b\n");
    EXPECT_THAT(Said(), ElementsAre("delivered 192.0.2.1 V0001"));
    EXPECT_EQ("a,b\n", Local("directory.csv"));
    EXPECT_EQ("V0001\nand more\n", Local("version.txt"));
    const State state = StateOfFile();
    EXPECT_EQ("V0001", state.version);
    EXPECT_EQ(4u, state.size);
    // printf 'a,b\n' | sha256sum
    EXPECT_EQ("5be08c9684a1d25efcee09318204824278b08bbfb4aef973ffefd0b9d7478313", state.sha256);
    EXPECT_EQ("192.0.2.1", state.server);
    EXPECT_EQ("fetched", state.outcome);
    EXPECT_EQ(0u, state.failures);
    EXPECT_NE(0, state.fetched);
    EXPECT_GE(state.confirmed, state.fetched);
}

TEST_F(ClientTest, LeavesOnlyTheStateBesideTheFiles)
{
    {
        Client other(service, [](const std::string&, int) { return LookupResult(); });
        other.Start(settings);
        (void)other.Next(Client::Clock::now());
        Deliver("192.0.2.1", "V0001", "a");
        while (other.Next(Client::Clock::now()))
        {
        }
    }
    EXPECT_THAT(
        support::FilesIn(folder.Path()),
        UnorderedElementsAre("directory.csv", "version.txt", ".directory.csv.corpdir.json"));
}

TEST_F(ClientTest, SaysThatAVersionIsUnchanged)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    Version("192.0.2.1", "V0001\n");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "unchanged 192.0.2.1 V0001"));
    EXPECT_EQ("unchanged", StateOfFile().outcome);
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

TEST_F(ClientTest, FollowsTheServiceThroughItsServers)
{
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.2", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "failed 192.0.2.1 16 next",
                                    "checking 192.0.2.2 next", "failed 192.0.2.2 16 next"));
    Deliver("192.0.2.3", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.3 next", "new 192.0.2.3 V0001",
                                    "delivered 192.0.2.3 V0001"));
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

TEST_F(ClientTest, AsksAgainAfterAPauseWhenNoVersionWasSeen)
{
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.2", kVersionFile);
    (void)Said();
    Fail("192.0.2.3", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.3 next", "failed 192.0.2.3 16", "all failed",
                                    "retry 60"));
    EXPECT_FALSE(service.running);
    EXPECT_EQ(1u, StateOfFile().failures);
    EXPECT_EQ("failed", StateOfFile().outcome);
    client.CheckNow();
    EXPECT_THAT(Said(), IsEmpty());
    EXPECT_THAT(service.requests, testing::SizeIs(2));
}

// The service goes through its list from the beginning, and asks the current server a second time.
TEST_F(ClientTest, FollowsAnOutageThatBeginsWithTheLastServer)
{
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.2", kVersionFile);
    Deliver("192.0.2.3", "V0001", "a");
    (void)Said();
    for (const char* server : {"192.0.2.3", "192.0.2.1", "192.0.2.2", "192.0.2.3"})
    {
        Fail(server, kVersionFile);
    }
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.3", "failed 192.0.2.3 16 next",
                                    "checking 192.0.2.1 next", "failed 192.0.2.1 16 next",
                                    "checking 192.0.2.2 next", "failed 192.0.2.2 16 next",
                                    "checking 192.0.2.3 next", "failed 192.0.2.3 16", "all failed",
                                    "wait 600"));
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

TEST_F(ClientTest, FirstServerIsAskedAgainAfterItHasWorked)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "failed 192.0.2.1 16 again"));
}

TEST_F(ClientTest, CheckDuringAFetchIsMadeAfterIt)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "V0001");
    (void)Said();
    client.CheckNow();
    client.CheckNow();
    EXPECT_EQ(0, Layers().expiries);
    Directory("192.0.2.1", "a");
    EXPECT_THAT(Said(), ElementsAre("delivered 192.0.2.1 V0001"));
    EXPECT_EQ(1, Layers().expiries);
}

TEST_F(ClientTest, CheckDuringACheckThatFailsIsMadeAfterIt)
{
    settings.servers.resize(1);
    Start();
    (void)Said();
    client.CheckNow();
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(), testing::IsSupersetOf({"all failed", "retry 0"}));
    EXPECT_THAT(service.requests, testing::SizeIs(2)) << "no version was seen";
    Deliver("192.0.2.1", "V0001", "a");
    Fail("192.0.2.1", kVersionFile);
    (void)Said();
    client.CheckNow();
    Fail("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(),
                ElementsAre("checking 192.0.2.1 again", "failed 192.0.2.1 16", "all failed"));
    EXPECT_EQ(1, Layers().expiries);
    EXPECT_THAT(service.requests, testing::SizeIs(2)) << "the service checks again";
}

// A slow directory file: the service checks again meanwhile.
TEST_F(ClientTest, VersionWhoseDirectoryFileIsUnderWayIsNotUnchanged)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "V0001");
    Accept("192.0.2.1", kDirectoryFile);
    const unsigned int directory = task;
    Version("192.0.2.1", "V0001");
    EXPECT_THAT(Said(),
                ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001", "checking 192.0.2.1"));
    Layers().Observe(TRAVEX_FTP_OBSERVED_FAILED, directory, "192.0.2.1:21", kDirectoryFile,
                     TRAVEX_FTP_ERR_PARTIAL, "cut");
    EXPECT_THAT(Said(), ElementsAre("failed 192.0.2.1 23 next"));
    EXPECT_EQ("192.0.2.2;192.0.2.3;192.0.2.1", service.requests.back());
}

// Checks wait behind a slow directory file. The service looks at the latest of them alone.
TEST_F(ClientTest, OnlyTheLatestOfSeveralChecksCounts)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    Accept("192.0.2.1", kVersionFile);
    Accept("192.0.2.1", kVersionFile);
    WriteFile(Staged(service.last.szVersionLocalFileName), "V0002");
    Succeed("192.0.2.1", kVersionFile, task - 1);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "checking 192.0.2.1"));
    Succeed("192.0.2.1", kVersionFile, task);
    Directory("192.0.2.1", "b");
    EXPECT_THAT(Said(), ElementsAre("new 192.0.2.1 V0002", "delivered 192.0.2.1 V0002"));
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

TEST_F(ClientTest, FilesThatAreGoneAreFetchedAgain)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    std::filesystem::remove(folder.Path() + "/directory.csv");
    Version("192.0.2.1", "V0001");
    EXPECT_THAT(Said(),
                ElementsAre("checking 192.0.2.1", testing::StartsWith("warning: the local")));
    EXPECT_THAT(service.requests, testing::SizeIs(2));
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    EXPECT_EQ("V0001\n", Local("version.txt"));
    EXPECT_EQ("a", Local("directory.csv"));
}

// The version is that of the start, at which the service was stopped.
TEST_F(ClientTest, FilesThatAreGoneSinceTheStartAreFetchedAgain)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    settings.onlyIfChanged = true;
    Start();
    (void)Said();
    std::filesystem::remove(folder.Path() + "/directory.csv");
    Version("192.0.2.1", "V0001");
    EXPECT_THAT(Said(),
                ElementsAre("checking 192.0.2.1", testing::StartsWith("warning: the local")));
    EXPECT_THAT(service.requests, testing::SizeIs(3));
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001",
                                    "delivered 192.0.2.1 V0001"));
}

TEST_F(ClientTest, StateThatCannotBeWrittenMeansOneFetchForEachCheck)
{
    const support::TemporaryDirectory other;
    settings.versionFolder = other.Path() + "/";
    Start();
    (void)Said();
    const std::string staged = Staged(service.last.szVersionLocalFileName);
    std::filesystem::create_directory(staged.substr(0, staged.rfind('.')) + ".new");
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), testing::Contains("delivered 192.0.2.1 V0001"));
    for (std::size_t requests = 2; requests != 4; ++requests)
    {
        Version("192.0.2.1", "V0001");
        EXPECT_THAT(Said(), testing::Contains(testing::StartsWith("warning: the local")));
        EXPECT_THAT(service.requests, testing::SizeIs(requests));
        Deliver("192.0.2.1", "V0001", "a");
        EXPECT_THAT(Said(), testing::Contains("delivered 192.0.2.1 V0001"));
        EXPECT_THAT(service.requests, testing::SizeIs(requests));
    }
}

// The service refills its list and checks again by itself.
TEST_F(ClientTest, LeavesTheNextCheckToTheServiceWhenAVersionWasSeen)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    for (const char* server : {"192.0.2.1", "192.0.2.1", "192.0.2.2"})
    {
        Fail(server, kVersionFile);
    }
    (void)Said();
    Fail("192.0.2.3", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.3 next", "failed 192.0.2.3 16", "all failed",
                                    "wait 600"));
    EXPECT_TRUE(service.running);
    client.CheckNow();
    EXPECT_EQ(1, Layers().expiries);
    Version("192.0.2.1", "V0001");
    EXPECT_THAT(Said(),
                ElementsAre("checking 192.0.2.1", "unchanged 192.0.2.1 V0001", "recovered 1"));
    EXPECT_EQ(0u, StateOfFile().failures);
}

// Of an earlier process too.
TEST_F(ClientTest, CountsTheChecksThatFailBeforeARecovery)
{
    WriteFile(folder.Path() + "/.directory.csv.corpdir.json", StateText(
                                                                  []
                                                                  {
                                                                      State state;
                                                                      state.failures = 2;
                                                                      return state;
                                                                  }()));
    settings.servers.resize(1);
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.1", kVersionFile, TRAVEX_FTP_ERR_LOGIN);
    std::optional<Event> event = client.Next(Client::Clock::now());
    while (event && event->kind != Event::Kind::kPassFailed)
    {
        event = client.Next(Client::Clock::now());
    }
    ASSERT_TRUE(event);
    EXPECT_EQ(3u, event->failures);
    EXPECT_EQ("192.0.2.1", event->server.address);
    EXPECT_EQ(unsigned{TRAVEX_FTP_ERR_LOGIN}, event->transfer.code);
    EXPECT_TRUE(event->serverFailed);
    client.CheckNow();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001",
                                    "delivered 192.0.2.1 V0001", "recovered 3"));
}

TEST_F(ClientTest, AsksASingleServerTwice)
{
    settings.servers.resize(1);
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "failed 192.0.2.1 16 again"));
    Fail("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1 again", "failed 192.0.2.1 16", "all failed",
                                    "retry 60"));
}

TEST_F(ClientTest, GoesToTheNextServerAfterAnInvalidVersion)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "V1\n");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1",
                                    "invalid 192.0.2.1: the version file is not valid: its first "
                                    "line 'V1' is shorter than 5 bytes next"));
    EXPECT_EQ("192.0.2.2;192.0.2.3;192.0.2.1", service.requests.back());
    Fail("192.0.2.2", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.2 next", "failed 192.0.2.2 16 next"));
    Version("192.0.2.3", std::string("\xFF\xFE\x31\0\x32\0\x33\0", 8));
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.3 next",
                                    "invalid 192.0.2.3: the version file is not valid: it is "
                                    "UTF-16 text; store it as ASCII or "
                                    "UTF-8",
                                    "all failed", "retry 60"));
    EXPECT_THAT(service.requests, testing::SizeIs(2));
}

TEST_F(ClientTest, LogHasInvalidVersionsAndNamesWithoutAnAddress)
{
    captured_log::Clear();
    settings.servers = {{"a.example", false}, {"b.example", false}};
    addresses["a.example"].problem = "no such name";
    addresses["b.example"].addresses = {"192.0.2.5"};
    Start();
    AwaitRequests(1);
    Version("192.0.2.5", "V1");
    (void)Said();
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR),
                ElementsAre("No address for server a.example: no such name",
                            "The version file /dir/version.txt from server 192.0.2.5 (b.example) "
                            "is not valid: its first line 'V1' is shorter than 5 bytes"));
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_NOTICE),
                ElementsAre("Server b.example has the address 192.0.2.5"));
}

// The service would go on to a server that the client has left already.
TEST_F(ClientTest, AsksNoServerTwiceInACheckOfSeveral)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "");
    (void)Said();
    Fail("192.0.2.2", kVersionFile);
    (void)Said();
    Fail("192.0.2.3", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.3 next", "failed 192.0.2.3 16", "all failed",
                                    "retry 60"));
    EXPECT_FALSE(service.running);
}

TEST_F(ClientTest, GoesToTheNextServerWhenTheDirectoryFileFails)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "V0001");
    Fail("192.0.2.1", kDirectoryFile, TRAVEX_FTP_ERR_PARTIAL);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001",
                                    "failed 192.0.2.1 23 next"));
    EXPECT_EQ("192.0.2.2;192.0.2.3;192.0.2.1", service.requests.back());
    Deliver("192.0.2.2", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.2 next", "new 192.0.2.2 V0001",
                                    "delivered 192.0.2.2 V0001"));
}

// A version file that arrives during the transfer belongs to the next directory file.
TEST_F(ClientTest, BindsEachDirectoryFileToTheVersionBeforeIt)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "V0001");
    Accept("192.0.2.1", kDirectoryFile);
    const unsigned int first = task;
    Version("192.0.2.1", "V0002");
    (void)Said();
    Arrive("192.0.2.1", "one", first);
    Accept("192.0.2.1", kDirectoryFile);
    // The second file arrives before the first was looked at.
    Arrive("192.0.2.1", "two", task);
    std::vector<std::string> seen;
    while (const std::optional<Event> event = client.Next(Client::Clock::now()))
    {
        seen.push_back(TextOf(*event) + ": " + Local("version.txt") + " " + Local("directory.csv"));
    }
    EXPECT_THAT(seen, ElementsAre("delivered 192.0.2.1 V0001: V0001 one",
                                  "delivered 192.0.2.1 V0002: V0002 two"));
}

TEST_F(ClientTest, OldDirectoryFileThatFailsIsLeftToTheNewOne)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "V0001");
    Accept("192.0.2.1", kDirectoryFile);
    const unsigned int first = task;
    Version("192.0.2.1", "V0002");
    (void)Said();
    Layers().Observe(TRAVEX_FTP_OBSERVED_FAILED, first, "192.0.2.1:21", kDirectoryFile,
                     TRAVEX_FTP_ERR_PARTIAL, "cut");
    EXPECT_THAT(Said(), ElementsAre("failed 192.0.2.1 23"));
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

TEST_F(ClientTest, StopsBeforeTheDirectoryFileWhenOnlyAChangeIsWanted)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    settings.onlyIfChanged = true;
    Start();
    (void)Said();
    EXPECT_TRUE(service.running);
    Accept("192.0.2.1", kVersionFile);
    WriteFile(Staged(service.last.szVersionLocalFileName), "V0001\n");
    Succeed("192.0.2.1", kVersionFile, task);
    EXPECT_FALSE(service.running) << "stopped within the observer";
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "unchanged 192.0.2.1 V0001"));
    EXPECT_EQ("unchanged", StateOfFile().outcome);
}

// The service is stopped then, and the directory file does not arrive any more.
TEST_F(ClientTest, LocalVersionThatComesBackDuringAFetchIsUnchanged)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    settings.onlyIfChanged = true;
    Start();
    (void)Said();
    Version("192.0.2.1", "V0002");
    Accept("192.0.2.1", kDirectoryFile);
    Version("192.0.2.1", "V0001");
    EXPECT_THAT(Said(), testing::Contains("unchanged 192.0.2.1 V0001"));
}

TEST_F(ClientTest, FetchesWhenTheLocalFileIsNotTheOneOfTheState)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    settings.onlyIfChanged = true;
    const std::vector<std::function<void()>> changes = {
        [this] { WriteFile(folder.Path() + "/directory.csv", "b"); },
        [this] { std::filesystem::remove(folder.Path() + "/directory.csv"); },
        [this] { WriteFile(folder.Path() + "/.directory.csv.corpdir.json", "{"); }};
    for (const auto& change : changes)
    {
        change();
        Start();
        (void)Said();
        Version("192.0.2.1", "V0001\n");
        EXPECT_TRUE(service.running);
        Directory("192.0.2.1", "a");
        EXPECT_THAT(Said(), testing::Contains("delivered 192.0.2.1 V0001"));
    }
}

// After a restart the service takes the first version for new, and fetches the directory file.
TEST_F(ClientTest, EqualDirectoryFileIsNoUpdate)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    const std::int64_t fetched = StateOfFile().fetched;
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "known 192.0.2.1 V0001",
                                    "unchanged 192.0.2.1 V0001"));
    EXPECT_EQ("unchanged", StateOfFile().outcome);
    EXPECT_EQ(fetched, StateOfFile().fetched);
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "other");
    EXPECT_THAT(Said(), testing::Contains("delivered 192.0.2.1 V0001"));
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0002", "other");
    EXPECT_THAT(Said(), testing::Contains("delivered 192.0.2.1 V0002"));
}

TEST_F(ClientTest, NamesWithoutAnAddressAreLeftOut)
{
    settings.servers = {{"a.example", false}, {"b.example", false}, {"192.0.2.9", true}};
    addresses["a.example"].problem = "no such name";
    addresses["b.example"].addresses = {"192.0.2.5", "192.0.2.6"};
    Start();
    EXPECT_THAT(AwaitSaid(1), ElementsAre("no address a.example: no such name"));
    EXPECT_THAT(service.requests, ElementsAre("192.0.2.5;192.0.2.6;192.0.2.9"));
    EXPECT_THAT(Layers().names,
                ElementsAre("192.0.2.5=b.example", "192.0.2.6=b.example", "192.0.2.9=192.0.2.9"));
}

TEST_F(ClientTest, ChecksAgainLaterWhenNoNameHasAnAddress)
{
    settings.servers = {{"a.example", false}};
    addresses["a.example"].problem = "no such name";
    Start();
    EXPECT_THAT(AwaitSaid(3),
                ElementsAre("no address a.example: no such name", "all failed", "retry 60"));
    EXPECT_THAT(service.requests, IsEmpty());
    addresses["a.example"].addresses = {"192.0.2.5"};
    client.CheckNow();
    AwaitRequests(1);
    EXPECT_THAT(service.requests, ElementsAre("192.0.2.5"));
}

TEST_F(ClientTest, FollowsNamesThatMoveWhileTheirServersFail)
{
    settings.servers = {{"a.example", false}};
    addresses["a.example"].addresses = {"192.0.2.5"};
    Start();
    AwaitRequests(1);
    Deliver("192.0.2.5", "V0001", "a");
    (void)Said();
    addresses["a.example"].addresses = {"192.0.2.7"};
    Fail("192.0.2.5", kVersionFile);
    Fail("192.0.2.5", kVersionFile);
    AwaitRequests(2);
    EXPECT_EQ("192.0.2.7", service.requests.back());
}

TEST_F(ClientTest, OtherOrderOfTheSameAddressesIsNoMove)
{
    settings.servers = {{"a.example", false}};
    addresses["a.example"].addresses = {"192.0.2.5", "192.0.2.6"};
    Start();
    AwaitRequests(1);
    Deliver("192.0.2.5", "V0001", "a");
    addresses["a.example"].addresses = {"192.0.2.6", "192.0.2.5"};
    for (const char* server : {"192.0.2.5", "192.0.2.5", "192.0.2.6"})
    {
        Fail(server, kVersionFile);
    }
    (void)Said();
    (void)client.Next(Client::Clock::now() + std::chrono::milliseconds(300));  // for the lookup
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

TEST_F(ClientTest, RefusedSettingsAreFinalAtTheStartOnly)
{
    service.refuseWith = TRAVEX_FTP_ERR_CIPHER;
    Start();
    EXPECT_THAT(Said(), ElementsAre("refused bad suite"));
    EXPECT_FALSE(service.running);
    service.refuseWith = 0;
    Start();
    (void)Said();
    Version("192.0.2.1", "V1");
    service.refuseWith = TRAVEX_FTP_ERR_TRUST;
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", testing::StartsWith("invalid"),
                                    testing::StartsWith("failed"), "all failed", "retry 60"));
}

TEST_F(ClientTest, ServiceThatCannotBeStartedIsAnErrorAtTheStartOnly)
{
    service.initResult = ENOENT;
    try
    {
        Start();
        ADD_FAILURE() << "nothing was thrown";
    }
    catch (const StartError& error)
    {
        EXPECT_EQ(ENOENT, error.Log());
    }
    service.initResult = 0;
    Start();
    (void)Said();
    Version("192.0.2.1", "V1");
    service.initResult = 1;
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", testing::StartsWith("invalid"),
                                    "start failed: the service could not be started (code 1)",
                                    "all failed", "retry 60"));
    EXPECT_EQ(1u, StateOfFile().failures);
    EXPECT_EQ("the service could not be started (code 1)", StateOfFile().reason);
}

// The request under way goes on.
TEST_F(ClientTest, SettingsThatEveryServerWouldRefuseAreFoundWithoutARequest)
{
    Start();
    (void)Said();
    Settings others = settings;
    others.trust = "ca=/gone.pem";
    Layers().refuseWith = TRAVEX_FTP_ERR_TRUST;
    try
    {
        client.Check(others);
        ADD_FAILURE() << "no exception";
    }
    catch (const SettingsError& error)
    {
        EXPECT_STREQ("no such file", error.what());
        EXPECT_EQ(unsigned{TRAVEX_FTP_ERR_TRUST}, error.Code());
    }
    EXPECT_EQ("ca=/gone.pem", Layers().trust);
    Layers().refuseWith = 0;
    client.Check(others);
    others.versionFolder = others.directoryFolder = "/nonexistent/";
    EXPECT_THROW(client.Start(others), std::system_error);
    EXPECT_TRUE(service.running);
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001",
                                    "delivered 192.0.2.1 V0001"));
    EXPECT_THAT(service.requests, testing::SizeIs(1));
}

// In a pause the service does not run.
TEST_F(ClientTest, ACheckOfSettingsStartsTheServiceInAPause)
{
    settings.servers.resize(1);
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.1", kVersionFile);
    (void)Said();
    ASSERT_FALSE(service.running);
    service.initResult = 1;
    EXPECT_THROW(client.Check(settings), StartError);
    service.initResult = 0;
    client.Check(settings);
    EXPECT_TRUE(service.running);
    client.CheckNow();
    (void)Said();
    EXPECT_THAT(service.requests, testing::SizeIs(2));
}

TEST_F(ClientTest, AStartMayFailButLaterRefusalsAreTriedAgain)
{
    service.initResult = ENOENT;
    EXPECT_THROW(client.Start(settings, Client::FirstFailure::kStartFinal), StartError);
    service.initResult = 0;
    service.refuseWith = TRAVEX_FTP_ERR_TRUST;
    client.Start(settings, Client::FirstFailure::kStartFinal);
    EXPECT_THAT(Said(), ElementsAre(testing::StartsWith("failed"), "all failed", "retry 60"));
}

// For settings that have worked before.
TEST_F(ClientTest, FirstFailureIsTriedAgainOnRequest)
{
    service.initResult = ENOENT;
    client.Start(settings, Client::FirstFailure::kRetry);
    EXPECT_THAT(Said(), ElementsAre("start failed: the log cannot be written: No such file or "
                                    "directory",
                                    "all failed", "retry 60"));
    service.initResult = 0;
    service.refuseWith = TRAVEX_FTP_ERR_TRUST;
    client.CheckNow();
    EXPECT_THAT(Said(), ElementsAre(testing::StartsWith("failed"), "all failed", "retry 60"));
}

TEST_F(ClientTest, PasswordThatCannotBeReadStopsTheService)
{
    settings.readPassword = [](Secret&, bool) { throw std::runtime_error("no password"); };
    Start();
    EXPECT_THROW((void)client.Next(Client::Clock::now()), std::runtime_error);
    EXPECT_FALSE(service.running);
}

TEST_F(ClientTest, StartsAgainAfterLackOfMemory)
{
    bool lacks = true;
    Client other(service,
                 [&lacks](const std::string&, int) {
                     return lacks ? throw std::bad_alloc() : LookupResult{{"192.0.2.5"}, ""};
                 });
    settings.servers = {{"a.example", false}};
    other.Start(settings);
    EXPECT_THROW((void)other.Next(Client::Clock::now() + std::chrono::seconds(20)), std::bad_alloc);
    EXPECT_FALSE(service.running);
    lacks = false;
    other.Start(settings);
    while (service.requests.empty())
    {
        (void)other.Next(Client::Clock::now() + std::chrono::milliseconds(1));
    }
    EXPECT_EQ("192.0.2.5", service.requests.back());
}

#ifdef CORPDIR_NEW_CAN_FAIL
TEST_F(ClientTest, LostObservationEndsTheRequestAndNotTheNext)
{
    Start();
    (void)Said();
    const std::string server = "192.0.2.1:21";
    support::t_allocationsLeft = 0;
    Layers().Observe(TRAVEX_FTP_OBSERVED_ACCEPTED, ++task, server, kVersionFile, 0, "");
    support::t_allocationsLeft = -1;
    EXPECT_THROW((void)client.Next(Client::Clock::now()), std::bad_alloc);
    EXPECT_FALSE(service.running);
    Start();
    EXPECT_THAT(Said(), IsEmpty());
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), testing::Contains("delivered 192.0.2.1 V0001"));
}
#endif

TEST_F(ClientTest, ReadsThePasswordAgainAfterARefusedLogin)
{
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    (void)Said();
    for (const char* server : {"192.0.2.1", "192.0.2.1", "192.0.2.2", "192.0.2.3"})
    {
        Fail(server, kVersionFile, TRAVEX_FTP_ERR_LOGIN);
        (void)Said();
    }
    EXPECT_FALSE(service.running) << "the service would send the same password";
    client.CheckNow();
    (void)Said();
    EXPECT_THAT(service.passwords, ElementsAre("old", "new"));
}

TEST_F(ClientTest, RefusedLoginIsForgottenWhenAServerDelivers)
{
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile, TRAVEX_FTP_ERR_LOGIN);
    Deliver("192.0.2.2", "V0001", "a");
    for (const char* server : {"192.0.2.2", "192.0.2.1", "192.0.2.2", "192.0.2.3"})
    {
        Fail(server, kVersionFile);
    }
    (void)Said();
    EXPECT_TRUE(service.running);
}

// At one login a minute servers that count failures would lock the account.
TEST_F(ClientTest, PausesLongerAfterARefusedLogin)
{
    Start();
    (void)Said();
    for (const char* server : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    {
        Fail(server, kVersionFile, TRAVEX_FTP_ERR_LOGIN);
    }
    EXPECT_THAT(Said(), testing::IsSupersetOf({"all failed", "retry 600"}));
    client.CheckNow();
    EXPECT_THAT(Said(), IsEmpty());
    Fail("192.0.2.1", kVersionFile);
    Fail("192.0.2.2", kVersionFile);
    Fail("192.0.2.3", kVersionFile);
    EXPECT_THAT(Said(), testing::IsSupersetOf({"all failed", "retry 60"}));
}

TEST_F(ClientTest, PausesLongerWhenOnlyOneOfTheServersRefusedTheLogin)
{
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile, TRAVEX_FTP_ERR_LOGIN);
    Fail("192.0.2.2", kVersionFile);
    Version("192.0.2.3", "V1");
    EXPECT_THAT(Said(), testing::IsSupersetOf({"all failed", "retry 600"}));
}

TEST_F(ClientTest, RefusalThatIsTemporaryGetsTheUsualPause)
{
    constexpr unsigned int kTemporary = 421;
    Start();
    (void)Said();
    for (const char* server : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    {
        Fail(server, kVersionFile, TRAVEX_FTP_ERR_LOGIN, kTemporary);
    }
    EXPECT_THAT(Said(), testing::IsSupersetOf({"all failed", "retry 60"}));
}

TEST_F(ClientTest, FileThatCannotBeReplacedIsReported)
{
    std::filesystem::create_directory(folder.Path() + "/directory.csv");
    Start();
    (void)Said();
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001",
                                    "failed 192.0.2.1 " + std::to_string(TRAVEX_FTP_ERR_LOCAL_FILE),
                                    "all failed", "retry 60"));
    EXPECT_FALSE(FileExists(folder.Path() + "/version.txt"));
}

TEST_F(ClientTest, VersionFileThatCannotBeReadIsReported)
{
    Start();
    (void)Said();
    Accept("192.0.2.1", kVersionFile);
    std::filesystem::remove(Staged(service.last.szVersionLocalFileName));
    Succeed("192.0.2.1", kVersionFile, task);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1",
                                    "failed 192.0.2.1 " + std::to_string(TRAVEX_FTP_ERR_LOCAL_FILE),
                                    "all failed", "retry 60"));
}

TEST_F(ClientTest, EachFileGoesToItsFolder)
{
    const support::TemporaryDirectory other;
    settings.versionFolder = other.Path() + "/";
    for (const std::string& version : std::vector<std::string>{"V0001", "V0002"})
    {
        Start();  // again with the folders of before
        (void)Said();
        Deliver("192.0.2.1", version, version);
        (void)Said();
        EXPECT_EQ(version, Local("directory.csv"));
        EXPECT_EQ(version + "\n", ReadFile(other.File("version.txt")));
        EXPECT_FALSE(FileExists(folder.File("version.txt")));
        EXPECT_THAT(support::FilesIn(other.Path()), testing::SizeIs(1 + 3)) << "the run's own";
    }
    settings.versionFolder = settings.directoryFolder;
    Start();
    EXPECT_THAT(support::FilesIn(other.Path()), ElementsAre("version.txt"));
}

TEST_F(ClientTest, WarnsOfAVersionThatIsNotWhatItSeems)
{
    Start();
    (void)Said();
    Version("192.0.2.1", "0123456789012345678901234567890\n");
    const std::string warning =
        "warning: the version line has 31 bytes; only the first 30 are compared";
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1",
                                    "new 192.0.2.1 012345678901234567890123456789", warning));
    Directory("192.0.2.1", "a");
    (void)Said();
    // The end of a check comes after its warnings.
    settings.onlyIfChanged = true;
    Start();
    (void)Said();
    Version("192.0.2.1", "0123456789012345678901234567890\n");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", warning,
                                    "unchanged 192.0.2.1 012345678901234567890123456789"));
}

TEST_F(ClientTest, WarningsComeOnceAndBeforeTheEndOfACheck)
{
    const std::string state = folder.Path() + "/.directory.csv.corpdir.json";
    const auto warning = testing::HasSubstr("is not used: not a JSON object");
    Start();
    (void)Said();
    WriteFile(state, "{");
    Deliver("192.0.2.1", "V0001", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0001", warning,
                                    "delivered 192.0.2.1 V0001"));
    WriteFile(state, "{");
    Deliver("192.0.2.1", "V0002", "a");
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1", "new 192.0.2.1 V0002",
                                    "delivered 192.0.2.1 V0002"));
    settings.servers.resize(1);
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    (void)Said();
    WriteFile(state, "{");
    Fail("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1 again", "failed 192.0.2.1 16", warning,
                                    "all failed", "retry 60"));
}

TEST_F(ClientTest, StartForgetsWhatWasNotSaid)
{
    settings.servers.resize(1);
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    (void)client.Next(Client::Clock::now());
    EXPECT_EQ("failed 192.0.2.1 16", TextOf(client.Next(Client::Clock::now()).value_or(Event())));
    Start();
    EXPECT_THAT(Said(), IsEmpty());
}

TEST_F(ClientTest, NewRequestGoesOnFromNoServer)
{
    Start();
    (void)Said();
    Fail("192.0.2.1", kVersionFile);
    Layers().Observe(TRAVEX_FTP_OBSERVED_REFUSED, 0, "", "", TRAVEX_FTP_ERR_TRUST, "no file");
    (void)Said();
    client.CheckNow();
    (void)Said();
    Accept("192.0.2.1", kVersionFile);
    EXPECT_THAT(Said(), ElementsAre("checking 192.0.2.1"));
}

TEST_F(ClientTest, DirectoryFileWithoutAVersionIsRemoved)
{
    Start();
    (void)Said();
    Directory("192.0.2.1", "a");
    EXPECT_THAT(Said(), IsEmpty());
    EXPECT_THAT(support::FilesIn(folder.Path()),
                testing::Each(testing::Not(testing::HasSubstr("received"))));
}

TEST_F(ClientTest, WakeEndsAWait)
{
    Start();
    (void)Said();
    client.Wake();
    EXPECT_FALSE(client.Next(Client::Clock::now() + std::chrono::seconds(60)).has_value());
}

}  // namespace
}  // namespace client
