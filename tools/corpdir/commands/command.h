// What the commands that talk to servers have in common.
#ifndef CORPDIR_TOOL_COMMAND_H
#define CORPDIR_TOOL_COMMAND_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/events.h"
#include "os/muted_stderr.h"
#include "os/signals.h"
#include "os/terminal.h"

namespace corpdir_tool
{

// Makes the process ready: signals become events, the log keeps off the terminal. Make it on the
// main thread before any other exists; one at a time.
class CommandFrame
{
public:
    // A stop that takes longer than a second ends the process with the status that `lastStatus`
    // gives for the signal.
    CommandFrame(const Plan& plan, int (*lastStatus)(int signalNumber));

    EventQueue& Events()
    {
        return m_events;
    }

    // Leads to where standard error led before.
    const Terminal& Messages() const
    {
        return m_messages;
    }

private:
    friend class LastResort;

    void LeaveBehindNothing() noexcept;

    EventQueue m_events;
    std::mutex m_mutex;  // guards m_lastResort
    std::function<void()> m_lastResort;
    const SignalWatch m_watch;
    const MutedStandardError m_muted;
    const Terminal m_messages;
};

// While it lives, the last resort does this before the process ends. The action runs on a thread of
// its own, and must neither throw nor wait.
class LastResort
{
public:
    LastResort(CommandFrame& frame, std::function<void()> action);
    ~LastResort();
    LastResort(const LastResort&) = delete;
    LastResort& operator=(const LastResort&) = delete;

private:
    CommandFrame& m_frame;
};

// The servers with their names replaced by addresses. leaveOut: called with each name that has
// none, and why. Throws Failure when there is no server, a stop is asked for or the time is over.
std::vector<Server> FindServers(const Plan& plan, EventQueue& events,
                                EventQueue::Clock::time_point deadline,
                                const std::function<void(const std::string&)>& leaveOut);

}  // namespace corpdir_tool

#endif
