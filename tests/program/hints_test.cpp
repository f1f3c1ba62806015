// What the program advises after each kind of failure.
#include "travex_ftp.h"
#include "ui/hints.h"

#include <gmock/gmock.h>

namespace corpdir_tool
{
namespace
{

using testing::HasSubstr;
using testing::Not;

// The words of a reason are for people: those here would mislead whoever read them.
const char kReason[] = "421 bytes of 'timeout 990.csv', certificate is not for no greeting";

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
     "is the server up, and is --port 21 the right one?"},
    {"LimitAtTheGreeting", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_GREETING, 421, 0,
     "connection limit reached or service closed; try again later"},
    {"LimitAtTheLogin", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_LOGIN, 421, 0,
     "connection limit reached or service closed; try again later"},
    {"ClosedLater", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_RETRIEVE, 421, 0,
     "the server closed the connection: its time limit, or a shutdown; try again later"},
    {"NotServed", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_GREETING, 530, 0,
     "the server does not serve this machine; the server's own log may say why"},
    {"DataPortRefused", TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_DATA_CONNECT, 0, 0,
     "the server's passive ports must be open, on the server and in firewalls before it"},
    {"NoTls", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_AUTH, 500, 0,
     "the server offers no TLS on port 21: enable FTPS there; --plain would send the password in "
     "clear"},
    {"TextBehindAuth", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_AUTH, 0, 0,
     "something between may have changed the replies: check the network"},
    {"NoProtection", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_PROTECT, 534, 0,
     "the server refuses an encrypted data channel: enable PROT P there"},
    {"Handshake", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, 0,
     "port 990 is for implicit FTPS, the others are for explicit; is --port 21 the right one?"},
    {"DataHandshake", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_DATA_TLS, 0, 0,
     "the server's own log may say why"},
    {"Version", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_VERSION,
     "the server wants another TLS version: with TLS_AES_256_GCM_SHA384 in --ciphers TLS 1.3 is "
     "offered"},
    {"Suites", TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_SUITES,
     "the server accepts none of the cipher suites; 'corpdir ciphers' lists what --ciphers can "
     "offer"},
    {"Name", TRAVEX_FTP_ERR_CERT, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_CERT_NAME,
     "list the server as its certificate names it, or give that name with --verify-name, if that "
     "server is meant; 'corpdir check' shows the certificate"},
    {"Dates", TRAVEX_FTP_ERR_CERT, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_CERT_DATES,
     "its owner has to renew it, or this machine's clock is wrong; 'corpdir check' shows the "
     "certificate"},
    {"Authority", TRAVEX_FTP_ERR_CERT, TRAVEX_FTP_STEP_TLS, 0, 0,
     "--ca names the authorities to trust; 'corpdir check' shows the certificate"},
    {"Login", TRAVEX_FTP_ERR_LOGIN, TRAVEX_FTP_STEP_LOGIN, 530, 0, "check --user and the password"},
    {"NoFile", TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 550, 0,
     "check --version-file; without a leading '/' it is relative to the directory after the login"},
    {"BusyFile", TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 450, 0,
     "the server cannot send the file at present; try again later"},
    {"NoDataChannel", TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 425, 0,
     "the server could not use the data channel; the server's own log may say why"},
    {"BadReply", TRAVEX_FTP_ERR_REPLY, TRAVEX_FTP_STEP_PASSIVE, 227, 0,
     "--log-dir DIR writes a log of every step"},
    {"ConnectTime", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_CONNECT, 0, 0,
     "a firewall may drop packets to port 21, or the server is down; --connect-timeout allows more "
     "time"},
    {"DataConnectTime", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_DATA_CONNECT, 0, 0,
     "a firewall may drop packets to the server's passive ports; --connect-timeout allows more "
     "time"},
    {"NoGreeting", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_GREETING, 0, 0,
     "the server accepted the connection and sent nothing: implicit FTPS needs --port 990; else "
     "check the server"},
    {"HandshakeTime", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_TLS, 0, 0,
     "the server accepted the connection and did not answer in TLS: check the server"},
    {"NoReply", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_LOGIN, 0, 0,
     "the server is too slow or hangs; try again later"},
    {"Stall", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_RECEIVE, 0, 0,
     "the server or the network is too slow or hangs; try again later"},
    {"NoConfirmation", TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_CONFIRM, 0, 0,
     "the server's own log may say why"},
    {"Partial", TRAVEX_FTP_ERR_PARTIAL, TRAVEX_FTP_STEP_RECEIVE, 0, 0,
     "the server, or something between, ended the file early; the server's own log may say why"},
    {"TooLarge", TRAVEX_FTP_ERR_TOO_LARGE, TRAVEX_FTP_STEP_RECEIVE, 0, 0, "--max-size allows more"},
    {"LocalFile", TRAVEX_FTP_ERR_LOCAL_FILE, TRAVEX_FTP_STEP_LOCAL_FILE, 0, 0,
     "check free space and permissions of --output-dir"},
    {"LostAtOnce", TRAVEX_FTP_ERR_TRANSFER, TRAVEX_FTP_STEP_GREETING, 0, 0,
     "the server closes connections at once: a limit, or is --port 21 the wrong one?"},
    {"LostLater", TRAVEX_FTP_ERR_TRANSFER, TRAVEX_FTP_STEP_LOGIN, 0, 0,
     "--log-dir DIR writes a log of every step"},
    {"NoMemory", TRAVEX_FTP_ERR_SYSTEM, TRAVEX_FTP_STEP_NONE, 0, 0, ""},
};

