// The C library, linked as its users link it, against real FTPS servers.
#include <netdb.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "c_client.h"
#include "lifecycle_counts.h"

namespace integration
{
namespace
{

using std::chrono::seconds;
using std::chrono::steady_clock;
using support::FilesIn;
using support::FtpServerOptions;
using support::PatternBytes;
using support::PyFtpServer;
using support::ReadFile;
using support::TemporaryDirectory;
using support::TestCertificates;
using support::Tls;
using support::WaitUntil;
using support::WriteFile;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::size_t kDirectorySize = 300000;

corpdir_log_settings LogIn(const std::string& directory)
{
    corpdir_log_settings log = {};
    log.size = sizeof log;
    log.directory = directory.c_str();
    log.level = 2;
    return log;
}

// An open client; the test may close it.
class CLibrary : public ::testing::Test
{
protected:
    CLibrary()
    {
        Open();
    }

    ~CLibrary() override
    {
        corpdir_close(m_client);
    }

    void Open()
    {
        const corpdir_log_settings log = LogIn(m_log.Path());
        EXPECT_EQ(corpdir_open(&log, &m_client), CORPDIR_OK);
        ASSERT_NE(m_client, nullptr);
    }

    std::string StartReason() const
    {
        char reason[512] = "untouched";
        const std::size_t length = corpdir_start_reason(m_client, reason, sizeof reason);
        EXPECT_EQ(length, std::string(reason).size());
        return reason;
    }

    TemporaryDirectory m_output;
    TemporaryDirectory m_log;
    corpdir_client* m_client = nullptr;
};

// With a server that has both files.
class CLibraryFetch : public CLibrary
{
protected:
    explicit CLibraryFetch(int bytes_per_second = 0, std::size_t size = kDirectorySize)
        : m_bytes(PatternBytes(size, 3))
    {
        m_options.tls = Tls::kExplicit;
        m_options.certificate = m_certificates.Good();
        m_options.bytes_per_second = bytes_per_second;
        m_server = std::make_unique<PyFtpServer>(m_options);
        m_server->AddFile("version.txt", "edition 17\n");
        m_server->AddFile("directory.csv", m_bytes);
    }

    ~CLibraryFetch() override
    {
        // The callbacks use members of this class.
        corpdir_close(m_client);
    }

    std::string Endpoint() const
    {
        return m_server->Host() + ":" + std::to_string(m_server->Port());
    }

    using Change = std::function<void(CRequest&)>;

    corpdir_code Start(
        RecordedEvents& events, const Change& change = [](CRequest&) {})
    {
        CRequest request(*m_server, m_certificates, m_output.Path(), events);
        change(request);
        return corpdir_start(m_client, &request.record);
    }

    // Starts a request and waits for its first event of this kind.
    void StartUntil(
        corpdir_event_kind kind, RecordedEvents& events, const Change& change = [](CRequest&) {})
    {
        ASSERT_EQ(Start(events, change), CORPDIR_OK) << StartReason();
        ASSERT_TRUE(events.WaitFor(kind));
    }

    // Fetches the directory and closes the client.
    void ExpectFetch()
    {
        std::filesystem::remove(m_output.File("directory.csv"));
        RecordedEvents events;
        StartUntil(CORPDIR_EVENT_DELIVERED, events);
        corpdir_close(m_client);
        EXPECT_THAT(events.OfKind(CORPDIR_EVENT_FAILED), IsEmpty());
        EXPECT_EQ(ReadFile(m_output.File("directory.csv")), m_bytes);
    }

    TestCertificates m_certificates;
    FtpServerOptions m_options;
    std::string m_bytes;
    std::unique_ptr<PyFtpServer> m_server;
    RecordedEvents m_events;
};

// A directory that takes a minute at the server's rate.
class CLibraryTransfer : public CLibraryFetch
{
protected:
    CLibraryTransfer() : CLibraryFetch(100000, 6000000) {}

    // Returns when the directory's first bytes have been reported.
    void StartTransfer()
    {
        ASSERT_EQ(Start(m_events), CORPDIR_OK);
        ASSERT_TRUE(WaitUntil([this] { return UnderWay(m_events); }));
    }

    static bool UnderWay(const RecordedEvents& events)
    {
        for (const Event& event : events.OfKind(CORPDIR_EVENT_PROGRESS))
        {
            if (event.file == "directory.csv" && event.bytes > 0)
            {
                return true;
            }
        }
        return false;
    }
};

// Without progress.
std::vector<corpdir_event_kind> KindsIn(const RecordedEvents& events)
{
    std::vector<corpdir_event_kind> kinds;
    for (const Event& event : events.All())
    {
        if (event.kind != CORPDIR_EVENT_PROGRESS)
        {
            kinds.push_back(event.kind);
        }
    }
    return kinds;
}

TEST(CLibraryTexts, NameTheVersionAndEveryCode)
{
    EXPECT_STREQ(corpdir_version(), CORPDIR_TEST_VERSION);
    std::set<std::string> texts;
    std::size_t codes = 0;
    for (const auto& range : {std::make_pair(0u, 9u), std::make_pair(16u, 28u),
                              std::make_pair(32u, 35u), std::make_pair(48u, 65u)})
    {
        for (std::uint32_t code = range.first; code <= range.second; ++code, ++codes)
        {
            texts.insert(corpdir_error_text(code));
        }
    }
    EXPECT_THAT(texts, SizeIs(codes));
    EXPECT_THAT(texts, Not(Contains("unknown code")));
    EXPECT_STREQ(corpdir_error_text(10), "unknown code");
    EXPECT_STREQ(corpdir_error_text(UINT32_MAX), "unknown code");
}

TEST(CLibraryTexts, NameEveryKindOfEvent)
{
    EXPECT_STREQ(corpdir_event_name(CORPDIR_EVENT_PROGRESS), "progress");
    EXPECT_STREQ(corpdir_event_name(CORPDIR_EVENT_NEW_VERSION), "new_version");
    EXPECT_STREQ(corpdir_event_name(CORPDIR_EVENT_START_FAILED), "start_failed");
    EXPECT_STREQ(corpdir_event_name(CORPDIR_EVENT_START_FAILED + 1), "unknown");
    EXPECT_STREQ(corpdir_event_name(0), "unknown");
}

TEST(CLibraryOpen, RefusesUnusableSettings)
{
    TemporaryDirectory directory;
    const auto opened = [&](const std::function<void(corpdir_log_settings&)>& change)
    {
        corpdir_log_settings log = LogIn(directory.Path());
        change(log);
        int place = 0;
        auto* client = reinterpret_cast<corpdir_client*>(&place);
        const corpdir_code code = corpdir_open(&log, &client);
        EXPECT_EQ(client, nullptr);
        return code;
    };
    const std::string long_directory(256, 'd');
    const std::string missing = directory.File("missing");
    EXPECT_EQ(opened([](corpdir_log_settings& log) { log.size = 0; }), CORPDIR_ERR_ARGUMENT);
    EXPECT_EQ(opened([](corpdir_log_settings& log) { log.reserved = 1; }), CORPDIR_ERR_ARGUMENT);
    EXPECT_EQ(opened([](corpdir_log_settings& log) { log.level = 3; }), CORPDIR_ERR_LOG_LEVEL);
    EXPECT_EQ(opened([](corpdir_log_settings& log) { log.directory = "a\nb"; }),
              CORPDIR_ERR_LOG_DIR);
    EXPECT_EQ(opened([&](corpdir_log_settings& log) { log.directory = long_directory.c_str(); }),
              CORPDIR_ERR_LOG_DIR);
    EXPECT_EQ(opened([&](corpdir_log_settings& log) { log.directory = missing.c_str(); }),
              CORPDIR_ERR_LOG);
    char reason[512] = "";
    (void)corpdir_start_reason(nullptr, reason, sizeof reason);
    EXPECT_EQ(reason, "the log in '" + missing + "' cannot be written: No such file or directory");
    EXPECT_EQ(corpdir_open(nullptr, nullptr), CORPDIR_ERR_ARGUMENT);
}

TEST_F(CLibrary, OpensAgainAfterAClose)
{
    corpdir_client* const first = m_client;
    for (int i = 0; i < 5; ++i)
    {
        corpdir_close(m_client);
        Open();
        EXPECT_NE(m_client, first);
    }
}

std::size_t EntriesOf(const char* folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                  std::filesystem::directory_iterator()));
}

