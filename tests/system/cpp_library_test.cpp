// The interface for C++ on the C library, against real FTPS servers.
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corpdir.hpp"
#include "ftp_servers.h"

namespace corpdir
{

// How GoogleTest shows one.
static void PrintTo(const Event& event, std::ostream* stream)
{
    *stream << "(" << Name(event.kind) << ", " << make_error_code(event.code).message() << ", "
            << event.server << ", " << event.name << ", " << event.file << ", " << event.version
            << ", " << event.bytes << " bytes, " << event.reason << ")";
}

}  // namespace corpdir

namespace integration
{
namespace
{

using corpdir::Client;
using corpdir::Code;
using corpdir::Event;
using corpdir::Mode;
using corpdir::Request;
using corpdir::Trust;
using std::chrono::seconds;
using support::FtpServerOptions;
using support::PyFtpServer;
using support::ReadFile;
using support::TemporaryDirectory;
using support::TestCertificates;
using support::Tls;
using support::WaitUntil;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

using Kind = Event::Kind;

// The events that requests reported. Thread-safe.
class Recorder
{
public:
    // An onEvent that records each event, then runs the action.
    std::function<void(const Event&)> Function(std::function<void(const Event&)> action = {})
    {
        return [this, action = std::move(action)](const Event& event)
        {
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_events.push_back(event);
            }
            if (action)
            {
                action(event);
            }
        };
    }

    std::vector<Event> All() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    std::vector<Event> OfKind(Kind kind) const
    {
        const std::vector<Event> all = All();
        std::vector<Event> found;
        std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                     [kind](const Event& event) { return event.kind == kind; });
        return found;
    }

    // In their order, without those of progress.
    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const Event& event : All())
        {
            if (event.kind != Kind::kProgress)
            {
                names.emplace_back(Name(event.kind));
            }
        }
        return names;
    }

    bool WaitFor(Kind kind, std::size_t count = 1) const
    {
        return WaitUntil([&] { return OfKind(kind).size() >= count; }, seconds(30));
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
};

corpdir::LogSettings LogIn(const TemporaryDirectory& directory)
{
    corpdir::LogSettings log;
    log.directory = directory.Path();
    return log;
}

// An open client, and a server that has both files.
class CppLibrary : public ::testing::Test
{
protected:
    explicit CppLibrary(Tls tls = Tls::kExplicit)
    {
        FtpServerOptions options;
        options.tls = tls;
        options.certificate = m_certificates.Good();
        m_server = std::make_unique<PyFtpServer>(options);
        m_server->AddFile("version.txt", "edition 17\n");
        m_server->AddFile("directory.csv", m_bytes);
    }

    ~CppLibrary() override
    {
        m_client.Close();  // onEvent uses members of this class
    }

    Request MakeRequest(std::function<void(const Event&)> onEvent) const
    {
        Request request;
        request.servers = {m_server->Host()};
        request.port = static_cast<std::uint16_t>(m_server->Port());
        request.trust = Trust::Authorities(m_certificates.Authority());
        request.user = m_server->Options().user;
        request.password = m_server->Options().password;
        request.versionFile = "version.txt";
        request.directoryFile = "directory.csv";
        request.directoryDir = m_output.Path();
        request.onEvent = std::move(onEvent);
        return request;
    }

    // Starts the request and returns its first event of one of these kinds.
    Event FirstOf(Request request, Kind kind, Kind other)
    {
        Recorder events;
        request.onEvent = events.Function();
        m_client.Start(request);
        EXPECT_TRUE(
            WaitUntil([&] { return !events.OfKind(kind).empty() || !events.OfKind(other).empty(); },
                      seconds(30)));
        m_client.Stop();
        const std::vector<Event> found = events.OfKind(kind);
        return found.empty() ? events.OfKind(other).at(0) : found[0];
    }

    void ExpectDelivery(const Request& request)
    {
        std::filesystem::remove(m_output.File("directory.csv"));
        EXPECT_EQ(FirstOf(request, Kind::kDelivered, Kind::kFailed).kind, Kind::kDelivered);
        EXPECT_EQ(ReadFile(m_output.File("directory.csv")), m_bytes);
    }

    const TestCertificates m_certificates;
    const TemporaryDirectory m_output;
    const TemporaryDirectory m_log;
    const std::string m_bytes = "number,name\n";
    std::unique_ptr<PyFtpServer> m_server;
    Recorder m_events;
    Client m_client{LogIn(m_log)};
};

