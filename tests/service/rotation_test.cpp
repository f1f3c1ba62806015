// Failures, and the rotation through the server list, as scenarios.
#include <cstring>

#include "files.h"
#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const char VERSION_FILE[] = "pub/version.txt";
const char DIRECTORY_FILE[] = "pub/directory.xml";

class FailureTest : public ServiceTest
{
};

// One event and what it leaves: the current server, the working list, and whether a version check
// was queued.
struct Step
{
    char cEvent;  // 'v' version file failed, 'd' directory file failed, 's' version file arrived
    std::string strCurrent;
    std::string strWorking;
    bool bQueued;
};

struct Scenario
{
    std::string strName;
    std::string strServers;
    std::vector<Step> vecSteps;
};

const Scenario SCENARIOS[] = {
    {"ThreeServersFailOneAfterTheOther",
     "A;B;C",
     {{'v', "B", "C", true}, {'v', "C", "", true}, {'v', "A", "B;C", false}}},
    {"TheNextPassBeginsWithTheFirstServer",
     "A;B",
     {{'v', "B", "", true}, {'v', "A", "B", false}, {'v', "B", "", true}, {'v', "A", "B", false}}},
    {"ASingleServerIsTriedOnceMore",
     "A",
     {{'v', "A", "", true}, {'v', "A", "A", false}, {'v', "A", "", true}}},
    {"ASuccessOfASingleServerLetsItBeTriedOnceMoreAgain",
     "A",
     {{'v', "A", "", true}, {'s', "A", "A", false}, {'v', "A", "", true}}},
    {"AnEmptyListStaysEmpty", "", {{'v', "", "", false}, {'d', "", "", false}}},
    {"ASuccessInTheMiddleOfAPassRefillsTheListAndKeepsTheServer",
     "A;B;C",
     {{'v', "B", "C", true}, {'s', "B", "A;B;C", false}, {'v', "A", "B;C", true}}},
    {"ASuccessOfTheLastServerRefillsTheList",
     "A;B",
     {{'v', "B", "", true}, {'s', "B", "A;B", false}, {'v', "A", "B", true}}},
    {"AFailedDirectoryFileMovesNothingWhileServersAreLeft",
     "A;B;C",
     {{'d', "A", "B;C", false}, {'v', "B", "C", true}, {'d', "B", "C", false}}},
    {"AFailedDirectoryFileRefillsAnEmptyList",
     "A;B",
     {{'v', "B", "", true}, {'d', "A", "B", false}, {'d', "A", "B", false}}},
    {"AFailedDirectoryFileAfterASuccessMovesNothing",
     "A;B",
     {{'v', "B", "", true}, {'s', "B", "A;B", false}, {'d', "B", "A;B", false}}},
    {"AFailedDirectoryFileBehindATrailingSeparatorRefills", "A;", {{'d', "A", "", false}}},
    {"AFailedDirectoryFileBeforeAnEmptyEntryMovesNothing", "A;;C", {{'d', "A", ";C", false}}},
    {"AFailedDirectoryFileOfASingleServerMovesNothing",
     "A",
     {{'d', "A", "A", false}, {'v', "A", "", true}, {'d', "A", "A", false}}},
    {"ATrailingSeparatorIsAnEmptyWorkingList",
     "A;",
     {{'v', "A", "", false}, {'v', "A", "", false}}},
    {"AnEmptyEntryIsAnAddressLikeAnyOther",
     "A;;C",
     {{'v', "", "C", true}, {'v', "C", "", true}, {'v', "A", ";C", false}}},
    {"ALeadingSeparatorIsAnEmptyFirstAddress", ";B", {{'v', "B", "", true}, {'v', "", "B", false}}},
    {"BlanksAreNotTrimmed", " A ; B ", {{'v', " B ", "", true}, {'v', " A ", " B ", false}}},
    {"ATrailingSeparatorBehindTwoServersIsNoThird",
     "A;B;",
     {{'v', "B", "", true}, {'v', "A", "B;", false}}},
    {"OfTwoTrailingSeparatorsTheFirstMakesAnEmptyAddress",
     "A;;",
     {{'v', "", "", true}, {'v', "A", ";", false}}},
};

