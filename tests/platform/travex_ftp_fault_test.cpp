// Faulty servers: the client reports the failure, keeps the old file, leaves no temporary file, and
// the next transfer works.
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

class FaultTest : public LayerTest, public testing::WithParamInterface<Case>
{
protected:
    void Try(bool tls)
    {
        std::vector<std::string> options = OptionsFor(tls);
        options.emplace_back("--once");
        FaultyServer server(GetParam().fault, options);
        auto record = RecordFor(server, tls);
        Use(record);
        support::WriteFile(m_directory.File("f"), "old");
        EXPECT_THAT(FetchWithLimits(), MatchesRegex(GetParam().outcome));
        EXPECT_EQ("old", Content("f"));
        EXPECT_EQ(1u, support::FilesIn(m_directory.Path()).size());
        EXPECT_EQ(0u, captured_log::CountWith("throw-aw"));
        // Another user, since a refused login is not repeated at once.
        strcpy(record.acUserName, "other");
        Use(record);
        EXPECT_EQ("0 12", Fetch("f", "f"));
        EXPECT_TRUE(FaultyServer::Body(100000) == Content("f"));
    }

    // The times are short only for a row that runs into one of them (code 22).
    std::string FetchWithLimits()
    {
        const bool timesOut = std::string(GetParam().outcome).compare(0, 5, "3 22/") == 0;
        const Limits limits(
            [timesOut](auto& each)
            {
                each.ullFileBytes = 20000000;
                if (timesOut)
                {
                    each.ulConnectMs = each.ulResponseMs = 700;
                    each.ulHandshakeMs = each.ulConfirmMs = 700;
                    each.ulStallMs = 900;
                }
            });
        return Fetch("f", "f");
    }
};

class PlainFault : public FaultTest
{
};