TEST_F(CppLibrary, StaysCurrentAndReportsIt)
{
    const auto begin = std::chrono::system_clock::now() - seconds(1);
    m_client.Start(MakeRequest(m_events.Function()));
    EXPECT_EQ(m_client.StartReason(), "");
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    m_client.CheckNow();
    ASSERT_TRUE(m_events.WaitFor(Kind::kUnchanged));
    m_server->AddFile("version.txt", "edition 18\n");
    m_client.CheckNow();
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered, 2));
    m_client.Close();
    EXPECT_THAT(m_events.Names(), ElementsAre("checking", "new_version", "delivered", "checking",
                                              "unchanged", "checking", "new_version", "delivered"));
    const Event delivered = m_events.All().back();
    EXPECT_EQ(delivered.version, "edition 18");
    EXPECT_EQ(delivered.path, m_output.File("directory.csv"));
    EXPECT_EQ(delivered.file, "directory.csv");
    EXPECT_EQ(delivered.server, m_server->Host() + ":" + std::to_string(m_server->Port()));
    EXPECT_EQ(delivered.bytes, m_bytes.size());
    EXPECT_EQ(delivered.code, Code::kOk);
    EXPECT_GE(delivered.time, begin);
    EXPECT_LE(delivered.time, std::chrono::system_clock::now());
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), m_bytes);
}

TEST_F(CppLibrary, AFailureHasItsParts)
{
    Request request = MakeRequest(m_events.Function());
    request.password = "wrong";
    m_client.Start(request);
    ASSERT_TRUE(m_events.WaitFor(Kind::kWaiting));
    m_client.Close();
    const std::vector<std::string> names = m_events.Names();
    ASSERT_GE(names.size(), 4u);
    EXPECT_EQ(names[0], "checking");
    EXPECT_EQ(names[1], "failed");
    EXPECT_EQ(names[names.size() - 2], "no_server_left");
    EXPECT_EQ(names.back(), "waiting");
    const Event failed = m_events.OfKind(Kind::kFailed)[0];
    EXPECT_EQ(failed.code, Code::kLogin);
    EXPECT_EQ(failed.step, corpdir::Step::kLogin);
    EXPECT_EQ(failed.reply, 530u);
    EXPECT_NE(failed.reason, "");
    EXPECT_EQ(failed.total, std::nullopt);
    const Event last = m_events.OfKind(Kind::kNoServerLeft)[0];
    EXPECT_EQ(last.code, Code::kLogin);
    EXPECT_EQ(last.failures, 1u);
    EXPECT_GT(m_events.OfKind(Kind::kWaiting)[0].wait, seconds(0));
}

TEST_F(CppLibrary, TheServersOfTheListAreAsked)
{
    Request request = MakeRequest(m_events.Function());
    request.servers = {"nohost.invalid", m_server->Host()};
    m_client.Start(request);
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    m_client.Close();
    const std::vector<Event> failed = m_events.OfKind(Kind::kNameFailed);
    ASSERT_THAT(failed, SizeIs(1));
    EXPECT_EQ(failed[0].name, "nohost.invalid");
    EXPECT_EQ(failed[0].code, Code::kName);
    EXPECT_THAT(m_events.OfKind(Kind::kFailed), IsEmpty());
}

TEST_F(CppLibrary, EventsWaitForAnEventLoop)
{
    m_client.Start(MakeRequest({}));
    std::vector<std::string> names;
    pollfd readable = {m_client.EventFd(), POLLIN, 0};
    while ((names.empty() || names.back() != "delivered") && poll(&readable, 1, 30000) == 1)
    {
        while (const std::optional<Event> event = m_client.NextEvent())
        {
            if (event->kind != Kind::kProgress)
            {
                names.emplace_back(Name(event->kind));
            }
        }
    }
    EXPECT_THAT(names, ElementsAre("checking", "new_version", "delivered"));
    EXPECT_EQ(poll(&readable, 1, 0), 0);
}

TEST_F(CppLibrary, TheStateIsReadWithoutAClient)
{
    EXPECT_EQ(corpdir::Status(m_output.File("directory.csv")), std::nullopt);
    const auto begin = std::chrono::system_clock::now() - seconds(1);
    ExpectDelivery(MakeRequest({}));
    m_client.Close();
    const std::optional<corpdir::State> state = corpdir::Status(m_output.File("directory.csv"));
    ASSERT_TRUE(state);
    EXPECT_EQ(state->version, "edition 17");
    EXPECT_EQ(state->bytes, m_bytes.size());
    EXPECT_EQ(state->sha256, support::Sha256(m_bytes));
    EXPECT_THAT(state->server, HasSubstr(m_server->Host()));
    EXPECT_TRUE(state->inPlace);
    EXPECT_FALSE(state->failed);
    EXPECT_GE(state->fetched, begin);
    EXPECT_EQ(state->fetched, state->confirmed);
    EXPECT_EQ(state->fetched, state->checked);
}