// Bytes of the process in memory.
std::size_t ResidentBytes()
{
    std::ifstream file("/proc/self/statm");
    std::size_t pages = 0;
    file >> pages >> pages;
    return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Descriptors, threads and memory. CORPDIR_OPENS: how often.
TEST_F(CLibrary, ManyOpensLeaveNothing)
{
    const std::size_t opens = Count("CORPDIR_OPENS", 500, 50);
    const auto cycle = [this]
    {
        corpdir_close(m_client);
        m_client = nullptr;
        ASSERT_EQ(corpdir_open(nullptr, &m_client), CORPDIR_OK);
    };
    for (int i = 0; i < 50; ++i)
    {
        ASSERT_NO_FATAL_FAILURE(cycle());
    }
    const std::size_t descriptors = EntriesOf("/proc/self/fd");
    const std::size_t threads = EntriesOf("/proc/self/task");
    const std::size_t bytes = ResidentBytes();
    for (std::size_t i = 0; i < opens; ++i)
    {
        ASSERT_NO_FATAL_FAILURE(cycle());
    }
    EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
    EXPECT_TRUE(WaitUntil([&] { return EntriesOf("/proc/self/task") == threads; }));
    RecordProperty("bytes_grown", static_cast<int>(ResidentBytes() - bytes));
#ifndef CORPDIR_TESTS_UNDER_SANITIZERS
    EXPECT_LT(ResidentBytes(), bytes + 200 * opens + 1000000);
#endif
}

TEST_F(CLibrary, ASecondOneIsRefusedWhileTheFirstIsOpen)
{
    corpdir_client* second = m_client;
    EXPECT_EQ(corpdir_open(nullptr, &second), CORPDIR_ERR_BUSY);
    EXPECT_EQ(second, nullptr);
}

TEST_F(CLibrary, NothingAndAClosedClientAreHarmless)
{
    corpdir_close(nullptr);
    corpdir_close(m_client);
    corpdir_close(m_client);
    corpdir_request request = {};
    request.size = sizeof request;
    const std::uint16_t suite = 0x1302;
    char reason[8] = "before";
    for (corpdir_client* client : {m_client, static_cast<corpdir_client*>(nullptr)})
    {
        EXPECT_EQ(corpdir_start(client, &request), CORPDIR_ERR_CLIENT);
        EXPECT_EQ(corpdir_set_ciphers(client, &suite, 1), CORPDIR_ERR_CLIENT);
        EXPECT_EQ(corpdir_add_cipher(client, suite), CORPDIR_ERR_CLIENT);
        EXPECT_EQ(corpdir_start_reason(client, reason, sizeof reason), 0u);
        EXPECT_STREQ(reason, "");
    }
    EXPECT_EQ(corpdir_start(m_client, nullptr), CORPDIR_ERR_ARGUMENT);
}

TEST_F(CLibrary, CipherArgumentsAreChecked)
{
    const std::vector<std::uint16_t> many(65537, 0x1302);
    EXPECT_EQ(corpdir_set_ciphers(m_client, nullptr, 1), CORPDIR_ERR_ARGUMENT);
    EXPECT_EQ(corpdir_set_ciphers(m_client, many.data(), many.size()), CORPDIR_ERR_ARGUMENT);
    EXPECT_EQ(corpdir_set_ciphers(m_client, many.data(), many.size() - 1), CORPDIR_OK);
    EXPECT_EQ(corpdir_set_ciphers(m_client, nullptr, 0), CORPDIR_OK);
}

// --- Members of a request that cannot be used ---

struct BadMember
{
    const char* name;
    corpdir_code code;
    std::function<void(corpdir_request&)> change;
    const char* reason = nullptr;  // null: that of the code
};

void PrintTo(const BadMember& member, std::ostream* stream)
{
    *stream << member.name;
}

const std::string kDots256(256, '.');
const std::string kDots255(255, '.');
const std::string kDots128(128, '.');
const std::string kDots127(127, '.');
const std::string kName242(242, 'n');

const BadMember kBadMembers[] = {
    {"SizeZero", CORPDIR_ERR_ARGUMENT, [](corpdir_request& r) { r.size = 0; }},
    {"SizeOfAnOlderOne", CORPDIR_ERR_ARGUMENT,
     [](corpdir_request& r) { r.size = offsetof(corpdir_request, certificate_names) - 1; }},
    {"SizeNotSet", CORPDIR_ERR_ARGUMENT, [](corpdir_request& r) { r.size = 1u << 30; }},
    {"Reserved", CORPDIR_ERR_ARGUMENT, [](corpdir_request& r) { r.reserved = 1; }},
    {"ServersMissing", CORPDIR_ERR_SERVERS, [](corpdir_request& r) { r.servers = nullptr; }},
    {"ServersEmpty", CORPDIR_ERR_SERVERS, [](corpdir_request& r) { r.servers = ""; },
     "servers: an entry is empty"},
    {"ServersWithAGap", CORPDIR_ERR_SERVERS, [](corpdir_request& r) { r.servers = "a;;b"; },
     "servers: an entry is empty"},
    {"ServersWithATail", CORPDIR_ERR_SERVERS, [](corpdir_request& r) { r.servers = "a;"; },
     "servers: an entry is empty"},
    {"ServersWithABlankEntry", CORPDIR_ERR_SERVERS, [](corpdir_request& r) { r.servers = "a; "; },
     "servers: an entry is empty"},
    {"ServersWithAControlByte", CORPDIR_ERR_SERVERS,
     [](corpdir_request& r) { r.servers = "a\nb"; }},
    {"ServerNeitherNameNorAddress", CORPDIR_ERR_SERVERS,
     [](corpdir_request& r) { r.servers = "127.0.0.1;10.1"; },
     "servers: '10.1' is neither an address nor a host name"},
    {"ServerWithAPort", CORPDIR_ERR_SERVERS,
     [](corpdir_request& r) { r.servers = "dir.example:21"; },
     "servers: 'dir.example:21' is neither an address nor a host name"},
    {"ServerUnspecified", CORPDIR_ERR_SERVERS, [](corpdir_request& r) { r.servers = "[::]"; },
     "servers: :: is the unspecified address, not a server"},
    {"UserMissing", CORPDIR_ERR_USER, [](corpdir_request& r) { r.user = nullptr; }},
    {"UserEmpty", CORPDIR_ERR_USER, [](corpdir_request& r) { r.user = ""; }},
    {"UserTooLong", CORPDIR_ERR_USER, [](corpdir_request& r) { r.user = kDots128.c_str(); }},
    {"UserWithAnotherCommand", CORPDIR_ERR_USER,
     [](corpdir_request& r) { r.user = "u\r\nDELE directory.csv"; }},
    {"PasswordMissing", CORPDIR_ERR_PASSWORD, [](corpdir_request& r) { r.password = nullptr; }},
    {"PasswordEmpty", CORPDIR_ERR_PASSWORD, [](corpdir_request& r) { r.password = ""; }},
    {"PasswordTooLong", CORPDIR_ERR_PASSWORD,
     [](corpdir_request& r) { r.password = kDots128.c_str(); }},
    {"PasswordWithALineFeed", CORPDIR_ERR_PASSWORD,
     [](corpdir_request& r) { r.password = "a\nb"; }},
    {"VersionFileMissing", CORPDIR_ERR_VERSION_FILE,
     [](corpdir_request& r) { r.version_file = nullptr; }},
    {"VersionFileTooLong", CORPDIR_ERR_VERSION_FILE,
     [](corpdir_request& r) { r.version_file = kDots256.c_str(); }},
    {"VersionFileADirectory", CORPDIR_ERR_VERSION_FILE,
     [](corpdir_request& r) { r.version_file = "v/"; }},
    {"DirectoryFileMissing", CORPDIR_ERR_DIRECTORY_FILE,
     [](corpdir_request& r) { r.directory_file = nullptr; }},
    {"DirectoryFileTooLong", CORPDIR_ERR_DIRECTORY_FILE,
     [](corpdir_request& r) { r.directory_file = kDots256.c_str(); }},
    {"DirectoryFileTheVersionFile", CORPDIR_ERR_DIRECTORY_FILE,
     [](corpdir_request& r) { r.directory_file = "version.txt"; },
     "directory_file: the same as version_file"},
    {"DirectoryDirMissing", CORPDIR_ERR_DIRECTORY_DIR,
     [](corpdir_request& r) { r.directory_dir = nullptr; }},
    {"DirectoryDirTooLong", CORPDIR_ERR_DIRECTORY_DIR,
     [](corpdir_request& r) { r.directory_dir = kDots127.c_str(); }},
    {"DirectoryNameEmpty", CORPDIR_ERR_DIRECTORY_NAME,
     [](corpdir_request& r) { r.directory_name = ""; }},
    {"DirectoryNameTooLong", CORPDIR_ERR_DIRECTORY_NAME,
     [](corpdir_request& r) { r.directory_name = kName242.c_str(); }},
    {"DirectoryNameReserved", CORPDIR_ERR_DIRECTORY_NAME,
     [](corpdir_request& r) { r.directory_name = ".travex_ftp-0123456789abcdef.part"; }},
    {"DirectoryNameOfTheClient", CORPDIR_ERR_DIRECTORY_NAME,
     [](corpdir_request& r) { r.directory_name = ".corpdir-0123456789abcdef.new"; }},
    {"DirectoryNameElsewhere", CORPDIR_ERR_DIRECTORY_NAME,
     [](corpdir_request& r) { r.directory_name = "../x"; }},
    {"DirectoryNameTheParent", CORPDIR_ERR_DIRECTORY_NAME,
     [](corpdir_request& r) { r.directory_file = "a/.."; },
     "directory_file: its last part is not a local name of 1 to 241 bytes; set directory_name"},
    {"VersionDirEmpty", CORPDIR_ERR_VERSION_DIR, [](corpdir_request& r) { r.version_dir = ""; }},
    {"VersionDirTooLong", CORPDIR_ERR_VERSION_DIR,
     [](corpdir_request& r) { r.version_dir = kDots127.c_str(); }},
    {"VersionNameElsewhere", CORPDIR_ERR_VERSION_NAME,
     [](corpdir_request& r) { r.version_name = "a/b"; }},
    {"VersionNameTooLong", CORPDIR_ERR_VERSION_NAME,
     [](corpdir_request& r) { r.version_name = kDots256.c_str(); }},
    {"BothInOnePlace", CORPDIR_ERR_VERSION_NAME,
     [](corpdir_request& r) { r.version_name = "directory.csv"; }},
    {"VersionNameOfTheState", CORPDIR_ERR_VERSION_NAME,
     [](corpdir_request& r) { r.version_name = ".directory.csv.corpdir.json"; }},
    {"LocalAddressAName", CORPDIR_ERR_LOCAL_ADDRESS,
     [](corpdir_request& r) { r.local_address = "localhost"; }},
    {"LocalAddressOfAnotherFamily", CORPDIR_ERR_LOCAL_ADDRESS,
     [](corpdir_request& r) { r.local_address = "::1"; },
     "local_address: not of the family of the server 127.0.0.1"},
    {"TrustEmpty", CORPDIR_ERR_TRUST, [](corpdir_request& r) { r.trust = ""; }},
    {"TrustTooLong", CORPDIR_ERR_TRUST, [](corpdir_request& r) { r.trust = kDots256.c_str(); }},
    {"PortTooLarge", CORPDIR_ERR_PORT, [](corpdir_request& r) { r.port = 65536; }},
    {"ModeUnknown", CORPDIR_ERR_MODE, [](corpdir_request& r) { r.mode = 2; }},
    {"VerificationUnknown", CORPDIR_ERR_VERIFICATION,
     [](corpdir_request& r) { r.without_verification = 2; }},
    {"CertificateNameAnAddress", CORPDIR_ERR_NAMES,
     [](corpdir_request& r) { r.certificate_names = "a.test;127.0.0.1"; },
     "certificate_names: '127.0.0.1' is not a host name"},
    {"ConnectSecondsTooMany", CORPDIR_ERR_TIMES,
     [](corpdir_request& r) { r.connect_seconds = 3601; },
     "the time for a connection is above 3600 s"},
    {"RetrySecondsTooMany", CORPDIR_ERR_TIMES, [](corpdir_request& r) { r.retry_seconds = 86401; },
     "the time until the next check is above 86400 s"},
    {"DirectoryMissing", CORPDIR_ERR_LOCAL_FILE, [](corpdir_request&) {},
     "cannot create a file in '/nonexistent/': No such file or directory"},
};

corpdir_request PlainRequest()
{
    corpdir_request request = {};
    request.size = sizeof request;
    request.servers = "127.0.0.1";
    request.user = "user";
    request.password = "password";
    request.version_file = "version.txt";
    request.directory_file = "directory.csv";
    request.directory_dir = "/nonexistent";
    return request;
}

class CLibraryMember : public CLibrary, public ::testing::WithParamInterface<BadMember>
{
};

TEST_P(CLibraryMember, IsRefusedWithItsCode)
{
    corpdir_request request = PlainRequest();
    GetParam().change(request);
    EXPECT_EQ(corpdir_start(m_client, &request), GetParam().code);
    const char* const reason = GetParam().reason;
    EXPECT_EQ(StartReason(), reason != nullptr ? reason : corpdir_error_text(GetParam().code));
}

INSTANTIATE_TEST_SUITE_P(Request, CLibraryMember, ::testing::ValuesIn(kBadMembers),
                         [](const auto& tested) { return tested.param.name; });

// A text at its limit is passed on to the server, which does not exist: an event reports that.
TEST_F(CLibrary, TextsAtTheirLimitsAreTaken)
{
    RecordedEvents events;
    const std::string label(62, 'a');
    const std::string servers =
        " [::1] ;" + label + "." + label + "." + label + "." + label + ".a;127.0.0.1";
    const std::string parent = m_output.Path() + "/";
    const std::string directory = parent + std::string(126 - parent.size(), 'd');
    const std::string name(241, 'n');
    const std::string ca = "ca=system;name=" + std::string(240, 'n');
    ASSERT_EQ(directory.size(), 126u);
    std::filesystem::create_directory(directory);
    corpdir_request request = PlainRequest();
    request.servers = servers.c_str();
    request.port = static_cast<std::uint32_t>(support::FreePort("127.0.0.1"));
    request.user = kDots127.c_str();
    request.password = kDots127.c_str();
    request.directory_dir = directory.c_str();
    request.directory_name = name.c_str();
    request.version_name = kDots255.c_str();
    request.trust = ca.c_str();
    request.certificate_names = "a.test;b.test";
    request.max_file_bytes = UINT64_MAX;
    request.connect_seconds = 3600;
    request.retry_seconds = 86400;
    request.on_event = &RecordedEvents::OnEvent;
    request.user_data = &events;
    EXPECT_EQ(corpdir_start(m_client, &request), CORPDIR_OK) << StartReason();
    EXPECT_TRUE(events.WaitFor(CORPDIR_EVENT_NO_SERVER_LEFT));
    EXPECT_THAT(events.OfKind(CORPDIR_EVENT_FAILED), SizeIs(2));
    EXPECT_THAT(events.OfKind(CORPDIR_EVENT_NAME_FAILED), SizeIs(1));
    corpdir_close(m_client);
}

// --- Fetching ---

TEST_F(CLibraryFetch, DeliversTheFileAndReportsIt)
{
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events));
    corpdir_close(m_client);
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), m_bytes);
    EXPECT_EQ(ReadFile(m_output.File("version.txt")), "edition 17\n");
    EXPECT_THAT(KindsIn(m_events), ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_NEW_VERSION,
                                               CORPDIR_EVENT_DELIVERED));
    for (const Event& event : m_events.All())
    {
        EXPECT_EQ(event.code, CORPDIR_OK);
        EXPECT_EQ(event.server, Endpoint());
        EXPECT_EQ(event.name, "");
        EXPECT_EQ(event.reason, "");
        EXPECT_NEAR(static_cast<double>(event.time), static_cast<double>(std::time(nullptr)), 60);
    }
    const Event version = m_events.OfKind(CORPDIR_EVENT_NEW_VERSION).front();
    EXPECT_EQ(version.file, "version.txt");
    EXPECT_EQ(version.version, "edition 17");
    const Event last = m_events.All().back();
    EXPECT_EQ(last.file, "directory.csv");
    EXPECT_EQ(last.version, "edition 17");
    EXPECT_EQ(last.path, m_output.File("directory.csv"));
    EXPECT_EQ(last.bytes, m_bytes.size());
}

