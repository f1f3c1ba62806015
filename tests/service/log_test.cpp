// The log changes nothing else: without it every operation calls the same layers in the same order
// and gives the same results, with and without failures of a layer.
#include <algorithm>

#include "files.h"
#include "service_test.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

enum class LogState
{
    Open,
    Silenced,  // g_LogMode is not 0
    Absent     // there is no log object
};

class LogTest : public ServiceTest, public testing::WithParamInterface<const char*>
{
protected:
    // Runs all operations. Returns their trace without the log's part, then the misuses of a layer.
    Lines RunScenario(LogState eLog, const char* pszFailing, unsigned int ulNth)
    {
        Renew();
        fakes::Reset();
        (void)std::remove(directory.File("version.local").c_str());
        CCorpDirLog* const pLog = g_LogOne;
        g_LogMode = eLog == LogState::Silenced ? 1 : 0;
        g_LogOne = eLog == LogState::Absent ? nullptr : pLog;
        if (pszFailing != nullptr)
        {
            fakes::FailCall(pszFailing, ulNth, 5);
        }
        RunRequests();
        RunNotifications();
        RunStopsAndErrors();
        g_LogMode = 0;
        g_LogOne = pLog;
        const Lines vecRecords = Logged();
        EXPECT_EQ(vecRecords.empty(), eLog != LogState::Open);
        vecUnused = fakes::UnusedRules();
        bFired = pszFailing != nullptr &&
                 std::count(vecUnused.begin(), vecUnused.end(),
                            pszFailing + (", call " + std::to_string(ulNth))) == 0;
        vecMisuses = fakes::TakeMisuses();
        Lines vecLines = WithoutLog(Trace());
        vecLines.insert(vecLines.end(), vecMisuses.begin(), vecMisuses.end());
        fakes::Reset();  // a rule that was not used must not act in the next run
        return vecLines;
    }

    // Results of the last run.
    bool bFired = false;  // the failing call came
    Lines vecUnused;      // rules whose call did not come
    Lines vecMisuses;

private:
    static Lines WithoutLog(const Lines& vecTrace)
    {
        Lines vecKept;
        for (const std::string& strLine : vecTrace)
        {
            if (Only({strLine}, {"log ", "enter ", "leave "}).empty())
            {
                vecKept.push_back(strLine);
            }
        }
        return vecKept;
    }

    void Result(unsigned int ulResult)
    {
        fakes::Note("result " + std::to_string(ulResult));
    }

