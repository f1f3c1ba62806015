#include "service_test.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "fake_state.h"

void SetField(char (&acField)[256], const std::string& strText)
{
    std::memset(acField, 0, sizeof(acField));
    std::memcpy(acField, strText.data(), std::min(strText.size(), sizeof(acField)));
}

tag_CORPDIR_DOWNLOADINFO ARequest(const char* pszServers)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = {};
    SetField(stInfo.szFtpCtrlInfo, "ca=/etc/ca.pem");
    SetField(stInfo.szUserName, "alice");
    SetField(stInfo.szPassword, "secret");
    SetField(stInfo.szVersionServerFile, "pub/version.txt");
    SetField(stInfo.szCorpDirServerFile, "pub/directory.xml");
    SetField(stInfo.szVersionLocalDir, "/nowhere/v");
    SetField(stInfo.szVersionLocalFileName, "version.local");
    SetField(stInfo.szCorpDirLocalDir, "/nowhere/d");
    SetField(stInfo.szCorpDirLocalFileName, "directory.local");
    stInfo.pszFtpIPs = pszServers;
    return stInfo;
}

void ClientCallback(unsigned int ulKind, unsigned int ulResult, const char* pszText,
                    void* pReserved)
{
    const fakes::Call call("client", ulKind, ulResult, pszText,
                           static_cast<const void*>(pReserved));
}

Notification::Notification(unsigned int ulType, unsigned int ulTaskID, const std::string& strFile)
{
    stRecord.ulTaskID = ulTaskID;
    stRecord.ulType = ulType;
    SetField(stRecord.DownFileName, strFile);
}

Notification& Notification::WithError(unsigned int ulCode)
{
    stError.ulRet = ulCode;
    stRecord.pstErrInfo = &stError;
    return *this;
}

void Notification::Deliver()
{
    inside::NotifyCallback()(nullptr, &stRecord);
}

Lines Only(const Lines& vecLines, const Lines& vecBeginnings)
{
    Lines vecOnly;
    for (const std::string& strLine : vecLines)
    {
        if (std::any_of(vecBeginnings.begin(), vecBeginnings.end(),
                        [&](const std::string& strBegin)
                        { return strLine.compare(0, strBegin.size(), strBegin) == 0; }))
        {
            vecOnly.push_back(strLine);
        }
    }
    return vecOnly;
}

Lines Procedure(const Lines& vecTrace)
{
    const Lines vecAside = Only(vecTrace, {"zep_memset_s(local", "OSAK_StrLen("});
    Lines vecProcedure;
    for (const std::string& strLine : vecTrace)
    {
        if (std::find(vecAside.begin(), vecAside.end(), strLine) == vecAside.end())
        {
            vecProcedure.push_back(strLine);
        }
    }
    return vecProcedure;
}

Lines Joined(std::initializer_list<Lines> parts)
{
    Lines vecAll;
    for (const Lines& vecPart : parts)
    {
        vecAll.insert(vecAll.end(), vecPart.begin(), vecPart.end());
    }
    return vecAll;
}

Lines RequestTexts(const inside::Members& members)
{
    return {members.m_strUserName,
            members.m_strFtpIP,
            members.m_strIPs,
            members.m_strAllIPs,
            members.m_strLocalIP,
            members.m_strOldVersion,
            members.m_strVersionServerPath,
            members.m_strCorpDirServerPath,
            members.m_strVersionLocalPath,
            members.m_strVersionFileName,
            members.m_strCorpDirLocalPath,
            members.m_strCorpDirFileName};
}

// The object is destroyed and built again in its place, since there is only one.
static void Rebuild(CFTPCorpDirImpl& service)
{
    service.~CFTPCorpDirImpl();
    new (&service) CFTPCorpDirImpl;
    g_stFtpCiperList.ulCipherNum = 0;
}

static CFTPCorpDirImpl& FreshService()
{
    CFTPCorpDirImpl& service = inside::TheService();
    fakes::EndWorker();
    service.freeFtpCipherList();
    g_LogMode = 0;
    Rebuild(service);
    fakes::Reset();
    return service;
}

ServiceTest::ServiceTest()
    : service(FreshService()), client(*GetCorpDirInstance()), members(service)
{
    fakes::NamePointer(members.m_aucKey, "m_aucKey");
    fakes::NamePointer(members.m_aucIV, "m_aucIV");
    fakes::NamePointer(&members.m_ulVersionTaskID, "m_ulVersionTaskID");
    fakes::NamePointer(&members.m_ulCorpDirTaskID, "m_ulCorpDirTaskID");
    fakes::NamePointer(&service, "service");
    fakes::NamePointer(&inside::WorkerThread(), "g_stThread");
    fakes::NamePointer(&stLogInfo, "loginfo");
    fakes::NamePointer(reinterpret_cast<void*>(CFTPCorpDirImpl::ThreadProcess), "ThreadProcess");
    fakes::NamePointer(reinterpret_cast<void*>(inside::TimerCallback()), "timer callback");
    fakes::NamePointer(reinterpret_cast<void*>(inside::NotifyCallback()), "DownloadCallback");
    fakes::NamePointer(inside::DefaultCipherList(), "default list");
}

ServiceTest::~ServiceTest()
{
    FreshService();
}

void ServiceTest::TearDown()
{
    EXPECT_THAT(fakes::TakeMisuses(), testing::IsEmpty());
    EXPECT_THAT(fakes::UnusedRules(), testing::IsEmpty());
}

void ServiceTest::Renew()
{
    client.CorpDirUninit();
    Rebuild(service);
}

void ServiceTest::Start()
{
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    Trace();
    Logged();
}

void ServiceTest::TakeRequest(const std::string& strServers)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest(strServers.c_str());
    ASSERT_EQ(inside::SetFtpInfo(service, &stInfo), 0U);
    Trace();
    Logged();
}

void ServiceTest::StartWithRequest(const std::string& strServers)
{
    Start();
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest(strServers.c_str());
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, ClientCallback), 0U);
    Trace();
    Logged();
}

unsigned int ServiceTest::RunWorkerUntilIdle()
{
    inside::WorkerRunFlag() = 1;
    {
        const memory::Paused paused;
        fakes::OnCall("usleep", 1, [] { inside::WorkerRunFlag() = 0; });
    }
    return CFTPCorpDirImpl::ThreadProcess();
}

std::vector<unsigned int> ServiceTest::Tasks()
{
    std::vector<unsigned int> vecTasks;
    tagCORPDIR_E_THREADPRO_TYPE eTask{};
    while (members.m_listThreadPro.take_front(eTask))
    {
        vecTasks.push_back(eTask);
    }
    for (const unsigned int ulTask : vecTasks)
    {
        AddTask(ulTask);
    }
    return vecTasks;
}

void ServiceTest::AddTask(unsigned int ulTask)
{
    members.m_listThreadPro.push_back(static_cast<tagCORPDIR_E_THREADPRO_TYPE>(ulTask));
}

Lines ServiceTest::Trace()
{
    return fakes::TakeTrace();
}

Lines ServiceTest::TraceFrom(size_t ulFirst)
{
    const Lines vecTrace = Trace();
    return Lines(vecTrace.begin() + static_cast<long>(std::min(ulFirst, vecTrace.size())),
                 vecTrace.end());
}

Lines ServiceTest::Logged()
{
    return fakes::TakeLogged();
}
