#include "command.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "failure.h"
#include "name_resolver.h"
#include "output_files.h"

namespace corpdir_tool
{

namespace
{

// How long a stop may take before the program leaves without it.
constexpr std::chrono::milliseconds STOP_PATIENCE{900};

const char CONNECT_LIMIT[] = "CORPDIR_FTP_CONNECT_MS";
const char SIZE_LIMIT[] = "CORPDIR_FTP_FILE_BYTES";

void SetLimits(const Plan& plan)
{
    if (plan.connectTimeout.count() != 0)
    {
        const std::chrono::milliseconds limit = plan.connectTimeout;
        (void)setenv(CONNECT_LIMIT, std::to_string(limit.count()).c_str(), 1);
    }
    if (plan.maxSize != 0)
    {
        LimitFileSize(plan.maxSize);
    }
}

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
    SetLimits(plan);
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

void LimitFileSize(std::uint64_t bytes)
{
    const char* const found = std::getenv(SIZE_LIMIT);
    static const std::string atFirst = found == nullptr ? "" : found;
    const std::string value = bytes == 0 ? atFirst : std::to_string(bytes);
    (void)(value.empty() ? unsetenv(SIZE_LIMIT) : setenv(SIZE_LIMIT, value.c_str(), 1));
}

void LeaveAtOnce(int status)
{
    (void)std::fflush(nullptr);
    _exit(status);
}

std::vector<Server> FindServers(const Plan& plan, EventQueue& events,
                                EventQueue::Clock::time_point deadline,
                                const LookupHandlers& handlers)
{
    const auto giveUp = [&handlers](int status, const std::string& message)
    {
        try
        {
            handlers.onGivenUp(status, message);
        }
        catch (const Failure&)
        {
            // Cannot be told; what counts is not to wait for the resolver.
        }
        LeaveAtOnce(status);
    };
    NameResolver resolver(plan.servers, plan.family, SystemLookup, events);
    const Event event = events.WaitUntil(deadline);
    switch (event.kind)
    {
        case EventKind::RESOLVED:
            break;
        case EventKind::SIGNAL:
            giveUp(EXIT_SIGNAL + event.number, "stopped while looking up the names of the servers");
            break;
        case EventKind::DEADLINE:
            giveUp(EXIT_NO_OUTCOME, "no outcome within " + std::to_string(plan.timeout.count()) +
                                        " s; stopped while looking up the names of the servers");
            break;
        default:
            giveUp(EXIT_INTERNAL, "memory ran out");
    }
    ResolvedServers resolved = resolver.Take();
    for (const std::string& problem : resolved.problems)
    {
        handlers.onProblem(problem);
    }
    if (resolved.servers.empty())
    {
        throw Failure(EXIT_NO_SERVER,
                      "no server left; no name of --servers has an address: check the spelling, "
                      "'getent hosts NAME' asks this machine's resolver");
    }
    return std::move(resolved.servers);
}

}  // namespace corpdir_tool
