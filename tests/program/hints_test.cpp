// The hint for each kind of failure.
#include "ui/hints.h"
#include "exit_error.h"
#include "suites.h"
#include "travex_ftp.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

namespace corpdir_tool
{
namespace
{

using testing::HasSubstr;
using testing::Not;

// The words of a reason must not matter; these would be misleading.
const char kReason[] =
    "421 bytes of 'timeout 990.csv', certificate is not valid for host no greeting";

struct Case
{
    const char* name;
    unsigned int code;
    unsigned int step;
    unsigned int reply;
    unsigned int detail;
    const char* says;
};

const Case kCases[] = {
    {"Refused", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0,
     "check that the server is running and can be reached, and that --port 21 is right"},
    {"LimitAtTheGreeting", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_GREETING, 421, 0,
     "connection limit reached or service closed; try again later"},
    {"LimitAtTheLogin", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_LOGIN, 421, 0,
     "connection limit reached or service closed; try again later"},
    {"ClosedLater", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_RETRIEVE, 421, 0,
     "the server closed the connection: time limit or shutdown; try again later"},
    {"NotServed", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_GREETING, 530, 0,
     "the server refuses connections from this machine; the server's log may say why"},
    {"DataPortRefused", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_DATA_CONNECT, 0, 0,
     "open the server's passive ports, on the server and in the firewalls in front of it"},
    {"NoTls", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_AUTH, 500, 0,
     "the server offers no TLS on port 21: enable FTPS there; --plain would send the password "
     "unencrypted"},
    {"TextBehindAuth", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_AUTH, 0, 0,
     "a device in between may have altered the replies: check the network"},
    {"NoProtection", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_PROTECT, 534, 0,
     "the server refuses an encrypted data channel: enable PROT P there"},
    {"Handshake", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, 0,
     "port 990 is for implicit FTPS, other ports are for explicit FTPS; check that --port 21 is "
     "right"},
    {"DataHandshake", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_DATA_TLS, 0, 0,
     "the server's log may say why"},
    {"Version", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_VERSION,
     "the server has no TLS 1.2 or later: update the server"},
    {"Suites", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_SUITES,
     "the server accepts none of the default cipher suites: 'corpdir ciphers' lists others for "
     "--ciphers"},
    {"Name", TRAVEX_FTP_ERR_CERT, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_CERT_NAME,
     "the certificate has no names: the server needs one with the name or address by which it is "
     "listed"},
    {"Dates", TRAVEX_FTP_ERR_CERT, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_CERT_DATES,
     "renew the certificate on the server, or correct this machine's clock; 'corpdir check' shows "
     "the "
     "certificate"},
    {"Authority", TRAVEX_FTP_ERR_CERT, TRAVEX_FTP_STEP_TLS, 0, 0,
     "check that --ca has the authority that issued the certificate, and that it has not expired; "
     "'corpdir check' shows the "
     "certificate"},
    {"Login", TRAVEX_FTP_ERR_LOGIN, TRAVEX_FTP_STEP_LOGIN, 530, 0,
     "check --user and the password, and on the server that the account is not locked"},
    {"NoFile", TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 550, 0,
     "check --version-file; without a leading '/' it is relative to the login directory"},
    {"BusyFile", TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 450, 0,
     "the server cannot send the file at the moment; try again later"},
    {"NoDataChannel", TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 425, 0,
     "the server could not use the data channel; the server's log may say why"},
    {"BadReply", TRAVEX_FTP_ERR_REPLY, TRAVEX_FTP_STEP_PASSIVE, 227, 0,
     "log every step: corpdir fetch '--user=o'\"'\"'neill' --log-level 2"},
    {"ConnectTime", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_CONNECT, 0, 0,
     "a firewall may drop packets to port 21, or the server is down; raise --connect-timeout if "
     "the network is slow"},
    {"DataConnectTime", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_DATA_CONNECT, 0, 0,
     "a firewall may drop packets to the server's passive ports; raise --connect-timeout if the "
     "network is slow"},
    {"NoGreeting", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_GREETING, 0, 0,
     "the server accepted the connection but sent no FTP greeting: implicit FTPS needs --port 990; "
     "otherwise check the server"},
    {"HandshakeTime", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_TLS, 0, 0,
     "the server accepted the connection but did not answer the TLS handshake: check the server"},
    {"NoReply", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_LOGIN, 0, 0,
     "the server is too slow or has stalled; try again later"},
    {"Stall", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_RECEIVE, 0, 0,
     "the server or the network is too slow or has stalled; try again later"},
    {"NoConfirmation", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_CONFIRM, 0, 0,
     "the server's log may say why"},
    {"Partial", TRAVEX_FTP_ERR_PARTIAL, TRAVEX_FTP_STEP_RECEIVE, 0, 0,
     "the server or a device in between cut the file short; the server's log may say why"},
    {"TooLarge", TRAVEX_FTP_ERR_TOO_LARGE, TRAVEX_FTP_STEP_RECEIVE, 0, 0,
     "raise --max-size if the file should be this large"},
    {"LocalFile", TRAVEX_FTP_ERR_LOCAL_FILE, TRAVEX_FTP_STEP_LOCAL_FILE, 0, 0,
     "check free space and permissions of --output-dir: df -h '/var/a b/'; ls -ld '/var/a b/'"},
    {"LostAtOnce", TRAVEX_FTP_ERR_TRANSFER, TRAVEX_FTP_STEP_GREETING, 0, 0,
     "the server closes connections at once: connection limit reached, or --port 21 is wrong"},
    {"LostLater", TRAVEX_FTP_ERR_TRANSFER, TRAVEX_FTP_STEP_LOGIN, 0, 0,
     "log every step: corpdir fetch '--user=o'\"'\"'neill' --log-level 2"},
    {"InvalidVersion", 0, 0, 0, 0,
     "the version file must be ASCII or UTF-8 text with 5 to 30 bytes in its first line"},
    {"NoMemory", TRAVEX_FTP_ERR_SYSTEM, TRAVEX_FTP_STEP_NONE, 0, 0, ""},
};

class ToolHint : public testing::TestWithParam<Case>
{
};

TEST_P(ToolHint, FollowsFromTheStructureOfTheFailure)
{
    Plan plan;
    plan.versionFile = "version.txt";
    plan.outputDir = "/var/a b/";
    plan.words = {"fetch", "--user=o'neill", "--log-level", "0"};
    plan.suites = client::SuitesOf(client::SuiteSet::kCompatible);
    const Case& one = GetParam();
    const Failure failure = {one.code, one.step, one.reply, one.detail, "version.txt", kReason};
    EXPECT_EQ(HintFor(failure, plan), one.says);
}

INSTANTIATE_TEST_SUITE_P(Failures, ToolHint, testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.name); });

