// Transfers beside one another: what the trouble with one server costs those from others, and
// servers that take few connections of a client.
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "captured_log.h"
#include "travex_ftp/lane.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::Environment;
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Parameters;
using ftp_test::TlsOptions;
using support::WaitUntil;

// Each step in which libcurl waits for a server in a blocking call holds up the transfers from
// other servers, but not beyond its limit.
class Blocked : public LayerTest, public testing::WithParamInterface<const char*>
{
protected:
    const Environment m_handshake{"CORPDIR_FTP_HANDSHAKE_MS", "2000"};
    const Environment m_confirm{"CORPDIR_FTP_CONFIRM_MS", "2000"};
};

TEST_P(Blocked, OtherTransfersGoOnAtItsLimit)
{
    FaultyServer deaf(GetParam(), TlsOptions("explicit"));
    FaultyServer good("none");
    auto record = Parameters("127.0.0.1", deaf.Port(), m_directory.Path());
    record.ulServerType = 1;
    Use(record);
    const unsigned int blocked = Start("f", "blocked");
    const std::string last =
        GetParam() == std::string("hang_handshake") ? "COMMAND AUTH" : "COMMAND RETR";
    ASSERT_TRUE(WaitUntil([&] { return deaf.Count(last) == 1; }));
    Use(Parameters("127.0.0.1", good.Port(), m_directory.Path()));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ("0 12", Fetch("f", "f"));
    const auto waited = std::chrono::steady_clock::now() - begin;
    RecordProperty("waited_ms", static_cast<int>(waited / std::chrono::milliseconds(1)));
    EXPECT_LT(waited, std::chrono::seconds(8));
    EXPECT_EQ("3", ftp_test::OutcomeOf(blocked));
}

INSTANTIATE_TEST_SUITE_P(All, Blocked,
                         testing::Values("hang_handshake", "hang_data_handshake", "no_226"),
                         [](const auto& fault) { return std::string(fault.param); });

// A server that takes few connections of a client at a time is served by those few.
class CrowdTest : public LayerTest
{
protected:
    void UseServer(const FaultyServer& server, bool implicit)
    {
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = implicit ? 1 : 0;
        record.pcFtpCtrlInfo = "tls=implicit";
        Use(record);
    }

    static std::vector<std::string> Implicit(const std::vector<std::string>& more)
    {
        std::vector<std::string> options = TlsOptions("implicit");
        options.insert(options.end(), more.begin(), more.end());
        return options;
    }

    void FetchMany();
};

void CrowdTest::FetchMany()
{
    ASSERT_EQ("0 12", Fetch("f", "first"));
    std::vector<unsigned int> tasks;
    for (int i = 0; i != 40; ++i)
    {
        tasks.push_back(Start("f", "f" + std::to_string(i)));
    }
    for (const unsigned int task : tasks)
    {
        EXPECT_EQ("0 12", ftp_test::OutcomeOf(task)) << ftp_test::FailureOf(task).reason;
    }
}

TEST_F(CrowdTest, CrowdedServerIsNoFailure)
{
    FaultyServer server("none", {"--most", "3"});
    UseServer(server, false);
    FetchMany();
}

// Such a server may refuse in clear, before the handshake.
TEST_F(CrowdTest, CrowdedServerWithImplicitTlsIsNoFailure)
{
    FaultyServer server("none", Implicit({"--most", "3"}));
    UseServer(server, true);
    FetchMany();
}

TEST_F(CrowdTest, ServerThatHangsUpOnManyServesAll)
{
    FaultyServer server("none", {"--most", "3", "--beyond", "close"});
    UseServer(server, false);
    FetchMany();
}

TEST_F(CrowdTest, ServerThatHangsUpOnEverybodyFailsThemAll)
{
    FaultyServer server("none", {"--most", "0", "--beyond", "close"});
    UseServer(server, false);
    EXPECT_EQ("3 26 connection lost at the greeting: closed by the server", Fetch("f", "f"));
    EXPECT_EQ(1u, server.Count("CONNECT"));
}

// What waits for a greeting goes on with a connection that has had one, long before its limit.
TEST_F(CrowdTest, ServerThatGreetsFewServesAll)
{
    for (const bool implicit : {false, true})
    {
        const std::vector<std::string> options = {"--most", "3", "--beyond", "silence"};
        FaultyServer server("none", implicit ? Implicit(options) : options);
        UseServer(server, implicit);
        const auto begin = std::chrono::steady_clock::now();
        FetchMany();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
        EXPECT_GE(3u, server.Count("COMMAND PASS"));
    }
}

