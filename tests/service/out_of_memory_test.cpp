// Running out of memory: in each operation the Nth allocation fails, for N = 1, 2, ... until the
// operation makes fewer than N allocations. Counted are those of the standard containers, of malloc
// and of the layers. Each time the operation ends with a result, nothing leaks, and the object can
// be used.
#include <algorithm>

#include "files.h"
#include "memory.h"
#include "service_test.h"

using memory::Failing;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class OutOfMemoryTest : public ServiceTest, public testing::WithParamInterface<Failing>
{
protected:
    void SetUp() override
    {
        support::WriteFile(directory.File("a version file with a long name"), "2.0.0 of today\n");
        stInfo = LongRequest();
    }

    // Texts of more than 15 bytes are on the heap, so that each copy is an allocation.
    tag_CORPDIR_DOWNLOADINFO LongRequest()
    {
        tag_CORPDIR_DOWNLOADINFO stLong = ARequest();
        SetField(stLong.szFtpCtrlInfo, "ca=/etc/certificates/of/the/company.pem");
        SetField(stLong.szUserName, "a user with a rather long name");
        SetField(stLong.szPassword, "a password of more than thirty-two characters");
        SetField(stLong.szVersionServerFile, "a/version/file/far/down/version.txt");
        SetField(stLong.szCorpDirServerFile, "a/directory/file/far/down/directory.xml");
        SetField(stLong.szVersionLocalDir, directory.Path());
        SetField(stLong.szVersionLocalFileName, "a version file with a long name");
        SetField(stLong.szCorpDirLocalDir, "/a/local/directory/with/a/long/name");
        SetField(stLong.szCorpDirLocalFileName, "a directory file with a long name");
        stLong.pszFtpIPs =
            "first.server.example.test;second.server.example.test;third.example.test";
        stLong.pszLocalIP = "2001:db8:1111:2222:3333:4444:5555:6666";
        return stLong;
    }

    // Runs prepare on a new service, then the operation with the Nth allocation failing, then check
    // with the operation's result; for N = 1, 2, ... until no allocation fails.
    template <class Prepare, class Operation, class Check>
    void CountUp(Prepare prepare, Operation operation, Check check)
    {
        bool bFailed = true;
        unsigned int ulNth = 1;
        for (; bFailed; ++ulNth)
        {
            const long lBefore = memory::LiveBlocks();
            RenewAndForget();
            prepare();
            memory::StartCounting(ulNth, GetParam());
            const unsigned int ulRet = operation();
            bFailed = memory::StopCounting();
            check(ulRet, bFailed);
            ExpectUsable();
            RenewAndForget();
            ASSERT_EQ(memory::LiveBlocks(), lBefore) << "a leak with allocation " << ulNth;
            ASSERT_LT(ulNth, 500U);
        }
        ulFailed = ulNth - 2;
    }

    void RenewAndForget()
    {
        Renew();
        fakes::TakeMisuses();  // a failed start leaves released values on purpose
        Trace();
        Logged();
    }

    void ExpectUsable()
    {
        client.CorpDirUninit();
        fakes::TakeMisuses();
        EXPECT_EQ(fakes::LiveTimers(), 0U);
        EXPECT_EQ(fakes::LiveFtpHandles(), 0U);
        EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
        EXPECT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
        EXPECT_NE(members.m_ulVersionTaskID, 0U);
        EXPECT_THAT(fakes::TakeMisuses(), IsEmpty());
    }

    // The same for the delivery of a notification.
    template <class Prepare, class Check>
    void CountUpDelivery(Notification& notification, Prepare prepare, Check check)
    {
        CountUp(
            [&]
            {
                StartRequest();
                prepare();
            },
            [&]
            {
                notification.Deliver();
                return 0U;
            },
            [&](unsigned int, bool bFailed) { check(bFailed); });
    }

    void StartRequest()
    {
        ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
        ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
        Trace();
        Logged();
    }

    // An operation that needs memory was made to fail at least once.
    void TearDown() override
    {
        EXPECT_EQ(ulFailed > 0, bNeedsMemory);
        ServiceTest::TearDown();
    }

    support::TemporaryDirectory directory;
    tag_CORPDIR_DOWNLOADINFO stInfo = {};
    unsigned int ulFailed = 0;  // how often the operation was made to fail
    bool bNeedsMemory = true;
};

void Nothing() {}

}  // namespace

