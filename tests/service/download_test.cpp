// The start of a download, and the dispatch of its notifications.
#include <cstring>

#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class DownloadTest : public ServiceTest
{
protected:
    void SetUp() override
    {
        TakeRequest();
    }

    unsigned int Begin(const std::string& strServerFile = "pub/file",
                       const std::string& strLocalDir = "/local/dir",
                       const std::string& strLocalFile = "file.local")
    {
        return inside::AsynFtpDownload(service, strServerFile, strLocalDir, strLocalFile, ulTaskID);
    }

    unsigned int ulTaskID = 99;
};

// The version file and the directory file: the same start with other members.
struct File
{
    const char* pszFunction;
    unsigned int (*pfnDownload)(CFTPCorpDirImpl&);
    const char* pszServerFile;
    const char* pszWorkDir;
    const char* pszLocalFile;
};

const File VERSION = {"VersionDownload", inside::VersionDownload, "pub/version.txt", "/nowhere/v/",
                      "version.local"};
const File DIRECTORY = {"CorpDirDownload", inside::CorpDirDownload, "pub/directory.xml",
                        "/nowhere/d/", "directory.local"};

void PrintTo(const File& file, std::ostream* pStream)
{
    *pStream << file.pszFunction;
}

class FileDownloadTest : public DownloadTest, public testing::WithParamInterface<File>
{
protected:
    unsigned int Begin()
    {
        return file.pfnDownload(service);
    }

    const File& file = GetParam();
    const bool bVersion = file.pfnDownload == inside::VersionDownload;
    unsigned int& ulTask = bVersion ? members.m_ulVersionTaskID : members.m_ulCorpDirTaskID;
    std::string* const apstrTexts[3] = {
        bVersion ? &members.m_strVersionServerPath : &members.m_strCorpDirServerPath,
        bVersion ? &members.m_strVersionLocalPath : &members.m_strCorpDirLocalPath,
        bVersion ? &members.m_strVersionFileName : &members.m_strCorpDirFileName};
};

class DispatchTest : public ServiceTest
{
};

std::string Detail(unsigned int ulTask, unsigned int ulType, unsigned int ulVersion,
                   unsigned int ulCorpDir, const std::string& strFile)
{
    return "2 DownloadCallback: DownloadCallback : ulTaskID = " + std::to_string(ulTask) +
           "l, ulType = " + std::to_string(ulType) +
           "l, VersionTaskID = " + std::to_string(ulVersion) +
           ", CorpDirTaskID = " + std::to_string(ulCorpDir) + ", DownFileName : " + strFile;
}

}  // namespace

// --- Start of a download ------------------------------------------------------------------------

TEST_F(DownloadTest, PushesBothParameterSetsThenTaskAndCallback)
{
    members.m_hFtpHandle = TRAVEX_FTP_CreateHandle();
    Trace();
    fakes::OnCall("TRAVEX_FTP_AsynDownloadFile", 1, [&] { EXPECT_EQ(ulTaskID, 0U); });
    EXPECT_EQ(Begin(), 0U);
    EXPECT_EQ(ulTaskID, 1U);
    EXPECT_THAT(Only(Trace(), {"TRAVEX", "log 1 Asyn", "log 2 Asyn", "log 0"}),
                ElementsAre("log 1 AsynFtpDownload: Already Init FTPS!",
                            "TRAVEX_FTP_SetCtrlParam(ftp 1)", "TRAVEX_FTP_SetDataParam(ftp 1)",
                            "TRAVEX_FTP_AsynDownloadFile(ftp 1, local, pub/file, ., file.local, "
                            "DownloadCallback)",
                            "log 2 AsynFtpDownload: Download file : file.local, TaskID : 1"));
    EXPECT_STREQ(fakes::LastControlParameters().stRecord.acWorkDir, "/local/dir/");
    const fakes::Download download = fakes::LastDownload();
    EXPECT_EQ(download.pulTaskID, &ulTaskID);
    EXPECT_EQ(download.pfnNotify, inside::NotifyCallback());
}

