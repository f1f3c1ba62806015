// Start and stop: the order of their steps, the values that each failure leaves, a second start,
// and a stop beside the worker and notifications.
#include <atomic>
#include <thread>

#include "service_test.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

class StartTest : public ServiceTest
{
};

class StopTest : public ServiceTest
{
};

}  // namespace

// --- Start --------------------------------------------------------------------------------------

TEST_F(StartTest, BringsLogLibraryHandleMutexAndWorkerUp)
{
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1));
    EXPECT_NE(members.m_hMutex, nullptr);
    EXPECT_EQ(fakes::LiveMemory(), 72U);
    EXPECT_NE(inside::WorkerThread(), nullptr);
    EXPECT_EQ(inside::WorkerRunFlag(), 1U);
}

TEST_F(StartTest, HandsTheLogSettingsThroughUnread)
{
    EXPECT_EQ(client.CorpDirInit(nullptr), 0U);
    EXPECT_THAT(Only(Trace(), {"CorpDir_OpenLog"}), ElementsAre("CorpDir_OpenLog(null)"));
}

TEST_F(StartTest, GivesTheLogsOwnCodeAndCallsNothingElseWhenTheLogDoesNotOpen)
{
    for (const int iCode : {5, -2})
    {
        fakes::FailCall("CorpDir_OpenLog", 1, static_cast<unsigned int>(iCode));
        EXPECT_EQ(client.CorpDirInit(&stLogInfo), static_cast<unsigned int>(iCode));
        const std::string strCode = std::to_string(iCode);
        EXPECT_THAT(Trace(),
                    ElementsAre("enter CorpDirInit", "CorpDir_OpenLog(loginfo) = " + strCode,
                                "log 0 CorpDirInit: Openlog failed : " + strCode + "0",
                                "leave CorpDirInit"));
    }
}

TEST_F(StartTest, ClosesTheLogWhenTheLibraryDoesNotStart)
{
    fakes::FailCall("TRAVEX_FTP_Init", 1, 0xFFFFFFFF);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 1U);
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_THAT(Trace(), ElementsAre("enter CorpDirInit", "CorpDir_OpenLog(loginfo)",
                                     "log 2 CorpDirInit: built date: Feb 03 2004, 05:06:07",
                                     "log 2 CorpDirInit: built at svn version :35197",
                                     "TRAVEX_FTP_Init() = -1",
                                     "log 0 CorpDirInit: ftp init fail, ret:4294967295",
                                     "CorpDir_CloseLog()", "leave CorpDirInit"));
}

TEST_F(StartTest, TakesTheLibraryDownAgainWhenThereIsNoHandle)
{
    fakes::FailCall("TRAVEX_FTP_CreateHandle", 1, 1);
    fakes::FailCall("TRAVEX_FTP_UnInit", 1, 0xFFFFFFFF);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 1U);
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_EQ(members.m_hMutex, nullptr);
    EXPECT_THAT(TraceFrom(6), ElementsAre("TRAVEX_FTP_CreateHandle() = 1",
                                          "log 0 CorpDirInit: TRAVEX_FTP_CreateHandle fail !",
                                          "TRAVEX_FTP_UnInit() = -1",
                                          "log 2 CorpDirInit: ftp uninit ret:4294967295",
                                          "CorpDir_CloseLog()", "leave CorpDirInit"));
}

TEST_F(StartTest, ClosesTheHandleButKeepsItsValueWhenThereIsNoMutexStorage)
{
    fakes::FailCall("OSAK_MemMallocD", 1, 1);
    fakes::FailCall("TRAVEX_FTP_CloseHandle", 1, 0xFFFFFFFF);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 1U);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1));
    EXPECT_EQ(members.m_hMutex, nullptr);
    EXPECT_EQ(inside::WorkerThread(), nullptr);
    EXPECT_EQ(inside::WorkerRunFlag(), 0U);
    EXPECT_EQ(fakes::LiveFtpHandles(), 0U);
    EXPECT_THAT(TraceFrom(8),
                ElementsAre("OSAK_MemMallocD(72) = 1", "log 0 CorpDirInit: Metex create failed. ",
                            "TRAVEX_FTP_CloseHandle(ftp 1) = -1",
                            "log 2 CorpDirInit: TRAVEX_FTP_CloseHandle Ret : -1",
                            "TRAVEX_FTP_UnInit()", "log 2 CorpDirInit: ftp uninit ret:0",
                            "CorpDir_CloseLog()", "leave CorpDirInit"));
}

