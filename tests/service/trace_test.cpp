// One recorded trace for each public operation, compared as a whole, so that a moved step fails.
// Wipes of locals and measured lengths are left out.
#include "files.h"
#include "service_test.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace
{

class TraceTest : public ServiceTest
{
};

std::string TimerCallbackAddress()
{
    return testing::PrintToString(reinterpret_cast<void*>(inside::TimerCallback()));
}

// The start of a download with FTPS to a literal IPv4 server, the cipher list already installed.
Lines DownloadStart(const std::string& strServerFile, const std::string& strDir,
                    const std::string& strFile, const std::string& strMember, int iTask)
{
    return {"log 1 AsynFtpDownload: Already Init FTPS!",
            "ZEP_CPYPT_Decrypt(0, 32, 16, 16, 256)",
            "zep_memcpy_s(local, 256, local, 6)",
            "log 2 SetFtpCtrlParam: Set ServerType:1(0:ftp, 1:ftps), FTP IP : 192.0.2.1",
            "OSAK_Inet_Pton(IPv6, 192.0.2.1)",
            "OSAK_Inet_Pton(IPv4, 192.0.2.1)",
            "OSAK_Inet_Pton(IPv6, 192.0.2.1)",
            "OSAK_Inet_Pton(IPv4, 192.0.2.1)",
            "log 2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Server IPv4 : 16908480 ",
            "zep_strncpy_s(local, 128, alice, 5)",
            "zep_strncpy_s(local, 128, secret, 6)",
            "log 2 SetFtpCtrlParam: WordDir : " + strDir,
            "zep_strncpy_s(local, 128, " + strDir + ", " + std::to_string(strDir.size()) + ")",
            "TRAVEX_FTP_SetCtrlParam(ftp 1)",
            "TRAVEX_FTP_SetDataParam(ftp 1)",
            "TRAVEX_FTP_AsynDownloadFile(ftp 1, " + strMember + ", " + strServerFile + ", ., " +
                strFile + ", DownloadCallback)",
            "log 2 AsynFtpDownload: Download file : " + strFile +
                ", TaskID : " + std::to_string(iTask)};
}

}  // namespace

TEST_F(TraceTest, Start)
{
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_THAT(Procedure(Trace()),
                ElementsAre("enter CorpDirInit", "CorpDir_OpenLog(loginfo)",
                            "log 2 CorpDirInit: built date: Feb 03 2004, 05:06:07",
                            "log 2 CorpDirInit: built at svn version :35197", "TRAVEX_FTP_Init()",
                            "log 2 CorpDirInit: ftp init OK!", "TRAVEX_FTP_CreateHandle()",
                            "log 2 CorpDirInit: Ftp create handle success.", "OSAK_MemMallocD(72)",
                            "OSAK_MutexInitRecursive(block 1, null)",
                            "OSAK_PthreadCreate(g_stThread, null, ThreadProcess, null)",
                            "log 2 CorpDirInit: Thread Process Runing: 1",
                            "log 2 CorpDirInit: CorpDirInit OK, Thread Handle: 0x7001",
                            "leave CorpDirInit"));
}

TEST_F(TraceTest, Stop)
{
    StartWithRequest();
    client.CorpDirUninit();
    EXPECT_THAT(
        Procedure(Trace()),
        ElementsAre(
            "enter CorpDirUninit", "log 2 CorpDirUninit: DownVersionTimer freeing.",
            "OSAK_FreeRelTimer(timer 1)", "log 2 CorpDirUninit: ThreadRuning: 0",
            "log 2 CorpDirUninit: OSAK_PthreadJoin:0x7001", "OSAK_PthreadJoin(thread 1, null)",
            "log 2 ThreadProcess: Thread Process In : 0x7001.",
            "log 2 ThreadProcess: Before CloseHandle.", "TRAVEX_FTP_CloseHandle(ftp 1)",
            "log 2 ThreadProcess: TRAVEX_FTP_CloseHandle Ret : 0",
            "log 2 ThreadProcess: ThreadProcess Leave.",
            "log 2 CorpDirUninit: OSAK_PthreadJoin Ret : 0", "free(malloced)",
            "zep_memset_s(m_aucKey, 32, 0, 32)", "zep_memset_s(m_aucIV, 16, 0, 16)",
            "OSAK_MutexDestroy(block 1)", "log 2 CorpDirUninit: OSAK_MutexDestroy Ret : 0",
            "OSAK_MemFreeD(block 1)", "OSAK_MemFreeSetNullD(block 2)", "TRAVEX_FTP_UnInit()",
            "log 2 CorpDirUninit: ftp uninit ret:0", "log 2 CorpDirUninit: before close log.",
            "CorpDir_CloseLog()", "leave CorpDirUninit"));
}

