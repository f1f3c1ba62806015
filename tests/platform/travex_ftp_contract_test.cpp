// The interface of travex_ftp.h: handles, refusals, order of notifications, start and stop.
#include <gmock/gmock.h>
#include <openssl/err.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <future>

#include "base/changes.h"
#include "captured_log.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::Certificates;
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Notice;
using ftp_test::Notices;
using ftp_test::Parameters;
using ftp_test::Record;
using support::WaitUntil;
using testing::HasSubstr;

class Contract : public LayerTest
{
protected:
    tagTRAVEX_FTP_S_CTRL_PARAM Valid() const
    {
        return Parameters("127.0.0.1", 2, m_directory.Path());
    }

    // Code and reason of a refusal; checks that the observer and the log get the reason.
    std::string Refusal(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
    {
        captured_log::Clear();
        s_reason.clear();
        TRAVEX_FTP_SetObserver(
            [](void*, const tagTRAVEX_FTP_S_OBSERVATION* seen)
            {
                EXPECT_EQ(TRAVEX_FTP_OBSERVED_REFUSED, seen->ulKind);
                EXPECT_EQ(0u, seen->ulTaskID);
                s_reason = seen->pcReason;
            },
            nullptr);
        const unsigned int code = TRAVEX_FTP_SetCtrlParam(m_handle, &record);
        TRAVEX_FTP_SetObserver(nullptr, nullptr);
        EXPECT_EQ(1u, captured_log::CountWith("control parameters refused: " + s_reason));
        return std::to_string(code) + " " + s_reason;
    }

    static std::string s_reason;
};

std::string Contract::s_reason;

TEST_F(Contract, SecondInitChangesNothing)
{
    EXPECT_EQ(0u, TRAVEX_FTP_Init());
    const auto record = Valid();
    EXPECT_EQ(0u, TRAVEX_FTP_SetCtrlParam(m_handle, &record));
}

TEST_F(Contract, WithoutInitNothingWorksAndNothingBreaks)
{
    ASSERT_EQ(0u, TRAVEX_FTP_UnInit());
    const auto record = Valid();
    const tagTRAVEX_FTP_S_DATA_PARAM data{};
    unsigned int task = 77;
    EXPECT_EQ(nullptr, TRAVEX_FTP_CreateHandle());
    EXPECT_EQ(TRAVEX_FTP_ERR_NOT_INIT, TRAVEX_FTP_SetCtrlParam(m_handle, &record));
    EXPECT_EQ(TRAVEX_FTP_ERR_NOT_INIT, TRAVEX_FTP_SetDataParam(m_handle, &data));
    EXPECT_EQ(TRAVEX_FTP_ERR_NOT_INIT,
              TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "a", ".", "a", Record));
    EXPECT_EQ(TRAVEX_FTP_ERR_NOT_INIT, TRAVEX_FTP_CloseHandle(m_handle));
    EXPECT_EQ(77u, task);
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
}

TEST_F(Contract, HandlesOfEarlierRunsAndClosedOnesGetACode)
{
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
    EXPECT_EQ(TRAVEX_FTP_ERR_HANDLE, TRAVEX_FTP_CloseHandle(m_handle));
    const TRAVEX_FTP_HANDLE earlier = TRAVEX_FTP_CreateHandle();
    TRAVEX_FTP_UnInit();
    ASSERT_EQ(0u, TRAVEX_FTP_Init());
    const TRAVEX_FTP_HANDLE later = TRAVEX_FTP_CreateHandle();
    EXPECT_NE(earlier, later);
    const auto record = Valid();
    EXPECT_EQ(TRAVEX_FTP_ERR_HANDLE, TRAVEX_FTP_SetCtrlParam(earlier, &record));
    EXPECT_EQ(TRAVEX_FTP_ERR_HANDLE, TRAVEX_FTP_CloseHandle(nullptr));
    unsigned char foreign = 0;
    EXPECT_EQ(TRAVEX_FTP_ERR_HANDLE,
              TRAVEX_FTP_CloseHandle(reinterpret_cast<TRAVEX_FTP_HANDLE>(&foreign)));
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(later));
}