TEST_F(StartTest, KeepsTheClosedHandleAndTheReleasedMutexWhenThereIsNoThread)
{
    fakes::FailCall("OSAK_PthreadCreate", 1, 11);
    fakes::FailCall("OSAK_MutexDestroy", 1, 3);
    fakes::FailCall("TRAVEX_FTP_CloseHandle", 1, 0xFFFFFFFF);
    OSAK_MUTEX* hMutex = nullptr;
    fakes::OnCall("OSAK_MutexInitRecursive", 1, [&] { hMutex = members.m_hMutex; });
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 1U);
    EXPECT_NE(hMutex, nullptr);
    EXPECT_EQ(members.m_hMutex, hMutex);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1));
    EXPECT_EQ(fakes::LiveMemory(), 0U);
    EXPECT_EQ(inside::WorkerThread(), nullptr);
    EXPECT_EQ(inside::WorkerRunFlag(), 0U);
    EXPECT_THAT(TraceFrom(10),
                ElementsAre("OSAK_PthreadCreate(g_stThread, null, ThreadProcess, null) = 11",
                            "log 0 CorpDirInit: OSAK_PthreadCreate fail !",
                            "OSAK_MutexDestroy(block 1) = 3", "OSAK_MemFreeD(block 1)",
                            "TRAVEX_FTP_CloseHandle(ftp 1) = -1",
                            "log 2 CorpDirInit: TRAVEX_FTP_CloseHandle Ret : -1",
                            "TRAVEX_FTP_UnInit()", "log 2 CorpDirInit: ftp uninit ret:0",
                            "CorpDir_CloseLog()", "leave CorpDirInit"));
    members.m_hMutex = nullptr;  // the destructor would release it again
}

TEST_F(StartTest, AfterAFailedThreadANewStartKeepsTheClosedHandleAndReplacesTheMutex)
{
    fakes::FailCall("OSAK_PthreadCreate", 1, 11);
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 1U);
    Trace();
    Logged();
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1)) << "no second handle";
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_CreateHandle"), 1U);
    EXPECT_THAT(Logged(), ElementsAre("2 CorpDirInit: built date: Feb 03 2004, 05:06:07",
                                      "2 CorpDirInit: built at svn version :35197",
                                      "2 CorpDirInit: ftp init OK!",
                                      "0 CorpDirInit: Mutex existed, it will be destoried.",
                                      "2 CorpDirInit: Thread Process Runing: 1",
                                      "2 CorpDirInit: CorpDirInit OK, Thread Handle: 0x7001"));
    EXPECT_THAT(fakes::TakeMisuses(), ElementsAre("OSAK_MutexDestroy of a mutex that is not live",
                                                  "OSAK_MemFreeD of a block that is not live"));
}

TEST_F(StartTest, AStopAfterAFailedStartMakesTheNextStartAFullOne)
{
    fakes::FailCall("OSAK_PthreadCreate", 1, 11);
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 1U);
    client.CorpDirUninit();
    fakes::TakeMisuses();
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_EQ(members.m_hMutex, nullptr);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(2));
    EXPECT_EQ(fakes::LiveFtpHandles(), 1U);
}

TEST_F(StartTest, IgnoresAMutexThatDoesNotInitialise)
{
    fakes::FailCall("OSAK_MutexInitRecursive", 1, 7);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
}