TEST_F(TraceTest, Request)
{
    Start();
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    stInfo.ulPort = 990;
    stInfo.pszLocalIP = "2001:db8::2";
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
    EXPECT_THAT(
        Procedure(Trace()),
        ElementsAre(
            "enter CorpDirDownloadNetaddr",
            "log 2 SetFtpInfo: before setftpinfo, username : alice, FTPIPs : 192.0.2.1 ",
            "ZEP_CPYPT_RealRandom(32)", "ZEP_CPYPT_RealRandom(16)", "ZEP_CRYPT_GetblockSize(0)",
            "ZEP_CPYPT_Encrypt(0, 32, 16, 6, 256)", "zep_memset_s(m_aucKey, 32, 0, 32)",
            "zep_memcpy_s(m_aucKey, 32, local, 32)", "zep_memset_s(m_aucIV, 16, 0, 16)",
            "zep_memcpy_s(m_aucIV, 16, local, 16)", "malloc(256)",
            "zep_memset_s(malloced, 256, 0, 256)", "zep_memcpy_s(malloced, 256, local, 16)",
            "log 2 SetFtpInfo: after setftpinfo, username : alice, IPs : 192.0.2.1, FtpIP : "
            "192.0.2.1 , LocalIP : 2001:db8::2",
            "enter VersionDownload", "log 1 AsynFtpDownload: Already Init FTPS!",
            "ZEP_CPYPT_Decrypt(0, 32, 16, 16, 256)", "zep_memcpy_s(local, 256, local, 6)",
            "log 1 SetFtpCtrlParam: Ftp cipher list not set, use default value!",
            "enter CorpDirSetFtpCipherListToDirImpl", "OSAK_MemMallocS(12, 0)",
            "zep_memcpy_s(block 2, 12, default list, 12)", "leave CorpDirSetFtpCipherListToDirImpl",
            "log 2 SetFtpCtrlParam: Set ServerType:1(0:ftp, 1:ftps), FTP IP : 192.0.2.1",
            "OSAK_Inet_Pton(IPv6, 192.0.2.1)", "OSAK_Inet_Pton(IPv4, 192.0.2.1)",
            "OSAK_Inet_Pton(IPv6, 192.0.2.1)", "OSAK_Inet_Pton(IPv4, 192.0.2.1)",
            "log 2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Server IPv4 : 16908480 ",
            "OSAK_Inet_Pton(IPv6, 2001:db8::2)",
            "log 2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Local IPv6 : \x20\x01\x0d\xb8 ",
            "zep_strncpy_s(local, 128, alice, 5)", "zep_strncpy_s(local, 128, secret, 6)",
            "log 2 SetFtpCtrlParam: WordDir : /nowhere/v/",
            "zep_strncpy_s(local, 128, /nowhere/v/, 11)", "log 2 SetFtpCtrlParam: use new port:990",
            "TRAVEX_FTP_SetCtrlParam(ftp 1)", "TRAVEX_FTP_SetDataParam(ftp 1)",
            "TRAVEX_FTP_AsynDownloadFile(ftp 1, m_ulVersionTaskID, pub/version.txt, ., "
            "version.local, DownloadCallback)",
            "log 2 AsynFtpDownload: Download file : version.local, TaskID : 1",
            "leave VersionDownload", "OSAK_CreateRelTimerM(timer callback, 0)",
            "log 2 StartTimerForVersion: CreateRelTimer uploadtimer success, uploadtimer = "
            "0x7101,                       timerproc : " +
                TimerCallbackAddress(),
            "OSAK_StartRelTimer(timer 1, 600000, service)",
            "log 2 StartTimerForVersion: StartRelTimer UploadTimer success",
            "leave CorpDirDownloadNetaddr"));
}

