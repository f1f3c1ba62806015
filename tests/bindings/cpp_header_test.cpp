// corpdir.hpp on a C library that records what it is given: what each call passes on, what becomes
// of results and events, and how long a function lives.
#include <cctype>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corpdir.hpp"
#include "files.h"

namespace
{

using corpdir::Client;
using corpdir::Code;
using corpdir::Event;
using corpdir::Mode;
using corpdir::Request;
using corpdir::Trust;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// A text of a record; "(null)" for a null pointer.
std::string Shown(const char* text)
{
    return text == nullptr ? "(null)" : text;
}

// The C library. Each test begins with a new one.
struct FakeLibrary
{
    corpdir_code result = CORPDIR_OK;  // of each call
    std::map<std::string, std::string> texts;
    corpdir_request request = {};
    corpdir_log_settings log = {};
    std::function<void(const corpdir_request&)> onStart = [](const corpdir_request&) {};
    std::string startReason;
    std::string path;
    corpdir_state state = {};
    std::vector<corpdir_event> waiting;
    std::vector<std::uint16_t> suites;
    int opened = 0;
    std::vector<corpdir_client*> closed;

    // Reports an event to the request that was accepted last.
    void Report(const corpdir_event& event) const
    {
        request.on_event(request.user_data, &event);
    }
};

FakeLibrary* g_library = nullptr;
int g_place = 0;

corpdir_client* FakeClient()
{
    return reinterpret_cast<corpdir_client*>(&g_place);
}

corpdir_event EventRecord()
{
    corpdir_event record = {};
    record.size = sizeof record;
    record.kind = CORPDIR_EVENT_CHECKING;
    record.server = record.file = record.reason = record.name = record.version = record.path = "";
    record.total = CORPDIR_SIZE_UNKNOWN;
    return record;
}

}  // namespace

corpdir_code corpdir_open(const corpdir_log_settings* log, corpdir_client** client)
{
    EXPECT_EQ(log->size, sizeof *log);
    EXPECT_EQ(log->reserved, 0u);
    g_library->log = *log;
    g_library->texts["log"] = Shown(log->directory);
    *client = g_library->result == CORPDIR_OK ? FakeClient() : nullptr;
    ++g_library->opened;
    return g_library->result;
}

void corpdir_close(corpdir_client* client)
{
    g_library->closed.push_back(client);
}

corpdir_code corpdir_start(corpdir_client* client, const corpdir_request* request)
{
    if (client == nullptr)
    {
        return CORPDIR_ERR_CLIENT;
    }
    EXPECT_EQ(request->size, sizeof *request);
    EXPECT_EQ(request->reserved, 0u);
    g_library->texts = {{"servers", Shown(request->servers)},
                        {"user", Shown(request->user)},
                        {"password", Shown(request->password)},
                        {"version_file", Shown(request->version_file)},
                        {"directory_file", Shown(request->directory_file)},
                        {"directory_dir", Shown(request->directory_dir)},
                        {"directory_name", Shown(request->directory_name)},
                        {"version_dir", Shown(request->version_dir)},
                        {"version_name", Shown(request->version_name)},
                        {"local_address", Shown(request->local_address)},
                        {"trust", Shown(request->trust)},
                        {"certificate_names", Shown(request->certificate_names)}};
    g_library->request = *request;
    const auto onStart = g_library->onStart;
    onStart(*request);
    return g_library->result;
}

size_t corpdir_start_reason(corpdir_client* client, char* buffer, size_t capacity)
{
    const std::string reason = client == nullptr ? "" : g_library->startReason;
    if (capacity > 0)
    {
        buffer[reason.copy(buffer, capacity - 1)] = '\0';
    }
    return reason.size();
}

corpdir_code corpdir_stop(corpdir_client* client)
{
    return client == nullptr ? CORPDIR_ERR_CLIENT : g_library->result;
}

corpdir_code corpdir_check_now(corpdir_client* client)
{
    return client == nullptr ? CORPDIR_ERR_CLIENT : g_library->result;
}

int corpdir_event_fd(corpdir_client* client)
{
    return client == nullptr ? -1 : 17;
}

