// A server that misbehaves: what the client reports, that the file that was there is untouched,
// that nothing is left over, and that the next transfer works.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>

#include "captured_log.h"
#include "memory_search.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::Certificates;
using ftp_test::Environment;
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Parameters;
using ftp_test::TlsOptions;
using support::WaitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

struct Case
{
    const char* fault;
    const char* outcome;  // an extended regular expression
};

void PrintTo(const Case& one, std::ostream* out)
{
    *out << one.fault;
}

// Limits short enough for a test.
class FaultTest : public LayerTest, public testing::WithParamInterface<Case>
{
protected:
    void Try(bool tls)
    {
        std::vector<std::string> options{"--once"};
        if (tls)
        {
            const std::vector<std::string> more = TlsOptions();
            options.insert(options.end(), more.begin(), more.end());
        }
        FaultyServer server(GetParam().fault, options);
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = tls ? 1 : 0;
        record.ulCertVerify = tls ? 1 : 0;
        record.pcFtpCtrlInfo = Certificates().Authority().c_str();
        Use(record);
        support::WriteFile(m_directory.File("f"), "old");
        EXPECT_THAT(Fetch("f", "f"), MatchesRegex(GetParam().outcome));
        EXPECT_EQ("old", Content("f"));
        EXPECT_EQ(1u, support::FilesIn(m_directory.Path()).size());
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_TRUE(FaultyServer::Body(100000) == Content("f"));
        EXPECT_EQ(0u, captured_log::CountWith("throw-away-17"));
    }

    const Environment m_connect{"CORPDIR_FTP_CONNECT_MS", "700"};
    const Environment m_response{"CORPDIR_FTP_RESPONSE_MS", "700"};
    const Environment m_handshake{"CORPDIR_FTP_HANDSHAKE_MS", "700"};
    const Environment m_stall{"CORPDIR_FTP_STALL_MS", "900"};
    const Environment m_confirm{"CORPDIR_FTP_CONFIRM_MS", "700"};
    const Environment m_size{"CORPDIR_FTP_FILE_BYTES", "20000000"};
};

class PlainFault : public FaultTest
{
};

TEST_P(PlainFault, FailsInWords)
{
    Try(false);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, PlainFault,
    testing::Values(
        Case{"drop:GREETING", "3 26 connection lost at the greeting: closed by the server"},
        Case{"hang:GREETING", "3 22 no greeting in 0\\.7 s"},
        Case{"reply:GREETING:421 Too many users.",
             "3 16 the server ends the service: 421 Too many users\\."},
        Case{"reply:GREETING:530 Go away.", "3 16 the server is not ready: 530 Go away\\."},
        Case{"drop:USER", "3 26 connection lost at USER: closed by the server"},
        Case{"hang:USER", "3 22 no answer to USER in 0\\.7 s"},
        Case{"reply:USER:530 no", "3 19 login refused: 530 no"},
        Case{"reset:PASS", "3 26 connection lost at PASS: .*reset by peer"},
        Case{"hang:PASS", "3 22 no answer to PASS in 0\\.7 s"},
        Case{"drop:PWD", "3 26 connection lost at PWD: closed by the server"},
        Case{"hang:EPSV", "3 22 no answer to EPSV in 0\\.7 s"},
        Case{"reply:EPSV:229 Extended (|||banana|)",
             "3 21 unexpected answer to EPSV: 229 Extended .*"},
        Case{"drop:TYPE", "3 26 connection lost at TYPE: closed by the server"},
        Case{"hang:SIZE", "3 22 no answer to SIZE in 0\\.7 s"},
        Case{"reply:SIZE:421 Bye.", "3 16 the server ends the service: 421 Bye\\."},
        Case{"drop:RETR", "3 (26|23) connection lost at RETR: .*"},
        Case{"hang:RETR", "3 22 no answer to RETR in 0\\.7 s"},
        Case{"reply:RETR:550 No such file", "3 20 RETR refused: 550 No such file"}));