TEST_F(DownloadTest, FailsWhenNoHandleCanBeMade)
{
    fakes::FailCall("TRAVEX_FTP_CreateHandle", 1, 1);
    EXPECT_EQ(Begin(), 1U);
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_THAT(Trace(), ElementsAre("log 1 AsynFtpDownload: Ftp Handle is Null, creating.",
                                     "TRAVEX_FTP_CreateHandle() = 1",
                                     "log 0 AsynFtpDownload: TRAVEX_FTP_CreateHandle Failed!"));
}

TEST_F(DownloadTest, EveryTextHasToBeThere)
{
    EXPECT_EQ(Begin("", "/local/dir", "file.local"), 1U);
    EXPECT_EQ(Begin("pub/file", "", "file.local"), 1U);
    EXPECT_EQ(Begin("pub/file", "/local/dir", ""), 1U);
    EXPECT_EQ(ulTaskID, 99U);
    EXPECT_THAT(Trace(), ElementsAre("log 0 AsynFtpDownload: Input param is empty.",
                                     "log 0 AsynFtpDownload: Input param is empty.",
                                     "log 0 AsynFtpDownload: Input param is empty."));
}

TEST_F(DownloadTest, RejectedParametersStopItInTheWordsOfTheDataParameters)
{
    for (const std::string strKind : {"Ctrl", "Data"})
    {
        fakes::FailCall("TRAVEX_FTP_Set" + strKind + "Param", 1, 5);
        EXPECT_EQ(Begin(), 1U);
        EXPECT_THAT(Only(Logged(), {"0"}),
                    ElementsAre("0 SetFtp" + strKind + "Param: TRAVEX_FTP_Set" + strKind +
                                    "Param Failed! Ret = 5",
                                "0 AsynFtpDownload: SetFtpDataParam failed, iRet = 1"));
    }
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetDataParam"), 1U);
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 0U);
    EXPECT_EQ(ulTaskID, 99U);
}

TEST_F(DownloadTest, ARefusedDownloadLeavesTaskZeroAndPassesTheCode)
{
    fakes::FailCall("TRAVEX_FTP_AsynDownloadFile", 1, 0xFFFFFFFF);
    EXPECT_EQ(Begin(), 0xFFFFFFFFU);
    EXPECT_EQ(ulTaskID, 0U);
    const Lines vecLogged = Logged();
    EXPECT_THAT(Lines(vecLogged.end() - 2, vecLogged.end()),
                ElementsAre("2 AsynFtpDownload: Download file : file.local, TaskID : 0",
                            "0 AsynFtpDownload: TRAVEX_FTP_AsynDownloadFile Failed! ulRet = -1"));
}

TEST_F(DownloadTest, AMissingHandleIsMadeAndLivesAcrossDownloads)
{
    ASSERT_EQ(Begin(), 0U);
    ASSERT_EQ(Begin(), 0U);
    EXPECT_EQ(ulTaskID, 2U);
    EXPECT_EQ(members.m_hFtpHandle, fakes::FtpHandle(1));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_CreateHandle"), 1U);
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetCtrlParam"), 2U);
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetDataParam"), 2U);
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_CloseHandle"), 0U);
}

TEST_F(DownloadTest, TheTextsOfAStartAreItsOwn)
{
    fakes::OnCall("TRAVEX_FTP_SetCtrlParam", 1,
                  [&]
                  {
                      members.m_strVersionServerPath = "other";
                      members.m_strVersionFileName = "other";
                  });
    ASSERT_EQ(inside::VersionDownload(service), 0U);
    EXPECT_EQ(fakes::LastDownload().strServerFile, "pub/version.txt");
    EXPECT_EQ(fakes::LastDownload().strLocalFile, "version.local");
}

// --- The two files ------------------------------------------------------------------------------

TEST_P(FileDownloadTest, FetchesTheFileIntoItsPlace)
{
    EXPECT_EQ(Begin(), 0U);
    const fakes::Download download = fakes::LastDownload();
    EXPECT_EQ(download.strServerFile, file.pszServerFile);
    EXPECT_EQ(download.strLocalFile, file.pszLocalFile);
    EXPECT_EQ(download.pulTaskID, &ulTask);
    EXPECT_STREQ(fakes::LastControlParameters().stRecord.acWorkDir, file.pszWorkDir);
    EXPECT_EQ(ulTask, 1U);
    EXPECT_EQ(members.m_ulVersionTaskID + members.m_ulCorpDirTaskID, 1U)
        << "the other is unchanged";
    const Lines vecTrace = Trace();
    EXPECT_EQ(vecTrace.front(), std::string("enter ") + file.pszFunction);
    EXPECT_EQ(vecTrace.back(), std::string("leave ") + file.pszFunction);
}