std::string VersionHintWith(std::vector<int> ciphers)
{
    Plan plan;
    plan.suites = std::move(ciphers);
    const Failure failure = {
        TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_VERSION, "", kReason};
    return HintFor(failure, plan);
}

TEST(ToolHints, TheVersionRequiredFollowsFromWhatWasOffered)
{
    EXPECT_THAT(VersionHintWith({0x03000035}), HasSubstr("the server requires TLS 1.3, which"));
    EXPECT_THAT(VersionHintWith({0x03001301, 0x03001302}),
                HasSubstr("the server requires TLS 1.2, which"));
    EXPECT_THAT(VersionHintWith({0x03001301, 0x03000035}), HasSubstr("update the server"));
}

TEST(ToolHints, OtherSuitesComeWithTheCommandLine)
{
    Plan plan;
    plan.suites = {0x03000035};
    plan.words = {"--config", "/etc/a.conf", "fetch", "--ciphers", "53", "--ciphers=61", "--quiet"};
    const Failure failure = {
        TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_SUITES, "", kReason};
    EXPECT_EQ(HintFor(failure, plan),
              "the server accepts none of the suites of --ciphers: corpdir --config /etc/a.conf "
              "fetch --quiet --ciphers compatible");
}

std::string NameHintWith(const std::string& names)
{
    Plan plan;
    plan.words = {"fetch", "--servers", "a;b"};
    const Failure failure = {TRAVEX_FTP_ERR_CERT,
                             TRAVEX_FTP_STEP_TLS,
                             0,
                             TRAVEX_FTP_DETAIL_CERT_NAME,
                             "",
                             kReason,
                             names};
    return HintFor(failure, plan);
}

TEST(ToolHints, NamesThatWouldFitAreNamed)
{
    EXPECT_EQ(
        NameHintWith("192.0.2.9, *.example, a.example"),
        "the certificate is for 192.0.2.9, *.example, a.example; if this is the right server, "
        "list it by that name, or: corpdir fetch --servers 'a;b' --verify-name a.example");
    EXPECT_EQ(NameHintWith("192.0.2.9, *.example"),
              "the certificate is for 192.0.2.9, *.example; if this is the right server, list it "
              "by a name or address of the certificate");
    EXPECT_THAT(NameHintWith("a.x, b.x, c.x, d.x, e.x, f.x"),
                HasSubstr("is for a.x, b.x, c.x, d.x, e.x, ...; if"));
}

// A server chooses the names in its certificate.
TEST(ToolHints, ANameCannotAddToTheCommandLine)
{
    EXPECT_THAT(NameHintWith("$(reboot), a;b, --plain, -x.example"),
                Not(HasSubstr("--verify-name")));
}

// Each of another server: 192.0.2.1, 192.0.2.2 and so on.
std::vector<Attempt> FailedInTurn(const std::vector<Failure>& failures)
{
    std::vector<Attempt> attempts;
    for (const Failure& failure : failures)
    {
        attempts.push_back({{"192.0.2." + std::to_string(attempts.size() + 1), "", {}}, failure});
    }
    return attempts;
}