corpdir_code corpdir_next_event(corpdir_client* client, corpdir_event* event)
{
    EXPECT_EQ(event->size, sizeof *event);
    if (client == nullptr || g_library->result != CORPDIR_OK)
    {
        return client == nullptr ? CORPDIR_ERR_CLIENT : g_library->result;
    }
    if (g_library->waiting.empty())
    {
        return CORPDIR_ERR_NO_EVENT;
    }
    *event = g_library->waiting.front();
    g_library->waiting.erase(g_library->waiting.begin());
    return CORPDIR_OK;
}

corpdir_code corpdir_status(const char* path, corpdir_state* state)
{
    EXPECT_EQ(state->size, sizeof *state);
    g_library->path = path;
    *state = g_library->state;
    return g_library->result;
}

corpdir_code corpdir_set_ciphers(corpdir_client* client, const uint16_t* suites, size_t count)
{
    if (client == nullptr)
    {
        return CORPDIR_ERR_CLIENT;
    }
    g_library->suites.assign(suites, suites + count);
    return g_library->result;
}

const char* corpdir_error_text(uint32_t code)
{
    static std::map<uint32_t, std::string> texts;
    return (texts[code] = "text of code " + std::to_string(code)).c_str();
}

const char* corpdir_event_name(uint32_t kind)
{
    static std::map<uint32_t, std::string> names;
    return (names[kind] = "name of kind " + std::to_string(kind)).c_str();
}

const char* corpdir_version(void)
{
    return "the version";
}

namespace
{

class CppHeader : public ::testing::Test
{
protected:
    CppHeader()
    {
        g_library = &m_library;
    }

    FakeLibrary m_library;
};

// With an open client and a request that can be used.
class CppHeaderClient : public CppHeader
{
protected:
    CppHeaderClient()
    {
        m_request.servers = {"a", "b"};
        m_request.user = "user";
        m_request.password = "password";
        m_request.versionFile = "version.txt";
        m_request.directoryFile = "directory.csv";
        m_request.directoryDir = "/somewhere";
    }

    std::string Passed(const std::string& member)
    {
        m_client.Start(m_request);
        return m_library.texts.at(member);
    }

