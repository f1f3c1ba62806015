// The commands that use servers, and what they share.
#ifndef CORPDIR_TOOL_COMMAND_H
#define CORPDIR_TOOL_COMMAND_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/events.h"
#include "commands/time_limits.h"
#include "os/signals.h"
#include "os/terminal.h"
#include "ui/report.h"

namespace corpdir_tool
{

// Prepares the process: signals become events. Make it on the main thread before any other exists;
// one at a time.
class CommandProcess
{
public:
    // When the stop that a signal asks for takes longer than a second, the process exits at once
    // with the status that `lastStatus` returns for the signal. takesRequests: SIGUSR1 and SIGHUP
    // become kCheckNow and kReload.
    explicit CommandProcess(int (*lastStatus)(int signalNumber), bool takesRequests = false);

    EventQueue& Events()
    {
        return m_events;
    }

    // Standard error.
    const Terminal& Messages() const
    {
        return m_messages;
    }

private:
    friend class LastResort;

    void CleanUp() noexcept;

    EventQueue m_events;
    std::mutex m_mutex;  // guards m_lastResort
    std::function<void()> m_lastResort;
    const SignalWatch m_watch;
    const Terminal m_messages{stderr};
};

// While it lives, its action runs before the process exits without a stop, on the thread of the
// signal watch. The action must neither throw nor wait.
class LastResort
{
public:
    LastResort(CommandProcess& process, std::function<void()> action);
    ~LastResort();
    LastResort(const LastResort&) = delete;
    LastResort& operator=(const LastResort&) = delete;

private:
    CommandProcess& m_process;
};

// Looks up the servers' names. Each name without an address is reported, and added to leftOut with
// the reason. Throws ExitError when no server is left, on a signal and on a timeout.
std::vector<Server> FindServers(const Plan& plan, EventQueue& events, const TimeLimits& limits,
                                Report& report, std::vector<std::string>& leftOut);

// Throws ExitError when standard output cannot be written.
void FlushResult();

// The commands; they return the exit status. Call them on the main thread before any other exists.
// They throw ExitError.
int RunFetch(const Options& options, const CipherSource& ciphers);
// again: reads the options again, from the command line and the settings file.
int RunWatch(const Options& options, const CipherSource& ciphers,
             const std::function<Options()>& again);
int RunCheck(const Options& options, const CipherSource& ciphers);
int RunStatus(const Options& options);

}  // namespace corpdir_tool

#endif