    void Request(const char* pszServers, const char* pszLocalIP, const char* pszPassword)
    {
        tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
        SetField(stInfo.szVersionLocalDir, directory.Path());
        SetField(stInfo.szPassword, pszPassword);
        stInfo.pszFtpIPs = pszServers;
        stInfo.pszLocalIP = pszLocalIP;
        stInfo.ulPort = 2121;
        Result(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback));
    }

    // Starts, cipher lists, requests of every kind.
    void RunRequests()
    {
        const int aiList[] = {1, 1, 2};
        Result(client.CorpDirSetFtpCipherListToDirImpl(aiList, 0));
        Result(client.CorpDirInit(&stLogInfo));
        Result(client.CorpDirInit(&stLogInfo));
        Result(client.CorpDirDownloadNetaddr(nullptr, ClientCallback));
        Request(nullptr, nullptr, "secret");
        Request("192.0.2.1", nullptr, "");
        tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
        Result(client.CorpDirDownloadNetaddr(&stInfo, nullptr));
        Request("192.0.2.1;192.0.2.2", "192.0.2.99", "secret");
        Result(client.CorpDirAddFtpCipherListToDirImpl(aiList, 3));
        Request("2001:db8::1", "2001:db8::2", "secret");
        Request("10.1", "no address", "secret");
        fakes::SetResolved(AF_INET6, "");
        Request("ftp.example.test", "", "secret");
        fakes::SetResolved(AF_UNIX, std::string(4, 'x'));
        Request("ftp.example.test", "", "secret");
        fakes::SetResolved(AF_INET, std::string(4, 'x'));
        Request("ftp.example.test;192.0.2.2", "", "secret");
    }

    // Notifications and version files of every kind, with the worker in between.
    void RunNotifications()
    {
        inside::NotifyCallback()(nullptr, nullptr);
        (void)inside::VerifyCallback()(nullptr, nullptr);
        inside::VersionCorpDownloadErr(service, nullptr);
        for (const char* const pszBytes : {"1.2", "1.2.3", "1.2.3", "1.2.4"})
        {
            Notification(SUCCESS, members.m_ulVersionTaskID, "pub/version.txt").Deliver();
            Notification(OVER, members.m_ulVersionTaskID, "pub/version.txt").Deliver();
            support::WriteFile(directory.File("version.local"), pszBytes);
        }
        inside::TimerCallback()(nullptr);
        AddTask(3);
        RunWorkerUntilIdle();
        Notification(OVER, members.m_ulCorpDirTaskID, "pub/directory.xml").Deliver();
        Notification(FAILED, members.m_ulVersionTaskID, "pub/version.txt").WithError(7).Deliver();
        Notification(FAILED, members.m_ulVersionTaskID, "pub/version.txt").Deliver();
        Notification(FAILED, members.m_ulVersionTaskID, "pub/version.txt").Deliver();
        RunWorkerUntilIdle();
    }

    // Operations without a request or a start, stops, and errors.
    void RunStopsAndErrors()
    {
        client.CorpDirUninit();
        client.CorpDirUninit();
        members.m_pfnDownloadCb = nullptr;
        inside::CorpDirDownloadOver(service);
        Notification(FAILED, 1, "pub/version.txt").Deliver();
        Result(inside::VersionDownload(service));
        Result(inside::CorpDirDownload(service));
        Result(inside::SetFtpDataParam(service));
        Result(inside::SetFtpCtrlParam(service, "/local"));
        unsigned int ulTaskID = 0;
        Result(inside::AsynFtpDownload(service, "", "", "", ulTaskID));
        Request("192.0.2.1", "", "secret");
        members.m_hFtpHandle = nullptr;
        Result(inside::SetFtpCtrlParam(service, "/local"));
        Result(client.CorpDirInit(&stLogInfo));
        AddTask(1);
        AddTask(2);
        fakes::OnCall("OSAK_MutexUnLock", 2, [] { inside::WorkerRunFlag() = 0; });
        RunWorkerUntilIdle();
        client.CorpDirUninit();
        fakes::FailCall("zep_memcpy_s", 1, 77);
        Result(client.CorpDirAddFtpCipherListToDirImplByOne(7));
        unsigned char aucBytes[48] = {};
        unsigned int ulTooSmall = 15;
        Result(CommonEncrypt(aucBytes, 0, aucBytes, 32, aucBytes + 32, 16, aucBytes, &ulTooSmall));
    }

    support::TemporaryDirectory directory;
};

}  // namespace

TEST_F(LogTest, WithoutALogTheRunIsTheSame)
{
    const Lines vecOpen = RunScenario(LogState::Open, nullptr, 0);
    EXPECT_THAT(vecMisuses, IsEmpty());
    // The last worker is stopped before it is idle.
    EXPECT_THAT(vecUnused, ElementsAre("usleep, call 1"));
    EXPECT_THAT(vecOpen, Contains("client(1, 0, null, null)"));
    EXPECT_THAT(vecOpen, Contains("client(1, 1, null, null)"));
    EXPECT_EQ(RunScenario(LogState::Silenced, nullptr, 0), vecOpen);
    EXPECT_EQ(RunScenario(LogState::Absent, nullptr, 0), vecOpen);
}

// Some faults lead to misuses, since a failed start keeps the closed handle. They must be the same.
TEST_P(LogTest, WithoutALogTheRunWithThisFunctionFailingIsTheSame)
{
    for (unsigned int ulNth = 1; ulNth <= 8; ++ulNth)
    {
        const Lines vecOpen = RunScenario(LogState::Open, GetParam(), ulNth);
        EXPECT_TRUE(bFired || ulNth > 1) << "the run does not call the function";
        EXPECT_EQ(RunScenario(LogState::Silenced, GetParam(), ulNth), vecOpen) << ulNth;
        EXPECT_EQ(RunScenario(LogState::Absent, GetParam(), ulNth), vecOpen) << ulNth;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failing, LogTest,
    testing::Values("CorpDir_OpenLog", "TRAVEX_FTP_Init", "TRAVEX_FTP_CreateHandle",
                    "TRAVEX_FTP_SetCtrlParam", "TRAVEX_FTP_SetDataParam",
                    "TRAVEX_FTP_AsynDownloadFile", "TRAVEX_FTP_CloseHandle", "TRAVEX_FTP_UnInit",
                    "OSAK_MemMallocD", "OSAK_MemMallocS", "malloc", "OSAK_PthreadCreate",
                    "OSAK_PthreadJoin", "OSAK_CreateRelTimerM", "OSAK_StartRelTimer",
                    "OSAK_GetAddrInfo", "ZEP_CPYPT_RealRandom", "ZEP_CRYPT_GetblockSize",
                    "ZEP_CPYPT_Encrypt", "ZEP_CPYPT_Decrypt", "zep_memcpy_s"),
    [](const auto& instance) { return std::string(instance.param); });
