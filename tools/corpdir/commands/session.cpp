#include "commands/session.h"

#include <utility>

#include "exit_error.h"
#include "os/signals.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

const char kNextServer[] = "trying next server";
const char kSameServer[] = "trying again";

}  // namespace

Session::Session(IFtpCorpDir& service, const Plan& plan, std::vector<Server> servers,
                 const Secret& password, EventQueue& events, Report& report)
    : m_plan(plan),
      m_servers(std::move(servers)),
      m_password(password),
      m_events(events),
      m_report(report),
      m_link(service, plan, events)
{
}

Outcome Session::Run(EventQueue::Clock::time_point deadline)
{
    Settled status = StartFrom(0);
    while (!status)
    {
        status = Handle(m_events.WaitUntil(deadline));
    }
    m_link.Stop();
    if (*status == kExitFetched)
    {
        m_attempts.push_back({m_servers[m_current], {}});
    }
    return {*status, m_error, m_version.value_or(""), m_bytes, m_attempts};
}

// Makes a request to the servers from `first` on. A server for which it cannot be started is
// skipped.
Session::Settled Session::StartFrom(std::size_t first)
{
    for (std::size_t index = first; index < m_servers.size(); ++index)
    {
        m_first = m_current = index;
        m_failures = 0;
        m_version.reset();
        m_bytes = 0;
        m_total = TRAVEX_FTP_SIZE_UNKNOWN;
        m_link.Start();
        const auto begin = m_servers.begin() + static_cast<std::ptrdiff_t>(index);
        const unsigned int code = m_link.Request({begin, m_servers.end()}, m_password);
        if (code == 0)
        {
            return std::nullopt;
        }
        // The refusal was observed on this thread, before the call returned.
        Event refusal;
        refusal.reason = "the request could not be started (code " + std::to_string(code) + ")";
        for (const Event& event : m_events.TakeServiceEvents())
        {
            if (event.kind == EventKind::kRefused && IsArgumentRefusal(event.code))
            {
                return Fail(kExitArguments, ArgumentProblem(event));
            }
            refusal = event.kind == EventKind::kRefused ? event : refusal;
        }
        // The failed start may have left a transfer running.
        m_link.Stop();
        ReportServer(index, refusal, index + 1 < m_servers.size() ? kNextServer : "");
    }
    return NoServerLeft();
}

Session::Settled Session::Handle(const Event& event)
{
    switch (event.kind)
    {
        case EventKind::kAccepted:
            break;  // progress and outcome follow
        case EventKind::kProgress:
            return OnProgress(event);
        case EventKind::kTransferred:
            return OnTransferred(event);
        case EventKind::kFailed:
            return OnFailed(event);
        case EventKind::kRefused:
            return OnRefused(event);
        case EventKind::kDelivered:
            return kExitFetched;
        case EventKind::kSignal:
            return Fail(kExitSignal + event.number,
                        "stopped by " + SignalName(event.number) + " while " + Activity());
        case EventKind::kDeadline:
            return Fail(kExitNoOutcome,
                        "timed out after " + std::to_string(m_plan.timeoutSeconds) + " s while " +
                            Activity(),
                        "raise --timeout to allow more time");
        case EventKind::kOutOfMemory:
            return Fail(kExitInternal, "out of memory");
        case EventKind::kResolved:
        case EventKind::kCommandEnded:
            break;  // never during a session
    }
    return std::nullopt;
}

Session::Settled Session::OnProgress(const Event& event)
{
    // The service's ten-minute check may fetch the version file again in between.
    if (IsVersionFile(event) == m_version.has_value())
    {
        return std::nullopt;
    }
    m_bytes = event.bytes;
    m_total = event.total;
    m_report.Progress(m_version ? "directory" : "version", m_bytes, m_total);
    return std::nullopt;
}