namespace memory
{

static void PrintTo(Failing eFailing, std::ostream* pStream)
{
    *pStream << (eFailing == Failing::One ? "one allocation fails" : "all fail from then on");
}

}  // namespace memory

INSTANTIATE_TEST_SUITE_P(Failing, OutOfMemoryTest, testing::Values(Failing::One, Failing::Rest),
                         [](const auto& instance) {
                             return instance.param == Failing::One ? "OneAllocation"
                                                                   : "AllFromThenOn";
                         });

TEST_P(OutOfMemoryTest, AStartGivesOneAndCanBeTriedAgain)
{
    CountUp(
        Nothing, [&] { return client.CorpDirInit(&stLogInfo); },
        [&](unsigned int ulRet, bool bFailed) { EXPECT_EQ(ulRet, bFailed ? 1U : 0U); });
}

TEST_P(OutOfMemoryTest, ARequestGivesOneOrGoesOnWithoutItsTimer)
{
    CountUp([&] { ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U); },
            [&] { return client.CorpDirDownloadNetaddr(&stInfo, ClientCallback); },
            [&](unsigned int ulRet, bool bFailed)
            {
                // The cipher list's copy and the timer are not needed for a start.
                const bool bSpared = members.m_pDownVersionTimer == nullptr ||
                                     g_stFtpCiperList.piCipherList == nullptr;
                EXPECT_TRUE(ulRet == 1 || (ulRet == 0 && (!bFailed || bSpared))) << ulRet;
                EXPECT_TRUE(ulRet != 0 || members.m_ulVersionTaskID != 0);
            });
}

TEST_P(OutOfMemoryTest, ARequestWithoutAStartMakesItsHandleOrGivesOne)
{
    CountUp(
        Nothing, [&] { return client.CorpDirDownloadNetaddr(&stInfo, ClientCallback); },
        [&](unsigned int ulRet, bool bFailed)
        {
            EXPECT_LE(ulRet, 1U);
            EXPECT_TRUE(ulRet == 1 || members.m_hFtpHandle != nullptr);
            EXPECT_TRUE(bFailed || ulRet == 0);
        });
}

TEST_P(OutOfMemoryTest, ADownloadCountsAsAStartThatFailed)
{
    for (const auto Download : {inside::VersionDownload, inside::CorpDirDownload})
    {
        CountUp([&] { StartRequest(); }, [&] { return Download(service); },
                [&](unsigned int ulRet, bool bFailed) { EXPECT_EQ(ulRet, bFailed ? 1U : 0U); });
    }
}

TEST_P(OutOfMemoryTest, TheWorkerLogsAStartThatFailedAndTakesTheNextTask)
{
    CountUp(
        [&]
        {
            StartRequest();
            AddTask(1);
            AddTask(2);
        },
        [&] { return RunWorkerUntilIdle(); },
        [&](unsigned int ulRet, bool bFailed)
        {
            EXPECT_EQ(ulRet, 0U);
            const Lines vecLogged = Logged();
            EXPECT_THAT(Only(vecLogged, {"2 ThreadProcess: Thread download"}),
                        ElementsAre("2 ThreadProcess: Thread download type : 1",
                                    "2 ThreadProcess: Thread download type : 2"));
            const Lines vecErrors = Only(vecLogged, {"0 ThreadProcess"});
            EXPECT_EQ(vecErrors.empty(), !bFailed);
            for (const std::string& strError : vecErrors)
            {
                EXPECT_TRUE(strError == "0 ThreadProcess: VersionDownload failed : 1" ||
                            strError == "0 ThreadProcess: CorpDirDownload failed : 1");
            }
            EXPECT_EQ(members.m_hFtpHandle, nullptr) << "the worker closes it on its way out";
        });
}

TEST_P(OutOfMemoryTest, ATimerExpiryIsDropped)
{
    CountUp([&] { StartRequest(); },
            [&]
            {
                inside::TimerCallback()(&service);
                return 0U;
            },
            [&](unsigned int, bool bFailed) { EXPECT_EQ(Tasks().size(), bFailed ? 0U : 1U); });
}

TEST_P(OutOfMemoryTest, ASuccessNotificationNeedsNoMemory)
{
    bNeedsMemory = false;
    Notification notification(SUCCESS, 1, "a/version/file/far/down/version.txt");
    CountUpDelivery(notification, Nothing, [&](bool) { EXPECT_EQ(Logged().size(), 2U); });
}

