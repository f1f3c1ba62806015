// Child processes, for tests.
#ifndef CORPDIR_TESTS_PROCESS_H
#define CORPDIR_TESTS_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support
{

// The command to start. The program is looked up in PATH unless it contains a slash.
struct Command
{
    std::vector<std::string> arguments;                            // the program first
    std::vector<std::pair<std::string, std::string>> environment;  // added to, or replacing, ours
    std::string output_file;                                       // its standard output and error
};

// One child in a process group of its own. It dies with the thread that started it, and its
// standard input is a socket whose other end only this process holds: the child reads its end when
// this process ends. Not thread-safe.
class Process
{
public:
    explicit Process(const Command& command);
    ~Process();  // as Stop
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t Id() const;
    bool Write(const std::string& text);  // to its standard input; false when it is gone
    void CloseInput();
    void Signal(int number);

    // Its exit status, or 128 plus the signal that ended it; nothing while it runs.
    std::optional<int> Poll();
    std::optional<int> Wait(std::chrono::milliseconds limit);

    // Asks its group to end, and after five seconds kills it.
    void Stop();

private:
    pid_t m_id = -1;
    int m_input = -1;
    std::optional<int> m_status;
};

struct CommandResult
{
    int status;          // as Process::Poll; -1: killed because the limit ran out
    std::string output;  // standard output and error
};

// Runs a command to its end with `input` as its whole standard input.
CommandResult RunCommand(const Command& command, const std::string& input = "",
                         std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace support

#endif