TEST_P(FileDownloadTest, EveryPathHasToBeThere)
{
    ulTask = 7;
    const std::string strFunction = file.pszFunction;
    for (std::string* const pstrMember : apstrTexts)
    {
        const std::string strKept = *pstrMember;
        pstrMember->clear();
        EXPECT_EQ(Begin(), 1U);
        EXPECT_THAT(Trace(), ElementsAre("enter " + strFunction,
                                         "log 0 " + strFunction + ": Input param is empty.",
                                         "leave " + strFunction));
        *pstrMember = strKept;
    }
    EXPECT_EQ(ulTask, 7U);
}

TEST_P(FileDownloadTest, AStartThatFailsForgetsTheEarlierTaskAndPassesTheCode)
{
    const std::string strRecord = std::string("0 ") + file.pszFunction +
                                  ": AsynFtpDownload failed, filename : " + file.pszLocalFile;
    struct Failure
    {
        const char* pszFunction;
        unsigned int ulResult;
    };
    for (const Failure& failure :
         {Failure{"TRAVEX_FTP_SetCtrlParam", 1}, Failure{"TRAVEX_FTP_AsynDownloadFile", 20}})
    {
        ulTask = 7;
        members.m_strIPs = "192.0.2.2";
        fakes::FailCall(failure.pszFunction, 1, 20);
        EXPECT_EQ(Begin(), failure.ulResult);
        EXPECT_EQ(ulTask, 0U);
        EXPECT_EQ(Logged().back(), strRecord);
        EXPECT_EQ(members.m_strFtpIP, "192.0.2.1") << "the next check asks the same server";
        EXPECT_EQ(members.m_strIPs, "192.0.2.2");
    }
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
    EXPECT_THAT(Tasks(), IsEmpty()) << "nothing is tried again";
}

INSTANTIATE_TEST_SUITE_P(Files, FileDownloadTest, testing::Values(VERSION, DIRECTORY),
                         [](const auto& instance)
                         { return std::string(instance.param.pszFunction); });

// --- Dispatch of notifications ------------------------------------------------------------------

TEST_F(DispatchTest, ANullNotificationIsLoggedWithItsArguments)
{
    inside::NotifyCallback()(reinterpret_cast<void*>(0x77), nullptr);
    EXPECT_THAT(Trace(),
                ElementsAre("log 0 DownloadCallback: DownloadCallback Param is NULL, 0x77, "
                            "(nil)"));
}

TEST_F(DispatchTest, ASuccessIsOnlyLogged)
{
    members.m_ulVersionTaskID = 1;
    members.m_ulCorpDirTaskID = 2;
    members.m_pfnDownloadCb = ClientCallback;
    for (const unsigned int ulTask : {1U, 2U, 3U})
    {
        Notification(SUCCESS, ulTask, "pub/file").Deliver();
        EXPECT_THAT(Logged(), ElementsAre("2 DownloadCallback: Download SUCCESS!",
                                          Detail(ulTask, 0, 1, 2, "pub/file")));
    }
    EXPECT_THAT(Only(Trace(), {"enter", "client"}), IsEmpty());
}

TEST_F(DispatchTest, AnOverGoesToTheHandlerOfItsTask)
{
    members.m_ulVersionTaskID = 1;
    members.m_ulCorpDirTaskID = 2;
    members.m_strVersionLocalPath = "/nowhere/v";
    Notification(OVER, 1, "a").Deliver();
    EXPECT_THAT(Only(Trace(), {"log 2 DownloadCallback", "enter"}),
                ElementsAre("log 2 DownloadCallback: Download is OVER!",
                            "log " + Detail(1, 12, 1, 2, "a"), "enter VersionDownloadOver"));
    Notification(OVER, 2, "b").Deliver();
    EXPECT_THAT(Only(Trace(), {"log 2 DownloadCallback", "enter"}),
                ElementsAre("log 2 DownloadCallback: Download is OVER!",
                            "log " + Detail(2, 12, 1, 2, "b"), "enter CorpDirDownloadOver"));
}