TEST_F(StartTest, DropsQueuedTasksBetweenTheMutexAndTheWorker)
{
    AddTask(1);
    AddTask(2);
    std::vector<unsigned int> vecAtMutex;
    std::vector<unsigned int> vecAtThread = {9};
    fakes::OnCall("OSAK_MutexInitRecursive", 1, [&] { vecAtMutex = Tasks(); });
    fakes::OnCall("OSAK_PthreadCreate", 1, [&] { vecAtThread = Tasks(); });
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_THAT(vecAtMutex, ElementsAre(1, 2));
    EXPECT_THAT(vecAtThread, IsEmpty());
}

TEST_F(StartTest, TwiceGivesOneHandleOneThreadAndANewMutex)
{
    Start();
    AddTask(1);
    OSAK_MUTEX* const hFirst = members.m_hMutex;
    fakes::OnCall("OSAK_MemMallocD", 1,
                  [&] { EXPECT_EQ(members.m_hMutex, nullptr) << "the old one is forgotten"; });
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_NE(members.m_hMutex, hFirst);
    EXPECT_EQ(inside::WorkerRunFlag(), 1U);
    EXPECT_THAT(Tasks(), IsEmpty());
    EXPECT_EQ(fakes::Calls("OSAK_PthreadCreate"), 1U);
    EXPECT_EQ(fakes::LiveFtpHandles(), 1U);
    EXPECT_EQ(fakes::LiveMemory(), 72U);
    EXPECT_THAT(Trace(),
                ElementsAre("enter CorpDirInit", "CorpDir_OpenLog(loginfo)",
                            "log 2 CorpDirInit: built date: Feb 03 2004, 05:06:07",
                            "log 2 CorpDirInit: built at svn version :35197", "TRAVEX_FTP_Init()",
                            "log 2 CorpDirInit: ftp init OK!",
                            "log 0 CorpDirInit: Mutex existed, it will be destoried.",
                            "OSAK_MutexDestroy(block 1)", "OSAK_MemFreeD(block 1)",
                            "OSAK_MemMallocD(72)", "OSAK_MutexInitRecursive(block 2, null)",
                            "log 2 CorpDirInit: CorpDirInit OK, Thread Handle: 0x7001",
                            "leave CorpDirInit"));
}

TEST_F(StartTest, AWorkerThatRunsAtOnceOrLateKeepsTheStart)
{
    for (const fakes::WorkerMode eMode : {fakes::WorkerMode::Stepped, fakes::WorkerMode::Late})
    {
        fakes::SetWorkerMode(eMode);
        EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
        const TRAVEX_FTP_HANDLE hFtp = members.m_hFtpHandle;
        if (eMode == fakes::WorkerMode::Late)
        {
            fakes::StartLateWorker();
        }
        EXPECT_TRUE(fakes::StepWorker()) << "the worker has ended";
        EXPECT_EQ(fakes::LiveFtpHandles(), 1U);
        EXPECT_EQ(members.m_hFtpHandle, hFtp);
        client.CorpDirUninit();
    }
}

TEST_F(StartTest, AWorkerThatRunsOnlyAfterTheStopEndsAtOnce)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Late);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    client.CorpDirUninit();
    EXPECT_EQ(fakes::LiveFtpHandles(), 0U);
    EXPECT_EQ(fakes::Calls("usleep"), 0U);
}

// --- Stop ---------------------------------------------------------------------------------------

