// Accepted downloads.
#ifndef TRAVEX_FTP_TASK_H
#define TRAVEX_FTP_TASK_H

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
    bool reportQueued = false;  // guarded in the same way

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