void PrintTo(const Scenario& scenario, std::ostream* pStream)
{
    *pStream << scenario.strName;
}

class RotationTest : public ServiceTest, public testing::WithParamInterface<Scenario>
{
protected:
    void Happen(char cEvent)
    {
        if (cEvent == 's')
        {
            members.m_strVersionLocalPath = directory.Path();
            members.m_strOldVersion = "2.0.0";  // unchanged, so that only the lists move
            support::WriteFile(directory.File("version.local"), "2.0.0\n");
            inside::VersionDownloadOver(service);
            return;
        }
        Notification(FAILED, 1, cEvent == 'v' ? VERSION_FILE : DIRECTORY_FILE).Deliver();
    }

    support::TemporaryDirectory directory;
};

}  // namespace

TEST_P(RotationTest, Goes)
{
    TakeRequest(GetParam().strServers);
    for (const Step& step : GetParam().vecSteps)
    {
        members.m_listThreadPro.clear();
        Happen(step.cEvent);
        EXPECT_EQ(members.m_strFtpIP, step.strCurrent);
        EXPECT_EQ(members.m_strIPs, step.strWorking);
        EXPECT_EQ(members.m_strAllIPs, GetParam().strServers) << "the full list never changes";
        EXPECT_EQ(Tasks(),
                  step.bQueued ? std::vector<unsigned int>{1} : std::vector<unsigned int>{});
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, RotationTest, testing::ValuesIn(SCENARIOS),
                         [](const auto& instance) { return instance.param.strName; });

TEST_F(FailureTest, TenThousandServersAreTriedInTheirOrder)
{
    std::string strServers;
    for (int i = 0; i < 10000; ++i)
    {
        strServers += (i == 0 ? "s" : ";s") + std::to_string(i);
    }
    TakeRequest(strServers);
    fakes::SetRecording(false);
    for (int i = 1; i < 10000; ++i)
    {
        Notification(FAILED, 1, VERSION_FILE).Deliver();
        ASSERT_EQ(members.m_strFtpIP, "s" + std::to_string(i));
    }
    EXPECT_EQ(members.m_strIPs, "");
    EXPECT_EQ(Tasks().size(), 9999U);
    Notification(FAILED, 1, DIRECTORY_FILE).Deliver();
    EXPECT_EQ(members.m_strFtpIP, "s0");
    EXPECT_EQ(members.m_strIPs, strServers.substr(3));
    EXPECT_EQ(Tasks(), std::vector<unsigned int>(9999, 1));
}

TEST_F(FailureTest, ASecondRequestInTheMiddleOfAPassStartsItsOwn)
{
    StartWithRequest("192.0.2.1;192.0.2.2;192.0.2.3");
    Notification(FAILED, 1, VERSION_FILE).Deliver();
    ASSERT_EQ(members.m_strFtpIP, "192.0.2.2");
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest("198.51.100.1;198.51.100.2");
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
    EXPECT_EQ(members.m_strFtpIP, "198.51.100.1");
    EXPECT_EQ(members.m_strIPs, "198.51.100.2");
    EXPECT_EQ(members.m_strAllIPs, "198.51.100.1;198.51.100.2");
    EXPECT_THAT(Tasks(), ElementsAre(1)) << "the earlier pass's check stays queued";
    Notification(FAILED, 2, VERSION_FILE).Deliver();
    EXPECT_EQ(members.m_strFtpIP, "198.51.100.2");
}

TEST_F(FailureTest, TheTimerStartsTheNextPassAtTheFirstServer)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Stepped);
    StartWithRequest("192.0.2.1;192.0.2.2");
    for (const unsigned int ulTask : {1U, 2U})
    {
        Notification(FAILED, ulTask, VERSION_FILE).Deliver();
        ASSERT_TRUE(fakes::StepWorker());
        EXPECT_EQ(fakes::LastControlParameters().stRecord.aucServerIp[3], 2) << "the next server";
    }
    EXPECT_EQ(fakes::LastDownload().ulTaskID, 2U) << "the pass has ended";
    EXPECT_EQ(fakes::Calls("OSAK_StartRelTimer"), 1U) << "the timer is left alone";
    inside::TimerCallback()(nullptr);
    ASSERT_TRUE(fakes::StepWorker());
    EXPECT_EQ(fakes::LastDownload().ulTaskID, 3U);
    EXPECT_EQ(fakes::LastControlParameters().stRecord.aucServerIp[3], 1);
    client.CorpDirUninit();
}

