// Progress of a transfer: a bar on a terminal, otherwise a line every few seconds.
#ifndef CORPDIR_TOOL_PROGRESS_H
#define CORPDIR_TOOL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "os/terminal.h"

namespace corpdir_tool
{

// "25%", at most 100; 100 when the total is 0.
std::string PercentOf(std::uint64_t bytes, std::uint64_t total);

// "4829 bytes" or "12.3 MB"; units of 1000.
std::string ShortBytes(std::uint64_t bytes);

// "0:04", "12:30", "1:02:03".
std::string ShortTime(std::chrono::seconds time);

// The state of a transfer.
struct ProgressState
{
    std::string what;         // "directory"
    std::uint64_t bytes = 0;  // so far
    std::uint64_t total = 0;  // TRAVEX_FTP_SIZE_UNKNOWN when not known
    double rate = 0;          // bytes a second; 0: not known yet
};

// One line of at most `width` columns; what does not fit is omitted, the most important part last.
std::string ProgressLine(const ProgressState& state, unsigned int width);

// The same for a file or a pipe, of any length.
std::string ProgressWords(const ProgressState& state);

// Shows the progress of transfers, one at a time. Not thread-safe.
class ProgressDisplay
{
public:
    using Clock = std::chrono::steady_clock;

    // Interval between two lines where the output is not a terminal.
    static constexpr std::chrono::seconds kLineInterval{5};

    explicit ProgressDisplay(const Terminal& terminal) : m_terminal(terminal) {}

    void Show(const std::string& what, std::uint64_t bytes, std::uint64_t total,
              Clock::time_point now);

    // Removes the bar to make room for a message. The next call of Show starts a new one.
    void Erase();

private:
    void Measure(std::uint64_t bytes, Clock::time_point now);
    void Draw(const std::string& line);

    const Terminal& m_terminal;
    ProgressState m_state;
    std::optional<Clock::time_point> m_measured;  // time of the last measurement
    Clock::time_point m_lineWritten;
    std::size_t m_drawn = 0;  // columns of the bar on the screen; 0: no bar
};

}  // namespace corpdir_tool

#endif