    Client m_client;
    Request m_request;
};

std::string Camel(const std::string& name)
{
    std::string camel;
    bool first = true;
    for (const char letter : name)
    {
        const auto byte = static_cast<unsigned char>(letter);
        if (letter != '_')
        {
            camel += static_cast<char>(first ? byte : std::tolower(byte));
        }
        first = letter == '_';
    }
    return camel;
}

// --- Names and errors ---

TEST_F(CppHeader, HasEveryNameOfTheCHeader)
{
    const std::string c = support::ReadFile(CORPDIR_BINDINGS "/c/corpdir_c.h");
    const std::string cpp = support::ReadFile(CORPDIR_BINDINGS "/cpp/corpdir.hpp");
    const std::regex enumerator(R"(CORPDIR_(OK|ERR_|EVENT_|STEP_)(\w*) = \d+)");
    int count = 0;
    for (std::sregex_iterator found(c.begin(), c.end(), enumerator), end; found != end; ++found)
    {
        const std::string group = (*found)[1];
        const std::string name = group == "OK" ? group : (*found)[2].str();
        const std::string whole = "CORPDIR_" + (group == "OK" ? "" : group) + name;
        const bool old = group == "EVENT_" && (name == "TRANSFERRED" || name == "REFUSED");
        const std::regex here("k" + Camel(name) + " = " + whole + "\\b");
        EXPECT_EQ(std::regex_search(cpp, here), !old) << whole;
        ++count;
    }
    EXPECT_GT(count, 70);
    EXPECT_STREQ(corpdir::Name(Event::Kind::kDelivered), "name of kind 5");
    EXPECT_STREQ(corpdir::Version(), "the version");
}

TEST_F(CppHeader, CodesAreErrorCodesOfTheirCategory)
{
    const std::error_code error = Code::kLogin;
    EXPECT_EQ(error.value(), CORPDIR_ERR_LOGIN);
    EXPECT_EQ(&error.category(), &corpdir::Category());
    EXPECT_STREQ(error.category().name(), "corpdir");
    EXPECT_EQ(error.message(), "text of code 19");
    EXPECT_TRUE(error == Code::kLogin);
    EXPECT_TRUE(error != Code::kTls);
    EXPECT_TRUE(error != std::error_code(CORPDIR_ERR_LOGIN, std::generic_category()));
}

TEST_F(CppHeader, AnErrorSaysTheReasonOrTheMessage)
{
    const corpdir::Error plain(Code::kLogin);
    EXPECT_STREQ(plain.what(), "text of code 19");
    const corpdir::Error error(Code::kLogin, "because of this");
    const std::system_error& base = error;
    EXPECT_STREQ(base.what(), "because of this");
    EXPECT_EQ(base.code(), Code::kLogin);
    static_assert(std::is_nothrow_copy_constructible_v<corpdir::Error>, "as exceptions should be");
}

// --- Opening ---

TEST_F(CppHeader, PassesTheLogSettings)
{
    corpdir::LogSettings log;
    log.directory = "/log";
    log.level = 1;
    log.maxFileBytes = 2;
    log.maxFiles = 3;
    const Client client(log);
    EXPECT_EQ(m_library.texts["log"], "/log");
    EXPECT_EQ(m_library.log.level, 1u);
    EXPECT_EQ(m_library.log.max_file_bytes, 2u);
    EXPECT_EQ(m_library.log.max_files, 3u);
}

TEST_F(CppHeader, TheDefaultLogHasErrorsAlone)
{
    const Client client;
    EXPECT_EQ(m_library.texts["log"], "");
    EXPECT_EQ(m_library.log.level, 0u);
    EXPECT_EQ(m_library.log.max_file_bytes, 0u);
    EXPECT_EQ(m_library.log.max_files, 0u);
}

TEST_F(CppHeader, AFailedOpeningThrowsOrSetsTheError)
{
    m_library.result = CORPDIR_ERR_BUSY;
    try
    {
        const Client client;
        FAIL() << "opened";
    }
    catch (const corpdir::Error& error)
    {
        EXPECT_EQ(error.code(), Code::kBusy);
        EXPECT_STREQ(error.what(), "text of code 3");
    }
    std::error_code error;
    Client client({}, error);
    EXPECT_EQ(error, Code::kBusy);
    m_library.result = CORPDIR_OK;
    client.Start(Request(), error);
    EXPECT_EQ(error, Code::kClient);
    Client another({}, error);
    EXPECT_EQ(error, std::error_code());
    EXPECT_EQ(another.EventFd(), 17);
}

TEST_F(CppHeader, ClosesOnce)
{
    static_assert(!std::is_copy_constructible_v<Client> && !std::is_copy_assignable_v<Client> &&
                      std::is_nothrow_move_constructible_v<Client> &&
                      std::is_nothrow_move_assignable_v<Client>,
                  "move-only");
    {
        Client first;
        const Client second(std::move(first));
        EXPECT_THAT(m_library.closed, IsEmpty());
        EXPECT_EQ(second.EventFd(), 17);
        // NOLINTNEXTLINE(bugprone-use-after-move): a promise of the header
        EXPECT_EQ(first.EventFd(), -1);
        EXPECT_EQ(first.StartReason(), "");
        std::error_code error;
        first.Start(Request(), error);
        EXPECT_EQ(error, Code::kClient);
        first.CheckNow(error);
        EXPECT_EQ(error, Code::kClient);
        first.Stop(error);
        EXPECT_EQ(error, Code::kClient);
        first.SetCiphers({}, error);
        EXPECT_EQ(error, Code::kClient);
        EXPECT_EQ(first.NextEvent(error), std::nullopt);
        EXPECT_EQ(error, Code::kClient);
        first.Close();
    }
    EXPECT_THAT(m_library.closed, ElementsAre(FakeClient()));
}

TEST_F(CppHeader, AnAssignmentClosesTheEarlierClient)
{
    Client first;
    std::error_code error;
    m_library.result = CORPDIR_ERR_BUSY;
    Client second({}, error);
    first = std::move(second);
    EXPECT_THAT(m_library.closed, ElementsAre(FakeClient()));
    EXPECT_EQ(first.EventFd(), -1);
}

// --- Requests ---

TEST_F(CppHeaderClient, TheDefaultsAreThoseOfAZeroedRecord)
{
    m_client.Start(m_request);
    EXPECT_THAT(
        m_library.texts,
        ElementsAre(
            std::pair("certificate_names", "(null)"), std::pair("directory_dir", "/somewhere"),
            std::pair("directory_file", "directory.csv"), std::pair("directory_name", "(null)"),
            std::pair("local_address", ""), std::pair("password", "password"),
            std::pair("servers", "a;b"), std::pair("trust", "ca=system"), std::pair("user", "user"),
            std::pair("version_dir", "(null)"), std::pair("version_file", "version.txt"),
            std::pair("version_name", "(null)")));
    const corpdir_request& record = m_library.request;
    EXPECT_EQ(record.port, 0u);
    EXPECT_EQ(record.mode, CORPDIR_MODE_FTPS);
    EXPECT_EQ(record.without_verification, 0u);
    EXPECT_EQ(record.on_event, nullptr);
    EXPECT_EQ(record.user_data, nullptr);
    EXPECT_EQ(record.max_file_bytes, 0u);
    EXPECT_EQ(record.connect_seconds, 0u);
    EXPECT_EQ(record.retry_seconds, 0u);
}

TEST_F(CppHeaderClient, EachMemberIsPassed)
{
    m_request.port = 65535;
    m_request.certificateNames = {"x.test", "y.test"};
    m_request.directoryName = "d";
    m_request.versionDir = "/elsewhere";
    m_request.versionName = "v";
    m_request.localAddress = "127.0.0.1";
    m_request.maxFileBytes = UINT64_MAX;
    m_request.connectTimeout = std::chrono::minutes(1);
    m_request.retryInterval = std::chrono::hours(1);
    m_request.onEvent = [](const Event&) {};
    m_client.Start(m_request);
    EXPECT_EQ(m_library.texts["certificate_names"], "x.test;y.test");
    EXPECT_EQ(m_library.texts["directory_name"], "d");
    EXPECT_EQ(m_library.texts["version_dir"], "/elsewhere");
    EXPECT_EQ(m_library.texts["version_name"], "v");
    EXPECT_EQ(m_library.texts["local_address"], "127.0.0.1");
    const corpdir_request& record = m_library.request;
    EXPECT_EQ(record.port, 65535u);
    EXPECT_EQ(record.max_file_bytes, UINT64_MAX);
    EXPECT_EQ(record.connect_seconds, 60u);
    EXPECT_EQ(record.retry_seconds, 3600u);
    EXPECT_NE(record.on_event, nullptr);
}

TEST_F(CppHeaderClient, TrustAndModeMakeTheTrustText)
{
    const auto passed = [this](const Trust& trust, Mode mode)
    {
        m_request.trust = trust;
        m_request.mode = mode;
        const std::string text = Passed("trust");
        return text + (m_library.request.mode == CORPDIR_MODE_FTP ? " ftp" : "") +
               (m_library.request.without_verification == 1 ? " unverified" : "");
    };
    EXPECT_EQ(passed(Trust(), Mode::kFtps), "ca=system");
    EXPECT_EQ(passed(Trust::System(), Mode::kImplicitFtps), "ca=system;tls=implicit");
    EXPECT_EQ(passed(Trust::Authorities("/etc/ca=1.pem"), Mode::kFtps), "ca=/etc/ca=1.pem");
    EXPECT_EQ(passed(Trust::Authorities("ca"), Mode::kImplicitFtps), "ca=ca;tls=implicit");
    EXPECT_EQ(passed(Trust::System(), Mode::kFtp), "ca=system ftp");
    EXPECT_EQ(passed(Trust::DangerouslyWithoutVerification(), Mode::kFtps), "ca=system unverified");
}

TEST_F(CppHeaderClient, AFileByTheNameOfTheSystemIsAFile)
{
    m_request.trust = Trust::Authorities("system");
    EXPECT_EQ(Passed("trust"), "ca=./system");
}

// The library refuses "\1" by the code of the member.
TEST_F(CppHeaderClient, TextsThatWouldMeanSomethingElseAreRefused)
{
    const std::string cut("a\0b", 3);
    for (const auto& [name, member] :
         std::map<std::string, std::string Request::*>{{"user", &Request::user},
                                                       {"password", &Request::password},
                                                       {"version_file", &Request::versionFile},
                                                       {"directory_file", &Request::directoryFile},
                                                       {"directory_dir", &Request::directoryDir},
                                                       {"directory_name", &Request::directoryName},
                                                       {"version_dir", &Request::versionDir},
                                                       {"version_name", &Request::versionName},
                                                       {"local_address", &Request::localAddress}})
    {
        Request request = m_request;
        request.*member = cut;
        m_client.Start(request);
        EXPECT_EQ(m_library.texts.at(name), "\1") << name;
    }
    for (const std::string& entry : {cut, std::string(), std::string("a;b"), std::string(";")})
    {
        Request request = m_request;
        request.servers = {"a", entry};
        m_client.Start(request);
        EXPECT_EQ(m_library.texts.at("servers"), "\1") << entry;
        request = m_request;
        request.certificateNames = {entry, "a"};
        m_client.Start(request);
        EXPECT_EQ(m_library.texts.at("certificate_names"), "\1") << entry;
    }
    for (const std::string& path : {cut, std::string("a;name=b")})
    {
        m_request.trust = Trust::Authorities(path);
        EXPECT_EQ(Passed("trust"), "\1") << path;
    }
    m_request.servers = {};
    EXPECT_EQ(Passed("servers"), "");
}

TEST_F(CppHeaderClient, TimesThatDoNotFitAreRefused)
{
    for (const seconds time : {seconds(-1), seconds::min(), seconds::max(), seconds(1LL << 32)})
    {
        m_request.connectTimeout = m_request.retryInterval = time;
        m_client.Start(m_request);
        EXPECT_EQ(m_library.request.connect_seconds, UINT32_MAX);
        EXPECT_EQ(m_library.request.retry_seconds, UINT32_MAX);
    }
}

TEST_F(CppHeaderClient, AFailedStartThrowsItsReason)
{
    m_library.result = CORPDIR_ERR_USER;
    m_library.startReason = std::string(3000, 'r');
    try
    {
        m_client.Start(m_request);
        FAIL() << "started";
    }
    catch (const corpdir::Error& error)
    {
        EXPECT_EQ(error.code(), Code::kUser);
        EXPECT_EQ(error.what(), m_library.startReason);
    }
    std::error_code error;
    m_client.Start(m_request, error);
    EXPECT_EQ(error, Code::kUser);
    for (const std::size_t length : {0u, 1u, 511u, 512u, 513u})
    {
        m_library.startReason = std::string(length, 'r');
        EXPECT_EQ(m_client.StartReason(), m_library.startReason);
    }
    m_library.result = CORPDIR_OK;
    m_client.Start(m_request, error);
    EXPECT_EQ(error, std::error_code());
}

TEST_F(CppHeaderClient, TheOtherCallsThrowOrSetTheErrorToo)
{
    m_client.CheckNow();
    m_client.SetCiphers({0x1302, 0xc030});
    EXPECT_THAT(m_library.suites, ElementsAre(0x1302, 0xc030));
    m_library.result = CORPDIR_ERR_NOT_STARTED;
    EXPECT_THROW(m_client.CheckNow(), corpdir::Error);
    EXPECT_THROW(m_client.Stop(), corpdir::Error);
    EXPECT_THROW(m_client.SetCiphers({}), corpdir::Error);
    EXPECT_THROW((void)m_client.NextEvent(), corpdir::Error);
    std::error_code error;
    m_client.CheckNow(error);
    EXPECT_EQ(error, Code::kNotStarted);
    error.clear();
    m_client.SetCiphers({}, error);
    EXPECT_EQ(error, Code::kNotStarted);
    error.clear();
    m_client.Stop(error);
    EXPECT_EQ(error, Code::kNotStarted);
    error.clear();
    EXPECT_EQ(m_client.NextEvent(error), std::nullopt);
    EXPECT_EQ(error, Code::kNotStarted);
}

// --- Events ---

corpdir_event FullRecord()
{
    corpdir_event record = EventRecord();
    record.kind = CORPDIR_EVENT_FAILED;
    record.code = CORPDIR_ERR_LOGIN;
    record.server = "server";
    record.file = "file";
    record.reason = "reason";
    record.bytes = 1;
    record.total = 2;
    record.name = "name";
    record.version = "version";
    record.path = "path";
    record.time = 3;
    record.step = CORPDIR_STEP_LOGIN;
    record.reply = 530;
    record.failures = 4;
    record.seconds = 5;
    return record;
}

void ExpectFullEvent(const Event& event)
{
    EXPECT_EQ(event.kind, Event::Kind::kFailed);
    EXPECT_EQ(event.code, Code::kLogin);
    EXPECT_EQ(event.server, "server");
    EXPECT_EQ(event.file, "file");
    EXPECT_EQ(event.reason, "reason");
    EXPECT_EQ(event.bytes, 1u);
    EXPECT_EQ(event.total, 2u);
    EXPECT_EQ(event.name, "name");
    EXPECT_EQ(event.version, "version");
    EXPECT_EQ(event.path, "path");
    EXPECT_EQ(std::chrono::system_clock::to_time_t(event.time), 3);
    EXPECT_EQ(event.step, corpdir::Step::kLogin);
    EXPECT_EQ(event.reply, 530u);
    EXPECT_EQ(event.failures, 4u);
    EXPECT_EQ(event.wait, seconds(5));
}

TEST_F(CppHeaderClient, OnEventGetsEachMember)
{
    std::vector<Event> events;
    m_request.onEvent = [&](const Event& event) { events.push_back(event); };
    m_client.Start(m_request);
    m_library.Report(FullRecord());
    m_library.Report(EventRecord());
    ASSERT_THAT(events, SizeIs(2));
    ExpectFullEvent(events[0]);
    EXPECT_EQ(events[1].total, std::nullopt);
}

TEST_F(CppHeaderClient, NextEventGivesTheWaitingOnes)
{
    m_library.waiting = {FullRecord(), EventRecord()};
    const std::optional<Event> first = m_client.NextEvent();
    ASSERT_TRUE(first);
    ExpectFullEvent(*first);
    std::error_code error = Code::kBusy;
    EXPECT_TRUE(m_client.NextEvent(error));
    EXPECT_EQ(error, std::error_code());
    EXPECT_EQ(m_client.NextEvent(), std::nullopt);
    error = Code::kBusy;
    EXPECT_EQ(m_client.NextEvent(error), std::nullopt);
    EXPECT_EQ(error, std::error_code());
}

// --- The state ---

template <std::size_t Size>
void Set(char (&member)[Size], const std::string& text)
{
    member[text.copy(member, Size - 1)] = '\0';
}

TEST_F(CppHeader, StatusGivesEachMember)
{
    m_library.state.bytes = 1;
    m_library.state.fetched = 2;
    m_library.state.checked = 4;
    m_library.state.failed = 1;
    m_library.state.failures = 5;
    m_library.state.in_place = 1;
    Set(m_library.state.version, "version");
    Set(m_library.state.sha256, "sha256");
    Set(m_library.state.server, "server");
    Set(m_library.state.reason, "reason");
    const std::optional<corpdir::State> state = corpdir::Status("/somewhere/directory.csv");
    EXPECT_EQ(m_library.path, "/somewhere/directory.csv");
    ASSERT_TRUE(state);
    EXPECT_EQ(state->bytes, 1u);
    EXPECT_EQ(state->fetched, std::chrono::system_clock::from_time_t(2));
    EXPECT_EQ(state->confirmed, std::nullopt);
    EXPECT_EQ(state->checked, std::chrono::system_clock::from_time_t(4));
    EXPECT_TRUE(state->failed);
    EXPECT_EQ(state->failures, 5u);
    EXPECT_TRUE(state->inPlace);
    EXPECT_EQ(state->version, "version");
    EXPECT_EQ(state->sha256, "sha256");
    EXPECT_EQ(state->server, "server");
    EXPECT_EQ(state->reason, "reason");
    m_library.state = {};
    m_library.state.confirmed = 3;
    const std::optional<corpdir::State> other = corpdir::Status("d");
    ASSERT_TRUE(other);
    EXPECT_EQ(other->confirmed, std::chrono::system_clock::from_time_t(3));
    EXPECT_FALSE(other->failed || other->inPlace || other->fetched || other->checked);
}

TEST_F(CppHeader, NoStateIsNoFailure)
{
    m_library.result = CORPDIR_ERR_NO_STATE;
    EXPECT_EQ(corpdir::Status("d"), std::nullopt);
    std::error_code error = Code::kBusy;
    EXPECT_EQ(corpdir::Status("d", error), std::nullopt);
    EXPECT_EQ(error, std::error_code());
}

TEST_F(CppHeader, AStateThatCannotBeReadHasItsReason)
{
    m_library.result = CORPDIR_ERR_LOCAL_FILE;
    Set(m_library.state.reason, "because of this");
    try
    {
        (void)corpdir::Status("d");
        FAIL() << "no exception";
    }
    catch (const corpdir::Error& error)
    {
        EXPECT_EQ(error.code(), Code::kLocalFile);
        EXPECT_STREQ(error.what(), "because of this");
    }
    std::error_code error;
    EXPECT_EQ(corpdir::Status("d", error), std::nullopt);
    EXPECT_EQ(error, Code::kLocalFile);
}

// --- How long a function lives ---

// Requests whose functions each share a token, so that the test sees when one is destroyed.
class CppHeaderLifetime : public CppHeaderClient
{
protected:
    using Token = std::shared_ptr<int>;