INSTANTIATE_TEST_SUITE_P(
    Files, PlainFault,
    testing::Values(
        Case{"early_eof", "3 23 50000 bytes arrived of 100000 announced"},
        Case{"data_reset", "3 23 connection lost at RETR: .*reset by peer"},
        Case{"size_too_small", "3 23 100000 bytes arrived of 99999 announced"},
        Case{"size_too_large", "3 23 100000 bytes arrived of 100001 announced"},
        Case{"size_negative", "3 21 SIZE answered without a size: 213 -1"},
        Case{"size_no_number", "3 21 SIZE answered without a size: 213 about a megabyte"},
        Case{"size_enormous", "3 24 the file is larger than 20000000 bytes"},
        Case{"size_beyond_numbers", "3 24 the file is larger than 20000000 bytes"},
        Case{"opening_lies", "3 23 100000 bytes arrived of 100005 announced"},
        Case{"sizes_disagree", "3 23 100000 bytes arrived of 100005 announced"},
        Case{"file_grows", "3 23 100005 bytes arrived of 100000 announced"},
        Case{"endless_file", "3 24 the file is larger than 20000000 bytes"},
        Case{"slow_drip", "3 22 stalled: [0-9]+ bytes in 0\\.9 s"},
        Case{"stall", "3 22 stalled: 0 bytes in 0\\.9 s"},
        Case{"no_226", "3 22 the end of the file was not confirmed: .*"},
        Case{"late_426", "3 23 the server broke off: 426 Failure writing network stream\\."},
        Case{"late_451", "3 23 the server broke off: 451 Read error on the disk\\."},
        Case{"wrong_order", "3 21 unexpected answer to RETR: 226 Transfer complete\\."},
        Case{"no_150", "3 21 unexpected answer to RETR: 226 Transfer complete\\."}));

INSTANTIATE_TEST_SUITE_P(
    Words, PlainFault,
    testing::Values(Case{"endless_banner", "3 21 the server says too much: 1001 lines"},
                    Case{"endless_line", "3 21 the server says too much: .*"},
                    Case{"binary_banner", "3 21 the server says too much: [0-9]+ lines"},
                    Case{"many_lines", "3 21 the server says too much: 1001 lines"},
                    Case{"password_echo",
                         "3 19 login refused: 530 Login incorrect, password was "
                         "\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\."},
                    Case{"escape_in_reply", "3 20 RETR refused: 550 \\?\\[2J\\? gone \\?\\?"}));

class TlsFault : public FaultTest
{
};

TEST_P(TlsFault, FailsInWords)
{
    Try(true);
}

INSTANTIATE_TEST_SUITE_P(
    All, TlsFault,
    testing::Values(
        Case{"reply:AUTH:500 What?", "3 17 AUTH refused: 500 What\\?"},
        Case{"reply:PROT:534 no", "3 17 PROT refused: 534 no"},
        Case{"drop:AUTH", "3 26 connection lost at AUTH: closed by the server"},
        Case{"hang:AUTH", "3 22 no answer to AUTH in 0\\.7 s"},
        Case{"drop:PBSZ", "3 26 connection lost at PBSZ: closed by the server"},
        Case{"hang:PROT", "3 22 no answer to PROT in 0\\.7 s"},
        Case{"hang:TYPE", "3 22 no answer to TYPE in 0\\.7 s"},
        Case{"hang:RETR", "3 22 no answer to RETR in 0\\.7 s"},
        Case{"hang_handshake", "3 17 TLS failed: .*"},
        Case{"hang_data_handshake", "3 17 data channel: TLS failed: .*"},
        Case{"clear_data", "3 17 data channel: TLS failed: .*"},
        Case{"injected_after_auth", "3 21 unexpected answer to AUTH: 234 Go on\\."},
        Case{"early_eof", "3 23 50000 bytes arrived of 100000 announced"},
        Case{"early_eof_unknown_size", "3 23 the data channel ended without close_notify: .*"},
        Case{"no_close_notify", "3 23 the data channel ended without close_notify: .*"},
        Case{"data_reset", "3 23 the data channel ended without close_notify: .*"},
        Case{"file_grows", "3 23 100005 bytes arrived of 100000 announced"},
        Case{"late_426", "3 23 the server broke off: 426 Failure writing network stream\\."}));

