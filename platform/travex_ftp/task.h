// Accepted downloads.
#ifndef TRAVEX_FTP_TASK_H
#define TRAVEX_FTP_TASK_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/linked_queue.h"
#include "failure.h"
#include "observer.h"
#include "settings.h"

namespace travex_ftp
{
class Handle;

// Observations of one task that wait to be reported, in their order: steps, and
// TRAVEX_FTP_STEP_NONE for a progress. Needs no memory of its own.
class Waiting
{
public:
    // A progress that follows another one adds nothing.
    void Add(tagTRAVEX_FTP_STEP step)
    {
        const bool repeated =
            step == TRAVEX_FTP_STEP_NONE && m_count != 0 && m_steps[m_count - 1] == step;
        if (!repeated && m_count != m_steps.size())
        {
            m_steps[m_count++] = step;
        }
    }
    void RemoveProgress()
    {
        tagTRAVEX_FTP_STEP* const first = m_steps.data();
        m_count =
            static_cast<size_t>(std::remove(first, first + m_count, TRAVEX_FTP_STEP_NONE) - first);
    }

    // NOLINTBEGIN(readability-identifier-naming): the names of a range
    const tagTRAVEX_FTP_STEP* begin() const
    {
        return m_steps.data();
    }
    const tagTRAVEX_FTP_STEP* end() const
    {
        return m_steps.data() + m_count;
    }
    // NOLINTEND(readability-identifier-naming)

private:
    // A transfer has at most three attempts, and reaches at most 20 steps in each.
    std::array<tagTRAVEX_FTP_STEP, 64> m_steps{};
    size_t m_count = 0;
};

struct Task
{
    const unsigned int id;
    const std::shared_ptr<Handle> handle;
    const std::shared_ptr<const Settings> settings;
    const std::string serverFile;
    const std::string directory;
    const std::string localFile;
    const TRAVEX_FTP_NOTIFY_CB callback;

    // The newest state, for the notification thread. Guarded by the notifier's lock.
    struct Report
    {
        bool finished = false;
        uint64_t bytes = 0;
        uint64_t total = UINT64_MAX;
        Failure failure{};  // of a finished task; none: success
        Timings timings{};
    } report{};
    Waiting waiting{};          // guarded in the same way
    bool reportQueued = false;  // the same

    // Links of the transfer queue and of the notification queue. A task is in each at most once, so
    // a queue never holds more than the tasks and needs no memory of its own.
    std::shared_ptr<Task> nextTransfer{};
    std::shared_ptr<Task> nextReport{};
};

using TaskPtr = std::shared_ptr<Task>;

template <TaskPtr Task::*kNext>
using TaskQueue = base::LinkedQueue<TaskPtr, kNext>;

}  // namespace travex_ftp

#endif
