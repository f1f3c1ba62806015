// The command that is run for each new directory file.
#ifndef CORPDIR_TOOL_CHILD_COMMAND_H
#define CORPDIR_TOOL_CHILD_COMMAND_H

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "commands/events.h"

namespace corpdir_tool
{

// Added to the environment of the command.
using Variables = std::vector<std::pair<std::string, std::string>>;

// Runs one command at a time in a process group of its own; while it runs a thread waits for its
// end, which becomes a COMMAND_ENDED. Belongs to the main thread.
class ChildCommand
{
public:
    // command: for /bin/sh -c. output: descriptor for both of its outputs, so that it does not
    // write between the lines of a program whose output is read by another one. events must outlive
    // it.
    ChildCommand(std::string command, int output, EventQueue& events);

    // Ends a command that still runs: its group is asked to end, and killed a moment later.
    ~ChildCommand();

    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;

    // A command was started, and its COMMAND_ENDED has not been taken note of.
    bool Running() const
    {
        return m_thread.joinable();
    }

    // Starts it; call it when none is running. An errno value on failure, else 0.
    [[nodiscard]] int Start(const Variables& variables);

    // Kills its group, for a process that is about to leave at once. Any thread.
    void Kill() noexcept;

    // Takes note of COMMAND_ENDED.
    void Ended();

private:
    void Wait() noexcept;

    const std::string m_command;
    const int m_output;
    EventQueue& m_events;
    std::mutex m_mutex;  // guards the next three
    std::condition_variable m_changed;
    pid_t m_child = -1;  // written while no thread waits for it
    bool m_over = false;
    std::thread m_thread;
};

}  // namespace corpdir_tool

#endif