TEST_F(CLibraryFetch, PutsTheFilesWhereTheRequestSays)
{
    TemporaryDirectory versions;
    const std::string version_dir = versions.Path() + "/";
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events,
                                       [&](CRequest& request)
                                       {
                                           request.record.version_dir = version_dir.c_str();
                                           request.record.version_name = "edition";
                                           request.record.directory_name = "people.csv";
                                       }));
    corpdir_close(m_client);
    EXPECT_THAT(FilesIn(m_output.Path()), ElementsAre(".people.csv.corpdir.json", "people.csv"));
    EXPECT_THAT(FilesIn(versions.Path()), ElementsAre("edition"));
}

// --- Checks ---

TEST_F(CLibraryFetch, ACheckThatIsAskedForFindsANewVersion)
{
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events));
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_UNCHANGED));
    m_server->AddFile("directory.csv", "newer");
    m_server->AddFile("version.txt", "edition 18\n");
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_DELIVERED, 2));
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), "newer");
    corpdir_close(m_client);
    EXPECT_THAT(KindsIn(m_events), ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_NEW_VERSION,
                                               CORPDIR_EVENT_DELIVERED, CORPDIR_EVENT_CHECKING,
                                               CORPDIR_EVENT_UNCHANGED, CORPDIR_EVENT_CHECKING,
                                               CORPDIR_EVENT_NEW_VERSION, CORPDIR_EVENT_DELIVERED));
    const Event unchanged = m_events.OfKind(CORPDIR_EVENT_UNCHANGED).front();
    EXPECT_EQ(unchanged.version, "edition 17");
    EXPECT_EQ(unchanged.path, m_output.File("directory.csv"));
    EXPECT_EQ(unchanged.bytes, m_bytes.size());
}