TEST_P(PlainFault, IsReported)
{
    Try(false);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, PlainFault,
    testing::Values(
        Case{"drop:GREETING",
             "3 26/GREETING/0 connection lost during the greeting: closed by the server"},
        Case{"hang:GREETING", "3 22/GREETING/0 no greeting within 0\\.7 s"},
        Case{"reply:GREETING:421 Too many users.",
             "3 16/GREETING/421 service not available: 421 Too many users\\."},
        Case{"reply:GREETING:530 Go away.",
             "3 16/GREETING/530 the server refused the connection: 530 Go away\\."},
        Case{"late_refusal", "3 16/GREETING/421 service not available: 421 Too long\\."},
        Case{"cut_greeting",
             "3 26/GREETING/0 connection lost during the greeting: closed by the server"},
        Case{"cut_line",
             "3 26/GREETING/0 connection lost during the greeting: closed by the server"},
        Case{"drop:USER", "3 26/LOGIN/0 connection lost during USER: closed by the server"},
        Case{"hang:USER", "3 22/LOGIN/0 no reply to USER within 0\\.7 s"},
        Case{"drip:USER", "3 22/LOGIN/0 no reply to USER within 0\\.7 s"},
        Case{"reply:USER:530 no", "3 19/LOGIN/530 login refused: 530 no"},
        Case{"reset:PASS", "3 26/LOGIN/0 connection lost during PASS: Connection reset by peer"},
        Case{"hang:PASS", "3 22/LOGIN/0 no reply to PASS within 0\\.7 s"},
        Case{"reply:PASS:430 no", "3 19/LOGIN/430 login refused: 430 no"},
        Case{"reply:PASS:332 Need account.", "3 19/LOGIN/332 .*332 Need account\\."},
        Case{"reply:PASS:331 Once more.", "3 19/LOGIN/331 .*331 Once more\\."},
        Case{"drop:TYPE", "3 26/TYPE/0 connection lost during TYPE: closed by the server"},
        Case{"hang:TYPE", "3 22/TYPE/0 no reply to TYPE within 0\\.7 s"},
        Case{"reply:TYPE:500 x", "3 21/TYPE/500 TYPE refused: 500 x"},
        Case{"hang:EPSV", "3 22/PASSIVE/0 no reply to EPSV within 0\\.7 s"},
        Case{"reply:EPSV:421 Bye.", "3 16/PASSIVE/421 service not available: 421 Bye\\."},
        Case{"reply:EPSV:500 x + hang:PASV", "3 22/PASSIVE/0 no reply to PASV within 0\\.7 s"},
        Case{"reply:EPSV:500 x + drop:PASV",
             "3 26/PASSIVE/0 connection lost during PASV: closed by the server"},
        Case{"reply:EPSV:500 x + reply:PASV:500 y", "3 21/PASSIVE/500 PASV refused: 500 y"},
        Case{"reply:EPSV:500 x + reply:PASV:227 bla",
             "3 21/PASSIVE/227 unexpected reply to PASV: 227 bla"},
        Case{"reply:EPSV:229 (|||0|) + reply:PASV:227 (127,0,0,1,0,0)",
             "3 21/PASSIVE/227 unexpected reply to PASV: 227 \\(127,0,0,1,0,0\\)"},
        Case{"reply:EPSV:229 (|||70000|) + reply:PASV:227 (127,0,0,1,300,1)",
             "3 21/PASSIVE/227 unexpected reply to PASV: 227 \\(127,0,0,1,300,1\\)"},
        Case{"reply:EPSV:229 (|||1|) + reply:PASV:227 (127,0,0,1,0,1)",
             "3 16/DATA_CONNECT/0 cannot connect to data port 1: Connection refused"},
        Case{"drop:SIZE", "3 26/SIZE/0 connection lost during SIZE: closed by the server"},
        Case{"hang:SIZE", "3 22/SIZE/0 no reply to SIZE within 0\\.7 s"},
        Case{"reply:SIZE:421 Bye.", "3 16/SIZE/421 service not available: 421 Bye\\."},
        Case{"drop:RETR", "3 26/RETRIEVE/0 connection lost during RETR: closed by the server"},
        Case{"reset:RETR", "3 26/RETRIEVE/0 connection lost during RETR: Connection reset by peer"},
        Case{"hang:RETR", "3 22/RETRIEVE/0 no reply to RETR within 0\\.7 s"},
        Case{"drip:RETR", "3 22/RETRIEVE/0 no reply to RETR within 0\\.7 s"},
        Case{"cut_opening", "3 26/RETRIEVE/0 connection lost during RETR: closed by the server"},
        Case{"reply:RETR:550 No such file", "3 20/RETRIEVE/550 RETR refused: 550 No such file"},
        Case{"reply:RETR:425 No data connection.",
             "3 20/RETRIEVE/425 RETR refused: 425 No data connection\\."},
        Case{"reply:RETR:421 Bye.", "3 16/RETRIEVE/421 service not available: 421 Bye\\."},
        Case{"wrong_order", "3 21/RETRIEVE/226 unexpected reply to RETR: 226 Transfer complete\\."},
        Case{"no_150", "3 21/RETRIEVE/226 unexpected reply to RETR: 226 Transfer complete\\."}));

// A refused SIZE is not a failure, and not the reason of a later one.
INSTANTIATE_TEST_SUITE_P(
    Causes, PlainFault,
    testing::Values(Case{"reply:SIZE:550 no + drop:RETR",
                         "3 26/RETRIEVE/0 connection lost during RETR: closed by the server"},
                    Case{"reply:EPSV:500 x + drop:SIZE",
                         "3 26/SIZE/0 connection lost during SIZE: closed by the server"}));