class ToolHint : public testing::TestWithParam<Case>
{
};

TEST_P(ToolHint, FollowsFromTheStructureOfTheFailure)
{
    Plan plan;
    plan.versionFile = "version.txt";
    const Case& one = GetParam();
    EXPECT_EQ(HintFor({one.code, one.step, one.reply, one.detail, "version.txt", kReason}, plan),
              one.says);
}

INSTANTIATE_TEST_SUITE_P(Failures, ToolHint, testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.name); });

std::string VersionHintWith(std::vector<int> ciphers)
{
    Plan plan;
    plan.ciphers = std::move(ciphers);
    return HintFor(
        {TRAVEX_FTP_ERR_TLS, TRAVEX_FTP_STEP_TLS, 0, TRAVEX_FTP_DETAIL_TLS_VERSION, "", kReason},
        plan);
}

TEST(ToolHints, TheVersionToAddDependsOnWhatWasOffered)
{
    EXPECT_THAT(VersionHintWith({0x03000035}), HasSubstr("TLS 1.3 is offered"));
    EXPECT_THAT(VersionHintWith({0x03001301, 0x03001302}), HasSubstr("TLS 1.2 is offered"));
    EXPECT_THAT(VersionHintWith({0x03001301, 0x03000035}), HasSubstr("it has to be updated"));
}

TEST(ToolHints, OptionsOfTheCallChangeTheAdvice)
{
    Plan plan;
    plan.plain = true;
    EXPECT_EQ(HintFor({TRAVEX_FTP_ERR_LOGIN, TRAVEX_FTP_STEP_LOGIN, 530, 0, "", kReason}, plan),
              "the server may refuse logins without TLS: leave out --plain; else check --user and "
              "the password");
    const Failure silent = {TRAVEX_FTP_ERR_TIMEOUT, TRAVEX_FTP_STEP_GREETING, 0, 0, "", kReason};
    EXPECT_THAT(HintFor(silent, plan), Not(HasSubstr("990")));
    plan.plain = false;
    plan.port = 990;
    EXPECT_THAT(HintFor(silent, plan), Not(HasSubstr("990")));
    EXPECT_EQ(HintFor({TRAVEX_FTP_ERR_CONNECT, TRAVEX_FTP_STEP_CONNECT, 0, 0, "", kReason}, plan),
              "is the server up, and is --port 990 the right one?");
    const Failure directory = {
        TRAVEX_FTP_ERR_FILE, TRAVEX_FTP_STEP_RETRIEVE, 550, 0, "other", kReason};
    EXPECT_THAT(HintFor(directory, plan), HasSubstr("check --directory-file;"));
}

TEST(ToolHints, AllServersAreCounted)
{
    EXPECT_EQ(AllFailed(1), "the server failed");
    EXPECT_EQ(AllFailed(3), "all 3 servers failed");
}

}  // namespace
}  // namespace corpdir_tool