TEST_F(CLibraryFetch, AnOutageEndsWithARecovery)
{
    std::filesystem::remove(m_server->Root() + "/version.txt");
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_WAITING, m_events,
                                       [](CRequest& request)
                                       { request.record.retry_seconds = 1; }));
    m_server->AddFile("version.txt", "edition 17\n");
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_RECOVERED));
    corpdir_close(m_client);
    const Event failed = m_events.OfKind(CORPDIR_EVENT_FAILED).front();
    EXPECT_EQ(failed.code, CORPDIR_ERR_FILE);
    EXPECT_EQ(failed.reply, 550u);
    EXPECT_EQ(failed.step, static_cast<unsigned int>(CORPDIR_STEP_RETRIEVE));
    EXPECT_EQ(failed.file, "version.txt");
    const Event left = m_events.OfKind(CORPDIR_EVENT_NO_SERVER_LEFT).front();
    EXPECT_EQ(left.code, CORPDIR_ERR_FILE);
    EXPECT_EQ(left.server, Endpoint());
    EXPECT_EQ(left.reason, failed.reason);
    EXPECT_EQ(m_events.OfKind(CORPDIR_EVENT_RECOVERED).front().failures,
              m_events.OfKind(CORPDIR_EVENT_NO_SERVER_LEFT).size());
}

TEST_F(CLibraryFetch, AnInvalidVersionIsReportedWithItsText)
{
    m_server->AddFile("version.txt", "17\n");
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_WAITING, m_events));
    EXPECT_THAT(KindsIn(m_events),
                ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_INVALID_VERSION,
                            CORPDIR_EVENT_NO_SERVER_LEFT, CORPDIR_EVENT_WAITING));
    const Event invalid = m_events.All()[1];
    EXPECT_EQ(invalid.code, CORPDIR_ERR_VERSION);
    EXPECT_EQ(invalid.version, "17");
    EXPECT_EQ(invalid.server, Endpoint());
    EXPECT_THAT(invalid.reason, StartsWith("the version file is not valid: "));
    EXPECT_EQ(m_events.All()[2].code, CORPDIR_ERR_VERSION);
}

TEST_F(CLibraryFetch, TheNextServerIsAnnounced)
{
    const std::string servers = "127.0.0.2;" + m_server->Host();
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events,
                                       [&](CRequest& request)
                                       { request.record.servers = servers.c_str(); }));
    EXPECT_THAT(KindsIn(m_events), ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_FAILED,
                                               CORPDIR_EVENT_NEXT_SERVER, CORPDIR_EVENT_CHECKING,
                                               CORPDIR_EVENT_NEW_VERSION, CORPDIR_EVENT_DELIVERED));
    EXPECT_EQ(m_events.All()[1].step, static_cast<unsigned int>(CORPDIR_STEP_CONNECT));
}

TEST_F(CLibrary, WithoutARequestThereIsNothingToCheckOrToStop)
{
    EXPECT_EQ(corpdir_check_now(m_client), CORPDIR_ERR_NOT_STARTED);
    EXPECT_EQ(corpdir_stop(m_client), CORPDIR_ERR_NOT_STARTED);
}

TEST_F(CLibraryTransfer, AStopCancelsAndTheClientStaysOpen)
{
    StartTransfer();
    EXPECT_EQ(corpdir_stop(m_client), CORPDIR_OK);
    const std::size_t count = m_events.All().size();
    EXPECT_EQ(corpdir_check_now(m_client), CORPDIR_ERR_NOT_STARTED);
    EXPECT_THAT(FilesIn(m_output.Path()), Not(Contains("directory.csv")));
    RecordedEvents second;
    ASSERT_EQ(Start(second), CORPDIR_OK);
    EXPECT_TRUE(WaitUntil([&] { return UnderWay(second); }));
    EXPECT_THAT(m_events.All(), SizeIs(count));
}

// --- The state ---

TEST(CLibraryStatus, ChecksItsArguments)
{
    corpdir_state state = {};
    EXPECT_EQ(corpdir_status("directory.csv", &state), CORPDIR_ERR_ARGUMENT);
    state.size = sizeof state;
    EXPECT_EQ(corpdir_status(nullptr, &state), CORPDIR_ERR_ARGUMENT);
    EXPECT_EQ(corpdir_status("directory.csv", nullptr), CORPDIR_ERR_ARGUMENT);
}

TEST(CLibraryStatus, ReportsWhatCannotBeRead)
{
    const TemporaryDirectory directory;
    corpdir_state state = {};
    state.size = sizeof state;
    EXPECT_EQ(corpdir_status(directory.File("directory.csv").c_str(), &state),
              CORPDIR_ERR_NO_STATE);
    WriteFile(directory.File(".directory.csv.corpdir.json"), "no state");
    EXPECT_EQ(corpdir_status(directory.File("directory.csv").c_str(), &state),
              CORPDIR_ERR_LOCAL_FILE);
    EXPECT_STRNE(state.reason, "");
}