TEST_F(StopTest, LeavesNothingOfARequestButTrustTextNumbersAndCallback)
{
    Start();
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    stInfo.ulPort = 2121;
    stInfo.ulFtpMode = 3;
    stInfo.ulCertVerify = 1;
    stInfo.pszFtpIPs = "192.0.2.1;192.0.2.2";
    stInfo.pszLocalIP = "192.0.2.99";
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
    members.m_strOldVersion = "1.2.3";
    members.m_ulCorpDirTaskID = 5;
    AddTask(1);
    client.CorpDirUninit();

    EXPECT_THAT(RequestTexts(members), Each(""));
    EXPECT_EQ(members.m_strFtpCtrlInfo, "ca=/etc/ca.pem");
    EXPECT_EQ(members.m_ulPort, 2121U);
    EXPECT_EQ(members.m_ulFtpMode, 3U);
    EXPECT_EQ(members.m_ulCertVerify, 1U);
    EXPECT_EQ(members.m_pfnDownloadCb, ClientCallback);

    EXPECT_EQ(inside::WorkerThread(), nullptr);
    EXPECT_EQ(inside::WorkerRunFlag(), 0U);
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_EQ(members.m_hMutex, nullptr);
    EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
    EXPECT_EQ(members.m_pucPassword, nullptr);
    EXPECT_EQ(members.m_ulVersionTaskID, 0U);
    EXPECT_EQ(members.m_ulCorpDirTaskID, 0U);
    EXPECT_THAT(members.m_aucKey, Each(0));
    EXPECT_THAT(members.m_aucIV, Each(0));
    EXPECT_THAT(Tasks(), IsEmpty());
    EXPECT_EQ(fakes::LiveMemory(), 0U);
    EXPECT_EQ(fakes::LiveFtpHandles(), 0U);
    EXPECT_EQ(fakes::LiveTimers(), 0U);
}

TEST_F(StopTest, WithoutAStartJoinsNothingButStillStopsLibraryAndLog)
{
    client.CorpDirUninit();
    EXPECT_THAT(
        Trace(),
        ElementsAre(
            "enter CorpDirUninit", "log 2 CorpDirUninit: DownVersionTimer is freed.",
            "log 2 CorpDirUninit: ThreadRuning: 0", "log 2 CorpDirUninit: OSAK_PthreadJoin:(nil)",
            "zep_memset_s(m_aucKey, 32, 0, 32)", "zep_memset_s(m_aucIV, 16, 0, 16)",
            "TRAVEX_FTP_UnInit()", "log 2 CorpDirUninit: ftp uninit ret:0",
            "log 2 CorpDirUninit: before close log.", "CorpDir_CloseLog()", "leave CorpDirUninit"));
}

TEST_F(StopTest, LeavesTheHandleOpenWhenTheWorkerCannotBeJoined)
{
    Start();
    fakes::FailCall("OSAK_PthreadJoin", 1, 0xFFFFFFFF);
    client.CorpDirUninit();
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1));
    EXPECT_EQ(fakes::LiveFtpHandles(), 1U);
    EXPECT_EQ(inside::WorkerThread(), nullptr);
    EXPECT_EQ(members.m_hMutex, nullptr);
    EXPECT_THAT(Only(Logged(), {"2 CorpDirUninit: OSAK_PthreadJoin Ret"}),
                ElementsAre("2 CorpDirUninit: OSAK_PthreadJoin Ret : -1"));
}

TEST_F(StopTest, ClosesAHandleThatNoWorkerHasClosed)
{
    StartWithRequest();
    client.CorpDirUninit();
    // A request without a start makes a handle of its own, and there is no worker to close it.
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
    Trace();
    fakes::FailCall("TRAVEX_FTP_CloseHandle", 1, 0xFFFFFFFF);
    client.CorpDirUninit();
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_THAT(Only(Trace(), {"log 2 CorpDirUninit: OSAK_PthreadJoin", "TRAVEX_FTP_CloseHandle",
                               "log 2 CorpDirUninit: TRAVEX_FTP_CloseHandle"}),
                ElementsAre("log 2 CorpDirUninit: OSAK_PthreadJoin:(nil)",
                            "TRAVEX_FTP_CloseHandle(ftp 2) = -1",
                            "log 2 CorpDirUninit: TRAVEX_FTP_CloseHandle Ret : -1"));
}

