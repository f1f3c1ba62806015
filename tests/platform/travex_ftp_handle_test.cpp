// Handles: one thread each, transfers one after the other, independent of other handles, cancelled
// at once in every step.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "memory_search.h"
#include "silent_address.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::CountThreads;
using ftp_test::FaultyServer;
using ftp_test::HandleWith;
using ftp_test::LayerTest;
using ftp_test::Limits;
using ftp_test::Notice;
using ftp_test::Notices;
using ftp_test::OptionsFor;
using ftp_test::OutcomeOf;
using ftp_test::Parameters;
using ftp_test::StartOn;
using ftp_test::TlsOptions;
using support::WaitUntil;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

// A transfer that hangs waits 60 s for its server under these limits, longer than any wait of the
// tests. So an end within kQuick shows that it was cancelled.
Limits WaitForAMinute()
{
    return Limits(
        [](auto& each)
        {
            each.ulConnectMs = each.ulHandshakeMs = each.ulResponseMs = 60000;
            each.ulStallMs = each.ulConfirmMs = 60000;
        });
}

constexpr std::chrono::seconds kQuick(5);

// Descriptors of this process that are connected to an IPv4 address.
std::vector<int> Connections()
{
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            peer.sin_family == AF_INET)
        {
            found.push_back(fd);
        }
    }
    return found;
}

// Sockets that connect to a port of 127.0.0.1 (state SYN_SENT).
size_t Connecting(unsigned int port)
{
    char entry[32];
    (void)snprintf(entry, sizeof entry, " 0100007F:%04X 02 ", port);
    std::istringstream sockets(support::ReadFile("/proc/self/net/tcp"));
    size_t count = 0;
    for (std::string line; std::getline(sockets, line);)
    {
        count += line.find(entry) != std::string::npos ? 1 : 0;
    }
    return count;
}

class HandleTest : public LayerTest
{
};

// In the order of acceptance, although the second server is much faster.
TEST_F(HandleTest, TransfersFollowOneAnotherInTheOrderOfTheirRequests)
{
    FaultyServer slow("slow_drip", {"--size", "30"});
    FaultyServer quick("none");
    std::vector<unsigned int> tasks;
    for (int i = 0; i != 6; ++i)
    {
        Use(RecordFor(i % 2 == 0 ? slow : quick));
        tasks.push_back(Start("f" + std::to_string(i), "f"));
    }
    for (const unsigned int task : tasks)
    {
        EXPECT_EQ("0 12", OutcomeOf(task));
    }
    std::vector<unsigned int> ended;
    for (const Notice& notice : Notices())
    {
        if (notice.type == TRAVEX_FTP_NOTIFY_OVER)
        {
            ended.push_back(notice.task);
        }
    }
    EXPECT_EQ(tasks, ended);
}

// Works with a server that allows a single connection.
TEST_F(HandleTest, ManyTransfersShareOneConnection)
{
    constexpr size_t kTransfers = 200;
    FaultyServer server("none", {"--most", "1", "--size", "100"});
    Use(RecordFor(server));
    std::vector<unsigned int> tasks;
    for (size_t i = 0; i != kTransfers; ++i)
    {
        tasks.push_back(Start("f" + std::to_string(i), "f" + std::to_string(i)));
    }
    for (const unsigned int task : tasks)
    {
        ASSERT_EQ("0 12", OutcomeOf(task));
    }
    EXPECT_EQ(1u, server.Count("CONNECT"));
    const std::vector<std::string> retrieved = server.Lines("COMMAND RETR f");
    ASSERT_EQ(kTransfers, retrieved.size());
    for (size_t i = 0; i != kTransfers; ++i)
    {
        EXPECT_EQ(std::to_string(i), retrieved[i]);
    }
    EXPECT_EQ(kTransfers, support::FilesIn(m_directory.Path()).size());
}

TEST_F(HandleTest, ARequestWaitsBehindTheTransferUnderWay)
{
    const Limits limits([](auto& each) { each.ulStallMs = 600; });
    FaultyServer stalling("stall");
    FaultyServer good("none");
    Use(RecordFor(stalling));
    const unsigned int first = Start("f", "one");
    ASSERT_TRUE(WaitUntil([&] { return stalling.Count("DATA") == 1; }));
    Use(RecordFor(good));
    const unsigned int second = Start("f", "two");
    EXPECT_EQ(
        "3 22/RECEIVE/0 timed out while receiving: 0 bytes in 0.6 s, 50000 of 100000 received",
        OutcomeOf(first));
    EXPECT_EQ("0 12", OutcomeOf(second));
    EXPECT_EQ(TRAVEX_FTP_NOTIFY_FAILED, Notices()[0].type);
    EXPECT_EQ(first, Notices()[0].task);
}