TEST_F(CLibraryFetch, TheStateTellsWhatIsKnown)
{
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events));
    std::filesystem::remove(m_server->Root() + "/version.txt");
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_NO_SERVER_LEFT));
    corpdir_close(m_client);
    corpdir_state state = {};
    state.size = sizeof state;
    ASSERT_EQ(corpdir_status(m_output.File("directory.csv").c_str(), &state), CORPDIR_OK);
    EXPECT_STREQ(state.version, "edition 17");
    EXPECT_EQ(state.bytes, m_bytes.size());
    EXPECT_STREQ(state.server, m_server->Host().c_str());
    EXPECT_EQ(std::string(state.sha256).size(), 64u);
    EXPECT_NEAR(static_cast<double>(state.fetched), static_cast<double>(std::time(nullptr)), 60);
    EXPECT_EQ(state.confirmed, state.fetched);
    EXPECT_GE(state.checked, state.fetched);
    EXPECT_EQ(state.failed, 1u);
    EXPECT_EQ(state.failures, 1u);
    EXPECT_EQ(state.in_place, 1u);
    EXPECT_STRNE(state.reason, "");
    WriteFile(m_output.File("directory.csv"), "shorter");
    ASSERT_EQ(corpdir_status(m_output.File("directory.csv").c_str(), &state), CORPDIR_OK);
    EXPECT_EQ(state.in_place, 0u);
}

// --- Events that wait ---

class CLibraryEventLoop : public CLibraryFetch
{
protected:
    // Starts a request without a callback.
    void StartWaiting()
    {
        ASSERT_EQ(Start(m_events, [](CRequest& request) { request.record.on_event = nullptr; }),
                  CORPDIR_OK)
            << StartReason();
    }

    bool IsReadable(int milliseconds)
    {
        pollfd descriptor = {corpdir_event_fd(m_client), POLLIN, 0};
        return poll(&descriptor, 1, milliseconds) == 1 && descriptor.revents == POLLIN;
    }

    // The kinds of the events up to this one, without progress.
    std::vector<corpdir_event_kind> TakeUntil(corpdir_event_kind last)
    {
        std::vector<corpdir_event_kind> kinds;
        while ((kinds.empty() || kinds.back() != last) && IsReadable(30000))
        {
            corpdir_event event = {};
            event.size = sizeof event;
            EXPECT_EQ(corpdir_next_event(m_client, &event), CORPDIR_OK);
            if (event.kind != CORPDIR_EVENT_PROGRESS)
            {
                kinds.push_back(static_cast<corpdir_event_kind>(event.kind));
            }
        }
        return kinds;
    }
};

TEST_F(CLibraryEventLoop, EventsWaitUntilTheyAreTaken)
{
    EXPECT_FALSE(IsReadable(0));
    StartWaiting();
    EXPECT_THAT(
        TakeUntil(CORPDIR_EVENT_DELIVERED),
        ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_NEW_VERSION, CORPDIR_EVENT_DELIVERED));
    EXPECT_FALSE(IsReadable(0));
    corpdir_event event = {};
    EXPECT_EQ(corpdir_next_event(m_client, &event), CORPDIR_ERR_ARGUMENT);
    event.size = sizeof event;
    EXPECT_EQ(corpdir_next_event(m_client, &event), CORPDIR_ERR_NO_EVENT);
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    EXPECT_THAT(TakeUntil(CORPDIR_EVENT_UNCHANGED),
                ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_UNCHANGED));
    EXPECT_THAT(m_events.All(), IsEmpty());
    corpdir_close(m_client);
    EXPECT_EQ(corpdir_event_fd(m_client), -1);
    EXPECT_EQ(corpdir_next_event(m_client, &event), CORPDIR_ERR_CLIENT);
}

TEST_F(CLibraryEventLoop, AnotherRequestDropsTheEventsOfTheEarlierOne)
{
    StartWaiting();
    ASSERT_TRUE(IsReadable(30000));
    ASSERT_TRUE(
        WaitUntil([this] { return std::filesystem::exists(m_output.File("version.txt")); }));
    StartWaiting();
    EXPECT_THAT(TakeUntil(CORPDIR_EVENT_UNCHANGED),
                ElementsAre(CORPDIR_EVENT_CHECKING, CORPDIR_EVENT_UNCHANGED));
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    ASSERT_TRUE(IsReadable(30000));
    ASSERT_EQ(corpdir_stop(m_client), CORPDIR_OK);
    EXPECT_FALSE(IsReadable(0));
}

TEST_F(CLibraryEventLoop, ALoopThatTakesNoEventsLosesTheOldest)
{
    StartWaiting();
    const auto requests = [this] { return m_server->CountCommands("RETR version.txt"); };
    for (std::size_t checks = 1; checks < 520; ++checks)
    {
        ASSERT_TRUE(WaitUntil([&] { return requests() >= checks; }));
        ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    }
    ASSERT_TRUE(WaitUntil([&] { return requests() >= 520; }));
    corpdir_event event = {};
    event.size = sizeof event;
    ASSERT_EQ(corpdir_next_event(m_client, &event), CORPDIR_OK);
    EXPECT_EQ(event.kind, static_cast<unsigned int>(CORPDIR_EVENT_LOST));
    std::size_t count = 0;
    while (corpdir_next_event(m_client, &event) == CORPDIR_OK)
    {
        EXPECT_NE(event.kind, static_cast<unsigned int>(CORPDIR_EVENT_LOST));
        ++count;
    }
    EXPECT_THAT(count, ::testing::AllOf(::testing::Ge(1000u), ::testing::Le(1004u)));
}

// --- Records of other headers ---

// The events of version 1.0: a directory file is delivered at each start.
TEST_F(CLibraryFetch, AProgramOfTheFirstVersionGetsItsEvents)
{
    const auto first = [](CRequest& request)
    {
        request.record.size = offsetof(corpdir_request, certificate_names);
        request.record.certificate_names = "not read";
    };
    RecordedEvents second;
    for (RecordedEvents* events : {&m_events, &second})
    {
        ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, *events, first));
        EXPECT_THAT(KindsIn(*events),
                    ElementsAre(CORPDIR_EVENT_TRANSFERRED, CORPDIR_EVENT_TRANSFERRED,
                                CORPDIR_EVENT_DELIVERED));
        EXPECT_EQ(events->OfKind(CORPDIR_EVENT_TRANSFERRED)[0].file, "version.txt");
        EXPECT_EQ(events->OfKind(CORPDIR_EVENT_TRANSFERRED)[1].file, "directory.csv");
        EXPECT_EQ(events->All().back().bytes, m_bytes.size());
    }
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    ASSERT_TRUE(second.WaitFor(CORPDIR_EVENT_TRANSFERRED, 3));
    RecordedEvents third;
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_FAILED, third,
                                       [&](CRequest& request)
                                       {
                                           first(request);
                                           request.record.servers = "nowhere.invalid";
                                       }));
    EXPECT_EQ(third.All().front().code, CORPDIR_ERR_CONNECT);
    EXPECT_EQ(third.All().front().server, "nowhere.invalid");
}

// A longer record comes from a later header: members that this library does not know must be zero.
TEST_F(CLibraryFetch, ALongerRecordIsTakenWhenTheRestIsZero)
{
    CRequest request(*m_server, m_certificates, m_output.Path(), m_events);
    struct
    {
        corpdir_request known;
        std::uint64_t later;
    } longer = {request.record, 1};
    longer.known.size = sizeof longer;
    EXPECT_EQ(corpdir_start(m_client, &longer.known), CORPDIR_ERR_ARGUMENT);
    longer.later = 0;
    EXPECT_EQ(corpdir_start(m_client, &longer.known), CORPDIR_OK);
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_DELIVERED));
}

TEST_F(CLibraryFetch, TheSuitesThatWereSetAreOffered)
{
    const std::uint16_t suites[] = {0x1302};
    ASSERT_EQ(corpdir_set_ciphers(m_client, suites, 1), CORPDIR_OK);
    RecordedEvents later;
    for (RecordedEvents* events : {&m_events, &later})  // the second start finds them again
    {
        ASSERT_NO_FATAL_FAILURE(StartUntil(
            events == &later ? CORPDIR_EVENT_UNCHANGED : CORPDIR_EVENT_DELIVERED, *events));
        EXPECT_THAT(m_server->Log(), HasSubstr("TLS control TLSv1.3 TLS_AES_256_GCM_SHA384"));
        EXPECT_THAT(m_server->Log(), Not(HasSubstr("TLSv1.2")));
    }
    corpdir_close(m_client);
}

