// Downloads that were accepted.
#ifndef TRAVEX_FTP_TASK_H
#define TRAVEX_FTP_TASK_H

#include <cstdint>
#include <memory>
#include <string>

#include "base/linked_queue.h"
#include "failure.h"
#include "settings.h"

namespace travex_ftp
{
class Handle;

// A task id, reserved while the object lives. Never 0, unique among live tasks.
class TaskId
{
public:
    TaskId();  // throws std::bad_alloc
    ~TaskId();
    TaskId(const TaskId&) = delete;
    TaskId& operator=(const TaskId&) = delete;

    unsigned int Value() const
    {
        return m_value;
    }

private:
    unsigned int m_value = 0;
};

struct Task
{
    const TaskId id;
    const std::shared_ptr<Handle> handle;
    const std::shared_ptr<const Settings> settings;
    const std::string serverFile;
    const std::string directory;
    const std::string localFile;
    const TRAVEX_FTP_NOTIFY_CB callback;

    // What the notification thread is to tell. Guarded by the notifier's lock.
    struct News
    {
        bool queued = false;
        bool over = false;
        uint64_t bytes = 0;
        uint64_t total = UINT64_MAX;
        Failure failure{};  // of a task that is over; none: success
        tagTRAVEX_FTP_S_TIMINGS timings{};
    } news;

    // Links of the queue that the task waits in: to be transferred, to be told of. A task is in
    // each at most once, so that neither queue can grow beyond the tasks or fail for lack of
    // memory.
    std::shared_ptr<Task> nextTransfer;
    std::shared_ptr<Task> nextNews;
};

using TaskPtr = std::shared_ptr<Task>;

template <TaskPtr Task::*kNext>
using TaskQueue = base::LinkedQueue<TaskPtr, kNext>;

}  // namespace travex_ftp

#endif