TEST_F(CrowdTest, LoneConnectionTurnedAwayInClearHasItsReason)
{
    FaultyServer server("none", Implicit({"--most", "0"}));
    UseServer(server, true);
    EXPECT_EQ("3 16 the server ends the service: 421 in clear, before TLS", Fetch("f", "f"));
}

TEST_F(LayerTest, ServerThatTurnsEverybodyAwayFailsThemAll)
{
    FaultyServer server("none", {"--most", "0"});
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    std::vector<unsigned int> tasks;
    for (int i = 0; i != 20; ++i)
    {
        tasks.push_back(Start("f", "f" + std::to_string(i)));
    }
    for (const unsigned int task : tasks)
    {
        EXPECT_THAT(ftp_test::FailureOf(task).reason,
                    testing::EndsWith("the server ends the service: 421 Too many connections."));
    }
    EXPECT_EQ(20u, server.Count("CONNECT"));
}

class Beside : public LayerTest
{
protected:
    std::vector<unsigned int> StartMany(const FaultyServer& server, bool tls, int count)
    {
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = tls ? 1 : 0;
        Use(record);
        std::vector<unsigned int> tasks;
        for (int i = 0; i != count; ++i)
        {
            const std::string name = std::to_string(server.Port()) + "-" + std::to_string(i);
            tasks.push_back(Start("f", name));
        }
        return tasks;
    }

    const Environment m_handshake{"CORPDIR_FTP_HANDSHAKE_MS", "1000"};
    const Environment m_response{"CORPDIR_FTP_RESPONSE_MS", "1500"};
    const Environment m_connect{"CORPDIR_FTP_CONNECT_MS", "1500"};
};

// Three servers hold up the thread for longer than an answer may take; the answers of the good one
// have been there all along.
TEST_F(Beside, ServersThatHangFailNoOtherTransfer)
{
    FaultyServer good("none");
    const FaultyServer hanging[] = {FaultyServer("hang_handshake", TlsOptions("explicit")),
                                    FaultyServer("hang_handshake", TlsOptions("explicit")),
                                    FaultyServer("hang_handshake", TlsOptions("explicit"))};
    for (const FaultyServer& server : hanging)
    {
        (void)StartMany(server, true, 2);
    }
    for (const unsigned int task : StartMany(good, false, 5))
    {
        EXPECT_EQ("0 12", ftp_test::OutcomeOf(task)) << ftp_test::FailureOf(task).reason;
    }
}