TEST_F(StopTest, LogsWhatItDoesNotReport)
{
    Start();
    fakes::FailCall("OSAK_MutexDestroy", 1, 0xFFFFFFFF);
    fakes::FailCall("TRAVEX_FTP_UnInit", 1, 0xFFFFFFFF);
    client.CorpDirUninit();
    EXPECT_THAT(Only(Logged(), {"2 CorpDirUninit: OSAK_MutexDestroy", "2 CorpDirUninit: ftp"}),
                ElementsAre("2 CorpDirUninit: OSAK_MutexDestroy Ret : -1",
                            "2 CorpDirUninit: ftp uninit ret:4294967295"));
    EXPECT_EQ(fakes::LiveMemory(), 0U) << "the storage is released anyway";
}

namespace
{

class ReleaseObserver : public CFTPCorpDirImpl
{
public:
    void freeFtpCipherList() override
    {
        fakes::Note("freeFtpCipherList of the derived class");
    }
};

}  // namespace

TEST_F(StopTest, ReleasesTheCipherListThroughTheVirtualTable)
{
    ReleaseObserver observer;
    Trace();
    observer.CorpDirUninit();
    EXPECT_THAT(Only(Trace(), {"freeFtp", "TRAVEX"}),
                ElementsAre("freeFtpCipherList of the derived class", "TRAVEX_FTP_UnInit()"));
}

TEST_F(StopTest, FreesTheTimerThenForgetsBothTasksThenJoinsTheWorkerThenClearsTheRequest)
{
    StartWithRequest();
    members.m_ulCorpDirTaskID = 5;
    const auto Expect = [&](unsigned int ulFlag, unsigned int ulVersion, unsigned int ulCorpDir)
    {
        EXPECT_EQ(inside::WorkerRunFlag(), ulFlag);
        EXPECT_EQ(members.m_ulVersionTaskID, ulVersion);
        EXPECT_EQ(members.m_ulCorpDirTaskID, ulCorpDir);
        EXPECT_EQ(members.m_strUserName, "alice");
    };
    fakes::OnCall("OSAK_FreeRelTimer", 1, [&] { Expect(1, 1, 5); });
    fakes::OnCall("OSAK_PthreadJoin", 1, [&] { Expect(0, 0, 0); });
    fakes::OnCall("TRAVEX_FTP_CloseHandle", 1, [&] { Expect(0, 0, 0); });
    client.CorpDirUninit();
}

TEST_F(StopTest, ATimerThatDoesNotFreeIsForgottenAnyway)
{
    StartWithRequest();
    fakes::FailCall("OSAK_FreeRelTimer", 1, 5);
    client.CorpDirUninit();
    EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
    EXPECT_EQ(members.m_strUserName, "");
    EXPECT_THAT(
        Only(Procedure(Trace()), {"OSAK_", "TRAVEX_", "free(", "zep_memset_s", "CorpDir_"}),
        ElementsAre("OSAK_FreeRelTimer(timer 1) = 5", "OSAK_PthreadJoin(thread 1, null)",
                    "TRAVEX_FTP_CloseHandle(ftp 1)", "free(malloced)",
                    "zep_memset_s(m_aucKey, 32, 0, 32)", "zep_memset_s(m_aucIV, 16, 0, 16)",
                    "OSAK_MutexDestroy(block 1)", "OSAK_MemFreeD(block 1)",
                    "OSAK_MemFreeSetNullD(block 2)", "TRAVEX_FTP_UnInit()", "CorpDir_CloseLog()"));
}