TEST_F(CppLibrary, AStateThatCannotBeReadIsAFailure)
{
    support::WriteFile(m_output.File(".directory.csv.corpdir.json"), "no state");
    EXPECT_THROW((void)corpdir::Status(m_output.File("directory.csv")), corpdir::Error);
    std::error_code error;
    EXPECT_EQ(corpdir::Status(m_output.File("directory.csv"), error), std::nullopt);
    EXPECT_EQ(error, Code::kLocalFile);
}

// --- What a request can be ---

struct BadRequest
{
    const char* name;
    Code code;
    std::function<void(Request&)> change;
};

void PrintTo(const BadRequest& bad, std::ostream* stream)
{
    *stream << bad.name;
}

const std::string kCut("a\0b", 3);

const BadRequest kBadRequests[] = {
    {"NoServer", Code::kServers, [](Request& r) { r.servers.clear(); }},
    {"ServerEmpty", Code::kServers, [](Request& r) { r.servers.emplace_back(); }},
    {"ServersInOneText", Code::kServers, [](Request& r) { r.servers = {"127.0.0.1;127.0.0.2"}; }},
    {"ServerWithANul", Code::kServers, [](Request& r) { r.servers = {kCut}; }},
    {"UserEmpty", Code::kUser, [](Request& r) { r.user.clear(); }},
    {"UserWithANul", Code::kUser, [](Request& r) { r.user = kCut; }},
    {"PasswordEmpty", Code::kPassword, [](Request& r) { r.password.clear(); }},
    {"PasswordWithANul", Code::kPassword, [](Request& r) { r.password = kCut; }},
    {"VersionFileWithANul", Code::kVersionFile, [](Request& r) { r.versionFile = kCut; }},
    {"DirectoryFileWithANul", Code::kDirectoryFile, [](Request& r) { r.directoryFile = kCut; }},
    {"DirectoryDirWithANul", Code::kDirectoryDir, [](Request& r) { r.directoryDir = kCut; }},
    {"DirectoryNameWithANul", Code::kDirectoryName, [](Request& r) { r.directoryName = kCut; }},
    {"VersionDirWithANul", Code::kVersionDir, [](Request& r) { r.versionDir = kCut; }},
    {"VersionNameWithANul", Code::kVersionName, [](Request& r) { r.versionName = kCut; }},
    {"LocalAddressWithANul", Code::kLocalAddress, [](Request& r) { r.localAddress = kCut; }},
    {"TrustWithAnotherEntry", Code::kTrust,
     [](Request& r) { r.trust = Trust::Authorities("/ca.pem;name=elsewhere.test"); }},
    {"TrustWithANul", Code::kTrust, [](Request& r) { r.trust = Trust::Authorities(kCut); }},
    {"NameEmpty", Code::kNames, [](Request& r) { r.certificateNames.emplace_back(); }},
    {"NamesInOneText", Code::kNames, [](Request& r) { r.certificateNames = {"a.test;b.test"}; }},
    {"TimeNegative", Code::kTimes, [](Request& r) { r.connectTimeout = seconds(-1); }},
    {"TimeTooLong", Code::kTimes, [](Request& r) { r.retryInterval = seconds::max(); }},
};

class CppLibraryMember : public CppLibrary, public ::testing::WithParamInterface<BadRequest>
{
};