INSTANTIATE_TEST_SUITE_P(
    Files, PlainFault,
    testing::Values(
        Case{"early_eof", "3 23/RECEIVE/0 incomplete: 50000 of 100000 bytes received"},
        Case{"data_reset",
             "3 23/RECEIVE/0 data connection lost after [0-9]+ bytes: Connection reset by peer"},
        Case{"data_reset_unknown_size",
             "3 23/RECEIVE/0 data connection lost after 100000 bytes: Connection reset by peer"},
        Case{"size_too_small", "3 23/RECEIVE/0 too many bytes: 100000 received, 99999 announced"},
        Case{"size_too_large", "3 23/RECEIVE/0 incomplete: 100000 of 100001 bytes received"},
        Case{"size_zero", "3 23/RECEIVE/0 too many bytes: [0-9]+ received, 0 announced"},
        Case{"size_beyond_limit", "3 24/RECEIVE/0 the file is larger than 20000000 bytes"},
        Case{"opening_lies", "3 23/RECEIVE/0 incomplete: 100000 of 100005 bytes received"},
        Case{"file_grows", "3 23/RECEIVE/0 too many bytes: 100005 received, 100000 announced"},
        Case{"endless_file", "3 24/RECEIVE/0 the file is larger than 20000000 bytes"},
        Case{"slow_drip",
             "3 22/RECEIVE/0 timed out while receiving: [1-9][0-9]* bytes in 0\\.9 s, [1-9][0-9]* "
             "of 100000 "
             "received"},
        Case{"stall",
             "3 22/RECEIVE/0 timed out while receiving: 0 bytes in 0\\.9 s, 50000 of 100000 "
             "received"},
        Case{"stall + unknown_size",
             "3 22/RECEIVE/0 timed out while receiving: 0 bytes in 0\\.9 s, 50000 received"},
        Case{"control_lost_before_data",
             "3 23/RECEIVE/0 connection lost during the transfer: closed by the server"},
        Case{"control_lost_during_data",
             "3 23/RECEIVE/0 connection lost during the transfer: closed by the server"},
        Case{"abort_while_data_hangs",
             "3 23/RECEIVE/451 the server aborted the transfer: 451 Read error on the disk\\."},
        Case{"hang:CLOSING", "3 22/CONFIRM/0 no 226 within 0\\.7 s of the last byte"},
        Case{"hang:CLOSING + unknown_size",
             "3 22/CONFIRM/0 no 226 within 0\\.7 s of the last byte"},
        Case{"taken + drop:CLOSING",
             "3 23/CONFIRM/0 connection lost before the 226: closed by the server"},
        Case{"taken + drop:CLOSING + unknown_size",
             "3 23/CONFIRM/0 connection lost before the 226: closed by the server"},
        Case{"taken + reset:CLOSING",
             "3 23/CONFIRM/0 connection lost before the 226: Connection reset by peer"},
        Case{"reply:CLOSING:421 Bye.", "3 16/RECEIVE/421 service not available: 421 Bye\\."},
        Case{"late_426",
             "3 23/RECEIVE/426 the server aborted the transfer: 426 Failure writing "
             "network stream\\."},
        Case{"late_451",
             "3 23/RECEIVE/451 the server aborted the transfer: 451 Read error on the "
             "disk\\."}));

INSTANTIATE_TEST_SUITE_P(
    Words, PlainFault,
    testing::Values(
        Case{"endless_banner", "3 21/GREETING/0 the reply exceeds 1000 lines"},
        Case{"endless_line", "3 21/GREETING/0 the reply exceeds 64 KB"},
        Case{"binary_banner", "3 21/GREETING/0 the reply exceeds (64 KB|1000 lines)"},
        Case{"many_lines", "3 21/GREETING/0 the reply exceeds 1000 lines"},
        Case{"password_echo",
             "3 19/LOGIN/530 login refused: 530 Login incorrect, password was \\*{13}\\."},
        Case{"password_echo_later", "3 20/RETRIEVE/550 RETR refused: 550 No such file, .*"},
        Case{"escape_in_reply", "3 20/RETRIEVE/550 RETR refused: 550 \\?\\[2J\\? gone \\?\\?"},
        Case{"nul_in_refusal", "3 20/RETRIEVE/550 RETR refused: 550 gone\\? really"}));

class TlsFault : public FaultTest
{
};

TEST_P(TlsFault, IsReported)
{
    Try(true);
}