// An added suite comes after the usual ones, or after those that were set.
TEST_F(CLibraryFetch, AnAddedSuiteIsOfferedBesideTheOthers)
{
    ASSERT_EQ(corpdir_add_cipher(m_client, 0xC0AC), CORPDIR_OK);  // ECDHE-ECDSA-AES128-CCM
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events));
    EXPECT_THAT(m_server->Log(), HasSubstr("TLSv1.3"));
    const std::uint16_t suite = 0x009D;  // AES256-GCM-SHA384
    ASSERT_EQ(corpdir_set_ciphers(m_client, &suite, 1), CORPDIR_OK);
    ASSERT_EQ(corpdir_add_cipher(m_client, 0x009D), CORPDIR_OK);
    ASSERT_EQ(corpdir_add_cipher(m_client, 0xC030), CORPDIR_OK);
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_UNCHANGED, m_events));
    EXPECT_THAT(m_server->Log(), HasSubstr("TLS control TLSv1.2"));
}

// --- Failures ---

TEST_F(CLibraryFetch, AWrongPasswordIsReportedInWords)
{
    ASSERT_EQ(Start(m_events, [](CRequest& request) { request.record.password = "not-this-one"; }),
              CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_FAILED, 2));  // a list of one server is asked twice
    corpdir_close(m_client);
    for (const Event& event : m_events.OfKind(CORPDIR_EVENT_FAILED))
    {
        EXPECT_EQ(event.code, CORPDIR_ERR_LOGIN);
        EXPECT_EQ(event.file, "version.txt");
        EXPECT_EQ(event.server, Endpoint());
        EXPECT_THAT(event.reason, StartsWith("login refused: 530"));
        EXPECT_THAT(event.reason, Not(HasSubstr("not-this-one")));
    }
    EXPECT_THAT(m_events.OfKind(CORPDIR_EVENT_DELIVERED), IsEmpty());
    EXPECT_THAT(FilesIn(m_output.Path()), ElementsAre(".directory.csv.corpdir.json"));
}

TEST_F(CLibraryFetch, AnUnknownAuthorityFailsBeforeThePasswordIsSent)
{
    const std::string other = "ca=" + m_certificates.OtherAuthority();
    ASSERT_EQ(Start(m_events, [&](CRequest& request) { request.record.trust = other.c_str(); }),
              CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_FAILED));
    corpdir_close(m_client);
    EXPECT_THAT(m_events.OfKind(CORPDIR_EVENT_FAILED),
                Each(AllOf(Field(&Event::code, CORPDIR_ERR_CERTIFICATE),
                           Field(&Event::reason, HasSubstr("certificate")))));
    EXPECT_EQ(m_server->CountCommands("PASS"), 0u);
}

TEST_F(CLibraryFetch, WithoutVerificationAnyAuthorityIsTaken)
{
    const std::string other = "ca=" + m_certificates.OtherAuthority();
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events,
                                       [&](CRequest& request)
                                       {
                                           request.record.trust = other.c_str();
                                           request.record.without_verification = 1;
                                       }));
}

// A start that fails gives its reason, reports no event, and leaves a usable client.
TEST_F(CLibraryFetch, AStartThatFailsGivesItsReason)
{
    const auto with_trust = [](const char* trust)
    { return [trust](CRequest& request) { request.record.trust = trust; }; };
    EXPECT_EQ(Start(m_events, with_trust("ca=/nonexistent.pem")), CORPDIR_ERR_AUTHORITIES);
    EXPECT_THAT(StartReason(), HasSubstr("/nonexistent.pem"));
    EXPECT_EQ(Start(m_events, with_trust("colour=blue")), CORPDIR_ERR_AUTHORITIES);

    const std::uint16_t suite = 0xfffe;
    ASSERT_EQ(corpdir_set_ciphers(m_client, &suite, 1), CORPDIR_OK);
    EXPECT_EQ(Start(m_events), CORPDIR_ERR_CIPHER);
    EXPECT_THAT(StartReason(), HasSubstr("0x0300FFFE"));
    ASSERT_EQ(corpdir_set_ciphers(m_client, nullptr, 0), CORPDIR_OK);

    EXPECT_EQ(Start(m_events, [](CRequest& request) { request.record.servers = "a b"; }),
              CORPDIR_ERR_SERVERS);
    EXPECT_THAT(m_events.All(), IsEmpty());

    char cut[4];
    EXPECT_GT(corpdir_start_reason(m_client, cut, sizeof cut), 3u);
    EXPECT_STREQ(cut, "ser");
    EXPECT_GT(corpdir_start_reason(m_client, nullptr, 0), 3u);

    ExpectFetch();
}

TEST_F(CLibraryFetch, ANameWithoutAnAddressFailsAndTheOthersAreAsked)
{
    const std::string servers = "nowhere.invalid;" + m_server->Host();
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events,
                                       [&](CRequest& request)
                                       { request.record.servers = servers.c_str(); }));
    EXPECT_THAT(KindsIn(m_events), ElementsAre(CORPDIR_EVENT_NAME_FAILED, CORPDIR_EVENT_CHECKING,
                                               CORPDIR_EVENT_NEW_VERSION, CORPDIR_EVENT_DELIVERED));
    const Event failed = m_events.All().front();
    EXPECT_EQ(failed.code, CORPDIR_ERR_NAME);
    EXPECT_EQ(failed.server, "nowhere.invalid");
    EXPECT_EQ(failed.name, "nowhere.invalid");
    EXPECT_NE(failed.reason, "");
}

// An application may start before the network does.
TEST_F(CLibraryFetch, WithoutAnyAddressTheNamesAreLookedUpAgain)
{
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_WAITING, m_events,
                                       [](CRequest& request)
                                       {
                                           request.record.servers = "nowhere.invalid";
                                           request.record.retry_seconds = 1;
                                       }));
    EXPECT_THAT(KindsIn(m_events),
                ElementsAre(CORPDIR_EVENT_NAME_FAILED, CORPDIR_EVENT_NO_SERVER_LEFT,
                            CORPDIR_EVENT_WAITING));
    const Event left = m_events.All()[1];
    EXPECT_EQ(left.code, CORPDIR_ERR_NAME);
    EXPECT_EQ(left.name, "nowhere.invalid");
    EXPECT_EQ(left.reason, m_events.All()[0].reason);
    EXPECT_EQ(left.failures, 1u);
    EXPECT_EQ(m_events.All()[2].seconds, 1u);
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_NAME_FAILED, 2));
}

// The certificate has both loopback addresses, one of which is that of the name.
TEST_F(CLibraryFetch, AListedNameMustBeInTheCertificate)
{
    addrinfo* list = nullptr;
    ASSERT_EQ(getaddrinfo("localhost", nullptr, nullptr, &list), 0);
    m_options.host = list->ai_family == AF_INET6 ? "::1" : "127.0.0.1";
    freeaddrinfo(list);
    m_server = std::make_unique<PyFtpServer>(m_options);
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_FAILED, m_events,
                                       [](CRequest& request)
                                       { request.record.servers = "localhost"; }));
    EXPECT_EQ(m_events.OfKind(CORPDIR_EVENT_FAILED)[0].reason,
              "certificate is not valid for host localhost");
    EXPECT_EQ(m_server->CountCommands("USER"), 0u);
}

TEST_F(CLibraryFetch, NamesOfTheTrustedCertificatesReplaceTheListedOne)
{
    const std::string trust = "ca=" + m_certificates.Authority() + ";name=";
    const std::string good = trust + "directory.test";
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events,
                                       [&](CRequest& request)
                                       { request.record.trust = good.c_str(); }));
    const std::string wrong = trust + "elsewhere.test";
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_FAILED, m_events,
                                       [&](CRequest& request)
                                       { request.record.trust = wrong.c_str(); }));
    EXPECT_EQ(m_events.OfKind(CORPDIR_EVENT_FAILED)[0].reason,
              "certificate is not valid for host elsewhere.test");
}

