// State shared by the steps of one attempt at a transfer.
#ifndef TRAVEX_FTP_ATTEMPT_H
#define TRAVEX_FTP_ATTEMPT_H

#include <algorithm>

#include "channel.h"
#include "failure.h"
#include "limits.h"
#include "notifier.h"
#include "observer.h"
#include "task.h"

namespace travex_ftp
{
// Not thread-safe: transfer thread only.
class Attempt
{
public:
    // `cancel` becomes readable when the transfer is cancelled; at `end` the transfer times out.
    Attempt(const Limits& current, int cancel, Clock::time_point end, const TaskPtr& task,
            Notifier& notifier)
        : limits(current),
          m_cancel(cancel),
          m_end(end),
          m_begin(Clock::now()),
          m_task(task),
          m_notifier(notifier)
    {
    }

    // A step begins, which the observer sees. Ignored after a failure.
    void Enter(tagTRAVEX_FTP_STEP step)
    {
        SetStep(failure, step);
        if (!Failed(failure) && step != m_entered)
        {
            m_entered = step;
            m_notifier.Step(m_task, step);
        }
    }

    // Deadlines for a wait; none is later than the end of the transfer.
    Deadline Within(milliseconds limit) const
    {
        return Until(Clock::now() + limit);
    }

    Deadline Until(Clock::time_point at) const
    {
        return {std::min(at, m_end), m_cancel};
    }

    // True if this result of a wait ends the attempt: the transfer was cancelled, or has timed out,
    // which sets the failure.
    bool EndedBy(Io io)
    {
        cancelled = cancelled || io == Io::kCancelled;
        if (io == Io::kTimedOut && Clock::now() >= m_end)
        {
            (void)Fail(failure, TRAVEX_FTP_ERR_TIMEOUT, "transfer timed out after %g s",
                       Seconds(limits.transfer));
        }
        return cancelled || Failed(failure);
    }

    // Microseconds since the attempt began, never 0.
    uint64_t Elapsed() const
    {
        using std::chrono::microseconds;
        const auto since = std::chrono::duration_cast<microseconds>(Clock::now() - m_begin);
        return std::max<uint64_t>(1, static_cast<uint64_t>(since.count()));
    }

    static double Seconds(Clock::duration duration)
    {
        return std::chrono::duration<double>(duration).count();
    }

    const Limits& limits;
    Failure failure{};       // ulStep: the current step
    bool cancelled = false;  // a failure is not reported then
    Timings timings{};

private:
    const int m_cancel;
    const Clock::time_point m_end;
    const Clock::time_point m_begin;
    const TaskPtr& m_task;
    Notifier& m_notifier;
    tagTRAVEX_FTP_STEP m_entered = TRAVEX_FTP_STEP_NONE;  // the latest
};

}  // namespace travex_ftp

#endif
