#include "service_link.h"

#include <string.h>

#include <algorithm>
#include <string_view>
#include <system_error>

#include "travex_ftp.h"

namespace client
{

namespace
{

// The observer reports outcomes, with their reasons.
void IgnoreResult(unsigned int, unsigned int, const char*, void*) {}

// Copies a text into a zeroed field, in which it fits.
template <std::size_t kSize>
void Fill(char (&field)[kSize], std::string_view text)
{
    memcpy(field, text.data(), std::min(text.size(), kSize - 1));
}

void FillRequest(const Settings& settings, const Secret& password, tag_CORPDIR_DOWNLOADINFO& info)
{
    Fill(info.szFtpCtrlInfo, settings.trust);
    Fill(info.szUserName, settings.user);
    Fill(info.szPassword, password.View());
    Fill(info.szVersionServerFile, settings.versionFile);
    Fill(info.szCorpDirServerFile, settings.directoryFile);
    Fill(info.szVersionLocalDir, settings.directoryFolder);
    Fill(info.szCorpDirLocalDir, settings.directoryFolder);
    info.ulPort = settings.port;
    info.ulFtpMode = settings.plain ? 1 : 0;
    info.pszLocalIP = settings.localAddress.c_str();  // null would keep that of an earlier request
    info.ulCertVerify = settings.verify ? 1 : 0;
}

void SetLimits(const Settings& settings)
{
    tagTRAVEX_FTP_S_LIMITS limits = {};
    limits.ullFileBytes = settings.maxFileBytes;
    limits.ulConnectMs = settings.connectMs;
    if (const unsigned int code = TRAVEX_FTP_SetLimits(&limits); code != 0)
    {
        throw StartError("the limits could not be set (code " + std::to_string(code) + ")");
    }
}

std::string Addresses(const std::vector<Server>& servers)
{
    std::string list;
    for (const Server& server : servers)
    {
        list += (list.empty() ? "" : ";") + server.address;
    }
    return list;
}

}  // namespace

void ServiceLink::Enter(State state)
{
    {
        const base::MutexLock lock(m_mutex);
        m_state = state;
    }
    m_changed.NotifyAll();
}

void ServiceLink::Start(const Settings& settings)
{
    if (Current() == State::kStarted)
    {
        return;
    }
    Stop();
    SetLimits(settings);
    tag_CORPDIR_LOGINFO log = settings.log;
    Enter(State::kStarted);  // a start that failed needs a stop as well
    if (const unsigned int code = m_service.CorpDirInit(&log); code != 0)
    {
        Stop();
        constexpr unsigned int kNotTheLog = 1;
        if (code == kNotTheLog)
        {
            throw StartError("the service could not be started (code 1)");
        }
        const std::string folder = log.szLogDir;
        throw StartError(
            "the log " + (folder.empty() ? "" : "in '" + folder + "' ") +
                "cannot be written: " + std::generic_category().message(static_cast<int>(code)),
            static_cast<int>(code));
    }
    const unsigned int code = m_service.CorpDirSetFtpCipherListToDirImpl(
        settings.suites.data(), static_cast<unsigned int>(settings.suites.size()));
    if (code != 0)
    {
        Stop();
        throw StartError("the cipher list could not be set (code " + std::to_string(code) + ")");
    }
}

unsigned int ServiceLink::Request(const Settings& settings, const std::vector<Server>& servers,
                                  const std::string& versionName, const std::string& directoryName,
                                  bool loginRefused)
{
    if (const unsigned int code = RegisterNames(servers, settings.names); code != 0)
    {
        throw StartError("the names of the servers could not be registered (code " +
                         std::to_string(code) + ")");
    }
    Wiped<tag_CORPDIR_DOWNLOADINFO> info;
    {
        Secret password;
        settings.readPassword(password, loginRefused);
        FillRequest(settings, password, info.record);
    }
    Fill(info.record.szVersionLocalFileName, versionName);
    Fill(info.record.szCorpDirLocalFileName, directoryName);
    const std::string addresses = Addresses(servers);
    info.record.pszFtpIPs = addresses.c_str();
    Enter(State::kRequesting);
    const unsigned int code = m_service.CorpDirDownloadNetaddr(&info.record, &IgnoreResult);
    Enter(State::kRunning);
    return code;
}

ServiceLink::State ServiceLink::Current()
{
    const base::MutexLock lock(m_mutex);
    return m_state;
}

// True when the caller has to stop the service, and then to enter kStopped.
bool ServiceLink::BeginStop(bool wait)
{
    const base::MutexLock lock(m_mutex);
    while (m_state == State::kRequesting || (wait && m_state == State::kStopping))
    {
        m_changed.Wait(m_mutex);
    }
    if (m_state == State::kStopped || m_state == State::kStopping)
    {
        return false;
    }
    m_state = State::kStopping;
    return true;
}

void ServiceLink::Stop()
{
    if (BeginStop(true))
    {
        m_service.CorpDirUninit();
        Enter(State::kStopped);
    }
}

void ServiceLink::StopInObserver()
{
    if (BeginStop(false))
    {
        m_service.CorpDirUninit();
        Enter(State::kStopped);
    }
}

}  // namespace client