TEST_F(CLibraryFetch, ALogThatIsGoneFailsTheRestart)
{
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_DELIVERED, m_events));
    std::filesystem::remove_all(m_log.Path());
    RecordedEvents second;
    EXPECT_EQ(Start(second), CORPDIR_ERR_LOG);
    EXPECT_THAT(second.All(), IsEmpty());
    std::filesystem::create_directory(m_log.Path());
    ExpectFetch();
}

// The authorities may go while the client runs.
TEST_F(CLibraryFetch, ALaterRefusalIsReportedAndTriedAgain)
{
    const std::string authority = m_output.File("authority.pem");
    const std::string bytes = ReadFile(m_certificates.Authority());
    WriteFile(authority, bytes);
    m_server->AddFile("version.txt", "17\n");  // not valid: another request follows
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_WAITING, m_events,
                                       [&](CRequest& request)
                                       {
                                           request.record.trust = authority.c_str();
                                           request.record.retry_seconds = 1;
                                       }));
    std::filesystem::remove(authority);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_CHECK_FAILED));
    const Event failed = m_events.OfKind(CORPDIR_EVENT_FAILED).front();
    EXPECT_EQ(failed.code, CORPDIR_ERR_AUTHORITIES);
    EXPECT_THAT(failed.reason, HasSubstr(authority));
    WriteFile(authority, bytes);
    m_server->AddFile("version.txt", "edition 17\n");
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_DELIVERED));
}

// The service opens its log again for each request.
TEST_F(CLibraryFetch, AServiceThatCannotStartAgainIsReported)
{
    m_server->AddFile("version.txt", "17\n");  // not valid: another request follows
    ASSERT_NO_FATAL_FAILURE(StartUntil(CORPDIR_EVENT_WAITING, m_events,
                                       [](CRequest& request)
                                       { request.record.retry_seconds = 1; }));
    std::filesystem::remove_all(m_log.Path());
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_CHECK_FAILED));
    std::filesystem::create_directory(m_log.Path());
    m_server->AddFile("version.txt", "edition 17\n");
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_DELIVERED));
    for (const corpdir_event_kind kind : {CORPDIR_EVENT_START_FAILED, CORPDIR_EVENT_CHECK_FAILED})
    {
        const Event failed = m_events.OfKind(kind).front();
        EXPECT_EQ(failed.code, CORPDIR_ERR_LOG);
        EXPECT_THAT(failed.reason, HasSubstr(m_log.Path()));
    }
}

TEST_F(CLibraryTransfer, AServerThatDiesLeavesTheOlderFile)
{
    WriteFile(m_output.File("directory.csv"), "older");
    StartTransfer();
    m_server->Stop();
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_FAILED));
    corpdir_close(m_client);
    const Event failed = m_events.OfKind(CORPDIR_EVENT_FAILED).front();
    EXPECT_EQ(failed.file, "directory.csv");
    EXPECT_NE(failed.reason, "");
    EXPECT_GT(failed.bytes, 0u);
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), "older");
}

// --- Closing and starting again ---

TEST_F(CLibraryTransfer, ProgressGrowsToTheAnnouncedSize)
{
    StartTransfer();
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_PROGRESS, 4));
    corpdir_close(m_client);
    std::uint64_t before = 0;
    for (const Event& event : m_events.OfKind(CORPDIR_EVENT_PROGRESS))
    {
        if (event.file == "directory.csv")
        {
            EXPECT_GE(event.bytes, before);
            EXPECT_EQ(event.total, m_bytes.size());
            before = event.bytes;
        }
    }
}

TEST_F(CLibraryTransfer, ACloseDuringATransferLeavesNothingAndReportsNothingMore)
{
    WriteFile(m_output.File("directory.csv"), "older");
    StartTransfer();
    const auto before = steady_clock::now();
    corpdir_close(m_client);
    EXPECT_LT(steady_clock::now() - before, seconds(5));
    const std::size_t count = m_events.All().size();
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), "older");
    EXPECT_THAT(FilesIn(m_output.Path()), ElementsAre("directory.csv"));
    EXPECT_THAT(m_events.OfKind(CORPDIR_EVENT_DELIVERED), IsEmpty());
    EXPECT_THAT(m_events.OfKind(CORPDIR_EVENT_FAILED), IsEmpty());
    Open();
    corpdir_close(m_client);
    EXPECT_THAT(m_events.All(), SizeIs(count));
}

TEST_F(CLibraryFetch, ACloseWaitsForTheCallbackInProgress)
{
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    m_events.On(CORPDIR_EVENT_DELIVERED,
                [&]
                {
                    entered.set_value();
                    leave.get_future().wait();
                    left = true;
                });
    ASSERT_EQ(Start(m_events), CORPDIR_OK);
    ASSERT_EQ(entered.get_future().wait_for(seconds(30)), std::future_status::ready);
    std::atomic<bool> closed{false};
    std::thread closer(
        [&]
        {
            corpdir_close(m_client);
            EXPECT_TRUE(left);
            closed = true;
        });
    // The code shows that the close has begun; the callback is still in progress.
    EXPECT_TRUE(
        WaitUntil([&] { return corpdir_add_cipher(m_client, 0x1302) == CORPDIR_ERR_CLIENT; }));
    corpdir_client* other = nullptr;
    EXPECT_EQ(corpdir_open(nullptr, &other), CORPDIR_ERR_BUSY);
    EXPECT_FALSE(closed);
    leave.set_value();
    closer.join();
    Open();
}

// A callback closes and starts while another thread waits for it.
TEST_F(CLibraryFetch, ACallbackMayCallWhileACloseWaitsForIt)
{
    std::promise<void> entered;
    std::atomic<int> code{-1};
    m_events.On(
        CORPDIR_EVENT_DELIVERED,
        [&]
        {
            entered.set_value();
            EXPECT_TRUE(WaitUntil(
                [&] { return corpdir_add_cipher(m_client, 0x1302) == CORPDIR_ERR_CLIENT; }));
            code = Start(m_events);
            corpdir_close(m_client);
        });
    ASSERT_EQ(Start(m_events), CORPDIR_OK);
    ASSERT_EQ(entered.get_future().wait_for(seconds(30)), std::future_status::ready);
    corpdir_close(m_client);
    EXPECT_EQ(code, CORPDIR_ERR_CLIENT);
    m_events.Then([] {});
    Open();
    ExpectFetch();
}

TEST_F(CLibraryFetch, TheCallbackMayClose)
{
    std::atomic<bool> returned{false};
    m_events.Then(
        [&]
        {
            corpdir_close(m_client);
            EXPECT_EQ(corpdir_add_cipher(m_client, 0x1302), CORPDIR_ERR_CLIENT);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            returned = true;
        });
    ASSERT_EQ(Start(m_events), CORPDIR_OK);
    ASSERT_TRUE(WaitUntil([this] { return !m_events.All().empty(); }));
    corpdir_close(m_client);  // the client may be closed already: waits for the callback
    EXPECT_TRUE(returned);
    EXPECT_THAT(m_events.All(), SizeIs(1));
    m_events.Then([] {});
    Open();
    ExpectFetch();
}