TEST_F(StopTest, ReleasesUserNamePasswordKeyTextsQueueMutexAndCipherListInThisOrder)
{
    StartWithRequest();
    fakes::OnCall("free", 1,
                  [&]
                  {
                      EXPECT_EQ(members.m_strUserName, "");
                      EXPECT_THAT(members.m_aucKey, Not(Each(0)));
                  });
    fakes::OnCall("zep_memset_s", 1, [&] { EXPECT_EQ(members.m_pucPassword, nullptr); });
    fakes::OnCall("zep_memset_s", 2,
                  [&]
                  {
                      EXPECT_THAT(members.m_aucKey, Each(0));
                      EXPECT_THAT(members.m_aucIV, Not(Each(0)));
                      EXPECT_EQ(members.m_strFtpIP, "192.0.2.1");
                      EXPECT_EQ(members.m_strCorpDirFileName, "directory.local");
                      AddTask(1);  // the worker has emptied the queue
                  });
    fakes::OnCall("OSAK_MutexDestroy", 1,
                  [&]
                  {
                      EXPECT_EQ(members.m_strFtpIP, "");
                      EXPECT_EQ(members.m_strCorpDirFileName, "");
                      EXPECT_TRUE(members.m_listThreadPro.empty());
                      EXPECT_NE(members.m_hMutex, nullptr);
                      EXPECT_NE(g_stFtpCiperList.piCipherList, nullptr);
                  });
    fakes::OnCall("OSAK_MemFreeSetNullD", 1, [&] { EXPECT_EQ(members.m_hMutex, nullptr); });
    fakes::OnCall("TRAVEX_FTP_UnInit", 1,
                  [] { EXPECT_EQ(g_stFtpCiperList.piCipherList, nullptr); });
    client.CorpDirUninit();
}

// The worker is inside the library, starting a queued download; one more task is queued.
TEST_F(StopTest, WaitsForADownloadThatIsBeingStarted)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Free);
    StartWithRequest();
    std::atomic<bool> bStarting{false};
    std::atomic<bool> bMayGoOn{false};
    std::atomic<bool> bJoining{false};
    std::atomic<bool> bStopped{false};
    fakes::OnCall("TRAVEX_FTP_AsynDownloadFile", 1,
                  [&]
                  {
                      bStarting = true;
                      Await([&] { return bMayGoOn.load(); });
                  });
    fakes::OnCall("OSAK_PthreadJoin", 1, [&] { bJoining = true; });
    AddTask(1);
    AddTask(1);
    Await([&] { return bStarting.load(); });
    std::thread stopper(
        [&]
        {
            client.CorpDirUninit();
            bStopped = true;
        });
    Await([&] { return bJoining || bStopped; });
    EXPECT_FALSE(bStopped);
    EXPECT_EQ(members.m_strUserName, "alice");
    EXPECT_NE(members.m_pucPassword, nullptr);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1));
    bMayGoOn = true;
    stopper.join();
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 2U) << "the request's and one more";
    EXPECT_EQ(members.m_ulVersionTaskID, 0U);
    EXPECT_EQ(members.m_strUserName, "");
}

// --- Stop and notifications ---------------------------------------------------------------------

// Another thread is inside the client's callback. The stop waits until the test lets that thread
// out, and only then clears the request.
TEST_F(StopTest, WaitsForANotificationInsideTheServiceBeforeItClearsTheRequest)
{
    StartWithRequest();
    std::atomic<bool> bInside{false};
    std::atomic<bool> bMayLeave{false};
    std::atomic<bool> bLeft{false};
    fakes::OnCall("client", 1,
                  [&]
                  {
                      bInside = true;
                      Await([&] { return bMayLeave.load(); });
                      bLeft = true;
                  });
    std::thread notifier([] { Notification(FAILED, 1, "other").Deliver(); });
    Await([&] { return bInside.load(); });
    fakes::OnCall("usleep", 3,
                  [&]
                  {
                      EXPECT_EQ(members.m_strUserName, "alice");
                      EXPECT_NE(members.m_pucPassword, nullptr);
                      EXPECT_NE(members.m_hMutex, nullptr);
                      EXPECT_EQ(members.m_hFtpHandle, nullptr) << "the handle is closed before";
                      EXPECT_EQ(inside::WorkerThread(), nullptr) << "the join comes before";
                      EXPECT_FALSE(bLeft);
                      bMayLeave = true;
                  });
    client.CorpDirUninit();
    EXPECT_TRUE(bLeft);
    EXPECT_EQ(members.m_strUserName, "");
    notifier.join();
}