TEST_F(DispatchTest, TheVersionTaskIsTestedFirst)
{
    members.m_ulVersionTaskID = 5;
    members.m_ulCorpDirTaskID = 5;
    Notification(OVER, 5, "a").Deliver();
    EXPECT_THAT(Only(Trace(), {"enter"}), ElementsAre("enter VersionDownloadOver"));
}

TEST_F(DispatchTest, OtherKindsAreIgnoredWithoutARecord)
{
    members.m_ulVersionTaskID = 1;
    for (const unsigned int ulType : {1U, 2U, 4U, 11U, 13U, 0xFFFFFFFFU})
    {
        Notification(ulType, 1, "a").Deliver();
    }
    EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(DispatchTest, AFileNameWithoutATerminatorIsReadWithinItsField)
{
    Notification notification(OVER, 3, "");
    std::memset(notification.stRecord.DownFileName, 'n', 256);
    notification.Deliver();
    EXPECT_EQ(Logged().back(), Detail(3, 12, 0, 0, std::string(255, 'n')));
}

TEST_F(DispatchTest, TheNotificationIsReadButNeverWritten)
{
    StartWithRequest("192.0.2.1;192.0.2.2");
    Notification notification(FAILED, 1, "pub/version.txt");
    notification.WithError(19);
    const Notification before = notification;
    notification.Deliver();
    EXPECT_EQ(std::memcmp(&before.stRecord, &notification.stRecord, 260), 0);
    EXPECT_EQ(before.stRecord.ulType, notification.stRecord.ulType);
    EXPECT_EQ(notification.stError.ulRet, 19U);
}

TEST_F(DispatchTest, AnOverOfAnUnknownTaskIsOnlyLogged)
{
    members.m_ulVersionTaskID = 0xFFFFFFFE;
    members.m_ulCorpDirTaskID = 0xFFFFFFFD;
    Notification(OVER, 0xFFFFFFFF, "a").Deliver();
    EXPECT_THAT(Trace(), ElementsAre("log 2 DownloadCallback: Download is OVER!",
                                     "log " + Detail(0xFFFFFFFF, 12, 0xFFFFFFFE, 0xFFFFFFFD, "a")));
}

// --- The end of the directory's download --------------------------------------------------------

TEST_F(DownloadTest, TheFinishedDownloadIsReportedToTheClient)
{
    members.m_pfnDownloadCb = ClientCallback;
    ASSERT_EQ(inside::CorpDirDownload(service), 0U);
    Trace();
    Notification(OVER, 1, "pub/directory.xml").Deliver();
    EXPECT_THAT(TraceFrom(2),
                ElementsAre("enter CorpDirDownloadOver",
                            "log 2 CorpDirDownloadOver: CorpDir Path : /nowhere/d/",
                            "log 2 CorpDirDownloadOver: CorpDir Name : directory.local",
                            "log 2 CorpDirDownloadOver: CorpDir File : /nowhere/d/directory.local",
                            "client(1, 0, null, null)", "leave CorpDirDownloadOver"));
    EXPECT_EQ(members.m_ulCorpDirTaskID, 1U) << "a finished task's id stays";
    EXPECT_THAT(Tasks(), IsEmpty());
}

TEST_F(DownloadTest, WithoutACallbackTheSuccessIsOnlyLogged)
{
    inside::CorpDirDownloadOver(service);
    EXPECT_EQ(Logged().back(), "0 CorpDirDownloadOver: corpdir_downloadCb is NULL");
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
}

TEST_F(DownloadTest, ATrailingSlashOfTheLocalDirectoryIsNotDoubled)
{
    members.m_strCorpDirLocalPath = "/nowhere/d/";
    inside::CorpDirDownloadOver(service);
    EXPECT_THAT(Only(Logged(), {"2"}),
                ElementsAre("2 CorpDirDownloadOver: CorpDir Path : /nowhere/d/",
                            "2 CorpDirDownloadOver: CorpDir Name : directory.local",
                            "2 CorpDirDownloadOver: CorpDir File : /nowhere/d/directory.local"));
}
