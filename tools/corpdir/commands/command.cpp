#include "commands/command.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "commands/tool_log.h"
#include "exit_error.h"
#include "os/output_files.h"

namespace corpdir_tool
{

namespace
{

// Time for a stop before the process exits without it.
constexpr std::chrono::milliseconds kStopPatience{900};

// Throws ExitError.
ResolvedServers LookUp(const Plan& plan, EventQueue& events, const TimeLimits& limits)
{
    client::ServerLookup lookup(plan.entries, plan.family, SystemLookup,
                                [&events] { events.Push(Event::Kind::kResolved); });
    const EventQueue::Clock::time_point end = EventQueue::Clock::now() + client::kLookupLimit;
    while (!lookup.IsDone() && EventQueue::Clock::now() < end)
    {
        const Event event = events.WaitUntil(std::min(end, limits.Deadline()));
        switch (event.kind)
        {
            case Event::Kind::kSignal:
                throw ExitError(kExitSignal + event.number,
                                "stopped while looking up the names of the servers");
            case Event::Kind::kOutOfMemory:
                throw ExitError(kExitInternal, "out of memory");
            default:
                break;
        }
        if (EventQueue::Clock::now() >= limits.Deadline())
        {
            throw ExitError(
                kExitNoOutcome,
                "timed out while looking up the names of the servers: " + limits.Reason());
        }
    }
    try
    {
        return lookup.Take();
    }
    catch (const std::bad_alloc&)
    {
        throw ExitError(kExitInternal, "out of memory");
    }
}

}  // namespace

CommandProcess::CommandProcess(int (*lastStatus)(int signalNumber), bool takesRequests)
    : m_watch([this](int number) { m_events.Push(Event::Kind::kSignal, number); },
              [this, lastStatus](int number)
              {
                  CleanUp();
                  _exit(lastStatus(number));
              },
              kStopPatience,
              takesRequests ? SignalRequests{[this] { m_events.Push(Event::Kind::kCheckNow); },
                                             [this] { m_events.Push(Event::Kind::kReload); }}
                            : SignalRequests{})
{
    // A closed pipe on standard error must not end a transfer.
    (void)signal(SIGPIPE, SIG_IGN);
}

LastResort::LastResort(CommandProcess& process, std::function<void()> action) : m_process(process)
{
    const std::lock_guard<std::mutex> lock(m_process.m_mutex);
    m_process.m_lastResort = std::move(action);
}

LastResort::~LastResort()
{
    const std::lock_guard<std::mutex> lock(m_process.m_mutex);
    m_process.m_lastResort = nullptr;
}

void CommandProcess::CleanUp() noexcept
{
    RemoveTemporaryFiles();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_lastResort)
    {
        m_lastResort();
    }
}

std::vector<Server> FindServers(const Plan& plan, EventQueue& events, const TimeLimits& limits,
                                Report& report, std::vector<std::string>& leftOut)
{
    ResolvedServers resolved = LookUp(plan, events, limits);
    for (const client::LeftOut& entry : resolved.leftOut)
    {
        leftOut.push_back(entry.text + ": " + entry.problem);
        report.ServerFailed(entry.text, entry.problem, "skipped");
        TOOL_LOG(CORPDIR_LOG_ERROR, "No address for server %s: %s", entry.text.c_str(),
                 entry.problem.c_str());
    }
    if (resolved.servers.empty())
    {
        throw ExitError(kExitNoServer, NoAddress(plan));
    }
    for (const Server& server : resolved.servers)
    {
        if (!server.name.empty())
        {
            TOOL_LOG(CORPDIR_LOG_NOTICE, "Server %s has the address %s", server.name.c_str(),
                     server.address.c_str());
        }
    }
    return std::move(resolved.servers);
}

void FlushResult()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    {
        throw ExitError(kExitLocalFile, "the result cannot be written to standard output");
    }
}

}  // namespace corpdir_tool
