#include "commands/command.h"

#include <signal.h>
#include <unistd.h>

#include <utility>

#include "commands/failure.h"
#include "commands/name_resolver.h"
#include "commands/output_files.h"

namespace corpdir_tool
{

namespace
{

// How long a stop may take before the program leaves without it.
constexpr std::chrono::milliseconds STOP_PATIENCE{900};

}  // namespace

CommandFrame::CommandFrame(const Plan& plan, int (*lastStatus)(int signalNumber))
    : m_watch([this](int number) { m_events.PushNumber(EventKind::SIGNAL, number); },
              [this, lastStatus](int number)
              {
                  LeaveBehindNothing();
                  _exit(lastStatus(number));
              },
              STOP_PATIENCE),
      m_muted(!plan.logLevel),
      m_messages(m_muted.Messages())
{
    // A reader of the messages that goes away must not end a transfer halfway.
    (void)signal(SIGPIPE, SIG_IGN);
}

LastResort::LastResort(CommandFrame& frame, std::function<void()> action) : m_frame(frame)
{
    const std::lock_guard<std::mutex> lock(m_frame.m_mutex);
    m_frame.m_lastResort = std::move(action);
}

LastResort::~LastResort()
{
    const std::lock_guard<std::mutex> lock(m_frame.m_mutex);
    m_frame.m_lastResort = nullptr;
}

void CommandFrame::LeaveBehindNothing() noexcept
{
    RemoveTemporaryFiles();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_lastResort)
    {
        m_lastResort();
    }
}

std::vector<Server> FindServers(const Plan& plan, EventQueue& events,
                                EventQueue::Clock::time_point deadline,
                                const std::function<void(const std::string&)>& leaveOut)
{
    NameResolver resolver(plan.servers, plan.family, SystemLookup, events);
    const Event event = events.WaitUntil(deadline);
    switch (event.kind)
    {
        case EventKind::RESOLVED:
            break;
        case EventKind::SIGNAL:
            throw Failure(EXIT_SIGNAL + event.number,
                          "stopped while looking up the names of the servers");
        case EventKind::DEADLINE:
            throw Failure(EXIT_NO_OUTCOME, "no outcome within " +
                                               std::to_string(plan.timeout.count()) +
                                               " s; stopped while looking up the names of the "
                                               "servers");
        default:
            throw Failure(EXIT_INTERNAL, "memory ran out");
    }
    ResolvedServers resolved = resolver.Take();
    for (const corpdir_shared::LeftOut& entry : resolved.leftOut)
    {
        leaveOut(entry.text + ": " + entry.problem);
    }
    if (resolved.servers.empty())
    {
        throw Failure(EXIT_NO_SERVER,
                      "no name of --servers has an address: check the spelling, "
                      "'getent hosts NAME' asks this machine's resolver");
    }
    return std::move(resolved.servers);
}

}  // namespace corpdir_tool