TEST_F(CLibraryFetch, TheCallbackMayCloseAndOpenAgain)
{
    RecordedEvents second;
    std::atomic<int> code{-1};
    m_events.Then(
        [&]
        {
            corpdir_close(m_client);
            Open();
            code = Start(second);
        });
    ASSERT_EQ(Start(m_events), CORPDIR_OK);
    EXPECT_TRUE(second.WaitFor(CORPDIR_EVENT_DELIVERED));
    EXPECT_EQ(code, CORPDIR_OK);
    corpdir_close(m_client);
    EXPECT_THAT(m_events.All(), SizeIs(1));
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS
// The files of the transfer are the parent's.
TEST_F(CLibraryTransfer, AChildThatExitsRemovesNothing)
{
    StartTransfer();
    const std::vector<std::string> before = FilesIn(m_output.Path());
    const pid_t child = fork();
    if (child == 0)
    {
        (void)alarm(20);
        corpdir_close(m_client);
        std::exit(0);  // NOLINT(concurrency-mt-unsafe)
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(before, Contains(StartsWith(".corpdir-")));
    EXPECT_THAT(FilesIn(m_output.Path()), before);
}
#endif

TEST_F(CLibraryTransfer, ASecondStartReplacesTheFirst)
{
    StartTransfer();
    RecordedEvents second;
    ASSERT_EQ(Start(second), CORPDIR_OK);
    const std::size_t count = m_events.All().size();
    EXPECT_TRUE(WaitUntil([&] { return UnderWay(second); }));
    corpdir_close(m_client);
    EXPECT_THAT(m_events.All(), SizeIs(count));
    EXPECT_THAT(m_events.OfKind(CORPDIR_EVENT_FAILED), IsEmpty());
}

TEST_F(CLibraryTransfer, ARequestThatCannotBeUsedLeavesTheEarlierOneAlone)
{
    StartTransfer();
    const std::size_t count = m_events.All().size();
    EXPECT_EQ(Start(m_events, [](CRequest& request) { request.record.port = 70000; }),
              CORPDIR_ERR_PORT);
    EXPECT_EQ(Start(m_events, [](CRequest& request) { request.record.trust = "/nonexistent"; }),
              CORPDIR_ERR_AUTHORITIES);
    EXPECT_EQ(
        Start(m_events, [](CRequest& request) { request.record.directory_dir = "/nonexistent"; }),
        CORPDIR_ERR_LOCAL_FILE);
    EXPECT_TRUE(WaitUntil([&] { return m_events.All().size() > count + 1; }));
}

TEST_F(CLibraryFetch, TheCallbackMayStartAgain)
{
    RecordedEvents second;
    std::atomic<int> code{-1};
    m_events.On(CORPDIR_EVENT_DELIVERED, [&] { code = Start(second); });
    ASSERT_EQ(Start(m_events), CORPDIR_OK);
    EXPECT_TRUE(second.WaitFor(CORPDIR_EVENT_UNCHANGED));
    EXPECT_EQ(code, CORPDIR_OK);
    corpdir_close(m_client);
    EXPECT_EQ(m_events.All().back().kind, CORPDIR_EVENT_DELIVERED);
}

TEST_F(CLibraryFetch, AStartWaitsForTheEarlierCallback)
{
    std::promise<void> entered;
    std::atomic<bool> left{false};
    m_events.On(CORPDIR_EVENT_DELIVERED,
                [&]
                {
                    entered.set_value();
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                    left = true;
                });
    ASSERT_EQ(Start(m_events), CORPDIR_OK);
    ASSERT_EQ(entered.get_future().wait_for(seconds(30)), std::future_status::ready);
    RecordedEvents second;
    ASSERT_EQ(Start(second), CORPDIR_OK);
    EXPECT_TRUE(left);
    EXPECT_TRUE(second.WaitFor(CORPDIR_EVENT_UNCHANGED));
    corpdir_close(m_client);
}

// Every call runs beside every other one: nothing hangs, crashes or races.
TEST_F(CLibraryFetch, ManyThreadsAtOnce)
{
    std::atomic<bool> stop{false};
    std::atomic<unsigned int> started{0};
    std::vector<RecordedEvents> received(3);
    std::vector<std::thread> threads;
    for (RecordedEvents& own : received)
    {
        threads.emplace_back(
            [&]
            {
                while (!stop)
                {
                    const corpdir_code code = Start(own);
                    EXPECT_THAT(code, ::testing::AnyOf(CORPDIR_OK, CORPDIR_ERR_CLIENT));
                    started += code == CORPDIR_OK ? 1 : 0;
                    (void)corpdir_add_cipher(m_client, 0x1302);
                    char reason[64];
                    (void)corpdir_start_reason(m_client, reason, sizeof reason);
                }
            });
    }
    EXPECT_TRUE(WaitUntil([&] { return started > 50; }));
    std::thread closer([&] { corpdir_close(m_client); });
    corpdir_close(m_client);
    const auto count = [&]
    {
        std::size_t sum = 0;
        for (const RecordedEvents& own : received)
        {
            sum += own.All().size();
        }
        return sum;
    };
    const std::size_t before = count();
    closer.join();
    stop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(count(), before);
}

// --- The end of the process ---

constexpr int kEnded = 7;

// For the files; the process that ends inherits it.
constexpr char kExitFolder[] = "CORPDIR_EXIT_FOLDER";

// Starts a request that fails again and again: no server listens on the port.
corpdir_client* StartFailing(RecordedEvents& events)
{
    corpdir_client* client = nullptr;
    corpdir_log_settings log = {};
    log.size = sizeof log;
    corpdir_request request = PlainRequest();
    request.directory_dir = std::getenv(kExitFolder);  // NOLINT(concurrency-mt-unsafe)
    request.port = static_cast<std::uint32_t>(support::FreePort("127.0.0.1"));
    request.on_event = &RecordedEvents::OnEvent;
    request.user_data = &events;
    if (corpdir_open(&log, &client) != CORPDIR_OK ||
        corpdir_start(client, &request) != CORPDIR_OK || !events.WaitFor(CORPDIR_EVENT_FAILED))
    {
        _exit(1);
    }
    return client;
}

// Never destroyed: threads use it until the process is gone.
RecordedEvents& NewEvents()
{
    static RecordedEvents* const events = new RecordedEvents;
    return *events;
}

class CLibraryExitDeathTest : public ::testing::Test
{
protected:
    CLibraryExitDeathTest()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        (void)setenv(kExitFolder, m_folder.Path().c_str(), 0);  // NOLINT(concurrency-mt-unsafe)
    }
    ~CLibraryExitDeathTest() override
    {
        (void)unsetenv(kExitFolder);  // NOLINT(concurrency-mt-unsafe)
    }

    TemporaryDirectory m_folder;
};

// Other threads run meanwhile on purpose.
TEST_F(CLibraryExitDeathTest, WithoutAClose)
{
    EXPECT_EXIT(
        {
            RecordedEvents& events = NewEvents();
            StartFailing(events);
            std::exit(kEnded);  // NOLINT(concurrency-mt-unsafe)
        },
        ::testing::ExitedWithCode(kEnded), "");
}

TEST_F(CLibraryExitDeathTest, WithinTheCallback)
{
    EXPECT_EXIT(
        {
            RecordedEvents& events = NewEvents();
            events.Then([] { std::exit(kEnded); });  // NOLINT(concurrency-mt-unsafe)
            StartFailing(events);
            std::this_thread::sleep_for(seconds(30));
            _exit(1);
        },
        ::testing::ExitedWithCode(kEnded), "");
}

TEST_F(CLibraryExitDeathTest, BesideACallback)
{
    EXPECT_EXIT(
        {
            RecordedEvents& events = NewEvents();
            events.Then([] { std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
            StartFailing(events);
            std::exit(kEnded);  // NOLINT(concurrency-mt-unsafe)
        },
        ::testing::ExitedWithCode(kEnded), "");
}

// A static object, destroyed after the library's exit handler, waits for a thread that closes.
TEST_F(CLibraryExitDeathTest, WithAThreadThatCloses)
{
    EXPECT_EXIT(
        {
            struct Owner
            {
                ~Owner()
                {
                    go.set_value();
                    thread.join();
                }
                std::promise<void> go;
                std::thread thread;
            };
            static Owner owner;
            corpdir_client* const client = StartFailing(NewEvents());
            owner.thread = std::thread(
                [client]
                {
                    owner.go.get_future().wait();
                    corpdir_close(client);
                });
            (void)alarm(20);
            std::exit(kEnded);  // NOLINT(concurrency-mt-unsafe)
        },
        ::testing::ExitedWithCode(kEnded), "");
}

// The wait for a callback that does not return is limited.
TEST_F(CLibraryExitDeathTest, BesideACallbackThatStays)
{
    EXPECT_EXIT(
        {
            RecordedEvents& events = NewEvents();
            events.On(CORPDIR_EVENT_FAILED, [] { std::this_thread::sleep_for(seconds(60)); });
            StartFailing(events);
            (void)alarm(20);
            std::exit(kEnded);  // NOLINT(concurrency-mt-unsafe)
        },
        ::testing::ExitedWithCode(kEnded), "");
}

}  // namespace
}  // namespace integration
