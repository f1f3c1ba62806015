#include "commands/time_limits.h"

#include <algorithm>

namespace corpdir_tool
{

TimeLimits::TimeLimits(const Plan& plan)
    : m_plan(plan),
      m_end(plan.maxTimeSeconds == 0 ? Clock::time_point::max()
                                     : Clock::now() + std::chrono::seconds(plan.maxTimeSeconds))
{
    Progress();
}

void TimeLimits::Progress()
{
    m_idleEnd = Clock::now() + std::chrono::seconds(m_plan.timeoutSeconds);
}

TimeLimits::Clock::time_point TimeLimits::Deadline() const
{
    return std::min(m_end, m_idleEnd);
}

std::string TimeLimits::Option() const
{
    return m_end < m_idleEnd ? "--max-time" : "--timeout";
}

std::string TimeLimits::Reason() const
{
    const std::string problem = m_end < m_idleEnd
                                    ? "not done within " + std::to_string(m_plan.maxTimeSeconds)
                                    : "no progress for " + std::to_string(m_plan.timeoutSeconds);
    return problem + " s (" + Option() + ")";
}

}  // namespace corpdir_tool
