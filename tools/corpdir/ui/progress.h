// How far a transfer is: a bar on a terminal, now and then a line elsewhere.
#ifndef CORPDIR_TOOL_PROGRESS_H
#define CORPDIR_TOOL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "os/terminal.h"

namespace corpdir_tool
{

// "48291 bytes", or "12.3 MB": units of 1000, as file managers have them.
std::string ShortBytes(std::uint64_t bytes);

// "0:04", "12:30", "1:02:03".
std::string ShortTime(std::chrono::seconds time);

// What is known of a transfer at a moment.
struct ProgressState
{
    std::string what;         // "directory"
    std::uint64_t bytes = 0;  // so far
    std::uint64_t total = 0;  // TRAVEX_FTP_SIZE_UNKNOWN when not known
    double rate = 0;          // bytes a second; 0: not known yet
};

// One line of at most `width` columns. What does not fit is left out, the most telling last.
std::string ProgressLine(const ProgressState& state, unsigned int width);

// The same for a file or a pipe, as long as it needs.
std::string ProgressWords(const ProgressState& state);

// Shows the progress of one transfer after the other. Not thread-safe.
class ProgressDisplay
{
public:
    using Clock = std::chrono::steady_clock;

    // Elsewhere than on a terminal a line is written this often.
    static constexpr std::chrono::seconds kLineInterval{5};

    explicit ProgressDisplay(const Terminal& terminal) : m_terminal(terminal) {}

    void Show(const std::string& what, std::uint64_t bytes, std::uint64_t total,
              Clock::time_point now);

    // Takes the bar away, so that a message can stand in its place. The next transfer starts
    // afresh.
    void Erase();

private:
    void Measure(std::uint64_t bytes, Clock::time_point now);
    void Draw(const std::string& line);

    const Terminal& m_terminal;
    ProgressState m_state;
    std::optional<Clock::time_point> m_measured;  // when the rate was last looked at
    Clock::time_point m_lineWritten;
    std::size_t m_drawn = 0;  // columns of the bar on the screen; 0: none
};

}  // namespace corpdir_tool

#endif
