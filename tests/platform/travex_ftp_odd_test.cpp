// Unusual but valid servers: each file arrives complete. And the commands that the layer sends, the
// connections that it keeps, and what it remembers about a server.
#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <cstring>

#include "captured_log.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Limits;
using ftp_test::OptionsFor;
using ftp_test::Parameters;
using ftp_test::TlsOptions;
using support::WaitUntil;
using testing::ElementsAre;

class OddTest : public LayerTest
{
protected:
    // The commands that a server received, without those of the login.
    static std::vector<std::string> TransferCommands(const FaultyServer& server)
    {
        std::vector<std::string> kept;
        for (const std::string& command : server.Commands())
        {
            const std::string verb = command.substr(0, 4);
            if (verb == "EPSV" || verb == "PASV" || verb == "SIZE" || verb == "RETR")
            {
                kept.push_back(verb);
            }
        }
        return kept;
    }
};

// An IPv4-mapped IPv6 address is IPv4 on the wire, so PASV works.
TEST_F(OddTest, AMappedAddressIsServedByPasv)
{
    for (const char* fault : {"reply:EPSV:500 What?", "drop:EPSV", "epsv_unreachable"})
    {
        FaultyServer server(fault);
        Use(Parameters("::ffff:127.0.0.1", server.Port(), m_directory.Path()));
        EXPECT_EQ("0 12", Fetch("f", "f")) << fault;
        EXPECT_THAT(TransferCommands(server), testing::Contains("PASV")) << fault;
    }
}

struct Oddity
{
    const char* fault;
    bool tls;  // also tested with TLS
};

void PrintTo(const Oddity& oddity, std::ostream* out)
{
    *out << oddity.fault;
}

// Two files: an extra or late reply must not be mistaken for one to the second file.
class Tolerated : public OddTest, public testing::WithParamInterface<Oddity>
{
protected:
    void Try(bool tls)
    {
        FaultyServer server(GetParam().fault, OptionsFor(tls));
        Use(RecordFor(server, tls));
        for (const char* name : {"one", "two"})
        {
            EXPECT_EQ("0 12", Fetch("f", name));
            EXPECT_TRUE(FaultyServer::Body(100000) == Content(name));
        }
        EXPECT_EQ(2u, server.Count("DATA 127.0.0.1"));
    }
};