TEST_F(Contract, ControlParametersAreCheckedOneByOne)
{
    const auto with = [this](auto change)
    {
        auto record = Valid();
        change(record);
        return Refusal(record);
    };
    EXPECT_EQ("1 the user name is empty", with([](auto& r) { r.acUserName[0] = '\0'; }));
    EXPECT_EQ("1 the password is empty", with([](auto& r) { r.acPassword[0] = '\0'; }));
    EXPECT_EQ("1 the work directory is empty", with([](auto& r) { r.acWorkDir[0] = '\0'; }));
    EXPECT_EQ("1 the user name is not NUL-terminated",
              with([](auto& r) { memset(r.acUserName, 'u', sizeof r.acUserName); }));
    EXPECT_EQ("1 the user name contains a control character",
              with([](auto& r) { strcpy(r.acUserName, "a\r\nDELE x"); }));
    EXPECT_EQ("1 the password contains a control character",
              with([](auto& r) { strcpy(r.acPassword, "\x7f"); }));
    EXPECT_EQ("1 unknown server type 2", with([](auto& r) { r.ulServerType = 2; }));
    EXPECT_EQ("1 unknown address type 7", with([](auto& r) { r.ulLocalIpType = 7; }));
    EXPECT_EQ("1 port 65536 is out of range", with([](auto& r) { r.ulServerPort = 65536; }));
    EXPECT_EQ("1 the cipher list is null", with([](auto& r) { r.ulCipherNum = 1; }));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_SetCtrlParam(m_handle, nullptr));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_SetDataParam(m_handle, nullptr));
}

// A control character could end a command.
TEST_F(Contract, ControlBytesAreRefused)
{
    Use(Valid());
    captured_log::Clear();
    for (int byte = 1; byte != 0x80; byte = byte == 0x1f ? 0x7f : byte + 1)
    {
        const char text[] = {'a', static_cast<char>(byte), 'b', '\0'};
        auto record = Valid();
        strcpy(record.acUserName, text);
        EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_SetCtrlParam(m_handle, &record)) << byte;
        record = Valid();
        strcpy(record.acPassword, text);
        EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_SetCtrlParam(m_handle, &record)) << byte;
        unsigned int task = 0;
        EXPECT_EQ(TRAVEX_FTP_ERR_PARAM,
                  TRAVEX_FTP_AsynDownloadFile(m_handle, &task, text, ".", "f", Record))
            << byte;
    }
    auto record = Valid();
    strcpy(record.acUserName, " \xc3\xa4\xff");
    EXPECT_EQ(0u, TRAVEX_FTP_SetCtrlParam(m_handle, &record));
}

TEST_F(Contract, CipherSuitesAreRefusedByIdentifier)
{
    const auto with = [this](std::vector<int> suites)
    {
        auto record = Valid();
        record.piCipherList = suites.data();
        record.ulCipherNum = static_cast<unsigned int>(suites.size());
        EXPECT_EQ(0u, TRAVEX_FTP_SetCtrlParam(m_handle, &record)) << "plain FTP has no suites";
        record.ulServerType = 1;
        return Refusal(record);
    };
    EXPECT_EQ("5 unknown cipher suite 0x0300FFFE", with({0x03000035, 0x0300FFFE}));
    EXPECT_EQ("5 unknown cipher suite 0x02010080", with({0x02010080}));
    EXPECT_THAT(with({0x0300003B}), HasSubstr("does not encrypt"));         // NULL-SHA256
    EXPECT_THAT(with({0x030000A6}), HasSubstr("does not authenticate"));    // ADH-AES128-GCM
    EXPECT_THAT(with({0x03000005}), HasSubstr("cipher suite 0x03000005"));  // RC4
}