    Request With(
        const Token& token, const std::function<void()>& action = [] {})
    {
        Request request = m_request;
        request.onEvent = [token, action](const Event&)
        {
            action();
            ++*token;  // the sanitizer sees a function that was destroyed under way
        };
        return request;
    }

    static bool IsAlive(const Token& token)
    {
        return token.use_count() > 1;
    }

    const Token m_first = std::make_shared<int>(0);
    const Token m_second = std::make_shared<int>(0);
    const Token m_third = std::make_shared<int>(0);
};

TEST_F(CppHeaderLifetime, UntilALaterRequestIsAccepted)
{
    m_client.Start(With(m_first));
    EXPECT_TRUE(IsAlive(m_first));
    m_library.onStart = [this](const corpdir_request&) { EXPECT_TRUE(IsAlive(m_first)); };
    m_client.Start(With(m_second));
    EXPECT_FALSE(IsAlive(m_first));
    EXPECT_TRUE(IsAlive(m_second));
    m_library.onStart = [](const corpdir_request&) {};
    m_client.Start(m_request);
    EXPECT_FALSE(IsAlive(m_second));
}

TEST_F(CppHeaderLifetime, BeyondARequestThatIsRefused)
{
    m_client.Start(With(m_first));
    const corpdir_request accepted = m_library.request;
    m_library.result = CORPDIR_ERR_SERVERS;
    std::error_code error;
    m_client.Start(With(m_second), error);
    EXPECT_TRUE(IsAlive(m_first));
    EXPECT_FALSE(IsAlive(m_second));
    const corpdir_event event = EventRecord();
    accepted.on_event(accepted.user_data, &event);
    EXPECT_EQ(*m_first, 1);
}

TEST_F(CppHeaderLifetime, UntilTheStop)
{
    m_client.Start(With(m_first));
    std::error_code error;
    m_library.result = CORPDIR_ERR_MEMORY;
    m_client.Stop(error);
    EXPECT_TRUE(IsAlive(m_first));
    m_library.result = CORPDIR_OK;
    m_client.Stop();
    EXPECT_FALSE(IsAlive(m_first));
}

TEST_F(CppHeaderLifetime, UntilTheClose)
{
    m_client.Start(With(m_first));
    m_client.Close();
    EXPECT_FALSE(IsAlive(m_first));
    {
        Client client;
        client.Start(With(m_second));
    }
    EXPECT_FALSE(IsAlive(m_second));
}

TEST_F(CppHeaderLifetime, BeyondAMoveOfTheClient)
{
    std::optional<Client> moved;
    m_client.Start(With(m_first, [&] { moved.emplace(std::move(m_client)); }));
    m_library.Report(EventRecord());
    EXPECT_EQ(*m_first, 1);
    m_library.onStart = [&](const corpdir_request&) { EXPECT_TRUE(IsAlive(m_first)); };
    moved->Start(With(m_second));
    EXPECT_FALSE(IsAlive(m_first));
    m_library.Report(EventRecord());
    EXPECT_EQ(*m_second, 1);
}

TEST_F(CppHeaderLifetime, UntilItReturnsWhenItReplacesItsRequest)
{
    m_client.Start(With(m_first,
                        [this]
                        {
                            m_client.Start(With(m_second));
                            EXPECT_TRUE(IsAlive(m_first));
                        }));
    m_library.Report(EventRecord());
    EXPECT_EQ(*m_first, 1);
    EXPECT_FALSE(IsAlive(m_first));
    EXPECT_TRUE(IsAlive(m_second));
}

TEST_F(CppHeaderLifetime, UntilItReturnsWhenItClosesOrDestroysTheClient)
{
    m_client.Start(With(m_first, [this] { m_client.Close(); }));
    m_library.Report(EventRecord());
    EXPECT_EQ(*m_first, 1);
    EXPECT_FALSE(IsAlive(m_first));

    auto client = std::make_unique<Client>();
    client->Start(With(m_second, [&] { client.reset(); }));
    m_library.Report(EventRecord());
    EXPECT_EQ(*m_second, 1);
    EXPECT_FALSE(IsAlive(m_second));
}

TEST_F(CppHeaderLifetime, OfAClientThatIsDestroyedBeforeStartReturns)
{
    auto client = std::make_unique<Client>();
    m_library.onStart = [](const corpdir_request& request)
    {
        const corpdir_event event = EventRecord();
        request.on_event(request.user_data, &event);
    };
    Client& plain = *client;
    plain.Start(With(m_first, [&] { client.reset(); }));
    EXPECT_EQ(*m_first, 1);
    EXPECT_FALSE(IsAlive(m_first));
    EXPECT_THAT(m_library.closed, ElementsAre(FakeClient()));
}

TEST_F(CppHeaderLifetime, OfAFunctionThatOwnsTheClient)
{
    auto client = std::make_shared<Client>();
    m_client.Start(m_request);
    client->Start(With(m_first, [client] { (void)client; }));
    const std::weak_ptr<Client> seen = client;
    Client& plain = *client;
    client.reset();
    EXPECT_FALSE(seen.expired());
    plain.Close();
    EXPECT_TRUE(seen.expired());
    EXPECT_FALSE(IsAlive(m_first));
}

// The library has accepted a request, and reports its first event before corpdir_start returns: the
// function makes the next request, which is the one that counts.
TEST_F(CppHeaderLifetime, OfTheLastRequestThatWasAccepted)
{
    m_client.Start(With(m_third));
    bool nested = false;
    m_library.onStart = [&](const corpdir_request& outer)
    {
        if (!nested)
        {
            nested = true;
            const corpdir_event event = EventRecord();
            outer.on_event(outer.user_data, &event);
        }
    };
    m_client.Start(With(m_first, [this] { m_client.Start(With(m_second)); }));
    EXPECT_FALSE(IsAlive(m_third));
    EXPECT_TRUE(IsAlive(m_second));
    m_library.Report(EventRecord());
    EXPECT_EQ(*m_second, 1);
    m_client.Start(m_request);
    EXPECT_FALSE(IsAlive(m_first));
    EXPECT_FALSE(IsAlive(m_second));
}

using CppHeaderDeathTest = CppHeaderClient;

TEST_F(CppHeaderDeathTest, AnExceptionThatLeavesOnEventEndsTheProcess)
{
    m_request.onEvent = [](const Event&) { throw std::runtime_error("of the application"); };
    m_client.Start(m_request);
    EXPECT_EXIT(m_library.Report(EventRecord()), ::testing::KilledBySignal(SIGABRT),
                "of the application");
}

}  // namespace