TEST_P(Tolerated, GivesBothFiles)
{
    Try(false);
    if (GetParam().tls)
    {
        Try(true);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Replies, Tolerated,
    testing::Values(Oddity{"none", true}, Oddity{"early_greeting", true},
                    Oddity{"reply:GREETING:200 welcome", true},
                    Oddity{"reply:AUTH:334 Go on.", true}, Oddity{"reply:USER:230 Come in.", true},
                    Oddity{"reply:USER:232 Come in.", true}, Oddity{"reply:PASS:200 in", true},
                    Oddity{"reply:PASS:202 in", true}, Oddity{"long_greeting", true},
                    Oddity{"banner_of_400_lines", true}, Oddity{"bare_line_feeds", true},
                    Oddity{"nul_bytes", true}, Oddity{"second_welcome", true},
                    Oddity{"single_bytes", true}, Oddity{"slow_greeting", false},
                    Oddity{"ignore_quit", false}, Oddity{"reply:RETR:125 Already open.", true},
                    Oddity{"serv_u", true}, Oddity{"iis", true}, Oddity{"z_os", true}));

INSTANTIATE_TEST_SUITE_P(
    Sizes, Tolerated,
    testing::Values(Oddity{"size_unknown", true}, Oddity{"unknown_size", true},
                    Oddity{"reply:SIZE:550 no", true}, Oddity{"reply:SIZE:500 no", true},
                    Oddity{"reply:SIZE:213 -1", true},
                    Oddity{"reply:SIZE:213 9223372036854775808", true},
                    Oddity{"reply:SIZE:213 99999999999999999999999999", true},
                    Oddity{"reply:SIZE:213 19 bytes", true},
                    Oddity{"reply:SIZE:213 about a megabyte", true}, Oddity{"reply:SIZE:213", true},
                    Oddity{"size_in_lines", true}, Oddity{"size_between_lines", true},
                    Oddity{"opening_zero", true}, Oddity{"sizes_disagree", true},
                    Oddity{"opening_says_nothing", true}));

INSTANTIATE_TEST_SUITE_P(
    Order, Tolerated,
    testing::Values(Oddity{"data_before_opening", false}, Oddity{"replies_in_one_piece", true},
                    Oddity{"early_226", true}, Oddity{"reply:CLOSING:250 ok", true},
                    Oddity{"reply:CLOSING:200 ok", true}, Oddity{"slow_226", true},
                    Oddity{"data_stays_open", true}, Oddity{"no_close_notify_known_size", true},
                    Oddity{"data_reset_at_end", true}, Oddity{"idle_close", true},
                    Oddity{"reuse_demanded", true}));

INSTANTIATE_TEST_SUITE_P(
    Passive, Tolerated,
    testing::Values(Oddity{"foreign_pasv", true}, Oddity{"epsv_unreachable", true},
                    Oddity{"reply:EPSV:500 What?", true}, Oddity{"reply:EPSV:522 Use PASV.", true},
                    Oddity{"reset:EPSV", true}, Oddity{"drop:EPSV", true},
                    Oddity{"reply:EPSV:229 (||{port}|)", true},
                    Oddity{"reply:EPSV:229 Extended (|||banana|)", true},
                    Oddity{"reply:EPSV:229 (|||0|)", true},
                    Oddity{"reply:EPSV:229 (|||70000|)", true},
                    Oddity{"reply:EPSV:227 Passive ({pasv})", true},
                    Oddity{"reply:EPSV:500 x + reply:PASV:229 (|||{port}|)", true},
                    Oddity{"reply:EPSV:500 x + reply:PASV:227 {pasv}", true},
                    Oddity{"reply:EPSV:500 x + reply:PASV:227 Passive ({pasv}).", true},
                    Oddity{"reply:EPSV:500 x + reply:PASV:227 Passive {pasv}.", true},
                    Oddity{"reply:EPSV:500 x + reply:PASV:227 ={pasv}", true}));

class ToleratedInTime : public OddTest
{
};

// The limit applies to each line, not to the whole reply.
TEST_F(ToleratedInTime, LinesThatComeSlowly)
{
    const Limits limits([](auto& each) { each.ulResponseMs = 1000; });
    FaultyServer server(
        "slow_lines + reply:RETR:150-one\r\n150-two\r\n150-three\r\n150 Here it comes.");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
}

TEST_F(ToleratedInTime, ADataPortThatNeverAnswersIsFollowedByPasv)
{
    const Limits limits([](auto& each) { each.ulConnectMs = 500; });
    FaultyServer server("epsv_silent");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_TRUE(FaultyServer::Body(100000) == Content("f"));
    EXPECT_THAT(TransferCommands(server), testing::Contains("PASV"));
}

TEST_F(ToleratedInTime, ADataPortThatNeverAnswersEitherWayTimesOut)
{
    const Limits limits([](auto& each) { each.ulConnectMs = 500; });
    FaultyServer server("data_silent");
    Use(RecordFor(server));
    EXPECT_THAT(Fetch("f", "f"),
                testing::MatchesRegex(
                    "3 22/DATA_CONNECT/0 connection to data port [0-9]+ timed out after 0\\.5 s"));
}

// After the 226 the data channel has one second to close.
TEST_F(ToleratedInTime, ADataChannelThatStaysOpenIsClosedAfterASecond)
{
    for (const char* fault : {"data_stays_open", "replies_in_one_piece + data_stays_open"})
    {
        FaultyServer server(fault, TlsOptions());
        Use(RecordFor(server, true));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << fault;
    }
}

// A second reply to PASS in one segment with the first.
TEST_F(ToleratedInTime, TwoRepliesToPass)
{
    FaultyServer server("reply:PASS:230 Welcome.\r\n230 Welcome again.");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_TRUE(FaultyServer::Body(100000) == Content("f"));
}

TEST_F(OddTest, AnUnsolicitedReplyIsLoggedOnceAsSuch)
{
    captured_log::Clear();
    FaultyServer server("reply:TYPE:200 Binary.\r\n211 By the way.");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(1u, captured_log::CountWith("211 By the way."));
    EXPECT_EQ(1u, captured_log::CountWith("unsolicited reply: 211 By the way."));
}

TEST_F(OddTest, TheGreetingIsLoggedByItsLastLine)
{
    captured_log::Clear();
    FaultyServer server("long_greeting");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(1u, captured_log::CountWith("the greeting: 220 ready"));
}

// The exact commands. AUTH TLS comes first: some servers do not know AUTH SSL.
class Dialogue : public OddTest
{
};

TEST_F(Dialogue, IsMinimal)
{
    FaultyServer server("none", TlsOptions());
    Use(RecordFor(server, true));
    ASSERT_EQ("0 12", Fetch("far/down/version", "v"));
    ASSERT_EQ("0 12", Fetch("far/down/directory", "d"));
    EXPECT_THAT(server.Commands(),
                ElementsAre("AUTH TLS", "USER ftp", "PASS throw-away-17", "PBSZ 0", "PROT P",
                            "TYPE I", "EPSV", "SIZE far/down/version", "RETR far/down/version",
                            "EPSV", "RETR far/down/directory"));
}

TEST_F(Dialogue, NeedsNoPasswordWhereTheUserIsEnough)
{
    FaultyServer server("reply:USER:230 Come in.");
    Use(RecordFor(server));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_THAT(server.Commands(), ElementsAre("USER ftp", "TYPE I", "EPSV", "SIZE f", "RETR f"));
}

// If SIZE, 150 and bytes agreed for an earlier file; a 150 without a size does not count.
TEST_F(Dialogue, OmitsSizeWhereThe150HasProvenReliable)
{
    const auto commands = [this](const char* fault)
    {
        FaultyServer server(fault);
        Use(RecordFor(server));
        for (int i = 0; i != 3; ++i)
        {
            EXPECT_EQ("0 12", Fetch("f", "f"));
        }
        return TransferCommands(server);
    };
    EXPECT_THAT(commands("none"),
                ElementsAre("EPSV", "SIZE", "RETR", "EPSV", "RETR", "EPSV", "RETR"));
    for (const char* fault :
         {"sizes_disagree", "opening_says_nothing", "size_unknown", "opening_zero"})
    {
        EXPECT_THAT(commands(fault), ElementsAre("EPSV", "SIZE", "RETR", "EPSV", "SIZE", "RETR",
                                                 "EPSV", "SIZE", "RETR"))
            << fault;
    }
}

// The proof holds for one connection only.
TEST_F(Dialogue, SendsSizeAgainOnAnotherConnection)
{
    FaultyServer server("idle_close");
    Use(RecordFor(server));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_THAT(TransferCommands(server),
                ElementsAre("EPSV", "SIZE", "RETR", "EPSV", "SIZE", "RETR"));
}

TEST_F(Dialogue, BothChannelsUseTheLocalAddress)
{
    FaultyServer server("none");
    auto record = RecordFor(server);
    ASSERT_EQ(1, inet_pton(AF_INET, "127.0.0.77", record.aucLocalIp));
    Use(record);
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(1u, server.Count("CONNECT 127.0.0.77"));
    EXPECT_EQ(1u, server.Count("DATA 127.0.0.77"));
    ASSERT_EQ(1,
              inet_pton(AF_INET, "192.0.2.77", record.aucLocalIp));  // not an address of this host
    Use(record);
    EXPECT_EQ("3 16/CONNECT/0 cannot connect: Cannot assign requested address", Fetch("f", "f"));
}

TEST_F(Dialogue, ProxyVariablesAndNetrcAreIgnored)
{
    const ftp_test::Environment proxy("ftp_proxy", "http://127.0.0.1:1/");
    const ftp_test::Environment all("ALL_PROXY", "socks5://127.0.0.1:1/");
    const ftp_test::Environment home("HOME", m_directory.Path());
    support::WriteFile(m_directory.File(".netrc"),
                       "machine 127.0.0.1 login other password other1\n");
    FaultyServer server("none");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(1u, server.Count("COMMAND USER ftp"));
}

// EPSV is not tried again with a server where it failed, not even on another connection. Other
// servers still get EPSV.
class PassiveMemory : public OddTest, public testing::WithParamInterface<const char*>
{
};

TEST_P(PassiveMemory, EpsvIsTriedOnce)
{
    FaultyServer server(GetParam() + std::string(" + idle_close"));
    FaultyServer other("none");
    for (int i = 0; i != 3; ++i)
    {
        Use(RecordFor(server));
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_TRUE(FaultyServer::Body(100000) == Content("f"));
        Use(RecordFor(other));
        EXPECT_EQ("0 12", Fetch("f", "f"));
    }
    EXPECT_EQ(1u, server.Count("COMMAND EPSV"));
    EXPECT_EQ(3u, server.Count("COMMAND PASV"));
    EXPECT_EQ(0u, other.Count("COMMAND PASV"));
    const bool lost = std::string(GetParam()).find("reply") == std::string::npos;
    EXPECT_EQ(lost ? 4u : 3u, server.Count("CONNECT"));
}

INSTANTIATE_TEST_SUITE_P(All, PassiveMemory,
                         testing::Values("reset:EPSV", "drop:EPSV", "reply:EPSV:500 What?",
                                         "reply:EPSV:522 Use PASV.",
                                         "reply:EPSV:229 (|||banana|)"));

// If PASV fails too, the next transfer begins with EPSV.
TEST_F(OddTest, AFailedPasvIsNotRemembered)
{
    const Limits limits([](auto& each) { each.ulConnectMs = 300; });
    for (const char* fault :
         {"reply:EPSV:229 (|||1|) + reply:PASV:227 (127,0,0,1,0,1)", "data_silent"})
    {
        FaultyServer server(fault);
        Use(RecordFor(server));
        for (unsigned int fetched = 1; fetched != 3; ++fetched)
        {
            EXPECT_THAT(Fetch("f", "f"), testing::HasSubstr("/DATA_CONNECT/0 "));
            EXPECT_EQ(fetched, server.Count("COMMAND EPSV")) << fault;
            EXPECT_EQ(fetched, server.Count("COMMAND PASV")) << fault;
        }
    }
}

// Repeating a refused login may lock the account.
class RefusedLogin : public OddTest
{
protected:
    std::string FetchAs(const char* user, const char* password)
    {
        auto record = RecordFor(m_server);
        strcpy(record.acUserName, user);
        strcpy(record.acPassword, password);
        Use(record);
        return Fetch("f", "f");
    }

    const std::string m_refused = "3 19/LOGIN/530 login refused: 530 no";
    const std::string m_notSent = m_refused + " (not sent again)";
    FaultyServer m_server{"reply:PASS:530 no"};
};

TEST_F(RefusedLogin, IsNotRepeatedForAMinute)
{
    EXPECT_EQ(m_refused, FetchAs("ftp", "wrong-one"));
    for (int i = 0; i != 2; ++i)
    {
        EXPECT_EQ(m_notSent, FetchAs("ftp", "wrong-one"));
        EXPECT_EQ(1u, m_server.Count("CONNECT"));
    }
}

TEST_F(RefusedLogin, IsRepeatedWithAnotherPasswordOrUser)
{
    EXPECT_EQ(m_refused, FetchAs("ftp", "wrong-one"));
    EXPECT_EQ(m_refused, FetchAs("ftp", "wrong-two"));
    EXPECT_EQ(2u, m_server.Count("CONNECT"));
    EXPECT_EQ(m_refused, FetchAs("other", "wrong-two"));
    EXPECT_EQ(3u, m_server.Count("CONNECT"));
    EXPECT_EQ(m_notSent, FetchAs("other", "wrong-two"));
    EXPECT_EQ(3u, m_server.Count("CONNECT"));
}

// A server may refuse all logins without TLS.
TEST_F(OddTest, ALoginRefusedInClearIsRepeatedOverTls)
{
    FaultyServer server("reply:USER:530 no", TlsOptions());
    for (const bool tls : {false, true})
    {
        Use(RecordFor(server, tls));
        EXPECT_EQ("3 19/LOGIN/530 login refused: 530 no", Fetch("f", "f"));
    }
    EXPECT_EQ(2u, server.Count("COMMAND USER"));
}

TEST_F(RefusedLogin, IsRememberedByItsHandleOnly)
{
    EXPECT_EQ(m_refused, FetchAs("ftp", "wrong-one"));
    auto record = RecordFor(m_server);
    strcpy(record.acPassword, "wrong-one");
    const unsigned int task = ftp_test::StartOn(ftp_test::HandleWith(record), "f", "f");
    EXPECT_EQ(m_refused, ftp_test::OutcomeOf(task));
    EXPECT_EQ(2u, m_server.Count("CONNECT"));
}

// A failure that says nothing about the password.
TEST_F(RefusedLogin, OtherFailuresAreRepeated)
{
    for (const char* fault : {"reply:PASS:421 Bye.", "reply:GREETING:530 Go away.", "drop:PASS"})
    {
        FaultyServer server(fault);
        Use(RecordFor(server));
        EXPECT_EQ("3 ", Fetch("f", "f").substr(0, 2));
        EXPECT_EQ("3 ", Fetch("f", "f").substr(0, 2));
        EXPECT_EQ(2u, server.Count("CONNECT")) << fault;
    }
}

// An idle connection that the server has closed is replaced without a visible failure.
class Stale : public OddTest, public testing::WithParamInterface<const char*>
{
protected:
    // A silent server costs this much; the new connection must be faster, also on a busy machine.
    const Limits m_limits{[](auto& limits) { limits.ulResponseMs = 2000; }};
};

TEST_P(Stale, IsReplaced)
{
    for (const bool tls : {false, true})
    {
        std::vector<std::string> options = OptionsFor(tls);
        options.emplace_back("--once");
        FaultyServer server(GetParam(), options);
        Use(RecordFor(server, tls));
        EXPECT_EQ("0 12", Fetch("f", "one"));
        EXPECT_EQ("0 12", Fetch("f", "two"));
        EXPECT_EQ(2u, server.Count("CONNECT"));
        EXPECT_TRUE(FaultyServer::Body(100000) == Content("two"));
        EXPECT_EQ("0 12", Fetch("f", "three"));
        EXPECT_EQ(2u, server.Count("CONNECT"));
    }
}

INSTANTIATE_TEST_SUITE_P(All, Stale,
                         testing::Values("idle_421", "idle_close", "idle_reset", "idle_deaf",
                                         "closing_and_more"));

// Only once: a failure of the new connection is reported.
TEST_F(OddTest, AReusedConnectionIsReplacedOnce)
{
    const Limits limits([](auto& each) { each.ulResponseMs = 500; });
    FaultyServer server("idle_deaf_then_mute");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "one"));
    EXPECT_EQ("3 22/GREETING/0 no greeting within 0.5 s", Fetch("f", "two"));
    EXPECT_EQ(2u, server.Count("CONNECT"));
}