TEST_F(Contract, TrustedCertificatesAreChecked)
{
    const auto with = [this](const std::string& text)
    {
        auto record = Valid();
        record.ulServerType = record.ulCertVerify = 1;
        record.pcFtpCtrlInfo = text.c_str();
        return Refusal(record);
    };
    EXPECT_EQ("6 no trusted certificates given", with(""));
    EXPECT_EQ("6 trusted certificates: /nowhere/ca.pem: No such file or directory",
              with("/nowhere/ca.pem"));
    EXPECT_EQ("6 trusted certificates: invalid entry \"cb=x\"", with("cb=x"));
    EXPECT_EQ("6 trusted certificates: invalid entry \"tls=explicit\"",
              with("ca=system;tls=explicit"));
    EXPECT_EQ("6 trusted certificates: /dev/null: not a certificate file", with("/dev/null"));
    support::WriteFile(m_directory.File("x=y"), "no PEM here");
    EXPECT_EQ("6 trusted certificates: " + m_directory.File("x=y") + ": no certificate found",
              with(m_directory.File("x=y")));
    EXPECT_THAT(with("ca=" + m_directory.Path()), HasSubstr(": no certificate found"));
}

// OpenSSL's error queue belongs to the thread: the client's errors must stay in it.
TEST_F(Contract, OpenSslErrorsOfTheCallerStay)
{
    ERR_clear_error();
    ERR_raise_data(ERR_LIB_USER, 17, "the client's");
    const unsigned long error = ERR_peek_error();
    const std::string anchors = Certificates().Authority();
    const std::string broken = m_directory.File("broken.pem");
    support::WriteFile(broken, "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n");
    const std::string text = m_directory.File("text");
    support::WriteFile(text, "no PEM here");
    for (const std::string& trust : {anchors, broken, text, std::string("/nowhere/ca.pem")})
    {
        auto record = Valid();
        record.ulServerType = record.ulCertVerify = 1;
        record.pcFtpCtrlInfo = trust.c_str();
        EXPECT_EQ(trust != anchors, TRAVEX_FTP_SetCtrlParam(m_handle, &record) != 0) << trust;
        EXPECT_EQ(error, ERR_peek_error()) << trust;
        EXPECT_EQ(error, ERR_peek_last_error()) << trust;
    }
    EXPECT_EQ(error, ERR_get_error());
    EXPECT_EQ(0u, ERR_get_error());
}

TEST_F(Contract, DownloadsAreCheckedAndLeaveTheTaskIdAlone)
{
    unsigned int task = 77;
    const auto refused = [&](const char* serverFile, const char* localFile)
    { return TRAVEX_FTP_AsynDownloadFile(m_handle, &task, serverFile, ".", localFile, Record); };
    EXPECT_EQ(TRAVEX_FTP_ERR_NOT_SET, refused("a", "a"));
    Use(Valid());
    for (const char* localFile : {"", ".", "..", "a/b", "/a"})
    {
        EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, refused("a", localFile)) << localFile;
    }
    const std::string longName(256, 'n');
    for (const char* serverFile : {"", "a\r\nDELE b", "a\x7f", "pub/", longName.c_str()})
    {
        EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, refused(serverFile, "a")) << serverFile;
    }
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, refused(nullptr, "a"));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, refused("a", nullptr));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, refused("a", longName.c_str()));
    EXPECT_EQ(77u, task);
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM,
              TRAVEX_FTP_AsynDownloadFile(m_handle, nullptr, "a", ".", "a", Record));
    EXPECT_TRUE(Notices().empty());
}

TEST_F(Contract, ZeroAddressIsAcceptedAndItsTransferFails)
{
    auto record = Valid();
    memset(record.aucServerIp, 0, sizeof record.aucServerIp);
    Use(record);
    EXPECT_EQ("3 16/CONNECT/0 the server address is zero", Fetch("version.txt", "v"));
    record.ulServerIpType = 1;
    Use(record);
    EXPECT_EQ("3 16/CONNECT/0 the server address is zero", Fetch("version.txt", "v"));
    record.aucServerIp[10] = record.aucServerIp[11] = 0xff;  // ::ffff:0.0.0.0
    Use(record);
    EXPECT_EQ("3 16/CONNECT/0 the server address is zero", Fetch("version.txt", "v"));
}