TEST_P(CppLibraryMember, IsRefusedWithItsCode)
{
    Request request = MakeRequest(m_events.Function());
    GetParam().change(request);
    try
    {
        m_client.Start(request);
        FAIL() << "started";
    }
    catch (const corpdir::Error& error)
    {
        EXPECT_EQ(error.code(), GetParam().code);
        EXPECT_EQ(error.what(), m_client.StartReason());
        EXPECT_STRNE(error.what(), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Request, CppLibraryMember, ::testing::ValuesIn(kBadRequests),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(CppLibrary, ARefusedRequestLeavesTheEarlierOneAlone)
{
    m_client.Start(MakeRequest(m_events.Function()));
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    std::error_code error;
    m_client.Start(Request(), error);
    EXPECT_EQ(error, Code::kServers);
    EXPECT_THAT(m_client.StartReason(), StartsWith("servers: "));
    m_client.CheckNow();
    EXPECT_TRUE(m_events.WaitFor(Kind::kUnchanged));
}

TEST_F(CppLibrary, TrustDecidesWhichCertificatesAreAccepted)
{
    Request request = MakeRequest({});
    request.trust = Trust::System();
    EXPECT_EQ(FirstOf(request, Kind::kFailed, Kind::kDelivered).code, Code::kCertificate);
    request.trust = Trust::Authorities(m_certificates.OtherAuthority());
    EXPECT_EQ(FirstOf(request, Kind::kFailed, Kind::kDelivered).code, Code::kCertificate);
    request.trust = Trust::DangerouslyWithoutVerification();
    ExpectDelivery(request);
    request.trust = Trust::Authorities(m_certificates.Authority());
    request.certificateNames = {"elsewhere.test"};
    EXPECT_EQ(FirstOf(request, Kind::kFailed, Kind::kDelivered).code, Code::kCertificate);
    request.certificateNames = {"elsewhere.test", "directory.test"};
    ExpectDelivery(request);
    request.trust = Trust::Authorities("/nonexistent.pem");
    std::error_code error;
    m_client.Start(request, error);
    EXPECT_EQ(error, Code::kAuthorities);
    EXPECT_THAT(m_client.StartReason(), HasSubstr("/nonexistent.pem"));
}

TEST_F(CppLibrary, TheLargestFileIsLimited)
{
    Request request = MakeRequest({});
    request.maxFileBytes = m_bytes.size() - 1;
    EXPECT_EQ(FirstOf(request, Kind::kFailed, Kind::kDelivered).code, Code::kTooLarge);
    request.maxFileBytes = m_bytes.size();
    ExpectDelivery(request);
}

TEST_F(CppLibrary, CiphersApplyToLaterRequests)
{
    m_client.SetCiphers({0xfffe});
    std::error_code error;
    m_client.Start(MakeRequest({}), error);
    EXPECT_EQ(error, Code::kCipher);
    m_client.SetCiphers({0x1302});
    ExpectDelivery(MakeRequest({}));
}

class CppLibraryImplicit : public CppLibrary
{
protected:
    CppLibraryImplicit() : CppLibrary(Tls::kImplicit) {}
};

TEST_F(CppLibraryImplicit, TlsFromTheFirstByte)
{
    Request request = MakeRequest({});
    request.mode = Mode::kImplicitFtps;
    ExpectDelivery(request);
}

class CppLibraryPlain : public CppLibrary
{
protected:
    CppLibraryPlain() : CppLibrary(Tls::kNone) {}
};

TEST_F(CppLibraryPlain, FtpIsChosenByItsName)
{
    Request request = MakeRequest({});
    EXPECT_EQ(FirstOf(request, Kind::kFailed, Kind::kDelivered).code, Code::kTls);
    request.mode = Mode::kFtp;
    ExpectDelivery(request);
}

// --- Clients ---

TEST_F(CppLibrary, AProcessHasOneAtATime)
{
    try
    {
        const Client second;
        FAIL() << "opened";
    }
    catch (const corpdir::Error& error)
    {
        EXPECT_EQ(error.code(), Code::kBusy);
    }
    m_client.Close();
    m_client.Close();
    std::error_code error;
    m_client.CheckNow(error);
    EXPECT_EQ(error, Code::kClient);
    m_client = Client(LogIn(m_log));
    ExpectDelivery(MakeRequest({}));
}

TEST_F(CppLibrary, AClientMayMoveWhileARequestIsUnderWay)
{
    m_client.Start(MakeRequest(m_events.Function()));
    Client moved = std::move(m_client);
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    moved.CheckNow();
    EXPECT_TRUE(m_events.WaitFor(Kind::kUnchanged));
}

TEST_F(CppLibrary, AStopEndsTheRequestAlone)
{
    m_client.Start(MakeRequest(m_events.Function()));
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    m_client.Stop();
    std::error_code error;
    m_client.CheckNow(error);
    EXPECT_EQ(error, Code::kNotStarted);
    ExpectDelivery(MakeRequest({}));
}

TEST_F(CppLibrary, ACloseWaitsForOnEvent)
{
    std::promise<void> entered;
    std::atomic<bool> left{false};
    m_client.Start(MakeRequest(
        [&, first = true](const Event&) mutable
        {
            if (first)
            {
                first = false;
                entered.set_value();
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                left = true;
            }
        }));
    ASSERT_EQ(entered.get_future().wait_for(seconds(30)), std::future_status::ready);
    m_client.Close();
    EXPECT_TRUE(left);
}

// The sanitizers see a function that is destroyed while it runs.
TEST_F(CppLibrary, OnEventMayReplaceItsRequest)
{
    const auto held = std::make_shared<std::string>("of the first function");
    m_client.Start(MakeRequest(
        [this, held](const Event&)
        {
            m_client.Start(MakeRequest(m_events.Function()));
            EXPECT_EQ(*held, "of the first function");
        }));
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    m_client.Stop();
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_THAT(m_events.Names(), ElementsAre("checking", "new_version", "delivered"));
}

TEST_F(CppLibrary, OnEventMayDestroyTheClientAndOpenAnother)
{
    m_client.Close();
    const auto held = std::make_shared<std::string>("of the first function");
    auto client = std::make_unique<Client>(LogIn(m_log));
    client->Start(MakeRequest(
        [&, held](const Event&)
        {
            client.reset();
            EXPECT_EQ(*held, "of the first function");
            m_client = Client(LogIn(m_log));
            m_client.Start(MakeRequest(m_events.Function()));
        }));
    ASSERT_TRUE(m_events.WaitFor(Kind::kDelivered));
    EXPECT_TRUE(WaitUntil([&] { return held.use_count() == 1; }));
    EXPECT_EQ(client, nullptr);
}

// Every call runs beside every other one: nothing hangs or races, and no function is called that
// was destroyed.
TEST_F(CppLibrary, ManyThreadsAtOnce)
{
    std::atomic<bool> stop{false};
    std::atomic<unsigned int> started{0};
    std::atomic<unsigned int> called{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
    {
        threads.emplace_back(
            [&]
            {
                while (!stop)
                {
                    std::error_code error;
                    const auto held = std::make_shared<std::atomic<int>>(0);
                    m_client.Start(MakeRequest(
                                       [&, held](const Event& event)
                                       {
                                           ++*held;
                                           ++called;
                                           std::error_code ignored;
                                           if (event.kind == Kind::kNewVersion)
                                           {
                                               m_client.Start(MakeRequest({}), ignored);
                                           }
                                       }),
                                   error);
                    EXPECT_THAT(error, AnyOf(std::error_code(), Code::kClient));
                    started += error ? 0 : 1;
                    m_client.CheckNow(error);
                    (void)m_client.StartReason();
                    if (started % 10 == 0)
                    {
                        m_client.Stop(error);
                    }
                    // Some requests last until their first events.
                    std::this_thread::sleep_for(std::chrono::milliseconds(started % 50));
                }
            });
    }
    EXPECT_TRUE(WaitUntil([&] { return started > 50 && called > 5; }, seconds(60)));
    m_client.Close();
    const unsigned int before = called;
    stop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(called, before);
}

// --- The end of the process ---

constexpr int kEnded = 7;

class CppLibraryDeathTest : public ::testing::Test
{
protected:
    CppLibraryDeathTest()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }

    // No server listens on its port.
    static Request FailingRequest(std::function<void(const Event&)> onEvent)
    {
        Request request;
        request.servers = {"127.0.0.1"};
        request.port = static_cast<std::uint16_t>(support::FreePort("127.0.0.1"));
        request.user = request.password = "user";
        request.versionFile = "version.txt";
        request.directoryFile = "directory.csv";
        request.directoryDir = "/tmp";
        request.onEvent = std::move(onEvent);
        return request;
    }
};

TEST_F(CppLibraryDeathTest, AnExceptionThatLeavesOnEventEndsTheProcess)
{
    EXPECT_EXIT(
        {
            Client client;
            client.Start(FailingRequest([](const Event&)
                                        { throw std::runtime_error("of the application"); }));
            std::this_thread::sleep_for(seconds(30));
        },
        ::testing::KilledBySignal(SIGABRT), "of the application");
}

TEST_F(CppLibraryDeathTest, AStaticClientEndsWithTheProcess)
{
    EXPECT_EXIT(
        {
            static Recorder* const s_events = new Recorder;
            static Client s_client;
            s_client.Start(FailingRequest(s_events->Function()));
            (void)s_events->WaitFor(Kind::kFailed);
            std::exit(kEnded);  // NOLINT(concurrency-mt-unsafe)
        },
        ::testing::ExitedWithCode(kEnded), "");
}

}  // namespace
}  // namespace integration