// Each of them would hold up the thread for its limit, one after the other.
TEST_F(Beside, AServerThatHangsIsTriedOnOneConnectionAtATime)
{
    FaultyServer hanging("hang_handshake", TlsOptions("explicit"));
    (void)StartMany(hanging, true, 40);
    ASSERT_TRUE(WaitUntil([&] { return hanging.Count("COMMAND AUTH") >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // half of its limit
    EXPECT_GE(2u, hanging.Count("CONNECT"));
}

// Those that waited to see what comes of the first connection share its fate.
TEST_F(Beside, AServerThatHangsFailsAllThatWaitAtOnce)
{
    for (const char* const fault : {"hang:GREETING", "hang_handshake"})
    {
        const bool tls = fault == std::string("hang_handshake");
        FaultyServer hanging(fault, tls ? TlsOptions("explicit") : std::vector<std::string>());
        const auto begin = std::chrono::steady_clock::now();
        for (const unsigned int task : StartMany(hanging, tls, 40))
        {
            EXPECT_EQ("3", ftp_test::OutcomeOf(task));
            EXPECT_THAT(ftp_test::FailureOf(task).reason,
                        testing::HasSubstr(tls ? "TLS failed" : "no greeting in 1.5 s"));
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10)) << fault;
        EXPECT_GE(2u, hanging.Count("CONNECT"));
    }
}

// Greets connections one by one, when it is told to, and says no more to any of them.
class SlowToGreet
{
public:
    SlowToGreet() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(0, bind(m_listener, generic, length));
        EXPECT_EQ(0, listen(m_listener, 128));
        EXPECT_EQ(0, getsockname(m_listener, generic, &length));
        m_port = ntohs(address.sin_port);
    }
    SlowToGreet(const SlowToGreet&) = delete;
    SlowToGreet& operator=(const SlowToGreet&) = delete;
    ~SlowToGreet()
    {
        for (const int connection : m_connections)
        {
            (void)close(connection);
        }
        (void)close(m_listener);
    }

    unsigned int Port() const
    {
        return m_port;
    }

    // How many there are by now.
    size_t Connections()
    {
        for (int made = 0; made >= 0;)
        {
            made = accept(m_listener, nullptr, nullptr);
            if (made >= 0)
            {
                m_connections.push_back(made);
            }
        }
        return m_connections.size();
    }

    void Greet()
    {
        static const char kGreeting[] = "220 at last\r\n";
        EXPECT_LT(0, send(m_connections.at(m_greeted++), kGreeting, sizeof kGreeting - 1, 0));
    }

private:
    int m_listener;
    unsigned int m_port = 0;
    std::vector<int> m_connections;
    size_t m_greeted = 0;
};

// A server's queue of connections may be short.
TEST_F(Beside, NoMoreThanSixteenConnectionsWaitForAGreeting)
{
    SlowToGreet server;
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    for (int i = 0; i != 40; ++i)
    {
        (void)Start("f", std::to_string(i));
    }
    for (const size_t expected : {1u, 17u, 18u, 19u})
    {
        EXPECT_TRUE(WaitUntil([&] { return server.Connections() == expected; })) << expected;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(expected, server.Connections());
        server.Greet();
    }
}

// A quick failure may be one of the moment.
TEST_F(Beside, AServerThatDropsTheFirstServesTheOthers)
{
    FaultyServer server("drop:GREETING", {"--once"});
    const std::vector<unsigned int> tasks = StartMany(server, false, 20);
    EXPECT_EQ("3", ftp_test::OutcomeOf(tasks[0]));
    for (size_t i = 1; i != tasks.size(); ++i)
    {
        EXPECT_EQ("0 12", ftp_test::OutcomeOf(tasks[i])) << ftp_test::FailureOf(tasks[i]).reason;
    }
}

TEST_F(Beside, ACrowdedServerHoldsUpNoOther)
{
    FaultyServer crowded("stall", {"--most", "1"});
    FaultyServer good("none");
    (void)StartMany(crowded, false, 1);
    ASSERT_TRUE(WaitUntil([&] { return crowded.Count("COMMAND RETR") == 1; }));
    (void)StartMany(crowded, false, 3);
    for (const unsigned int task : StartMany(good, false, 2))
    {
        EXPECT_EQ("0 12", ftp_test::OutcomeOf(task)) << ftp_test::FailureOf(task).reason;
    }
    EXPECT_EQ(1u, crowded.Count("COMMAND RETR"));
}

using std::chrono::seconds;
using travex_ftp::Clock;
using travex_ftp::Lane;

TEST(LaneTest, ConnectsAsOftenAsItLikesUntilItIsTurnedAway)
{
    Lane lane(nullptr);
    const Clock::time_point now = Clock::now();
    EXPECT_TRUE(lane.mayConnect(0, now));
    EXPECT_TRUE(lane.mayConnect(1000, now));
    lane.connects(1000, now);
    EXPECT_TRUE(lane.mayConnect(1001, now));
    lane.turnedAway(3, now);
    EXPECT_TRUE(lane.mayConnect(2, now));
    EXPECT_FALSE(lane.mayConnect(3, now));
    EXPECT_FALSE(lane.mayConnect(4, now));
}

// A server may come to take fewer than it once did.
TEST(LaneTest, RefusalsLowerWhatItTakes)
{
    Lane lane(nullptr);
    const Clock::time_point now = Clock::now();
    lane.turnedAway(2, now);
    EXPECT_TRUE(lane.mayConnect(1, now));
    lane.connects(1, now);
    lane.turnedAway(1, now);
    EXPECT_FALSE(lane.mayConnect(1, now));
}

TEST(LaneTest, TriesAgainAfterPausesThatGrow)
{
    Lane lane(nullptr);
    Clock::time_point now = Clock::now();
    lane.turnedAway(2, now);
    lane.turnedAway(2, now);  // of the same moment: the pause does not grow
    for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60})
    {
        ASSERT_EQ(now + seconds(pause), lane.triesAt());
        EXPECT_FALSE(lane.mayConnect(2, lane.triesAt() - seconds(1)));
        now = lane.triesAt();
        ASSERT_TRUE(lane.mayConnect(2, now));
        lane.connects(2, now);
        EXPECT_FALSE(lane.mayConnect(3, now)) << "one at a time";
        lane.turnedAway(2, now);
    }
}

// What it takes beyond the last refusal is taken for granted from then on.
TEST(LaneTest, ASuccessRaisesWhatItTakes)
{
    Lane lane(nullptr);
    const Clock::time_point now = Clock::now();
    lane.turnedAway(2, now);
    lane.connects(2, now + seconds(1));
    EXPECT_TRUE(lane.mayConnect(2, now + seconds(1)));
    EXPECT_FALSE(lane.mayConnect(3, now + seconds(1)));
}

}  // namespace