INSTANTIATE_TEST_SUITE_P(
    All, TlsFault,
    testing::Values(
        Case{"reply:AUTH:500 What?", "3 17/AUTH/500 AUTH refused: 500 What\\?"},
        Case{"reply:PBSZ:500 no", "3 17/PROTECT/500 PBSZ refused: 500 no"},
        Case{"reply:PROT:534 no", "3 17/PROTECT/534 PROT refused: 534 no"},
        Case{"hang:AUTH", "3 22/AUTH/0 no reply to AUTH within 0\\.7 s"},
        Case{"hang:PBSZ", "3 22/PROTECT/0 no reply to PBSZ within 0\\.7 s"},
        Case{"hang:PROT", "3 22/PROTECT/0 no reply to PROT within 0\\.7 s"},
        Case{"hang:TYPE", "3 22/TYPE/0 no reply to TYPE within 0\\.7 s"},
        Case{"hang:RETR", "3 22/RETRIEVE/0 no reply to RETR within 0\\.7 s"},
        Case{"injected_after_auth",
             "3 17/AUTH/0 plaintext received after the reply to AUTH: possible injection"},
        Case{"hang_handshake", "3 22/TLS/0 TLS handshake timed out after 0\\.7 s"},
        Case{"endless_handshake", "3 17/TLS/0 TLS handshake failed: closed by the server"},
        Case{"drop_handshake", "3 17/TLS/0 TLS handshake failed: closed by the server"},
        Case{"reset_handshake", "3 17/TLS/0 TLS handshake failed: Connection reset by peer"},
        Case{"clear_after_auth", "3 17/TLS/0 TLS handshake failed: the server does not speak TLS"},
        Case{"hang_data_handshake",
             "3 22/DATA_TLS/0 data channel: TLS handshake timed out after 0\\.7 s"},
        Case{"drop_data_handshake",
             "3 23/RECEIVE/425 the server aborted the transfer: 425 Unable to build data "
             "connection: Operation not permitted"},
        Case{"clear_data",
             "3 17/DATA_TLS/0 data channel: TLS handshake failed: the server does not speak TLS"},
        Case{"reply:RETR:550 No such file", "3 20/RETRIEVE/550 RETR refused: 550 No such file"},
        Case{"reply:RETR:522 SSL session reuse required",
             "3 20/RETRIEVE/522 RETR refused: 522 SSL session reuse required"},
        Case{"reuse_refused",
             "3 23/RECEIVE/522 the server aborted the transfer: 522 SSL connection failed: session "
             "reuse required"},
        Case{"early_eof", "3 23/RECEIVE/0 incomplete: 50000 of 100000 bytes received"},
        Case{"early_eof_unknown_size",
             "3 23/RECEIVE/0 the data channel closed without close_notify: the file may be "
             "truncated"},
        Case{"no_close_notify",
             "3 23/RECEIVE/0 the data channel closed without close_notify: the file may be "
             "truncated"},
        Case{"data_reset",
             "3 23/RECEIVE/0 data connection lost after [0-9]+ bytes: Connection reset by peer"},
        Case{"file_grows", "3 23/RECEIVE/0 too many bytes: 100005 received, 100000 announced"},
        Case{"stall",
             "3 22/RECEIVE/0 timed out while receiving: 0 bytes in 0\\.9 s, 50000 of 100000 "
             "received"},
        Case{"abort_while_data_hangs",
             "3 23/RECEIVE/451 the server aborted the transfer: 451 Read error on the disk\\."},
        Case{"control_lost_during_data",
             "3 23/RECEIVE/0 connection lost during the transfer: closed by the server"},
        Case{"drop:CLOSING", "3 23/CONFIRM/0 connection lost before the 226: closed by the server"},
        Case{"late_426",
             "3 23/RECEIVE/426 the server aborted the transfer: 426 Failure writing "
             "network stream\\."}));