// After an unsolicited reply the connection is closed with QUIT.
TEST_F(OddTest, AnUnsolicitedReplyEndsAnIdleConnection)
{
    for (const bool tls : {false, true})
    {
        FaultyServer server("idle_chatter", OptionsFor(tls));
        Use(RecordFor(server, tls));
        for (unsigned int fetched = 1; fetched != 4; ++fetched)
        {
            EXPECT_EQ("0 12", Fetch("f", "f"));
            EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == fetched; }));
            EXPECT_EQ(fetched, server.Count("COMMAND QUIT"));
        }
    }
}

// Some servers send another reply after a refusal. The next transfer must not mistake it for its
// own.
TEST_F(OddTest, AFailedTransferEndsTheConnection)
{
    for (const bool tls : {false, true})
    {
        for (const char* fault : {"reply:RETR:550 gone", "reply:RETR:550 gone\r\n226 closed"})
        {
            std::vector<std::string> options = OptionsFor(tls);
            options.emplace_back("--once");
            FaultyServer server(fault, options);
            Use(RecordFor(server, tls));
            EXPECT_EQ("3 20/RETRIEVE/550 RETR refused: 550 gone", Fetch("f", "f"));
            EXPECT_EQ("0 12", Fetch("f", "f"));
            EXPECT_EQ(2u, server.Count("CONNECT"));
        }
    }
}