TEST_F(TraceTest, ReplacingTheCipherList)
{
    const int aiList[] = {1, 2};
    ASSERT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiList, 2), 0U);
    Trace();
    ASSERT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiList, 1), 0U);
    EXPECT_EQ(*g_stFtpCiperList.piCipherList, 1);
    EXPECT_THAT(Trace(),
                ElementsAre("enter CorpDirSetFtpCipherListToDirImpl", "OSAK_MemFreeD(block 1)",
                            "OSAK_MemMallocS(4, 0)", "zep_memcpy_s(block 2, 4, local, 4)",
                            "leave CorpDirSetFtpCipherListToDirImpl"));
}

TEST_F(TraceTest, AddingOneToTheCipherList)
{
    ASSERT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(7), 0U);
    EXPECT_THAT(
        Trace(),
        ElementsAre("enter CorpDirAddFtpCipherListToDirImplByOne", "OSAK_MemMallocS(12, 0)",
                    "zep_memcpy_s(block 1, 12, default list, 12)", "OSAK_MemMallocS(16, 0)",
                    "zep_memcpy_s(block 2, 12, block 1, 12)", "OSAK_MemFreeSetNullD(block 1)",
                    "leave CorpDirAddFtpCipherListToDirImplByOne"));
}

TEST_F(TraceTest, AddingSeveralToTheCipherList)
{
    const int aiFirst[] = {7};
    const int aiList[] = {7, 8};
    ASSERT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiFirst, 1), 0U);
    Trace();
    ASSERT_EQ(client.CorpDirAddFtpCipherListToDirImpl(aiList, 2), 0U);
    EXPECT_THAT(Trace(),
                ElementsAre("enter CorpDirAddFtpCipherListToDirImpl",
                            "enter CorpDirAddFtpCipherListToDirImplByOne",
                            "log 0 CorpDirAddFtpCipherListToDirImplByOne: cipher 0x7 already "
                            "exists!",
                            "leave CorpDirAddFtpCipherListToDirImplByOne",
                            "enter CorpDirAddFtpCipherListToDirImplByOne", "OSAK_MemMallocS(8, 0)",
                            "zep_memcpy_s(block 2, 4, block 1, 4)", "OSAK_MemFreeSetNullD(block 1)",
                            "leave CorpDirAddFtpCipherListToDirImplByOne",
                            "leave CorpDirAddFtpCipherListToDirImpl"));
}

