#include "commands/watcher.h"

#include <algorithm>
#include <utility>

#include "exit_error.h"
#include "os/signals.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

// The service's interval between two checks.
constexpr std::chrono::seconds kCheckInterval{600};

// Used when there is nothing to wait for.
constexpr std::chrono::hours kLongWait{24};

bool SameServers(const std::vector<Server>& one, const std::vector<Server>& other)
{
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](const Server& left, const Server& right)
                      { return left.address == right.address && left.listed == right.listed; });
}

}  // namespace

Watcher::Watcher(IFtpCorpDir& service, const Plan& plan, Lookup lookup, const Secret& password,
                 EventQueue& events, WatchOutput& output, ChildCommand* command)
    : m_plan(plan),
      m_lookup(std::move(lookup)),
      m_password(password),
      m_events(events),
      m_output(output),
      m_command(command),
      m_link(service, plan, events)
{
}

int Watcher::Run()
{
    LookUp();
    Settled status;
    while (!status)
    {
        status = Handle(m_events.WaitUntil(m_askAgainAt.value_or(Clock::now() + kLongWait)));
        if (!status && m_output.Lost())
        {
            m_link.Stop();
            throw ExitError(kExitLocalFile, "the events cannot be written to standard output");
        }
    }
    m_link.Stop();
    return *status;
}

void Watcher::LookUp()
{
    if (m_resolver == nullptr)
    {
        m_resolver =
            std::make_unique<NameResolver>(m_plan.entries, m_plan.family, m_lookup, m_events);
    }
}

Watcher::Settled Watcher::OnResolved()
{
    ResolvedServers resolved = m_resolver->Take();
    m_resolver.reset();
    for (const client::LeftOut& entry : resolved.leftOut)
    {
        m_output.NameFailed(entry.text + ": " + entry.problem);
    }
    if (resolved.servers.empty())
    {
        AskAgainLater();
        return std::nullopt;
    }
    // If a name has no address at the moment, the addresses of the current request stay in use.
    const bool moved = resolved.leftOut.empty() && !SameServers(resolved.servers, m_found);
    if (!m_requestDue && !moved)
    {
        return std::nullopt;
    }
    m_found = std::move(resolved.servers);
    m_servers = m_found;
    m_fruitless = 0;
    return Request(0);
}

// Makes a request that begins with this server of the previous one.
Watcher::Settled Watcher::Request(std::size_t first)
{
    m_link.Stop();
    std::rotate(m_servers.begin(), m_servers.begin() + static_cast<std::ptrdiff_t>(first),
                m_servers.end());
    m_requestDue = false;
    m_askAgainAt.reset();
    m_moving = false;
    m_version.clear();
    m_expected.clear();
    Refill();
    const unsigned int code = StartAndRequest();
    if (code == 0 || m_requestDue)
    {
        return std::nullopt;
    }
    Event refusal;
    refusal.kind = EventKind::kRefused;
    refusal.reason = "the request could not be started (code " + std::to_string(code) + ")";
    for (const Event& event : m_events.TakeServiceEvents())
    {
        refusal = event.kind == EventKind::kRefused ? event : refusal;
    }
    m_link.Stop();
    return OnRefused(refusal);
}

// Returns the code of the request. A restart that fails, for example because the log directory is
// gone, is reported and retried later; m_requestDue is set in this case.
unsigned int Watcher::StartAndRequest()
{
    try
    {
        m_link.Start();
        return m_link.Request(m_servers, m_password);
    }
    catch (const ExitError& error)
    {
        if (!m_taken)
        {
            throw;
        }
        m_output.StartFailed(error.what());
        AskAgainLater();
        return 0;
    }
}

Watcher::Settled Watcher::Handle(const Event& event)
{
    switch (event.kind)
    {
        case EventKind::kAccepted:
            OnAccepted(event);
            break;
        case EventKind::kProgress:
            break;
        case EventKind::kTransferred:
            return OnTransferred(event);
        case EventKind::kDelivered:
            OnDelivered();
            break;
        case EventKind::kFailed:
            return OnFailed(event);
        case EventKind::kRefused:
            return OnRefused(event);
        case EventKind::kResolved:
            return OnResolved();
        case EventKind::kCommandEnded:
            OnCommandEnded(event.number);
            break;
        case EventKind::kSignal:
            m_output.Stopped(SignalName(event.number));
            return kExitFetched;
        case EventKind::kDeadline:
            OnDeadline();
            break;
        case EventKind::kOutOfMemory:
            throw ExitError(kExitInternal, "out of memory");
    }
    return std::nullopt;
}

void Watcher::OnAccepted(const Event& event)
{
    m_taken = true;
    if (!IsVersionFile(event))
    {
        m_expected[event.task] = m_version;
        return;
    }
    if (std::exchange(m_moving, false))
    {
        m_output.NextServer(ServerOf(event));
    }
    m_output.Checking(ServerOf(event));
}