TEST_F(Contract, SuccessIsZeroThenTwelveWithTheFileInPlace)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    const std::string name = "pub/" + std::string(251, 'x');
    std::atomic<bool> complete{false};
    ftp_test::SetHook(
        [&](const Notice& notice)
        {
            if (notice.type == TRAVEX_FTP_NOTIFY_SUCCESS)
            {
                complete = Content("v") == FaultyServer::Body(100000);
            }
        });
    const unsigned int task = Start(name, "v");
    EXPECT_EQ("0 12", ftp_test::OutcomeOf(task));
    EXPECT_TRUE(complete);
    for (const Notice& notice : Notices())
    {
        EXPECT_EQ(name, notice.file);
        EXPECT_NE(std::this_thread::get_id(), notice.thread);
    }
}

TEST_F(Contract, ParametersAreThoseOfTheCall)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    const unsigned int task = Start("f", "v");
    Use(Valid());  // port 2, on which nothing listens
    EXPECT_EQ("0 12", ftp_test::OutcomeOf(task));
    EXPECT_EQ("3 16/CONNECT/0 cannot connect: Connection refused", Fetch("f", "v"));
}

// The log line names the server, the reason does not.
TEST_F(Contract, AFailureHasOneLogLine)
{
    auto record = Valid();
    captured_log::Clear();
    Use(record);
    const unsigned int task = Start("pub/f", "v");
    EXPECT_EQ("3 16/CONNECT/0 cannot connect: Connection refused", ftp_test::OutcomeOf(task));
    EXPECT_EQ(1u, captured_log::CountWith("127.0.0.1:2: cannot connect: Connection refused (task " +
                                          std::to_string(task) + ", pub/f)"));
}

// A program may set limits at any time, for transfers that begin later.
TEST_F(Contract, LimitsAreSetAndReset)
{
    FaultyServer server("hang:USER");
    FaultyServer small("none", {"--size", "2000"});
    tagTRAVEX_FTP_S_LIMITS limits{};
    limits.ulResponseMs = 300;
    limits.ullFileBytes = 1999;
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(&limits));
    Use(RecordFor(server));
    EXPECT_EQ("3 22/LOGIN/0 no reply to USER within 0.3 s", Fetch("f", "v"));
    Use(RecordFor(small));
    EXPECT_EQ("3 24/RECEIVE/0 the file is larger than 1999 bytes", Fetch("f", "v"));
    limits.ullReplyBytes = 1500;
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(&limits));
    FaultyServer wordy("endless_line");
    Use(RecordFor(wordy));
    EXPECT_EQ("3 21/GREETING/0 the reply exceeds 1500 bytes", Fetch("f", "v"));
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(nullptr));
    Use(RecordFor(small));
    EXPECT_EQ("0 12", Fetch("f", "v"));
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(&limits)) << "works without Init";
    SetUp();
    Use(RecordFor(small));
    EXPECT_EQ("3 24/RECEIVE/0 the file is larger than 1999 bytes", Fetch("f", "v"));
}

TEST_F(Contract, EnormousLimitsWork)
{
    const ftp_test::Limits limits(
        [](auto& each)
        {
            each.ulConnectMs = each.ulHandshakeMs = each.ulResponseMs = each.ulStallMs = UINT_MAX;
            each.ulConfirmMs = each.ulTransferMs = each.ulIdleMs = each.ulObserveMs = UINT_MAX;
            each.ullFileBytes = each.ullReplyBytes = each.ullReplyLines = UINT64_MAX;
        });
    FaultyServer server("none", ftp_test::TlsOptions());
    Use(RecordFor(server, true));
    EXPECT_EQ("0 12", Fetch("f", "v"));
}

