#include "commands/service_link.h"

#include <atomic>

#include "commands/layer_settings.h"
#include "exit_error.h"

namespace corpdir_tool
{

namespace
{

// The client callback has no user pointer.
std::atomic<EventQueue*> g_resultQueue{nullptr};

// Reports success only: the observer reports failures, with their reasons.
void OnResult(unsigned int, unsigned int result, const char*, void*)
{
    // Read once: the main thread may be destroying the link.
    EventQueue* const queue = g_resultQueue;
    if (result == 0 && queue != nullptr)
    {
        queue->Push(EventKind::kDelivered);
    }
}

void OnObservation(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
{
    static_cast<ServiceLink*>(user)->Observe(*seen);
}

void FillRequest(const Plan& plan, const Secret& password, tag_CORPDIR_DOWNLOADINFO& info)
{
    CopyText(info.szFtpCtrlInfo, plan.trust);
    CopyText(info.szUserName, plan.user);
    CopyText(info.szPassword, password.View());
    CopyText(info.szVersionServerFile, plan.versionFile);
    CopyText(info.szCorpDirServerFile, plan.directoryFile);
    CopyText(info.szVersionLocalDir, plan.outputDir);
    CopyText(info.szVersionLocalFileName, plan.versionName);
    CopyText(info.szCorpDirLocalDir, plan.outputDir);
    CopyText(info.szCorpDirLocalFileName, plan.directoryName);
    info.ulPort = plan.port;
    info.ulFtpMode = plan.plain ? 1 : 0;
    info.pszLocalIP = plan.localIp.c_str();  // null would keep that of an earlier request
    info.ulCertVerify = plan.verify ? 1 : 0;
}

}  // namespace

ServiceLink::ServiceLink(IFtpCorpDir& service, const Plan& plan, EventQueue& events)
    : m_service(service), m_plan(plan), m_events(events), m_versionPath(plan.VersionPath())
{
    g_resultQueue = &m_events;
    TRAVEX_FTP_SetObserver(&OnObservation, this);
}

ServiceLink::~ServiceLink()
{
    Stop();
    TRAVEX_FTP_SetObserver(nullptr, nullptr);
    g_resultQueue = nullptr;
}

void ServiceLink::Observe(const tagTRAVEX_FTP_S_OBSERVATION& seen) const noexcept
{
    m_events.PushObservation(seen, m_plan.versionFile, m_versionPath);
}

void ServiceLink::Start()
{
    SetLimits(m_plan, m_plan.maxSize);
    tag_CORPDIR_LOGINFO log = LogSettingsOf(m_plan);
    m_started = true;  // a start that failed needs a stop as well
    if (const unsigned int code = m_service.CorpDirInit(&log); code != 0)
    {
        constexpr unsigned int kNotTheLog = 1;
        if (code != kNotTheLog && !m_plan.logDir.empty())
        {
            throw LogError(m_plan, code);
        }
        throw ExitError(kExitInternal,
                        "the service could not be started (code " + std::to_string(code) + ")");
    }
    if (m_plan.suites.empty())
    {
        return;
    }
    const unsigned int code = m_service.CorpDirSetFtpCipherListToDirImpl(
        m_plan.suites.data(), static_cast<unsigned int>(m_plan.suites.size()));
    if (code != 0)
    {
        throw ExitError(kExitInternal,
                        "the cipher list could not be set (code " + std::to_string(code) + ")");
    }
}

unsigned int ServiceLink::Request(const std::vector<Server>& servers, const Secret& password)
{
    RegisterServers(servers, m_plan);
    std::string addresses;
    for (const Server& server : servers)
    {
        addresses += (addresses.empty() ? "" : ";") + server.address;
    }
    Wiped<tag_CORPDIR_DOWNLOADINFO> info;
    FillRequest(m_plan, password, info.record);
    info.record.pszFtpIPs = addresses.c_str();
    return m_service.CorpDirDownloadNetaddr(&info.record, &OnResult);
}

void ServiceLink::Stop()
{
    if (m_started)
    {
        m_service.CorpDirUninit();
        m_started = false;
    }
    (void)m_events.TakeServiceEvents();
}

}  // namespace corpdir_tool
