// The commands of --exec and --on-failure.
#ifndef CORPDIR_TOOL_CHILD_COMMAND_H
#define CORPDIR_TOOL_CHILD_COMMAND_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/descriptor.h"

namespace corpdir_tool
{

// Added to the environment of the command.
using Variables = std::vector<std::pair<std::string, std::string>>;

// Runs one command at a time in its own process group; a thread waits for its end. Belongs to the
// main thread.
class ChildCommand
{
public:
    using Limit = std::optional<std::chrono::milliseconds>;

    // output: descriptor for standard output and standard error of the command, so that it does not
    // write between the program's own lines. onEnd: called on the waiting thread with the exit
    // status, 128 plus the number for a command that a signal ended; must not throw. patience: time
    // between SIGTERM and SIGKILL at the limit.
    ChildCommand(int output, std::function<void(int status)> onEnd,
                 std::chrono::milliseconds patience = std::chrono::seconds(5));

    // A command that still runs gets SIGTERM, and SIGKILL a moment later, with its process group.
    ~ChildCommand();

    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    // A command was started, and Ended() has not been called since.
    bool Running() const
    {
        return m_thread.joinable();
    }

    // Starts a command for /bin/sh -c; only when none is running. 0, or an errno value. limit: a
    // command that runs longer gets SIGTERM with its process group; what is left of the group gets
    // SIGKILL when the command has ended, at the latest after the patience.
    [[nodiscard]] int Start(const std::string& command, const Variables& variables,
                            Limit limit = std::nullopt);

    // Kills the process group, for a process that is about to exit. Any thread.
    void Kill() noexcept;

    // To be called once after onEnd, before the next start.
    void Ended();

    // The limit ended the command; from Ended() until the next start.
    bool TimedOut() const
    {
        return m_timedOut;
    }

private:
    void Wait() noexcept;
    bool EndsWithin(std::chrono::milliseconds time) const;
    void Signal(int signalNumber) noexcept;

    const int m_output;
    const std::function<void(int status)> m_onEnd;
    const std::chrono::milliseconds m_patience;
    std::mutex m_mutex;  // guards the next three
    std::condition_variable m_changed;
    pid_t m_child = -1;  // written while no thread waits for it
    bool m_over = false;
    base::Descriptor m_childEnd;  // readable when the command has ended; only with a limit
    Limit m_limit;                // this one too
    bool m_timedOut = false;      // belongs to m_thread while it runs
    std::thread m_thread;
};

}  // namespace corpdir_tool

#endif