TEST_F(Contract, DirectoryIsRelativeToTheWorkDirectory)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    ASSERT_EQ(0, mkdir(m_directory.File("sub").c_str(), 0700));
    unsigned int task = 0;
    ASSERT_EQ(0u, TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "f", "sub", "v", Record));
    EXPECT_EQ("0 12", ftp_test::OutcomeOf(task));
    EXPECT_TRUE(support::FileExists(m_directory.File("sub/v")));
    support::TemporaryDirectory other;
    ASSERT_EQ(
        0u, TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "f", other.Path().c_str(), "v", nullptr));
    EXPECT_TRUE(WaitUntil([&] { return support::FileExists(other.File("v")); }));
}

TEST_F(Contract, ClosedHandleGetsNoNotification)
{
    FaultyServer server("stall");
    Use(RecordFor(server));
    (void)Start("f", "v");
    ASSERT_TRUE(WaitUntil([&] { return server.Count("DATA") == 1; }));
    EXPECT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
    EXPECT_TRUE(WaitUntil([&] { return server.Count("END") == 1; }));
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_TRUE(Notices().empty());
    EXPECT_FALSE(support::FileExists(m_directory.File("v")));
}

// A cancelled transfer does not proceed to the next step.
TEST_F(Contract, AfterCloseNoFileIsReplacedAndNoVerifyCallbackRuns)
{
    static std::atomic<int> s_asked{0};
    for (const bool tls : {false, true})
    {
        FaultyServer slow(tls ? "slow_handshake" : "slow_226 + taken", ftp_test::OptionsFor(tls));
        auto record = RecordFor(slow, tls);
        record.pfnFtpsVerify = [](void*, void*)
        {
            ++s_asked;
            return 0;
        };
        Use(record);
        support::WriteFile(m_directory.File("f"), "old");
        (void)Start("f", "f");
        // The client is in the handshake, or waits for the 226.
        ASSERT_TRUE(WaitUntil([&] { return slow.Count(tls ? "HELLO" : "TAKEN") == 1; }));
        ASSERT_EQ(0u, TRAVEX_FTP_CloseHandle(m_handle));
        ASSERT_TRUE(WaitUntil([&] { return slow.Count("END") == 1; }));
        EXPECT_EQ(tls ? 0u : 1u, slow.Count("COMMAND USER"));
        EXPECT_EQ(0, s_asked);
        ASSERT_EQ(0u, TRAVEX_FTP_UnInit());
        SetUp();
        EXPECT_EQ("old", Content("f"));
        EXPECT_TRUE(ftp_test::Notices().empty());
    }
}

TEST_F(Contract, HandleClosedBetweenTheTwoGetsNoTwelve)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    std::promise<unsigned int> closed;
    ftp_test::SetHook([&](const Notice&) { closed.set_value(TRAVEX_FTP_CloseHandle(m_handle)); });
    (void)Start("f", "v");
    EXPECT_EQ(0u, closed.get_future().get());
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    ASSERT_EQ(1u, Notices().size());
    EXPECT_EQ(0u, Notices()[0].type);
}

TEST_F(Contract, SlowCallbackStallsNoTransferAndUnInitWaitsForIt)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    std::promise<void> release;
    std::shared_future<void> released(release.get_future());
    std::atomic<bool> ended{false};
    std::atomic<bool> entered{false};
    ftp_test::SetHook(
        [&](const Notice&)
        {
            entered = true;
            released.wait();
            ended = true;
        });
    (void)Start("f", "one");
    ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
    (void)Start("f", "two");
    EXPECT_TRUE(WaitUntil([&] { return support::FileExists(m_directory.File("two")); }));
    auto stop = std::async(std::launch::async, [&] { return TRAVEX_FTP_UnInit(); });
    EXPECT_TRUE(WaitUntil([] { return TRAVEX_FTP_CreateHandle() == nullptr; }));
    EXPECT_FALSE(ended);
    release.set_value();
    EXPECT_EQ(0u, stop.get());
    EXPECT_TRUE(ended);
    EXPECT_EQ(1u, Notices().size());
}

