#include "commands/session.h"

#include <algorithm>
#include <new>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include "commands/advice.h"
#include "exit_error.h"
#include "os/signals.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

using client::Next;
using Kind = client::Event::Kind;

const char* TextOf(Next next)
{
    return next == Next::kOtherServer  ? "trying next server"
           : next == Next::kSameServer ? "trying again"
                                       : "";
}

}  // namespace

Session::Session(IFtpCorpDir& service, const Plan& plan, Lookup lookup, PasswordSource& password,
                 EventQueue& events, Report& report)
    : m_plan(plan),
      m_password(password),
      m_events(events),
      m_report(report),
      m_client(service, std::move(lookup)),
      m_limits(plan)
{
    m_events.SetWake([this] { m_client.Wake(); });
}

Session::~Session()
{
    m_events.SetWake(nullptr);
}

Outcome Session::Run()
{
    Settled status;
    try
    {
        m_client.Start(SettingsOf(m_plan, m_password));
        while (!status)
        {
            status = Step();
        }
    }
    catch (const client::StartError& error)
    {
        throw StartProblem(m_plan, error);
    }
    catch (const std::system_error& error)
    {
        throw ExitError(kExitLocalFile, error.what());
    }
    catch (const std::bad_alloc&)
    {
        status = Fail(kExitInternal, "out of memory");
    }
    m_client.Stop();
    m_outcome.status = *status;
    return std::move(m_outcome);
}

Session::Settled Session::Step()
{
    const Clock::time_point deadline = m_limits.Deadline();
    const std::optional<client::Event> event = m_client.Next(deadline);
    if (event)
    {
        m_limits.Progress();
        return Handle(*event);
    }
    const Settled status = HandleOwn();
    if (status || Clock::now() < deadline)
    {
        return status;
    }
    const std::string message = "timed out while " + Activity() + ": " + m_limits.Reason();
    if (const std::string warning = m_client.GiveUp(message); !warning.empty())
    {
        m_report.Warning(warning);
    }
    return Fail(kExitNoOutcome, message, "raise " + m_limits.Option() + " to allow more time");
}

Session::Settled Session::Handle(const client::Event& event)
{
    switch (event.kind)
    {
        case Kind::kChecking:
            Begin(event.server);
            break;
        case Kind::kProgress:
            m_bytes = event.transfer.bytes;
            m_total = event.transfer.total;
            if (event.transfer.kind == client::EventKind::kProgress)
            {
                m_directory = event.transfer.file == m_plan.directoryFile;
                m_report.Progress(m_directory ? "directory" : "version", m_bytes, m_total);
            }
            break;
        case Kind::kNewVersion:
            m_directory = true;
            m_bytes = 0;
            m_total = TRAVEX_FTP_SIZE_UNKNOWN;
            break;
        case Kind::kUnchanged:
        case Kind::kDelivered:
            return OnEnd(event);
        case Kind::kInvalidVersion:
            return OnInvalidVersion(event);
        case Kind::kFailed:
            return OnFailed(event);
        case Kind::kRefused:
            return Fail(kExitArguments, ArgumentProblem(event.transfer));
        case Kind::kNameFailed:
            m_outcome.leftOut.push_back(event.server.name + ": " + event.transfer.reason);
            m_report.ServerFailed(event.server.name, event.transfer.reason, "skipped");
            break;
        case Kind::kPassFailed:
            return OnAllFailed();
        case Kind::kStartFailed:
            return Fail(kExitInternal, event.transfer.reason);
        case Kind::kWarning:
            m_report.Warning(event.transfer.reason);
            break;
        case Kind::kRecovered:
        case Kind::kWaiting:
            break;  // the session has ended before
    }
    return std::nullopt;
}

std::size_t Session::ServersAsked() const
{
    std::set<std::string> addresses;
    for (const Attempt& attempt : m_outcome.attempts)
    {
        addresses.insert(attempt.server.address);
    }
    return addresses.size();
}

// Signals.
Session::Settled Session::HandleOwn()
{
    const Event event = m_events.WaitUntil(Clock::now());
    switch (event.kind)
    {
        case Event::Kind::kSignal:
            return Fail(kExitSignal + event.number,
                        "stopped by " + SignalName(event.number) + " while " + Activity());
        case Event::Kind::kOutOfMemory:
            throw std::bad_alloc();
        default:
            return std::nullopt;
    }
}

Session::Settled Session::OnEnd(const client::Event& event)
{
    m_outcome.attempts.push_back({event.server, {}});
    m_outcome.version = event.version;
    m_outcome.unchanged = m_plan.ifChanged && event.kind == Kind::kUnchanged;
    m_outcome.bytes = m_outcome.unchanged ? 0 : event.size;
    return kExitFetched;
}

Session::Settled Session::OnInvalidVersion(const client::Event& event)
{
    m_invalidVersion = true;
    ReportServer(event.server, FailureOf(event.transfer), event.next);
    return std::nullopt;
}

Session::Settled Session::OnFailed(const client::Event& event)
{
    const Failure failure = FailureOf(event.transfer);
    if (failure.code == TRAVEX_FTP_ERR_LOCAL_FILE)
    {
        return Fail(kExitLocalFile, failure.reason, HintFor(failure, m_plan));
    }
    if (event.transfer.kind == client::EventKind::kRefused &&
        client::IsSettingsRefusal(failure.code))
    {
        return Fail(kExitArguments, ArgumentProblem(event.transfer));
    }
    ReportServer(event.server, failure, event.next);
    return std::nullopt;
}

Session::Settled Session::OnAllFailed()
{
    if (m_outcome.attempts.empty())
    {
        return Fail(kExitNoServer, NoAddress(m_plan));
    }
    return Fail(m_invalidVersion ? kExitBadVersion : kExitNoServer, AllFailed(ServersAsked()),
                HintFor(m_outcome.attempts, m_plan));
}

Session::Settled Session::Fail(int status, const std::string& message, const std::string& hint)
{
    m_outcome.error = message;
    m_report.Error(message);
    // Adds the current server; those that failed have been reported already.
    const bool one =
        status != kExitNoServer && status != kExitBadVersion && status != kExitArguments;
    if (one && !m_server.address.empty())
    {
        m_outcome.attempts.push_back({m_server, {0, 0, 0, 0, "", message}});
    }
    GiveHint(hint, m_plan, m_report);
    return status;
}

void Session::Begin(const Server& server)
{
    m_server = server;
    m_directory = false;
    m_bytes = 0;
    m_total = TRAVEX_FTP_SIZE_UNKNOWN;
}

void Session::ReportServer(const Server& server, const Failure& failure, Next next)
{
    m_outcome.attempts.push_back({server, failure});
    m_report.ServerFailed(server.Label(), WithFile(failure), TextOf(next));
}

std::string Session::Activity() const
{
    if (m_server.address.empty())
    {
        return "looking up the names of the servers";
    }
    const std::string file = m_directory ? "directory file '" + m_plan.directoryFile
                                         : "version file '" + m_plan.versionFile;
    return "fetching " + file + "' from " + m_server.Label() + ", " + Amount(m_bytes, m_total);
}

}  // namespace corpdir_tool
