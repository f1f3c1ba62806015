// The notification thread, which calls the observer and the client's callbacks.
#ifndef TRAVEX_FTP_NOTIFIER_H
#define TRAVEX_FTP_NOTIFIER_H

#include "base/mutex.h"
#include "limits.h"
#include "task.h"
#include "worker.h"

namespace travex_ftp
{
// Thread-safe: one mutex guards all state; it is not held during a callback.
class Notifier
{
public:
    // Throws std::system_error or std::bad_alloc.
    void Start();

    // No notification begins afterwards. Does not wait.
    void Stop() CORPDIR_EXCLUDES(m_mutex);

    Worker& Thread()
    {
        return m_worker;
    }

    // A transfer has reached a step. Reported within kStepDelay; does nothing if no observer is
    // set.
    void Step(const TaskPtr& task, tagTRAVEX_FTP_STEP step) CORPDIR_EXCLUDES(m_mutex);

    // A task has received bytes. Replaces a progress that was not reported yet.
    void Progress(const TaskPtr& task, uint64_t bytes, uint64_t total) CORPDIR_EXCLUDES(m_mutex);

    // A task has ended. Reported once; the tasks of a handle in the order of the calls.
    void Finished(const TaskPtr& task, const Task::Report& report) CORPDIR_EXCLUDES(m_mutex);

private:
    void Run() CORPDIR_EXCLUDES(m_mutex);
    bool Take(TaskPtr& task, Task::Report& report, Waiting& waiting) CORPDIR_EXCLUDES(m_mutex);
    bool MayBegin(const Task& task) CORPDIR_EXCLUDES(m_mutex);
    void Enqueue(const TaskPtr& task) CORPDIR_REQUIRES(m_mutex);
    void AwaitReport() CORPDIR_REQUIRES(m_mutex);
    void Deliver(const Task& task, Task::Report& report, const Waiting& waiting);
    void Notify(const Task& task, unsigned int type, Failure* failure);
    void ObserveStep(const Task& task, tagTRAVEX_FTP_STEP step);
    void ObserveProgress(const Task& task, const Task::Report& report);
    void ObserveEnd(const Task& task, const Task::Report& report);
    void NotifyObserver(const Task& task, const Observation& seen);

    Worker m_worker;

    base::Mutex m_mutex;
    base::CondVar m_changed;
    bool m_stopping CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_urgent CORPDIR_GUARDED_BY(m_mutex) = false;           // the queue has more than steps
    Clock::time_point m_stepsAfter CORPDIR_GUARDED_BY(m_mutex);  // steps alone wait until then
    TaskQueue<&Task::nextReport> m_queue CORPDIR_GUARDED_BY(m_mutex);
};

}  // namespace travex_ftp

#endif