// The connection is lost at each step of a dialogue over explicit TLS.
INSTANTIATE_TEST_SUITE_P(
    EachStep, TlsFault,
    testing::Values(
        Case{"drop:GREETING",
             "3 26/GREETING/0 connection lost during the greeting: closed by the server"},
        Case{"drop:AUTH", "3 26/AUTH/0 connection lost during AUTH: closed by the server"},
        Case{"reset:AUTH", "3 26/AUTH/0 connection lost during AUTH: Connection reset by peer"},
        Case{"drop:USER", "3 26/LOGIN/0 connection lost during USER: closed by the server"},
        Case{"drop:PASS", "3 26/LOGIN/0 connection lost during PASS: closed by the server"},
        Case{"reset:PBSZ", "3 26/PROTECT/0 connection lost during PBSZ: Connection reset by peer"},
        Case{"drop:PROT", "3 26/PROTECT/0 connection lost during PROT: closed by the server"},
        Case{"drop:TYPE", "3 26/TYPE/0 connection lost during TYPE: closed by the server"},
        Case{"drop:SIZE", "3 26/SIZE/0 connection lost during SIZE: closed by the server"},
        Case{"drop:RETR", "3 26/RETRIEVE/0 connection lost during RETR: closed by the server"}));

// Over IPv6 there is no PASV, so the failure of EPSV is the reason.
class Ipv6Fault : public FaultTest
{
};

TEST_P(Ipv6Fault, IsReported)
{
    FaultyServer server(GetParam().fault, {"--host", "::1"});
    Use(Parameters("::1", server.Port(), m_directory.Path()));
    EXPECT_THAT(Fetch("f", "f"), MatchesRegex(GetParam().outcome));
    EXPECT_EQ(0u, server.Count("COMMAND PASV"));
    EXPECT_TRUE(support::FilesIn(m_directory.Path()).empty());
}

INSTANTIATE_TEST_SUITE_P(
    All, Ipv6Fault,
    testing::Values(
        Case{"reply:EPSV:500 x", "3 21/PASSIVE/500 EPSV refused: 500 x"},
        Case{"reply:EPSV:229 Extended (|||banana|)",
             "3 21/PASSIVE/229 unexpected reply to EPSV: 229 Extended \\(\\|\\|\\|banana\\|\\)"},
        Case{"reply:EPSV:229 (|||0|)",
             "3 21/PASSIVE/229 unexpected reply to EPSV: 229 \\(\\|\\|\\|0\\|\\)"},
        Case{"drop:EPSV", "3 26/PASSIVE/0 connection lost during EPSV: closed by the server"},
        Case{"epsv_unreachable",
             "3 16/DATA_CONNECT/0 cannot connect to data port 1: Connection refused"}),
    [](const auto& one) { return std::to_string(one.index); });

// With implicit TLS the control channel is always encrypted. The data channel must be too.
class ImplicitTls : public LayerTest
{
protected:
    std::string FetchImplicitly(const FaultyServer& server)
    {
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = 1;
        record.pcFtpCtrlInfo = "tls=implicit";
        Use(record);
        return Fetch("f", "f");
    }
};

TEST_F(ImplicitTls, ARefusedProtFailsToo)
{
    FaultyServer server("reply:PROT:534 no", TlsOptions("implicit"));
    EXPECT_EQ("3 17/PROTECT/534 PROT refused: 534 no", FetchImplicitly(server));
    EXPECT_EQ(0u, server.Count("COMMAND RETR"));
}

// vsftpd greets connections beyond its limit in clear.
TEST_F(ImplicitTls, AGreetingInClearIsReported)
{
    std::vector<std::string> options = TlsOptions("implicit");
    options.insert(options.end(), {"--most", "0"});
    FaultyServer full("none", options);
    EXPECT_EQ("3 16/GREETING/421 service not available: 421 Too many connections.",
              FetchImplicitly(full));
    FaultyServer plain("none");
    EXPECT_EQ("3 17/TLS/0 TLS handshake failed: the server does not speak TLS",
              FetchImplicitly(plain));
}

// The two cases need different fixes.
class NothingInCommon : public LayerTest
{
protected:
    std::string FetchWith(const std::vector<int>& suites, const std::vector<std::string>& more)
    {
        std::vector<std::string> options = TlsOptions();
        options.insert(options.end(), more.begin(), more.end());
        FaultyServer server("none", options);
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        record.ulServerType = 1;
        record.piCipherList = suites.data();
        record.ulCipherNum = static_cast<unsigned int>(suites.size());
        Use(record);
        return Fetch("f", "f");
    }