// The connection is lost at each step of a whole dialogue over explicit TLS. With a data connection
// under way it may be that one whose loss shows first.
INSTANTIATE_TEST_SUITE_P(
    EachStep, TlsFault,
    testing::Values(Case{"drop:GREETING", "3 26 connection lost at the greeting: .*"},
                    Case{"reset:AUTH", "3 26 connection lost at AUTH: .*"},
                    Case{"drop:USER", "3 26 connection lost at USER: .*"},
                    Case{"drop:PASS", "3 26 connection lost at PASS: .*"},
                    Case{"reset:PBSZ", "3 26 connection lost at PBSZ: .*"},
                    Case{"drop:PROT", "3 26 connection lost at PROT: .*"},
                    Case{"drop:PWD", "3 26 connection lost at PWD: .*"},
                    Case{"drop:EPSV", "3 26 connection lost at EPSV: .*"},
                    Case{"drop:TYPE", "3 26 connection lost at (TYPE|PASV): .*"},
                    Case{"drop:SIZE", "3 26 connection lost at (SIZE|PASV): .*"},
                    Case{"drop:RETR",
                         "3 (26|23) connection lost at RETR: .*|3 17 data channel: TLS failed: "
                         ".*reset by peer"}));

// Implicit TLS protects the control channel whatever the server answers; the data channel must not
// stay in clear for that.
TEST_F(LayerTest, ARefusedProtFailsOverImplicitTlsToo)
{
    FaultyServer server("reply:PROT:534 no", TlsOptions("implicit"));
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    record.ulServerType = 1;
    record.pcFtpCtrlInfo = "tls=implicit";
    Use(record);
    support::WriteFile(m_directory.File("f"), "old");
    EXPECT_EQ("3 17 PROT refused: 534 no", Fetch("f", "f"));
    EXPECT_EQ("old", Content("f"));
    EXPECT_EQ(0u, server.Count("COMMAND RETR"));
}

// What goes over the wire for both files, and nothing else. AUTH TLS comes first: some servers know
// no AUTH SSL.
TEST_F(LayerTest, AsksAsLittleAsAServerAllows)
{
    FaultyServer server("none", TlsOptions());
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    record.ulServerType = 1;
    Use(record);
    ASSERT_EQ("0 12", Fetch("far/down/version", "v"));
    ASSERT_EQ("0 12", Fetch("far/down/directory", "d"));
    EXPECT_THAT(server.Commands(),
                ElementsAre("AUTH TLS", "USER ftp", "PASS throw-away-17", "PBSZ 0", "PROT P", "PWD",
                            "EPSV", "TYPE I", "SIZE far/down/version", "RETR far/down/version",
                            "EPSV", "SIZE far/down/directory", "RETR far/down/directory"));
}

TEST_F(LayerTest, BothChannelsLeaveFromTheLocalAddress)
{
    FaultyServer server("none");
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    ASSERT_EQ(1, inet_pton(AF_INET, "127.0.0.77", record.aucLocalIp));
    Use(record);
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(1u, server.Count("CONNECT 127.0.0.77"));
    EXPECT_EQ(1u, server.Count("DATA 127.0.0.77"));
    ASSERT_EQ(1, inet_pton(AF_INET, "192.0.2.77", record.aucLocalIp));  // nobody's here
    Use(record);
    EXPECT_EQ("3 16 no connection: Cannot assign requested address", Fetch("f", "f"));
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS  // which have threads of their own
// A write to a connection that the server has left must not end the process.
TEST_F(LayerTest, ItsThreadsBlockEverySignal)
{
    FaultyServer server("none");
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    size_t threads = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        if (task.path().filename() != std::to_string(getpid()))
        {
            ++threads;
            const std::string status = support::ReadFile((task.path() / "status").string());
            const size_t at = status.find("SigBlk:") + strlen("SigBlk:");
            const auto blocked = std::stoull(status.substr(at, 18), nullptr, 16);
            EXPECT_NE(0u, blocked & (1ull << (SIGPIPE - 1))) << task.path();
            EXPECT_NE(0u, blocked & (1ull << (SIGTERM - 1))) << task.path();
        }
    }
    EXPECT_EQ(2u, threads) << "of transfers and of notifications";
}
#endif

// Oddities that are no faults.
class Tolerated : public LayerTest, public testing::WithParamInterface<const char*>
{
};

TEST_P(Tolerated, TransferWorks)
{
    FaultyServer server(GetParam());
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_TRUE(FaultyServer::Body(100000) == Content("f"));
    EXPECT_EQ(1u, server.Count("DATA 127.0.0.1"));
}