TEST_F(Contract, StopAndStartInsideTheCallback)
{
    FaultyServer server("none");
    const auto record = RecordFor(server);
    Use(record);
    std::promise<unsigned int> second;
    ftp_test::SetHook(
        [&](const Notice& notice)
        {
            if (notice.file != "first" || notice.type != TRAVEX_FTP_NOTIFY_SUCCESS)
            {
                return;
            }
            EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
            EXPECT_EQ(nullptr, TRAVEX_FTP_CreateHandle());
            EXPECT_EQ(0u, TRAVEX_FTP_Init());
            m_handle = TRAVEX_FTP_CreateHandle();
            const tagTRAVEX_FTP_S_DATA_PARAM data{};
            EXPECT_EQ(0u, TRAVEX_FTP_SetDataParam(m_handle, &data));
            EXPECT_EQ(0u, TRAVEX_FTP_SetCtrlParam(m_handle, &record));
            second.set_value(Start("second", "two"));
        });
    (void)Start("first", "one");
    EXPECT_EQ("0 12", ftp_test::OutcomeOf(second.get_future().get()));
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_EQ(3u, Notices().size());  // the first task's 12 does not follow its stop
}

// A thread that sleeps until a change, as the service's worker does. Without a change it sleeps for
// a minute.
class SleeperWakes : public Contract, public testing::WithParamInterface<bool>
{
protected:
    static constexpr std::chrono::seconds kLongest{60};
    static constexpr std::chrono::seconds kNotLong{20};

    // Returns true when a change woke it.
    std::future<bool> StartSleeper()
    {
        const uint64_t seen = base::Changes::Get().Sleep(0, std::chrono::seconds(0), kLongest);
        return std::async(std::launch::async,
                          [seen]
                          {
                              const auto begin = base::Clock::now();
                              (void)base::Changes::Get().Sleep(seen, kLongest, kLongest);
                              return base::Clock::now() - begin < kNotLong;
                          });
    }
};

TEST_P(SleeperWakes, WhenACallbackHasReturned)
{
    FaultyServer server("none");
    Use(Parameters("127.0.0.1", server.Port(), m_directory.Path()));
    std::promise<void> entered;
    std::promise<void> release;
    std::promise<void> releaseLater;
    ftp_test::SetHook(
        [&](const Notice& notice)
        {
            if (notice.type != TRAVEX_FTP_NOTIFY_SUCCESS)
            {
                releaseLater.get_future().wait();
                return;
            }
            if (GetParam())
            {
                EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
            }
            entered.set_value();
            release.get_future().wait();
        });
    (void)Start("f", "one");
    entered.get_future().wait();
    std::future<bool> woken = StartSleeper();
    EXPECT_EQ(std::future_status::timeout, woken.wait_for(std::chrono::milliseconds(50)));
    release.set_value();
    EXPECT_TRUE(woken.get());
    releaseLater.set_value();
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
}

INSTANTIATE_TEST_SUITE_P(Layer, SleeperWakes, testing::Bool(),
                         [](const auto& test) { return test.param ? "Stopped" : "Running"; });