// For a version file: the service reads it by the same rule, and goes on to the directory file when
// the version is valid and new.
Watcher::Settled Watcher::OnTransferred(const Event& event)
{
    const Server server = ServerOf(event);
    if (!IsVersionFile(event))
    {
        OnDirectoryArrived(event);
        return std::nullopt;
    }
    m_left = m_servers.size();
    if (!event.version.version)
    {
        m_output.Failed(server, {0, 0, 0, 0, event.file,
                                 "the version file is not valid: " + event.version.problem});
        return TryElsewhere(server);
    }
    if (*event.version.version == m_version)
    {
        m_output.Unchanged(server, m_version);
    }
    else
    {
        m_version = *event.version.version;
        m_output.NewVersion(server, m_version);
    }
    return std::nullopt;
}

// kDelivered follows, unless the service already waits for another task. The version is the one
// that the task was started for: a newer one may have been seen since.
void Watcher::OnDirectoryArrived(const Event& event)
{
    m_arrival = {ServerOf(event), m_expected[event.task], event.bytes};
    m_expected.erase(event.task);
}

void Watcher::OnDelivered()
{
    m_fruitless = 0;
    m_requestDue = false;
    m_askAgainAt.reset();
    m_output.Downloaded(m_arrival.server, m_arrival.version, m_plan.DirectoryPath(),
                        m_arrival.bytes);
    if (m_arrival.version != m_current)
    {
        m_current = m_arrival.version;
        m_commandDue = m_command != nullptr;
        RunCommand();
    }
}

Watcher::Settled Watcher::OnFailed(const Event& event)
{
    m_output.Failed(ServerOf(event), FailureOf(event));
    if (IsVersionFile(event))
    {
        OnVersionFailed();
        return std::nullopt;
    }
    return OnDirectoryFailed(event);
}

// The service goes on to the next server by itself until its list is used up.
void Watcher::OnVersionFailed()
{
    if (!RefillWhenUsedUp())
    {
        --m_left;
        m_moving = true;
        return;
    }
    m_output.NoServerLeft();
    if (m_version.empty())
    {
        AskAgainLater();
        return;
    }
    m_output.Waiting(kCheckInterval, false);
    LookUp();
}

Watcher::Settled Watcher::OnDirectoryFailed(const Event& event)
{
    (void)RefillWhenUsedUp();
    const std::string version = m_expected[event.task];
    m_expected.erase(event.task);
    if (version != m_version)
    {
        return std::nullopt;  // a newer one will follow
    }
    // Another server would not help.
    if (event.code == TRAVEX_FTP_ERR_LOCAL_FILE)
    {
        AskAgainLater();
        return std::nullopt;
    }
    return TryElsewhere(ServerOf(event));
}

// The service itself would not go on to the next server.
Watcher::Settled Watcher::TryElsewhere(const Server& server)
{
    ++m_fruitless;
    if (m_fruitless >= m_servers.size())
    {
        m_fruitless = 0;
        m_output.NoServerLeft();
        AskAgainLater();
        return std::nullopt;
    }
    const std::string& address = server.address;
    const auto failed =
        std::find_if(m_servers.begin(), m_servers.end(),
                     [&address](const auto& one) { return one.address == address; });
    const auto next = failed == m_servers.end() ? m_servers.begin() : failed + 1;
    const auto index = static_cast<std::size_t>(next - m_servers.begin()) % m_servers.size();
    m_output.NextServer(m_servers[index]);
    return Request(index);
}

// At the start a refused setting is the user's mistake. Later the cause may be temporary: a missing
// file, or lack of memory.
Watcher::Settled Watcher::OnRefused(const Event& event)
{
    if (!m_taken && IsArgumentRefusal(event.code))
    {
        throw ExitError(kExitArguments, ArgumentProblem(event));
    }
    m_output.Failed(ServerOf(event), FailureOf(event));
    AskAgainLater();
    return std::nullopt;
}

void Watcher::OnDeadline()
{
    if (m_askAgainAt)
    {
        m_askAgainAt.reset();
        LookUp();
    }
}

void Watcher::OnCommandEnded(int status)
{
    m_command->Ended();
    m_output.CommandEnded(status);
    RunCommand();
}

// When its list is used up, the service starts again with all servers, after a pause.
bool Watcher::RefillWhenUsedUp()
{
    if (m_left != 0)
    {
        return false;
    }
    Refill();
    return true;
}

// The servers after the first; a single server is tried twice.
void Watcher::Refill()
{
    m_left = std::max<std::size_t>(m_servers.size() - 1, 1);
}

void Watcher::AskAgainLater()
{
    m_requestDue = true;
    const std::chrono::seconds retry(m_plan.retrySeconds);
    m_askAgainAt = Clock::now() + retry;
    m_output.Waiting(retry, true);
}

// One run at a time; when several versions arrive during a run, only for the last one.
void Watcher::RunCommand()
{
    if (!m_commandDue || m_command->Running())
    {
        return;
    }
    m_commandDue = false;
    const int error = m_command->Start({{"CORPDIR_FILE", m_plan.DirectoryPath()},
                                        {"CORPDIR_VERSION", m_current},
                                        {"CORPDIR_SERVER", m_arrival.server.address}});
    if (error != 0)
    {
        m_output.CommandFailed(SystemMessage(error));
    }
}

bool Watcher::IsVersionFile(const Event& event) const
{
    return event.file == m_plan.versionFile;
}

// The server with its name.
Server Watcher::ServerOf(const Event& event) const
{
    for (const Server& server : m_servers)
    {
        if (server.address == event.server)
        {
            return server;
        }
    }
    return {event.server, ""};
}

}  // namespace corpdir_tool