TEST_F(HandleTest, AClosedHandleBeginsNothingThatWaited)
{
    FaultyServer server("stall");
    Use(RecordFor(server));
    for (int i = 0; i != 5; ++i)
    {
        (void)Start("f", "f");
    }
    ASSERT_TRUE(WaitUntil([&] { return server.Count("DATA") == 1; }));
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
    ASSERT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_EQ(1u, server.Count("COMMAND RETR"));
    EXPECT_EQ(1u, server.Count("CONNECT"));
    EXPECT_TRUE(Notices().empty());
}

// Steps in which a server may hang, and the line of its log that shows the step.
struct Hang
{
    const char* fault;
    bool tls;
    const char* heard;
};

void PrintTo(const Hang& hang, std::ostream* out)
{
    *out << hang.fault << (hang.tls ? " with TLS" : "");
}

const Hang kHangs[] = {
    {"hang:GREETING", false, "CONNECT"},    {"hang:USER", false, "COMMAND USER"},
    {"hang:PASS", false, "COMMAND PASS"},   {"hang:TYPE", false, "COMMAND TYPE"},
    {"hang:EPSV", false, "COMMAND EPSV"},   {"reply:EPSV:500 x + hang:PASV", false, "COMMAND PASV"},
    {"data_silent", false, "COMMAND EPSV"}, {"hang:SIZE", false, "COMMAND SIZE"},
    {"hang:RETR", false, "COMMAND RETR"},   {"stall", false, "DATA"},
    {"endless_file", false, "DATA"},        {"hang:CLOSING", false, "DATA"},
    {"hang:AUTH", true, "COMMAND AUTH"},    {"hang_handshake", true, "COMMAND AUTH"},
    {"hang:USER", true, "COMMAND USER"},    {"hang:PBSZ", true, "COMMAND PBSZ"},
    {"hang:PROT", true, "COMMAND PROT"},    {"hang:RETR", true, "COMMAND RETR"},
    {"hang_data_handshake", true, "DATA"},  {"stall", true, "TLS data"},
    {"endless_file", true, "TLS data"},     {"hang:CLOSING", true, "TLS data"}};

class EveryHang : public HandleTest, public testing::WithParamInterface<Hang>
{
protected:
    const Limits m_limits = WaitForAMinute();

    FaultyServer MakeServer() const
    {
        return FaultyServer(GetParam().fault, OptionsFor(GetParam().tls));
    }

    // Starts a transfer and waits until it hangs in its step.
    unsigned int Begin(TRAVEX_FTP_HANDLE handle, const FaultyServer& server)
    {
        const unsigned int task = StartOn(handle, "f", "hanging");
        EXPECT_TRUE(WaitUntil([&] { return server.Count(GetParam().heard) == 1; }));
        // Most likely the client waits by then; the tests hold if it does not.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return task;
    }
};

TEST_P(EveryHang, CloseEndsItAndItsThreadAtOnce)
{
    const FaultyServer server = MakeServer();
    support::WriteFile(m_directory.File("hanging"), "old");
    Use(RecordFor(server, GetParam().tls));
    const size_t before = CountThreads();
    (void)Begin(m_handle, server);
    EXPECT_GT(CountThreads(), before);
    const auto begin = Clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() == before; }));
    EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
    EXPECT_LT(Clock::now() - begin, kQuick);
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_TRUE(Notices().empty());
    EXPECT_EQ("old", Content("hanging"));
    EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre("hanging"));
}

TEST_P(EveryHang, StopEndsIt)
{
    const FaultyServer server = MakeServer();
    const size_t before = CountThreads();
    Use(RecordFor(server, GetParam().tls));
    (void)Begin(m_handle, server);
    const auto begin = Clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_LT(Clock::now() - begin, kQuick);
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() == before - 1; })) << "notifications too";
    EXPECT_TRUE(Notices().empty());
    EXPECT_THAT(support::FilesIn(m_directory.Path()), ElementsAre());
}

TEST_P(EveryHang, DelaysNoOtherHandle)
{
    const FaultyServer server = MakeServer();
    FaultyServer good("none");
    Use(RecordFor(good));
    (void)Begin(HandleWith(RecordFor(server, GetParam().tls)), server);
    const auto begin = Clock::now();
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_LT(Clock::now() - begin, kQuick);
}

INSTANTIATE_TEST_SUITE_P(All, EveryHang, testing::ValuesIn(kHangs),
                         [](const auto& hang) { return std::to_string(hang.index); });

// A TCP connection that is never established.
class SilentServer : public HandleTest
{
protected:
    const Limits m_limits = WaitForAMinute();
    const support::SilentAddress m_silent;
};