TEST_P(OutOfMemoryTest, AVersionThatArrivesIsDroppedAndFoundAgainByTheNextCheck)
{
    Notification notification(OVER, 0, "a/version/file/far/down/version.txt");
    unsigned int ulNotQueued = 0;
    CountUpDelivery(
        notification, [&] { notification.stRecord.ulTaskID = members.m_ulVersionTaskID; },
        [&](bool bFailed)
        {
            // The version counts as accepted only together with its task.
            EXPECT_EQ(Tasks().size(), members.m_strOldVersion == "2.0.0 of today" ? 1U : 0U);
            EXPECT_TRUE(bFailed || Tasks().size() == 1);
            // A valid version refills the working list, even when its task could not be queued.
            const bool bValid =
                !Only(Logged(), {"2 VersionDownloadOver: Thread add corpdir download. "}).empty();
            EXPECT_EQ(members.m_strIPs == members.m_strAllIPs, bValid);
            ulNotQueued += bValid && Tasks().empty() ? 1 : 0;
            notification.stRecord.ulTaskID = members.m_ulVersionTaskID;
            notification.Deliver();
            EXPECT_THAT(Tasks(), ElementsAre(2));
        });
    EXPECT_EQ(ulNotQueued, 1U);
}

TEST_P(OutOfMemoryTest, ADirectoryThatArrivesIsReportedToTheClientOnce)
{
    Notification notification(OVER, 0, "a/directory/file/far/down/directory.xml");
    CountUpDelivery(
        notification,
        [&]
        {
            ASSERT_EQ(inside::CorpDirDownload(service), 0U);
            notification.stRecord.ulTaskID = members.m_ulCorpDirTaskID;
            Trace();
        },
        [&](bool)
        { EXPECT_THAT(Only(Trace(), {"client"}), ElementsAre("client(1, 0, null, null)")); });
}

TEST_P(OutOfMemoryTest, AFailureIsReportedToTheClientOnce)
{
    Notification notification(FAILED, 0, "a/version/file/far/down/version.txt");
    notification.WithError(16);
    CountUpDelivery(
        notification, [&] { notification.stRecord.ulTaskID = members.m_ulVersionTaskID; },
        [&](bool bFailed)
        {
            EXPECT_THAT(Only(Trace(), {"client"}), ElementsAre("client(1, 1, null, null)"));
            EXPECT_EQ(Tasks().size(), bFailed ? 0U : 1U);
        });
}

TEST_P(OutOfMemoryTest, ARefillIsDroppedOrDone)
{
    Notification notification(FAILED, 7, "a/version/file/far/down/version.txt");
    CountUpDelivery(
        notification,
        [&]
        {
            members.m_strIPs.clear();
            members.m_strIPs.shrink_to_fit();
        },
        [&](bool bFailed)
        {
            EXPECT_THAT(Only(Trace(), {"client"}), ElementsAre("client(1, 1, null, null)"));
            EXPECT_TRUE(bFailed || members.m_strFtpIP == "first.server.example.test");
            EXPECT_THAT(Tasks(), IsEmpty());
        });
}

TEST_P(OutOfMemoryTest, ReplacingTheCipherListGivesACode)
{
    const int aiList[] = {1, 2, 3};
    CountUp(
        Nothing, [&] { return client.CorpDirSetFtpCipherListToDirImpl(aiList, 3); },
        [&](unsigned int ulRet, bool bFailed) { EXPECT_EQ(ulRet != 0, bFailed); });
}

TEST_P(OutOfMemoryTest, AddingToTheCipherListGivesOneAndCanBeTriedAgain)
{
    const int aiList[] = {1, 2};
    CountUp(
        Nothing, [&] { return client.CorpDirAddFtpCipherListToDirImpl(aiList, 2); },
        [&](unsigned int ulRet, bool bFailed)
        {
            EXPECT_EQ(ulRet, bFailed ? 1U : 0U);
            EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImpl(aiList, 2), 0U);
            EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 5U);
        });
}

// A stop needs no memory at all: with every allocation failing it does its whole work.
TEST_P(OutOfMemoryTest, AStopNeedsNoMemory)
{
    bNeedsMemory = false;
    StartRequest();
    memory::StartCounting(1, Failing::Rest);
    client.CorpDirUninit();
    EXPECT_FALSE(memory::StopCounting());
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_EQ(members.m_strUserName, "");
}