// The library may have begun it before the handle was closed.
TEST_F(StopTest, ANotificationThatComesWhileTheRequestIsClearedIsDropped)
{
    StartWithRequest("192.0.2.1;192.0.2.2");
    for (const char* const pszStep : {"zep_memset_s", "OSAK_MutexDestroy", "TRAVEX_FTP_UnInit"})
    {
        fakes::OnCall(pszStep, 1, [] { Notification(FAILED, 1, "pub/version.txt").Deliver(); });
    }
    client.CorpDirUninit();
    EXPECT_THAT(Only(Trace(), {"client", "log 2 DownloadCallback", "log 0"}), IsEmpty());
    EXPECT_THAT(Tasks(), IsEmpty());
    EXPECT_EQ(members.m_strFtpIP, "");

    StartWithRequest("192.0.2.1;192.0.2.2");
    Notification(FAILED, 2, "pub/version.txt").Deliver();
    EXPECT_THAT(Only(Trace(), {"client"}), testing::SizeIs(1))
        << "after the next start it is handled";
}

TEST_F(StopTest, ATaskThatTheWorkerStartedWhileItWasJoinedIsForgotten)
{
    StartWithRequest();
    fakes::OnCall("OSAK_PthreadJoin", 1,
                  [&]
                  {
                      members.m_ulVersionTaskID = 8;
                      members.m_ulCorpDirTaskID = 9;
                  });
    client.CorpDirUninit();
    EXPECT_EQ(members.m_ulVersionTaskID, 0U);
    EXPECT_EQ(members.m_ulCorpDirTaskID, 0U);
}

TEST_F(StopTest, AStopAndAStartFromWithinTheClientsCallbackLeaveARunningService)
{
    StartWithRequest();
    fakes::OnCall("client", 1,
                  [&]
                  {
                      client.CorpDirUninit();  // does not wait for the callback that makes it
                      EXPECT_EQ(members.m_hFtpHandle, nullptr);
                      EXPECT_EQ(members.m_strUserName, "");
                      EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
                  });
    Notification(FAILED, 1, "pub/version.txt").Deliver();
    EXPECT_THAT(Tasks(), IsEmpty()) << "the server list is empty, so nothing is tried again";
    EXPECT_EQ(members.m_strFtpIP, "");
    EXPECT_EQ(inside::WorkerRunFlag(), 1U);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(2));
    client.CorpDirUninit();
}

TEST_F(StopTest, StartRequestAndStopCanBeRepeatedTenThousandTimes)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Free);
    fakes::SetRecording(false);
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest("192.0.2.1;192.0.2.2;192.0.2.3");
    for (int i = 0; i < 10000; ++i)
    {
        ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
        ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
        client.CorpDirUninit();
        ASSERT_EQ(fakes::LiveMemory(), 0U);
        ASSERT_EQ(fakes::LiveFtpHandles(), 0U);
        ASSERT_EQ(fakes::LiveTimers(), 0U);
    }
}

namespace
{

std::atomic<bool> g_bClientIsInside{false};

void NoteThatTheClientIsInside(unsigned int, unsigned int, const char*, void*)
{
    g_bClientIsInside = true;
}

}  // namespace

// The stop begins while the client's callback runs, and the two end in any order.
TEST_F(StopTest, AStopDuringACallbackEndsAThousandTimes)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Free);
    fakes::SetRecording(false);
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    for (int i = 0; i < 1000; ++i)
    {
        ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
        ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, NoteThatTheClientIsInside), 0U);
        g_bClientIsInside = false;
        std::thread notifier([] { Notification(FAILED, 77, "pub/version.txt").Deliver(); });
        Await([] { return g_bClientIsInside.load(); });
        client.CorpDirUninit();
        EXPECT_THAT(Tasks(), IsEmpty());
        notifier.join();
    }
}
