#include "commands/service_link.h"

#include <string.h>

#include <algorithm>
#include <atomic>

#include "commands/failure.h"
#include "ui/text.h"

namespace corpdir_tool
{

namespace
{

// Where OnResult puts its news.
std::atomic<EventQueue*> g_resultQueue{nullptr};

// Failures are told better by the observer, which gives the reason.
void OnResult(unsigned int, unsigned int result, const char*, void*)
{
    // Read once: the link may be ending on the main thread.
    EventQueue* const queue = g_resultQueue;
    if (result == 0 && queue != nullptr)
    {
        queue->PushKind(EventKind::DELIVERED);
    }
}

void OnObservation(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
{
    static_cast<ServiceLink*>(user)->Observe(*seen);
}

// The plan has checked that every text fits.
template <std::size_t SIZE>
void Fill(char (&field)[SIZE], std::string_view text)
{
    memcpy(field, text.data(), std::min(text.size(), SIZE - 1));
}

// The request record; it holds the password, and is wiped at the end.
struct RequestRecord
{
    RequestRecord() = default;
    ~RequestRecord()
    {
        explicit_bzero(&info, sizeof info);
    }
    RequestRecord(const RequestRecord&) = delete;
    RequestRecord& operator=(const RequestRecord&) = delete;

    tag_CORPDIR_DOWNLOADINFO info = {};
};

void FillRequest(const Plan& plan, const Secret& password, tag_CORPDIR_DOWNLOADINFO& info)
{
    Fill(info.szFtpCtrlInfo, plan.trust);
    Fill(info.szUserName, plan.user);
    Fill(info.szPassword, password.View());
    Fill(info.szVersionServerFile, plan.versionFile);
    Fill(info.szCorpDirServerFile, plan.directoryFile);
    Fill(info.szVersionLocalDir, plan.outputDir);
    Fill(info.szVersionLocalFileName, plan.versionName);
    Fill(info.szCorpDirLocalDir, plan.outputDir);
    Fill(info.szCorpDirLocalFileName, plan.directoryName);
    info.ulPort = plan.port;
    info.ulFtpMode = plan.plain ? 1 : 0;
    info.pszLocalIP = plan.localIp.c_str();  // null would keep an earlier request's
    info.ulCertVerify = plan.verify ? 1 : 0;
}

void SetLimits(const Plan& plan)
{
    tagTRAVEX_FTP_S_LIMITS limits = {};
    limits.ullFileBytes = plan.maxSize;
    limits.ulConnectMs =
        static_cast<unsigned int>(std::chrono::milliseconds(plan.connectTimeout).count());
    if (const unsigned int code = TRAVEX_FTP_SetLimits(&limits); code != 0)
    {
        throw Failure(EXIT_INTERNAL,
                      "the limits could not be set (code " + std::to_string(code) + ")");
    }
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
    SetLimits(m_plan);
    tag_CORPDIR_LOGINFO log = {};
    Fill(log.szLogDir, m_plan.logDir);
    log.ulLogLevel = m_plan.logLevel.value_or(0);
    m_started = true;  // a start that failed wants a stop, too
    if (const unsigned int code = m_service.CorpDirInit(&log); code != 0)
    {
        constexpr unsigned int NOT_THE_LOG = 1;
        if (code != NOT_THE_LOG && !m_plan.logDir.empty())
        {
            throw Failure(EXIT_LOCAL_FILE,
                          "--log-dir '" + Printable(m_plan.logDir) +
                              "' cannot be written: " + SystemMessage(static_cast<int>(code)));
        }
        throw Failure(EXIT_INTERNAL,
                      "the service could not be started (code " + std::to_string(code) + ")");
    }
    if (m_plan.ciphers.empty())
    {
        return;
    }
    const unsigned int code = m_service.CorpDirSetFtpCipherListToDirImpl(
        m_plan.ciphers.data(), static_cast<unsigned int>(m_plan.ciphers.size()));
    if (code != 0)
    {
        throw Failure(EXIT_INTERNAL,
                      "the cipher list could not be set (code " + std::to_string(code) + ")");
    }
}

unsigned int ServiceLink::Request(const std::vector<Server>& servers, const Secret& password)
{
    if (const unsigned int code = corpdir_shared::RegisterNames(servers, m_plan.verifyNames);
        code != 0)
    {
        throw Failure(EXIT_INTERNAL, "the names of the servers could not be registered (code " +
                                         std::to_string(code) + ")");
    }
    std::string addresses;
    for (const Server& server : servers)
    {
        addresses += (addresses.empty() ? "" : ";") + server.address;
    }
    RequestRecord record;
    FillRequest(m_plan, password, record.info);
    record.info.pszFtpIPs = addresses.c_str();
    return m_service.CorpDirDownloadNetaddr(&record.info, &OnResult);
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