// A wait for the reply to QUIT would last 60 s, longer than any wait of the tests.
class Idle : public OddTest
{
protected:
    const Limits m_limits{[](auto& each)
                          {
                              each.ulIdleMs = 300;
                              each.ulResponseMs = each.ulConfirmMs = 60000;
                          }};
};

TEST_F(Idle, UnusedConnectionIsClosedWithQuit)
{
    for (const char* fault : {"none", "ignore_quit", "hang:QUIT"})
    {
        FaultyServer server(fault);
        Use(RecordFor(server));
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
        EXPECT_EQ(1u, server.Count("COMMAND QUIT"));
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_EQ(2u, server.Count("CONNECT"));
    }
}

TEST_F(Idle, TheReplyToQuitIsNotAwaited)
{
    FaultyServer server("hang:QUIT");
    Use(RecordFor(server));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

// A connection is reused only with equal settings.
TEST_F(OddTest, AConnectionIsReusedForItsSettingsOnly)
{
    FaultyServer server("none");
    FaultyServer other("none");
    const auto base = RecordFor(server);
    const auto connections = [&](auto change)
    {
        Use(base);
        EXPECT_EQ("0 12", Fetch("f", "f"));
        const size_t before = server.Count("CONNECT") + other.Count("CONNECT");
        auto record = base;
        change(record);
        Use(record);
        EXPECT_EQ("0 12", Fetch("f", "f"));
        return server.Count("CONNECT") + other.Count("CONNECT") - before;
    };
    EXPECT_EQ(0u, connections([](auto&) {}));
    support::TemporaryDirectory elsewhere;
    EXPECT_EQ(0u, connections([&](auto& r) { strcpy(r.acWorkDir, elsewhere.Path().c_str()); }));
    EXPECT_EQ(1u, connections([](auto& r) { strcpy(r.acUserName, "other"); }));
    EXPECT_EQ(1u, connections([](auto& r) { strcpy(r.acPassword, "other-password"); }));
    EXPECT_EQ(1u, connections([&](auto& r) { r.ulServerPort = other.Port(); }));
    EXPECT_EQ(1u, connections([](auto& r) { inet_pton(AF_INET, "127.0.0.5", r.aucLocalIp); }));
}

// Data channels resume the session of their control channel, with TLS 1.3 also if there is only one
// ticket.
class Sessions : public OddTest
{
protected:
    void FetchThree(const std::vector<std::string>& more, const std::string& expected)
    {
        std::vector<std::string> options = TlsOptions();
        options.insert(options.end(), more.begin(), more.end());
        FaultyServer server("reuse_demanded", options);
        Use(RecordFor(server, true));
        for (int i = 0; i != 3; ++i)
        {
            EXPECT_EQ(expected, Fetch("f", "f"));
        }
        for (const std::string& handshake : server.Lines("TLS control"))
        {
            EXPECT_THAT(handshake, testing::EndsWith(" new"));
        }
    }
};

TEST_F(Sessions, AreResumedByDataChannelsOnly)
{
    FetchThree({}, "0 12");
    FetchThree({"--tls-max", "1.2"}, "0 12");
    FetchThree({"--tickets", "1"}, "0 12");
}

TEST_F(Sessions, WithoutTicketsTheServersRefusalIsReported)
{
    FetchThree({"--tickets", "0"},
               "3 23/RECEIVE/522 the server aborted the transfer: 522 SSL connection failed: "
               "session reuse required");
}

}  // namespace