TEST_F(SilentServer, HasALimit)
{
    const Limits limits([](auto& each) { each.ulConnectMs = 300; });
    Use(Parameters("127.0.0.1", m_silent.Port(), m_directory.Path()));
    EXPECT_EQ("3 22/CONNECT/0 connection timed out after 0.3 s", Fetch("f", "f"));
}

TEST_F(SilentServer, IsLeftAtOnce)
{
    Use(Parameters("127.0.0.1", m_silent.Port(), m_directory.Path()));
    const size_t connecting = Connecting(m_silent.Port());
    (void)Start("f", "f");
    ASSERT_TRUE(WaitUntil([&] { return Connecting(m_silent.Port()) > connecting; }));
    const size_t before = CountThreads();
    const auto begin = Clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() < before; }));
    EXPECT_LT(Clock::now() - begin, kQuick);
    EXPECT_TRUE(Notices().empty());
}

TEST_F(SilentServer, DelaysNoOtherHandle)
{
    FaultyServer good("none");
    (void)StartOn(HandleWith(Parameters("127.0.0.1", m_silent.Port(), m_directory.Path())), "f",
                  "g");
    Use(RecordFor(good));
    const auto begin = Clock::now();
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_LT(Clock::now() - begin, kQuick);
}

// Closing a descriptor twice would close one of the process.
TEST_F(SilentServer, LeavesLaterDescriptorsOfTheProcessAlone)
{
    const Limits limits([](auto& each) { each.ulConnectMs = 300; });
    Use(Parameters("127.0.0.1", m_silent.Port(), m_directory.Path()));
    EXPECT_EQ("3 22/CONNECT/0 connection timed out after 0.3 s", Fetch("f", "f"));
    std::array<std::array<int, 2>, 20> pairs{};
    for (auto& pair : pairs)
    {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()));
    }
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    for (const auto& pair : pairs)
    {
        for (const int end : pair)
        {
            char byte = 'x';
            EXPECT_EQ(1, send(end, &byte, 1, MSG_NOSIGNAL)) << end;
            EXPECT_EQ(1, recv(end == pair[0] ? pair[1] : pair[0], &byte, 1, MSG_DONTWAIT)) << end;
        }
        (void)close(pair[0]);
        (void)close(pair[1]);
    }
}

// Each handle has its own connection and thread.
TEST_F(HandleTest, ManyHandlesTransferAtOnce)
{
    constexpr size_t kHandles = 100;
    const Limits limits([](auto& each) { each.ulHandshakeMs = 60000; });
    FaultyServer server("slow_226", TlsOptions());
    std::vector<unsigned int> tasks;
    const auto begin = Clock::now();
    for (size_t i = 0; i != kHandles; ++i)
    {
        tasks.push_back(StartOn(HandleWith(RecordFor(server, true)), "f", "f" + std::to_string(i)));
    }
    for (const unsigned int task : tasks)
    {
        EXPECT_EQ("0 12", OutcomeOf(task));
    }
    // Each takes two seconds; in sequence they would take minutes.
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(40));
    EXPECT_EQ(kHandles, server.Count("CONNECT"));
    EXPECT_EQ(kHandles, support::FilesIn(m_directory.Path()).size());
}

TEST_F(HandleTest, StopWithManyTransfersRunningIsQuick)
{
    const Limits limits = WaitForAMinute();
    FaultyServer server("stall");
    for (int i = 0; i != 20; ++i)
    {
        (void)StartOn(HandleWith(RecordFor(server)), "f", "v" + std::to_string(i));
    }
    ASSERT_TRUE(WaitUntil([&] { return server.Count("DATA") == 20; }));
    const auto begin = Clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_LT(Clock::now() - begin, kQuick);
    EXPECT_TRUE(Notices().empty());
    EXPECT_TRUE(support::FilesIn(m_directory.Path()).empty());
}

// It starts with the handle's first download and serves all later ones.
TEST_F(HandleTest, EachHandleHasOneThread)
{
    FaultyServer server("none");
    const size_t before = CountThreads();
    std::vector<TRAVEX_FTP_HANDLE> handles;
    for (int i = 0; i != 3; ++i)
    {
        handles.push_back(HandleWith(RecordFor(server)));
    }
    EXPECT_EQ(before, CountThreads());
    for (int round = 0; round != 2; ++round)
    {
        for (const TRAVEX_FTP_HANDLE handle : handles)
        {
            EXPECT_EQ("0 12", OutcomeOf(StartOn(handle, "f", "f")));
        }
        EXPECT_EQ(before + 3, CountThreads());
    }
    for (const TRAVEX_FTP_HANDLE handle : handles)
    {
        EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(handle));
    }
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() == before; }));
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() == before - 1; })) << "notifications too";
}