    const std::string m_version = "3 17/TLS/0/3 TLS handshake failed: no TLS version in common";
    const std::string m_suites = "3 17/TLS/0/4 TLS handshake failed: no cipher suite in common";
};

TEST_F(NothingInCommon, TheVersionIsReported)
{
    EXPECT_EQ(m_version, FetchWith({0x03001301}, {"--tls-max", "1.2"}));
    EXPECT_EQ(m_version, FetchWith({}, {"--tls-max", "1.1"}));
    EXPECT_EQ("0 12", FetchWith({0x03001301}, {}));
}

TEST_F(NothingInCommon, TheSuitesAreReported)
{
    EXPECT_EQ(m_suites, FetchWith({0x03000035, 0x0300003C, 0x0300003D}, {"--ciphers", "ECDHE"}));
    EXPECT_EQ("0 12", FetchWith({0x03000035, 0x0300003C, 0x0300003D}, {}));
}

// The limit applies in every step.
TEST_F(LayerTest, TheWholeTransferHasALimit)
{
    const Limits limits([](auto& each) { each.ulTransferMs = 600; });
    for (const char* fault : {"hang:GREETING", "stall", "slow_drip", "hang:CLOSING"})
    {
        FaultyServer server(fault);
        Use(RecordFor(server));
        EXPECT_THAT(Fetch("f", "f"), MatchesRegex("3 22/[A-Z]+/0 transfer timed out after 0\\.6 s"))
            << fault;
    }
}

// The 451 is on the control channel; the idle data channel is not waited for.
TEST_F(LayerTest, AnAbortIsReportedAtOnce)
{
    for (const char* fault : {"abort_while_data_hangs", "abort_in_one_piece"})
    {
        for (const bool tls : {false, true})
        {
            FaultyServer server(fault, OptionsFor(tls));
            Use(RecordFor(server, tls));
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_EQ(
                "3 23/RECEIVE/451 the server aborted the transfer: 451 Read error on the disk.",
                Fetch("f", "f"));
            EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));  // of 30
        }
    }
}

class PasswordEcho : public LayerTest
{
protected:
    std::string FetchWith(const char* fault, const char* password)
    {
        const FaultyServer server(fault);
        auto record = Parameters("127.0.0.1", server.Port(), m_directory.Path());
        strcpy(record.acPassword, password);
        Use(record);
        return Fetch("f", "f");
    }
};

// With long replies, short passwords, and in both encodings.
TEST_F(PasswordEcho, NeverAppears)
{
    captured_log::Clear();
    EXPECT_EQ("3 19/LOGIN/530 login refused: 530 Login incorrect, password was *************.",
              FetchWith("password_echo", "p\xe4ssw\xf6rt-long"));
    const std::string cut = FetchWith("password_echo_cut", "throw-away-17");
    EXPECT_THAT(cut, MatchesRegex("3 19/LOGIN/530 login refused: 530 x*\\**"));
    EXPECT_THAT(FetchWith("password_echo_half", "secret-password-of-a-user"),
                MatchesRegex("3 19/LOGIN/530 login refused: 530 .*"));
    EXPECT_THAT(FetchWith("password_echo_latin1", "gr\xc3\xbc\xc3\x9f-dich-welt"),
                MatchesRegex("3 19/LOGIN/530 login refused: 530 .*"));
    EXPECT_EQ("3 19/LOGIN/530 login refused: 530 (text withheld)",
              FetchWith("password_echo", "abc"));
    for (const char* part : {"throw", "rt-long", "secret-pass", "dich-welt", "abc"})
    {
        EXPECT_EQ(0u, captured_log::CountWith(part)) << part;
    }
    for (const ftp_test::Notice& notice : ftp_test::Notices())
    {
        for (const char* part : {"throw", "rt-long", "secret-pass", "dich-welt", "abc"})
        {
            EXPECT_EQ(std::string::npos, notice.reason.find(part)) << notice.reason;
        }
    }
}

}  // namespace