TEST_F(Contract, InitAndUnInitFromManyThreads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i != 8; ++i)
    {
        threads.emplace_back(
            []
            {
                for (int round = 0; round != 20; ++round)
                {
                    EXPECT_EQ(0u, TRAVEX_FTP_Init());
                    (void)TRAVEX_FTP_CloseHandle(TRAVEX_FTP_CreateHandle());
                    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(nullptr, TRAVEX_FTP_CreateHandle());
}

TEST_F(Contract, ChildOfAForkGetsCodes)
{
    FaultyServer server("none");
    Use(RecordFor(server));
    ASSERT_EQ("0 12", Fetch("f", "v"));
    const pid_t child = fork();
    if (child == 0)
    {
        unsigned int task = 0;
        const bool codes = TRAVEX_FTP_Init() == TRAVEX_FTP_ERR_SYSTEM &&
                           TRAVEX_FTP_CreateHandle() == nullptr &&
                           TRAVEX_FTP_AsynDownloadFile(m_handle, &task, "f", ".", "w", nullptr) ==
                               TRAVEX_FTP_ERR_SYSTEM &&
                           TRAVEX_FTP_CloseHandle(m_handle) == TRAVEX_FTP_ERR_SYSTEM &&
                           TRAVEX_FTP_UnInit() == TRAVEX_FTP_ERR_SYSTEM;
        _exit(codes ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ("0 12", Fetch("f", "v"));  // on the same connection
    EXPECT_EQ(1u, server.Count("CONNECT"));
}

// The verify callback runs on the transfer thread, during a transfer.
TEST(ContractExit, ProcessThatEndsWithinTheVerifyCallbackLeavesNoTemporaryFile)
{
    FaultyServer server("none", ftp_test::TlsOptions());
    support::TemporaryDirectory directory;
    const pid_t child = fork();
    if (child == 0)
    {
        (void)TRAVEX_FTP_Init();
        auto record = Parameters("127.0.0.1", server.Port(), directory.Path());
        record.ulServerType = 1;
        record.pfnFtpsVerify = [](void*, void*) -> int { std::exit(7); };
        (void)ftp_test::StartOn(ftp_test::HandleWith(record), "f", "v");
        (void)sleep(20);
        _exit(1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(7, WEXITSTATUS(status));
    EXPECT_THAT(support::FilesIn(directory.Path()), testing::IsEmpty());
}

// Concurrent starts, stops and closes: no thread is left running.
TEST(ContractRaces, StartsStopsAndClosesMayMeet)
{
    for (int round = 0; round != 300; ++round)
    {
        ASSERT_EQ(0u, TRAVEX_FTP_Init());
        support::TemporaryDirectory directory;
        const auto record = Parameters("127.0.0.1", 1, directory.Path());  // a closed port
        std::vector<TRAVEX_FTP_HANDLE> handles;
        for (int i = 0; i != 4; ++i)
        {
            const TRAVEX_FTP_HANDLE handle = ftp_test::HandleWith(record);
            unsigned int task = 0;
            ASSERT_EQ(0u, TRAVEX_FTP_AsynDownloadFile(handle, &task, "f", ".", "f", nullptr));
            handles.push_back(handle);
        }
        std::thread closer([&] { (void)TRAVEX_FTP_CloseHandle(handles[0]); });
        std::thread starter([] { EXPECT_EQ(0u, TRAVEX_FTP_Init()); });
        std::thread stopper([] { EXPECT_EQ(0u, TRAVEX_FTP_UnInit()); });
        EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
        closer.join();
        starter.join();
        stopper.join();
        EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    }
}

// The process exits within about a second, while transfers run and a callback does not return.
TEST(ContractExit, ProcessEndsWithoutAStop)
{
    FaultyServer server("stall");
    support::TemporaryDirectory directory;
    const pid_t child = fork();
    if (child == 0)
    {
        (void)TRAVEX_FTP_Init();
        auto record = Parameters("127.0.0.1", server.Port(), directory.Path());
        (void)ftp_test::StartOn(ftp_test::HandleWith(record), "f", "v");
        (void)WaitUntil([&] { return server.Count("DATA") == 1; });
        memset(record.aucServerIp, 0, sizeof record.aucServerIp);
        const TRAVEX_FTP_HANDLE other = ftp_test::HandleWith(record);
        static std::atomic<bool> entered{false};
        unsigned int task = 0;
        (void)TRAVEX_FTP_AsynDownloadFile(other, &task, "f", ".", "w",
                                          [](void*, tagTRAVEX_FTP_S_NOTIFY_DATA*)
                                          {
                                              entered = true;
                                              for (;;)
                                              {
                                                  (void)pause();
                                              }
                                          });
        (void)WaitUntil([] { return entered.load(); });
        std::exit(0);
    }
    int status = -1;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_TRUE(support::FilesIn(directory.Path()).empty());
}

}  // namespace