// The only function of the layer that the verify callback may call.
TEST_F(HandleTest, MayBeClosedInTheVerifyCallback)
{
    static TRAVEX_FTP_HANDLE s_handle = nullptr;
    s_handle = m_handle;
    FaultyServer server("none", TlsOptions());
    auto record = RecordFor(server, true);
    record.pfnFtpsVerify = [](void*, void*)
    {
        EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(s_handle));
        return 0;
    };
    Use(record);
    (void)Start("f", "f");
    EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_EQ(0u, server.Count("COMMAND USER"));
    EXPECT_TRUE(Notices().empty());
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS  // which have threads of their own
// A write to a connection that the server has closed must not end the process.
TEST_F(HandleTest, ItsThreadsBlockEverySignal)
{
    FaultyServer server("none", TlsOptions());
    Use(RecordFor(server, true));
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
    EXPECT_EQ(2u, threads) << "handle and notification thread";
}
#endif

// A router drops an idle connection, such as the control connection during a long transfer.
TEST_F(HandleTest, BothChannelsAreKeptAlive)
{
    FaultyServer server("stall");
    Use(RecordFor(server));
    (void)Start("f", "f");
    ASSERT_TRUE(WaitUntil([&] { return server.Count("DATA") == 1; }));
    EXPECT_EQ(2u, Connections().size()) << "control and data";
    for (const int fd : Connections())
    {
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
    }
}

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The thread must not spin on an idle data channel, on a closed one, or on an idle connection.
TEST_F(HandleTest, WaitingCostsNoTime)
{
    const Limits limits(
        [](auto& each)
        { each.ulResponseMs = each.ulStallMs = each.ulConfirmMs = each.ulHandshakeMs = 1000; });
    for (const char* fault :
         {"hang:RETR", "stall", "hang_data_handshake", "hang:CLOSING", "ignore_quit"})
    {
        FaultyServer server(fault, TlsOptions());
        Use(RecordFor(server, true));
        const unsigned int task = Start("f", "f");
        ASSERT_TRUE(WaitUntil([&] { return server.Count("COMMAND RETR") == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until a file has arrived
        const double begin = CpuSeconds();
        (void)OutcomeOf(task);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_LT(CpuSeconds() - begin, 0.2) << fault;
    }
}

#ifndef CORPDIR_TESTS_UNDER_SANITIZERS  // they keep freed memory, and map more than can be read
// The password is assembled at run time and wiped, so that only the layer has copies.
class PasswordInMemory : public HandleTest
{
protected:
    void UsePassword(const FaultyServer& server, bool tls, const std::string& reversed)
    {
        auto record = RecordFor(server, tls);
        std::copy(reversed.rbegin(), reversed.rend(), record.acPassword);
        record.acPassword[reversed.size()] = '\0';
        // Searches for its end: the allocator overwrites the beginning of a freed block.
        m_end = reversed.substr(0, 30);
        EXPECT_NE(0u, Count()) << "the search works";
        Use(record);
        explicit_bzero(record.acPassword, sizeof record.acPassword);
    }

    size_t Count() const
    {
        return support::PlacesInMemory(support::Scrambled::Reversed(m_end)).size();
    }

    std::string m_end;
};

TEST_F(PasswordInMemory, IsNotInClearWhileAConnectionIsIdle)
{
    const std::string reversed = "71-drowssap-gnol-a-fo-dne-eht-si-siht-" + std::string(40, '.');
    for (const bool tls : {false, true})
    {
        FaultyServer server("none", OptionsFor(tls));
        UsePassword(server, tls, reversed);
        EXPECT_EQ(0u, Count());
        ASSERT_EQ("0 12", Fetch("f", "f"));
        EXPECT_TRUE(WaitUntil([&] { return Count() == 0; })) << tls;
        EXPECT_EQ(1u, Connections().size()) << "it stays open";
        ASSERT_EQ(0u, TRAVEX_FTP_UnInit());
        EXPECT_EQ(0u, Count()) << tls;
        SetUp();
    }
}

// Also when no call waits for the layer's threads.
TEST_F(PasswordInMemory, OutlivesNoStopWithinACallback)
{
    FaultyServer server("none", TlsOptions());
    UsePassword(server, true, "81-drowssap-gnol-a-fo-dne-eht-si-siht-" + std::string(40, '.'));
    std::atomic<bool> stopped{false};
    ftp_test::SetHook(
        [&](const Notice&)
        {
            EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
            stopped = true;
        });
    (void)Start("f", "f");
    EXPECT_TRUE(WaitUntil([&] { return stopped && Count() == 0; }));
}
#endif

}  // namespace