INSTANTIATE_TEST_SUITE_P(All, Tolerated,
                         testing::Values("none", "size_unknown", "size_refused", "long_greeting",
                                         "foreign_pasv", "epsv_unreachable", "ignore_quit"));

// A pooled connection that the server has given up meanwhile is replaced without a visible failure.
class Stale : public LayerTest, public testing::WithParamInterface<const char*>
{
protected:
    const Environment m_response{"CORPDIR_FTP_RESPONSE_MS", "700"};
};

TEST_P(Stale, IsReplaced)
{
    FaultyServer server(GetParam(), {"--once"});
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    EXPECT_EQ("0 12", Fetch("f", "one"));
    EXPECT_EQ("0 12", Fetch("f", "two"));
    EXPECT_EQ(2u, server.Count("CONNECT"));
    EXPECT_EQ("0 12", Fetch("f", "three"));
    EXPECT_EQ(2u, server.Count("CONNECT"));
}

INSTANTIATE_TEST_SUITE_P(All, Stale,
                         testing::Values("idle_421", "idle_close", "idle_reset", "idle_deaf",
                                         "closing_and_more"));

// What a server says unasked is no line of a dialogue any more: the connection is left with a QUIT.
TEST_F(LayerTest, ChatterEndsAnIdleConnection)
{
    for (const bool tls : {false, true})
    {
        FaultyServer server("idle_chatter", tls ? TlsOptions() : std::vector<std::string>());
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = tls ? 1 : 0;
        Use(record);
        for (unsigned int fetched = 1; fetched != 4; ++fetched)
        {
            EXPECT_EQ("0 12", Fetch("f", "f"));
            EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == fetched; }));
            EXPECT_EQ(fetched, server.Count("COMMAND QUIT"));
        }
    }
}

// Some servers say something even after they have refused a file. The next transfer must not take
// it for its own.
TEST_F(LayerTest, RefusedFileEndsTheConnection)
{
    for (const bool tls : {false, true})
    {
        for (const char* fault : {"reply:RETR:550 gone", "reply:RETR:550 gone\r\n226 closed"})
        {
            std::vector<std::string> options = tls ? TlsOptions() : std::vector<std::string>();
            options.emplace_back("--once");
            FaultyServer server(fault, options);
            auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
            record.ulServerType = tls ? 1 : 0;
            Use(record);
            EXPECT_EQ("3 20 RETR refused: 550 gone", Fetch("f", "f"));
            EXPECT_EQ("0 12", Fetch("f", "f"));
            EXPECT_EQ(2u, server.Count("CONNECT"));
        }
    }
}

class Idle : public LayerTest
{
protected:
    const Environment m_idle{"CORPDIR_FTP_IDLE_MS", "300"};
};

TEST_F(Idle, UnusedConnectionIsClosedWithQuit)
{
    for (const char* fault : {"none", "ignore_quit", "hang:QUIT"})
    {
        FaultyServer server(fault);
        Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
        EXPECT_EQ(1u, server.Count("COMMAND QUIT"));
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_EQ(2u, server.Count("CONNECT"));
    }
}

TEST_F(Idle, ServerThatIgnoresQuitDelaysNothing)
{
    FaultyServer server("hang:QUIT");
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
}

