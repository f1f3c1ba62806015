// The notification thread: calls the client back, and nothing else.
#ifndef TRAVEX_FTP_NOTIFIER_H
#define TRAVEX_FTP_NOTIFIER_H

#include "common/guard.h"
#include "task.h"
#include "worker.h"

namespace travex_ftp
{
// Thread-safe: all state is under one lock, which is not held during a callback.
class Notifier
{
public:
    // Throws std::system_error or std::bad_alloc.
    void start();

    // From now on no notification begins. Waits for nothing.
    void stop() CORPDIR_EXCLUDES(guard_);

    Worker& worker()
    {
        return worker_;
    }

    // A task has received bytes. A progress that was not yet told is overwritten.
    void progress(const TaskPtr& task, uint64_t bytes, uint64_t total) CORPDIR_EXCLUDES(guard_);

    // A task is over; a failure without a code is success. Told once, in the order of these calls.
    // The course stays empty when no connection had the task.
    void finished(const TaskPtr& task, const Failure& failure, uint64_t bytes, uint64_t total,
                  const tagTRAVEX_FTP_S_COURSE& course = {}) CORPDIR_EXCLUDES(guard_);

    // Closes a handle: none of its notifications begins any more.
    void close(Handle& handle) CORPDIR_EXCLUDES(guard_);

private:
    void run() CORPDIR_EXCLUDES(guard_);
    bool take(TaskPtr& task, Task::News& news) CORPDIR_EXCLUDES(guard_);
    bool mayBegin(const Task& task) CORPDIR_EXCLUDES(guard_);
    void enqueue(const TaskPtr& task) CORPDIR_REQUIRES(guard_);
    void deliver(const Task& task, Task::News& news);
    void notify(const Task& task, unsigned int type, Failure* failure);
    void tellObserver(const Task& task, const Task::News& news);

    Worker worker_;

    common::Guard guard_;
    common::Signal changed_;
    bool stopping_ CORPDIR_GUARDED_BY(guard_) = false;
    TaskQueue<&Task::nextNews> queue_ CORPDIR_GUARDED_BY(guard_);
};

}  // namespace travex_ftp

#endif