TEST_F(FailureTest, ARetryIsQueuedAfterItsRecord)
{
    for (const char* const pszServers : {"A;B;C", "A;B"})
    {
        StartWithRequest(pszServers);
        fakes::SetLogSink(
            [](unsigned int, const char*, const char* pszText)
            {
                if (std::strcmp(pszText, "Thread add version download") == 0)
                {
                    fakes::Note(inside::Members(inside::TheService()).m_listThreadPro.empty()
                                    ? "not yet"
                                    : "queued");
                }
            });
        Notification(FAILED, 77, VERSION_FILE).Deliver();
        fakes::SetLogSink(nullptr);
        EXPECT_THAT(Only(Trace(), {"not yet", "queued"}), ElementsAre("not yet"));
        EXPECT_THAT(Tasks(), ElementsAre(1));
        client.CorpDirUninit();
    }
}

TEST_F(FailureTest, AVersionFailureIsLoggedReportedForgottenRotatedAndQueued)
{
    StartWithRequest("A;B;C");
    fakes::OnCall("client", 1,
                  [&]
                  {
                      EXPECT_EQ(members.m_strFtpIP, "A") << "not rotated yet";
                      EXPECT_EQ(members.m_ulVersionTaskID, 0U) << "forgotten already";
                  });
    Notification(FAILED, 1, VERSION_FILE).WithError(0xFFFFFF1F).Deliver();
    EXPECT_THAT(
        Trace(),
        ElementsAre("log 2 DownloadCallback: DownloadCallback : ulTaskID = 1l, ulType = 3l, "
                    "VersionTaskID = 1, CorpDirTaskID = 0, DownFileName : pub/version.txt",
                    "log 0 VersionCorpDownloadErr: Download Error, ret = ffffff1f, taskid = 1",
                    "client(1, 1, null, null)",
                    "log 2 VersionCorpDownloadErr: FTP IP pos = 1, IPs = B;C",
                    "OSAK_StrCmp(pub/version.txt, pub/version.txt)",
                    "log 2 VersionCorpDownloadErr: FTP During rotating IP : B, IPs = C",
                    "log 2 VersionCorpDownloadErr: Thread add version download"));
    EXPECT_EQ(members.m_ulVersionTaskID, 0U);
    EXPECT_THAT(Tasks(), ElementsAre(1));
}

TEST_F(FailureTest, TheLastServersTurnIsLoggedWithoutASeparatorsPosition)
{
    StartWithRequest("A;B");
    Notification(FAILED, 1, VERSION_FILE).Deliver();
    EXPECT_THAT(Only(Logged(), {"2 VersionCorp"}),
                ElementsAre("2 VersionCorpDownloadErr: FTP IP pos = 4294967295, IPs = B",
                            "2 VersionCorpDownloadErr: FTP During rotating IP : B, IPs = ",
                            "2 VersionCorpDownloadErr: Thread add version download"));
}

TEST_F(FailureTest, ARefillIsLoggedBeforeAndAfterTheSplit)
{
    StartWithRequest("A;B;C");
    members.m_strIPs.clear();
    members.m_strFtpIP = "C";
    Notification(FAILED, 1, VERSION_FILE).Deliver();
    EXPECT_THAT(Only(Trace(), {"log 2 VersionCorp", "OSAK_StrCmp"}),
                ElementsAre("log 2 VersionCorpDownloadErr: FTP After rotating IP : C, IPs : A;B;C",
                            "log 2 VersionCorpDownloadErr: FTP After find IP : A, IPs : B;C"));
    EXPECT_THAT(Tasks(), IsEmpty());
}