// libcurl makes the handshake of an explicit control channel in a blocking call.
TEST_F(LayerTest, StopInterruptsABlockedHandshake)
{
    FaultyServer server("hang_handshake", TlsOptions());
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    record.ulServerType = 1;
    Use(record);
    (void)Start("f", "f");
    ASSERT_TRUE(WaitUntil([&] { return server.Count("COMMAND AUTH") == 1; }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_TRUE(ftp_test::Notices().empty());
}

// A router forgets a connection on which nothing is said, as on the control connection while a long
// file is on its way.
TEST_F(LayerTest, BothChannelsAreKeptAlive)
{
    FaultyServer server("stall");
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    (void)Start("f", "f");
    ASSERT_TRUE(WaitUntil([&] { return server.Count("COMMAND RETR") == 1; }));
    int channels = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
            peer.sin_family != AF_INET)
        {
            continue;
        }
        const auto option = [fd](int level, int name)
        {
            int value = 0;
            socklen_t size = sizeof value;
            EXPECT_EQ(0, getsockopt(fd, level, name, &value, &size));
            return value;
        };
        EXPECT_EQ(1, option(SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(45, option(IPPROTO_TCP, TCP_KEEPIDLE));
        EXPECT_EQ(15, option(IPPROTO_TCP, TCP_KEEPINTVL));
        ++channels;
    }
    EXPECT_EQ(2, channels) << "control and data";
}

// Environment variables and files of the user are none of ours.
TEST_F(LayerTest, ProxyVariablesAndNetrcAreIgnored)
{
    const Environment proxy("ftp_proxy", "http://127.0.0.1:1/");
    const Environment all("ALL_PROXY", "socks5://127.0.0.1:1/");
    const Environment home("HOME", m_directory.Path());
    support::WriteFile(m_directory.File(".netrc"),
                       "machine 127.0.0.1 login other password other1\n");
    FaultyServer server("none");
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(1u, server.Count("COMMAND USER ftp"));
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS  // they keep freed memory, and map more than can be read
// How often a text that is given backwards stands in the process's memory.
size_t CountInMemory(const std::string& reversed)
{
    return support::PlacesInMemory(support::Scrambled::Reversed(reversed)).size();
}

// Once the connection is gone no memory of the process holds the password. It is put together at
// run time and wiped here, so that the layer's and libcurl's copies are the only ones.
TEST_F(LayerTest, PasswordOutlivesNoConnection)
{
    // The beginning of a freed block is overwritten by the allocator itself: the end is looked for.
    const std::string reversed = "71-drowssap-gnol-a-fo-dne-eht-si-siht-" + std::string(40, '.');
    const std::string end = reversed.substr(0, 30);
    for (const bool tls : {false, true})
    {
        FaultyServer server("none", tls ? TlsOptions() : std::vector<std::string>());
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = tls ? 1 : 0;
        std::copy(reversed.rbegin(), reversed.rend(), record.acPassword);
        record.acPassword[reversed.size()] = '\0';
        Use(record);
        explicit_bzero(record.acPassword, sizeof record.acPassword);
        ASSERT_EQ("0 12", Fetch("f", "f"));
        EXPECT_NE(0u, CountInMemory(end));  // of the pooled connection: the search works
        ASSERT_EQ(0u, TRAVEX_FTP_UnInit());
        EXPECT_EQ(0u, CountInMemory(end)) << tls;
        SetUp();
    }
}

// Nor when nobody waits for the layer's threads: they see to it themselves.
TEST_F(LayerTest, PasswordOutlivesNoStopWithinACallback)
{
    const std::string reversed = "81-drowssap-gnol-a-fo-dne-eht-si-siht-" + std::string(40, '.');
    const std::string end = reversed.substr(0, 30);
    FaultyServer server("none", TlsOptions());
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    record.ulServerType = 1;
    std::copy(reversed.rbegin(), reversed.rend(), record.acPassword);
    record.acPassword[reversed.size()] = '\0';
    Use(record);
    explicit_bzero(record.acPassword, sizeof record.acPassword);
    std::atomic<size_t> before{0};
    ftp_test::SetHook(
        [&](const ftp_test::Notice&)
        {
            before = CountInMemory(end);
            EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
        });
    (void)Start("f", "f");
    EXPECT_TRUE(WaitUntil([&] { return before != 0 && CountInMemory(end) == 0; }));
}

#endif  // CORPDIR_TESTS_UNDER_SANITIZERS

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The control socket is watched while a data channel's handshake is pending; a server that leaves
// both hanging must not keep the thread spinning. Nor must an idle connection.
TEST_F(LayerTest, WaitingCostsNoTime)
{
    const Environment response("CORPDIR_FTP_RESPONSE_MS", "2000");
    ASSERT_EQ(0u, TRAVEX_FTP_UnInit());
    SetUp();  // with the limit
    FaultyServer server("hang:RETR", TlsOptions());
    auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
    record.ulServerType = 1;
    Use(record);
    const unsigned int task = Start("f", "f");
    ASSERT_TRUE(WaitUntil([&] { return server.Count("COMMAND RETR") == 1; }));
    const double begin = CpuSeconds();
    EXPECT_EQ("3", ftp_test::OutcomeOf(task));
    EXPECT_LT(CpuSeconds() - begin, 0.2);  // of 2 s
}

}  // namespace