// A file is on disk. The service is notified after the observer; it reads the version file by the
// same rule, and goes on to the directory file when the version is valid.
Session::Settled Session::OnTransferred(const Event& event)
{
    if (!IsVersionFile(event))
    {
        m_bytes = event.bytes;
        return std::nullopt;  // kDelivered follows
    }
    if (m_version)
    {
        return std::nullopt;
    }
    const VersionFile& file = event.version;
    m_current = IndexOf(event);
    if (!file.version)
    {
        return Fail(kExitBadVersion,
                    "version file '" + m_plan.VersionPath() + "' from " +
                        m_servers[m_current].Label() + " is not valid: " + file.problem,
                    "the first line of the version file must have 5 to 30 bytes");
    }
    m_version = file.version;
    m_bytes = 0;
    m_total = TRAVEX_FTP_SIZE_UNKNOWN;
    return std::nullopt;
}

Session::Settled Session::OnFailed(const Event& event)
{
    if (event.code == TRAVEX_FTP_ERR_LOCAL_FILE)
    {
        return Fail(kExitLocalFile, event.reason, HintFor(FailureOf(event), m_plan));
    }
    if (!IsVersionFile(event))
    {
        return MoveOn(IndexOf(event), event);
    }
    return m_version ? std::nullopt : OnVersionFailed(event);
}

// The service goes on to the next server by itself until its list is used up.
Session::Settled Session::OnVersionFailed(const Event& event)
{
    const std::size_t servers = m_servers.size() - m_first;
    // A single server is tried twice.
    const std::size_t attempts = servers == 1 ? 2 : servers;
    const std::size_t failed = IndexOf(event);
    ++m_failures;
    if (m_failures >= attempts)
    {
        ReportServer(failed, event, "");
        return NoServerLeft();
    }
    m_current = servers == 1 ? m_first : m_first + m_failures;
    m_bytes = 0;
    m_total = TRAVEX_FTP_SIZE_UNKNOWN;
    ReportServer(failed, event, servers == 1 ? kSameServer : kNextServer);
    return std::nullopt;
}

// The service could not start a transfer; no callback follows.
Session::Settled Session::OnRefused(const Event& event)
{
    if (IsArgumentRefusal(event.code))
    {
        return Fail(kExitArguments, ArgumentProblem(event));
    }
    return MoveOn(m_current, event);
}

// The service must be stopped before a new request.
Session::Settled Session::MoveOn(std::size_t failedIndex, const Event& event)
{
    m_link.Stop();
    const std::size_t next = failedIndex + 1;
    ReportServer(failedIndex, event, next < m_servers.size() ? kNextServer : "");
    return StartFrom(next);
}

Session::Settled Session::Fail(int status, const std::string& message, const std::string& hint)
{
    m_error = message;
    m_report.Error(message);
    // Adds the current server; the others have been reported already.
    if (status != kExitNoServer && status != kExitArguments)
    {
        m_attempts.push_back({m_servers[m_current], {0, 0, 0, 0, "", message}});
    }
    if (!hint.empty())
    {
        m_report.Hint(hint);
    }
    return status;
}

Session::Settled Session::NoServerLeft()
{
    (void)Fail(kExitNoServer, AllFailed(m_servers.size()));
    Hint();
    return kExitNoServer;
}

// Each hint once.
void Session::Hint() const
{
    std::vector<Failure> failures;
    for (const Attempt& attempt : m_attempts)
    {
        failures.push_back(attempt.failure);
    }
    for (const std::string& hint : HintsFor(failures, m_plan))
    {
        m_report.Hint(hint);
    }
}

bool Session::IsVersionFile(const Event& event) const
{
    return event.file == m_plan.versionFile;
}

// The current server when the event does not name one.
std::size_t Session::IndexOf(const Event& event) const
{
    for (std::size_t index = m_first; index < m_servers.size(); ++index)
    {
        if (m_servers[index].address == event.server)
        {
            return index;
        }
    }
    return m_current;
}

void Session::ReportServer(std::size_t index, const Event& event, const std::string& next)
{
    m_attempts.push_back({m_servers[index], FailureOf(event)});
    m_report.ServerFailed(m_servers[index].Label(), WithFile(m_attempts.back().failure), next);
}

std::string Session::Activity() const
{
    const std::string file = m_version ? "directory file '" + m_plan.directoryFile
                                       : "version file '" + m_plan.versionFile;
    return "fetching " + file + "' from " + m_servers[m_current].Label() + ": " +
           Amount(m_bytes, m_total);
}

}  // namespace corpdir_tool
