// The notification thread: calls the client back, and nothing else.
#ifndef TRAVEX_FTP_NOTIFIER_H
#define TRAVEX_FTP_NOTIFIER_H

#include "base/mutex.h"
#include "task.h"
#include "worker.h"

namespace travex_ftp
{
// Thread-safe: all state is under one lock, which is not held during a callback.
class Notifier
{
public:
    // Throws std::system_error or std::bad_alloc.
    void Start();

    // From now on no notification begins. Waits for nothing.
    void Stop() CORPDIR_EXCLUDES(m_mutex);

    Worker& Thread()
    {
        return m_worker;
    }

    // A task has received bytes. A progress that was not yet told is overwritten.
    void Progress(const TaskPtr& task, uint64_t bytes, uint64_t total) CORPDIR_EXCLUDES(m_mutex);

    // A task is over; a failure without a code is success. Told once, in the order of these calls.
    // The timings stay empty when no connection had the task.
    void Finished(const TaskPtr& task, const Failure& failure, uint64_t bytes, uint64_t total,
                  const tagTRAVEX_FTP_S_TIMINGS& timings = {}) CORPDIR_EXCLUDES(m_mutex);

private:
    void Run() CORPDIR_EXCLUDES(m_mutex);
    bool Take(TaskPtr& task, Task::News& news) CORPDIR_EXCLUDES(m_mutex);
    bool MayBegin(const Task& task) CORPDIR_EXCLUDES(m_mutex);
    void Enqueue(const TaskPtr& task) CORPDIR_REQUIRES(m_mutex);
    void Deliver(const Task& task, Task::News& news);
    void Notify(const Task& task, unsigned int type, Failure* failure);
    void TellObserver(const Task& task, const Task::News& news);

    Worker m_worker;

    base::Mutex m_mutex;
    base::CondVar m_changed;
    bool m_stopping CORPDIR_GUARDED_BY(m_mutex) = false;
    TaskQueue<&Task::nextNews> m_queue CORPDIR_GUARDED_BY(m_mutex);
};

}  // namespace travex_ftp

#endif