TEST(ToolHints, TheFailureThatCameFurthestGetsTheHint)
{
    const Plan plan;
    const Failure down = {TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0, "", kReason};
    const Failure login = {TRAVEX_FTP_ERR_LOGIN, TRAVEX_FTP_STEP_LOGIN, 530, 0, "", kReason};
    const Failure invalid = {0, 0, 0, 0, "version.txt", kReason};
    const Failure none = {TRAVEX_FTP_ERR_SYSTEM, TRAVEX_FTP_STEP_CONFIRM, 0, 0, "", kReason};
    EXPECT_EQ(HintFor(FailedInTurn({down, login, down, none}), plan),
              "192.0.2.2: " + HintFor(login, plan));
    EXPECT_EQ(HintFor(FailedInTurn({invalid, login}), plan),
              "192.0.2.1: " + HintFor(invalid, plan));
    EXPECT_EQ(HintFor(FailedInTurn({none, {}}), plan), "");
    EXPECT_EQ(HintFor(std::vector<Attempt>(), plan), "");
}

TEST(ToolHints, TheOnlyServerIsNotNamed)
{
    const Plan plan;
    const Failure down = {TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0, "", kReason};
    const Attempt attempt = {{"192.0.2.1", "", {}}, down};
    EXPECT_EQ(HintFor({attempt, attempt}, plan), HintFor(down, plan));
}

TEST(ToolHints, OptionsOfTheCallChangeTheAdvice)
{
    Plan plan;
    plan.plain = true;
    const Failure login = {TRAVEX_FTP_ERR_LOGIN, TRAVEX_FTP_STEP_LOGIN, 530, 0, "", kReason};
    EXPECT_EQ(HintFor(login, plan),
              "the server may refuse logins without TLS: remove --plain; otherwise check --user "
              "and the password");
    const Failure silent = {TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_GREETING, 0, 0, "", kReason};
    EXPECT_THAT(HintFor(silent, plan), Not(HasSubstr("990")));
    plan.plain = false;
    plan.port = 990;
    EXPECT_THAT(HintFor(silent, plan), Not(HasSubstr("990")));
    const Failure down = {TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0, "", kReason};
    EXPECT_EQ(HintFor(down, plan),
              "check that the server is running and can be reached, and that --port 990 is right");
    const Failure directory = {
        TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 550, 0, "other", kReason};
    EXPECT_THAT(HintFor(directory, plan), HasSubstr("check --directory-file;"));
}

TEST(ToolHints, ALocalAddressMayBeTheMistake)
{
    Plan plan;
    const Failure down = {TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0, "", kReason};
    EXPECT_THAT(HintFor(down, plan), Not(HasSubstr("--local-ip")));
    EXPECT_THAT(NoAddress(plan), testing::EndsWith("resolved: check the spelling; 'getent hosts "
                                                   "NAME' asks this machine's resolver"));
    plan.localIp = "::1";
    plan.family = AF_INET6;
    EXPECT_EQ(HintFor(down, plan),
              "check that the server is running and can be reached, and that --port 21 is right; "
              "--local-ip must be an address of this machine");
    EXPECT_EQ(NoAddress(plan),
              "no name in --servers has an IPv6 address, which --local-ip ::1 requires: leave "
              "--local-ip out, or check the spelling");
    plan.family = AF_INET;
    EXPECT_THAT(NoAddress(plan), HasSubstr("has an IPv4 address, "));
}

TEST(ToolHints, AllServersAreCounted)
{
    EXPECT_EQ(AllFailed(1), "the server failed");
    EXPECT_EQ(AllFailed(3), "all 3 servers failed");
}

TEST(ToolHints, TheOutcomeEndsWithTheServerOfTheHint)
{
    const Plan plan;
    const Failure file = {TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 550, 0, "d.csv",
                          "RETR refused"};
    const Failure down = {TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0, "", kReason};
    const std::vector<Attempt> attempts = FailedInTurn({down, file, down});
    EXPECT_EQ(OutcomeText(kExitNoServer, "all 3 servers failed", attempts, plan),
              "all 3 servers failed; 192.0.2.2: d.csv: RETR refused");
    EXPECT_EQ(OutcomeText(kExitBadVersion, "all 3 servers failed", attempts, plan),
              "all 3 servers failed; 192.0.2.2: d.csv: RETR refused");
    EXPECT_EQ(OutcomeText(kExitLocalFile, kReason, attempts, plan),
              std::string("192.0.2.3: ") + kReason);
    EXPECT_EQ(OutcomeText(kExitArguments, "--ca: no", attempts, plan), "--ca: no");
    EXPECT_EQ(OutcomeText(kExitNoServer, "no name", {}, plan), "no name");
}

}  // namespace
}  // namespace corpdir_tool
