#include "commands/checker.h"

#include <arpa/inet.h>
#include <sys/statvfs.h>

#include <ctime>

#include <memory>

#include "commands/layer_settings.h"
#include "commands/tool_log.h"
#include "exit_error.h"
#include "os/signals.h"
#include "version_file.h"

namespace corpdir_tool
{

using client::EventKind;
using client::TransferEvent;

namespace
{

// Names in the scratch directory.
const std::string kVersionName = "version";
const std::string kDirectoryName = "directory";

struct CloseHandle
{
    void operator()(TRAVEX_FTP_HANDLE handle) const
    {
        (void)TRAVEX_FTP_CloseHandle(handle);  // it is a live handle
    }
};

using Handle = std::unique_ptr<tagTRAVEX_FTP_HANDLE, CloseHandle>;

Handle MakeHandle()
{
    Handle handle(TRAVEX_FTP_CreateHandle());
    if (handle == nullptr)
    {
        throw ExitError(kExitInternal, "the FTP layer could not create a handle");
    }
    return handle;
}

void Observe(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
{
    static_cast<EventQueue*>(user)->PushObservation(*seen);
}

// 0: IPv4, 1: IPv6.
unsigned int SetAddress(const std::string& text, unsigned char (&address)[16])
{
    const int family = client::FamilyOf(text.c_str());
    (void)inet_pton(family, text.c_str(), address);  // the plan has checked the text
    return family == AF_INET6 ? 1 : 0;
}

// The row of the version file's failure.
CheckStep StepOf(const TransferEvent& event)
{
    switch (event.step)
    {
        case TRAVEX_FTP_STEP_CONNECT:
            return CheckStep::kConnect;
        case TRAVEX_FTP_STEP_GREETING:  // with implicit FTPS it follows the handshake
            return event.timings.ullSecured == 0 ? CheckStep::kConnect : CheckStep::kLogin;
        case TRAVEX_FTP_STEP_AUTH:
            return CheckStep::kTls;
        case TRAVEX_FTP_STEP_TLS:
            return event.code == TRAVEX_FTP_ERR_CERT ? CheckStep::kCertificate : CheckStep::kTls;
        case TRAVEX_FTP_STEP_LOGIN:
            return CheckStep::kLogin;
        default:
            return CheckStep::kVersionFile;
    }
}

void Fail(CheckResult& result, CheckStep step, const Failure& failure)
{
    result.failedAt = step;
    result.failure = failure;
}

}  // namespace

Checker::Checker(const Plan& plan, const std::string& scratch, const client::Secret& password,
                 EventQueue& events, TimeLimits& limits)
    : m_plan(plan), m_scratch(scratch), m_password(password), m_events(events), m_limits(limits)
{
    if (const unsigned int code = TRAVEX_FTP_Init(); code != 0)
    {
        throw ExitError(kExitInternal,
                        "the FTP layer could not be started (code " + std::to_string(code) + ")");
    }
    TRAVEX_FTP_SetObserver(&Observe, &m_events);
}

Checker::~Checker()
{
    (void)TRAVEX_FTP_UnInit();  // harmless in any state
    TRAVEX_FTP_SetObserver(nullptr, nullptr);
}

CheckResult Checker::Check(const Server& server)
{
    CheckResult result;
    result.server = server;
    SetLimits(m_plan, m_plan.maxSize);
    RegisterServers({server}, m_plan);
    const Handle handle = MakeHandle();
    if (const unsigned int code = SetParameters(handle.get(), server); code != 0)
    {
        Fail(result, CheckStep::kConnect, FailureOf(Refusal(code)));
        return result;
    }
    CheckVersionFile(Download(handle.get(), m_plan.versionFile, kVersionName, server), result);
    if (result.failedAt == CheckStep::kDone)
    {
        constexpr std::uint64_t kProbe = 1;  // byte: only asks whether the server sends the file
        SetLimits(m_plan, kProbe);
        TransferEvent event = Download(handle.get(), m_plan.directoryFile, kDirectoryName, server);
        // The layer may have left out SIZE on the reused connection: ask again on a new one.
        if (m_plan.maxSize != 0 && event.code == TRAVEX_FTP_ERR_TOO_LARGE &&
            event.total == TRAVEX_FTP_SIZE_UNKNOWN && event.timings.ulReused == 1)
        {
            const Handle fresh = MakeHandle();
            const unsigned int code = SetParameters(fresh.get(), server);
            event = code != 0 ? Refusal(code)
                              : Download(fresh.get(), m_plan.directoryFile, kDirectoryName, server);
        }
        CheckDirectoryFile(event, result);
        AddWarnings(result);
    }
    return result;
}

void Checker::CheckVersionFile(const TransferEvent& event, CheckResult& result) const
{
    result.timings = event.timings;
    if (event.kind != EventKind::kTransferred)
    {
        Fail(result, StepOf(event), FailureOf(event));
        return;
    }
    result.versionBytes = event.bytes;
    const client::VersionFile file = client::ReadVersionFile(m_scratch + kVersionName);
    if (!file.version)
    {
        TOOL_LOG(CORPDIR_LOG_ERROR, "The version file %s from server %s is not valid: %s",
                 m_plan.versionFile.c_str(), result.server.Label().c_str(), file.problem.c_str());
        Fail(result, CheckStep::kVersionFile, {0, 0, 0, 0, m_plan.versionFile, file.problem});
        return;
    }
    result.version = *file.version;
    if (!file.warning.empty())
    {
        result.warnings.push_back(file.warning);
    }
}

void Checker::CheckDirectoryFile(const TransferEvent& event, CheckResult& result) const
{
    const bool exists =
        event.kind == EventKind::kTransferred || event.code == TRAVEX_FTP_ERR_TOO_LARGE;
    if (!exists)
    {
        Fail(result, CheckStep::kDirectoryFile, FailureOf(event));
        return;
    }
    result.directoryBytes = event.kind == EventKind::kTransferred ? event.bytes : event.total;
    if (m_plan.maxSize != 0 && result.directoryBytes != TRAVEX_FTP_SIZE_UNKNOWN &&
        result.directoryBytes > m_plan.maxSize)
    {
        Fail(result, CheckStep::kDirectoryFile,
             {TRAVEX_FTP_ERR_TOO_LARGE, TRAVEX_FTP_STEP_RECEIVE, 0, 0, m_plan.directoryFile,
              "the file has " + std::to_string(result.directoryBytes) +
                  " bytes, --max-size allows " + std::to_string(m_plan.maxSize)});
    }
}

// What may fail soon.
void Checker::AddWarnings(CheckResult& result) const
{
    constexpr std::int64_t kDay = 86400;  // seconds
    constexpr std::int64_t kSoon = 30;    // days
    const std::int64_t until = result.timings.llCertificateUntil;
    const std::int64_t left = until - std::time(nullptr);
    if (until != 0 && left >= 0 && left < kSoon * kDay)
    {
        result.warnings.push_back("the certificate expires within " +
                                  std::to_string((left + kDay - 1) / kDay) + " days: renew it");
    }
    struct statvfs space = {};
    if (!m_plan.outputDir.empty() && result.directoryBytes != TRAVEX_FTP_SIZE_UNKNOWN &&
        statvfs(m_plan.outputDir.c_str(), &space) == 0 &&
        space.f_bavail * space.f_frsize < result.directoryBytes)
    {
        result.warnings.push_back(
            "--output-dir has " + std::to_string(space.f_bavail * space.f_frsize) +
            " bytes free, the directory file has " + std::to_string(result.directoryBytes));
    }
}

// The options that have no effect stay zero. 0, or the layer's code.
unsigned int Checker::SetParameters(TRAVEX_FTP_HANDLE handle, const Server& server) const
{
    client::Wiped<tagTRAVEX_FTP_S_CTRL_PARAM> control;
    tagTRAVEX_FTP_S_CTRL_PARAM& parameters = control.record;
    parameters.ulServerType = m_plan.plain ? 0 : 1;
    parameters.ulServerIpType = SetAddress(server.address, parameters.aucServerIp);
    parameters.ulServerPort = m_plan.port;
    CopyText(parameters.acUserName, m_plan.user);
    CopyText(parameters.acPassword, m_password.View());
    CopyText(parameters.acWorkDir, m_scratch);
    parameters.pcFtpCtrlInfo = m_plan.trust.c_str();
    parameters.piCipherList = m_plan.suites.data();
    parameters.ulCipherNum = static_cast<unsigned int>(m_plan.suites.size());
    if (!m_plan.localIp.empty())
    {
        parameters.ulLocalIpType = SetAddress(m_plan.localIp, parameters.aucLocalIp);
    }
    parameters.ulCertVerify = m_plan.verify ? 1 : 0;
    const tagTRAVEX_FTP_S_DATA_PARAM data = {};
    const unsigned int code = TRAVEX_FTP_SetCtrlParam(handle, &parameters);
    return code != 0 ? code : TRAVEX_FTP_SetDataParam(handle, &data);
}

TransferEvent Checker::Download(TRAVEX_FTP_HANDLE handle, const std::string& file,
                                const std::string& localName, const Server& server)
{
    unsigned int task = 0;
    const unsigned int code =
        TRAVEX_FTP_AsynDownloadFile(handle, &task, file.c_str(), ".", localName.c_str(), nullptr);
    return code == 0 ? Outcome(server) : Refusal(code);
}

// A refusal is observed before the call returns. Throws ExitError when an argument is refused.
TransferEvent Checker::Refusal(unsigned int code)
{
    TransferEvent refusal;
    refusal.kind = EventKind::kRefused;
    refusal.code = code;
    refusal.reason = "the transfer could not be started (code " + std::to_string(code) + ")";
    for (const TransferEvent& event : m_events.TakeObservations())
    {
        refusal = event.kind == EventKind::kRefused ? event : refusal;
    }
    if (client::IsSettingsRefusal(refusal.code))
    {
        throw ExitError(kExitArguments, ArgumentProblem(refusal));
    }
    return refusal;
}

// The end of the transfer under way.
TransferEvent Checker::Outcome(const Server& server)
{
    for (;;)
    {
        const Event event = m_events.WaitUntil(m_limits.Deadline());
        const TransferEvent& transfer = event.transfer;
        switch (event.kind)
        {
            case Event::Kind::kTransfer:
                m_limits.Progress();
                if (transfer.kind == EventKind::kTransferred)
                {
                    return transfer;
                }
                if (transfer.kind == EventKind::kFailed)
                {
                    if (transfer.code == TRAVEX_FTP_ERR_LOCAL_FILE)
                    {
                        throw ExitError(kExitLocalFile, transfer.reason);
                    }
                    return transfer;
                }
                break;
            case Event::Kind::kSignal:
                throw CheckStopped{
                    kExitSignal + event.number,
                    "stopped by " + SignalName(event.number) + " while checking " + server.Label()};
            case Event::Kind::kDeadline:
                throw CheckStopped{kExitNoOutcome, "timed out while checking " + server.Label() +
                                                       ": " + m_limits.Reason()};
            case Event::Kind::kOutOfMemory:
                throw ExitError(kExitInternal, "out of memory");
            default:
                break;
        }
    }
}

}  // namespace corpdir_tool