// From the timer's expiry to the client's success, through worker and notifications.
TEST_F(TraceTest, AWholeRoundFromTheTimerToTheClient)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Stepped);
    StartWithRequest();
    const support::TemporaryDirectory directory;
    support::WriteFile(directory.File("version.local"), "2.0.0\n");
    const std::string strDir = directory.Path() + "/";
    members.m_strVersionLocalPath = directory.Path();
    inside::TimerCallback()(&service);
    EXPECT_TRUE(fakes::StepWorker());
    Notification(OVER, 2, "pub/version.txt").Deliver();
    EXPECT_TRUE(fakes::StepWorker());
    Notification(OVER, 3, "pub/directory.xml").Deliver();
    const Lines vecRound = Procedure(Trace());
    client.CorpDirUninit();
    EXPECT_THAT(
        vecRound,
        ElementsAreArray(Joined(
            {{"log 2 DownloadVersionTimerPro: Thread Add versiondown. ", "OSAK_MutexLock(block 1)",
              "log 2 ThreadProcess: Thread download type : 1", "OSAK_MutexUnLock(block 1)",
              "log 2 ThreadProcess: Thread begin VersionDownload.", "enter VersionDownload"},
             DownloadStart("pub/version.txt", strDir, "version.local", "m_ulVersionTaskID", 2),
             {"leave VersionDownload",
              "OSAK_MutexLock(block 1)",
              "OSAK_MutexUnLock(block 1)",
              "usleep(50)",
              "log 2 DownloadCallback: Download is OVER!",
              "log 2 DownloadCallback: DownloadCallback : ulTaskID = 2l, ulType = 12l, "
              "VersionTaskID = 2, CorpDirTaskID = 0, DownFileName : pub/version.txt",
              "enter VersionDownloadOver",
              "log 2 VersionDownloadOver: Version Path : " + strDir,
              "log 2 VersionDownloadOver: Version Name : version.local",
              "log 2 VersionDownloadOver: Version File : " + strDir + "version.local",
              "log 2 VersionDownloadOver: Version Prepared Update! Version : [2.0.0]",
              "OSAK_StrCmp(, 2.0.0)",
              "log 2 VersionDownloadOver: OldVersion : , NewVersion : 2.0.0 ",
              "log 2 VersionDownloadOver: Thread add corpdir download. ",
              "log 2 VersionDownloadOver: FTP After rotating, IPs copy ftps = 192.0.2.1",
              "leave VersionDownloadOver",
              "OSAK_MutexLock(block 1)",
              "log 2 ThreadProcess: Thread download type : 2",
              "OSAK_MutexUnLock(block 1)",
              "log 2 ThreadProcess: Thread begin CorpDirDownload.",
              "enter CorpDirDownload"},
             DownloadStart("pub/directory.xml", "/nowhere/d/", "directory.local",
                           "m_ulCorpDirTaskID", 3),
             {"leave CorpDirDownload", "OSAK_MutexLock(block 1)", "OSAK_MutexUnLock(block 1)",
              "usleep(50)", "log 2 DownloadCallback: Download is OVER!",
              "log 2 DownloadCallback: DownloadCallback : ulTaskID = 3l, ulType = 12l, "
              "VersionTaskID = 2, CorpDirTaskID = 3, DownFileName : pub/directory.xml",
              "enter CorpDirDownloadOver", "log 2 CorpDirDownloadOver: CorpDir Path : /nowhere/d/",
              "log 2 CorpDirDownloadOver: CorpDir Name : directory.local",
              "log 2 CorpDirDownloadOver: CorpDir File : /nowhere/d/directory.local",
              "client(1, 0, null, null)", "leave CorpDirDownloadOver"}})));
}

// --- Function traces ----------------------------------------------------------------------------

TEST_F(TraceTest, TenFunctionsAreTracedAndNoOther)
{
    const support::TemporaryDirectory directory;
    support::WriteFile(directory.File("version.local"), "2.0.0\n");
    const int aiList[] = {7};
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    SetField(stInfo.szVersionLocalDir, directory.Path());
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
    ASSERT_EQ(client.CorpDirAddFtpCipherListToDirImpl(aiList, 1), 0U);
    Notification(SUCCESS, 1, "pub/version.txt").Deliver();
    Notification(OVER, 1, "pub/version.txt").Deliver();
    inside::TimerCallback()(nullptr);
    (void)inside::VerifyCallback()(nullptr, nullptr);
    RunWorkerUntilIdle();
    Notification(OVER, 2, "pub/directory.xml").Deliver();
    Notification(FAILED, 3, "pub/version.txt").Deliver();
    client.CorpDirUninit();
    EXPECT_THAT(
        Only(Trace(), {"enter ", "leave "}),
        ElementsAre("enter CorpDirInit", "leave CorpDirInit", "enter CorpDirDownloadNetaddr",
                    "enter VersionDownload", "enter CorpDirSetFtpCipherListToDirImpl",
                    "leave CorpDirSetFtpCipherListToDirImpl", "leave VersionDownload",
                    "leave CorpDirDownloadNetaddr", "enter CorpDirAddFtpCipherListToDirImpl",
                    "enter CorpDirAddFtpCipherListToDirImplByOne",
                    "leave CorpDirAddFtpCipherListToDirImplByOne",
                    "leave CorpDirAddFtpCipherListToDirImpl", "enter VersionDownloadOver",
                    "leave VersionDownloadOver", "enter CorpDirDownload", "leave CorpDirDownload",
                    "enter VersionDownload", "leave VersionDownload", "enter CorpDirDownloadOver",
                    "leave CorpDirDownloadOver", "enter CorpDirUninit", "leave CorpDirUninit"));
}
