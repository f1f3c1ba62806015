// --timeout and --max-time.
#ifndef CORPDIR_TOOL_TIME_LIMITS_H
#define CORPDIR_TOOL_TIME_LIMITS_H

#include <chrono>
#include <string>

#include "cli/options.h"

namespace corpdir_tool
{

// The time limits of a command, from its construction on. One thread only.
class TimeLimits
{
public:
    using Clock = std::chrono::steady_clock;

    explicit TimeLimits(const Plan& plan);

    // Restarts --timeout.
    void Progress();

    Clock::time_point Deadline() const;

    // The option whose limit ends first.
    std::string Option() const;

    // "no progress for 120 s (--timeout)"
    std::string Reason() const;

private:
    const Plan& m_plan;
    const Clock::time_point m_end;
    Clock::time_point m_idleEnd;
};

}  // namespace corpdir_tool

#endif