TEST_F(FailureTest, AnEmptyFullListIsReportedAndLoggedTwice)
{
    members.m_pfnDownloadCb = ClientCallback;
    members.m_strFtpIP = "earlier";
    Notification(FAILED, 1, VERSION_FILE).Deliver();
    EXPECT_THAT(Only(Trace(), {"client", "log 2 VersionCorp"}),
                ElementsAre("client(1, 1, null, null)",
                            "log 2 VersionCorpDownloadErr: FTP After rotating IP : earlier, IPs : ",
                            "log 2 VersionCorpDownloadErr: FTP After find IP : earlier, IPs : "));
    EXPECT_THAT(Tasks(), IsEmpty());
}

TEST_F(FailureTest, ADirectoryFailureIsReportedButNotTriedAgain)
{
    StartWithRequest("A;B;C");
    members.m_ulCorpDirTaskID = 2;
    Notification(FAILED, 2, DIRECTORY_FILE).Deliver();
    EXPECT_EQ(members.m_ulCorpDirTaskID, 0U);
    EXPECT_EQ(members.m_ulVersionTaskID, 1U);
    EXPECT_EQ(members.m_strFtpIP, "A");
    EXPECT_EQ(members.m_strIPs, "B;C");
    EXPECT_THAT(Tasks(), IsEmpty());
    EXPECT_THAT(Only(Trace(), {"client", "log 2 VersionCorp", "OSAK_StrCmp"}),
                ElementsAre("client(1, 1, null, null)",
                            "log 2 VersionCorpDownloadErr: FTP IP pos = 1, IPs = B;C",
                            "OSAK_StrCmp(pub/version.txt, pub/directory.xml)"));
}

TEST_F(FailureTest, AnUnknownTaskIsReportedAndMayRotate)
{
    StartWithRequest("A;B;C");
    members.m_ulCorpDirTaskID = 2;
    Notification(FAILED, 77, VERSION_FILE).Deliver();
    EXPECT_EQ(members.m_ulVersionTaskID, 1U);
    EXPECT_EQ(members.m_ulCorpDirTaskID, 2U);
    EXPECT_EQ(members.m_strFtpIP, "B");
    EXPECT_THAT(Tasks(), ElementsAre(1));
    EXPECT_THAT(Only(Trace(), {"client"}), ElementsAre("client(1, 1, null, null)"));
}

TEST_F(FailureTest, OfTwoEqualTasksTheVersionsIsForgotten)
{
    StartWithRequest("A;B;C");
    members.m_ulCorpDirTaskID = 1;
    Notification(FAILED, 1, DIRECTORY_FILE).Deliver();
    EXPECT_EQ(members.m_ulVersionTaskID, 0U);
    EXPECT_EQ(members.m_ulCorpDirTaskID, 1U);
}

TEST_F(FailureTest, WithoutErrorDetailOnlyTheTaskIsLogged)
{
    Notification(FAILED, 0xFFFFFFFF, VERSION_FILE).Deliver();
    EXPECT_THAT(Only(Logged(), {"0 VersionCorp"}),
                ElementsAre("0 VersionCorpDownloadErr: Download Error, taskid = 4294967295",
                            "0 VersionCorpDownloadErr: corpdir_downloadCb is NULL"));
}

TEST_F(FailureTest, ANullNotificationIsOnlyLogged)
{
    StartWithRequest("A;B");
    inside::VersionCorpDownloadErr(service, nullptr);
    EXPECT_THAT(Trace(),
                ElementsAre("log 0 VersionCorpDownloadErr: VersionCorpDownloadErr Param is NULL"));
}

TEST_F(FailureTest, TheFileNameIsComparedByteForByte)
{
    StartWithRequest("A;B;C");
    for (const char* const pszName : {"pub/version.tx", "pub/version.txt2", "PUB/version.txt", ""})
    {
        Notification(FAILED, 77, pszName).Deliver();
        EXPECT_EQ(members.m_strFtpIP, "A") << pszName;
    }
}

TEST_F(FailureTest, AFileNameWithoutATerminatorIsReadWithinItsField)
{
    StartWithRequest("A;B;C");
    members.m_strVersionServerPath = std::string(255, 'n');
    Notification notification(FAILED, 77, "");
    std::memset(notification.stRecord.DownFileName, 'n', 256);
    notification.Deliver();
    EXPECT_EQ(members.m_strFtpIP, "B");
}
