#include "notifier.h"

#include <cstring>
#include <utility>

#include "base/changes.h"
#include "handle.h"
#include "observer.h"

namespace travex_ftp
{
namespace
{
// The members that all kinds have.
Observation ObservationOf(const Task& task, tagTRAVEX_FTP_OBSERVED kind)
{
    Observation seen{};
    seen.ulKind = kind;
    seen.ulTaskID = task.id;
    seen.pcServer = task.settings->serverText.c_str();
    seen.pcServerFile = task.serverFile.c_str();
    seen.ullTotal = TRAVEX_FTP_SIZE_UNKNOWN;
    seen.pcReason = "";
    return seen;
}

}  // namespace

void Notifier::Start()
{
    m_worker.Start("corpdir-notify", [this] { Run(); });
}

// The thread drops what is queued.
void Notifier::Stop()
{
    const base::MutexLock lock(m_mutex);
    m_stopping = true;
    m_changed.NotifyAll();
}

void Notifier::Step(const TaskPtr& task, tagTRAVEX_FTP_STEP step)
{
    if (!Observed())
    {
        return;
    }
    const base::MutexLock lock(m_mutex);
    task->waiting.Add(step);
    Enqueue(task);
    if (Clock::now() >= m_stepsAfter)
    {
        m_changed.NotifyAll();
    }
}

// A progress that is queued already is reported once, with the newest numbers: the queue does not
// grow when a callback is slow.
void Notifier::Progress(const TaskPtr& task, uint64_t bytes, uint64_t total)
{
    const base::MutexLock lock(m_mutex);
    task->report.bytes = bytes;
    task->report.total = total;
    task->waiting.Add(TRAVEX_FTP_STEP_NONE);
    Enqueue(task);
    m_urgent = true;
    m_changed.NotifyAll();
}

// Replaces a queued progress.
void Notifier::Finished(const TaskPtr& task, const Task::Report& report)
{
    const base::MutexLock lock(m_mutex);
    task->waiting.RemoveProgress();
    task->report = report;
    task->report.finished = true;
    Enqueue(task);
    m_urgent = true;
    m_changed.NotifyAll();
}

void Notifier::Enqueue(const TaskPtr& task)
{
    if (!task->reportQueued && !m_stopping)
    {
        task->reportQueued = true;
        m_queue.Push(task);
    }
}

void Notifier::Run()
{
    TaskPtr task;
    Task::Report report;
    Waiting waiting;
    while (Take(task, report, waiting))
    {
        Deliver(*task, report, waiting);
        task.reset();  // before the wait: its settings, password included, may be destroyed
    }
    TaskQueue<&Task::nextReport> dropped;
    {
        const base::MutexLock lock(m_mutex);
        dropped = std::move(m_queue);
    }
}

// Waits for a report. False: the notifier was stopped.
bool Notifier::Take(TaskPtr& task, Task::Report& report, Waiting& waiting)
{
    const base::MutexLock lock(m_mutex);
    AwaitReport();
    if (m_stopping)
    {
        return false;
    }
    task = m_queue.Pop();
    task->reportQueued = false;
    report = task->report;
    waiting = std::exchange(task->waiting, {});
    m_urgent = m_urgent && !m_queue.IsEmpty();
    if (waiting.begin() != waiting.end())
    {
        m_stepsAfter = Clock::now() + kStepDelay;
    }
    return true;
}

// Without a wake-up, steps are found when the delay of the earlier ones is over.
void Notifier::AwaitReport()
{
    while (!m_stopping && !m_urgent && Clock::now() < m_stepsAfter)
    {
        (void)m_changed.WaitUntil(m_mutex, m_stepsAfter);
    }
    while (!m_stopping && m_queue.IsEmpty())
    {
        m_changed.Wait(m_mutex);
    }
}

// Checked before each callback: the handle may be closed, or the layer stopped, between two.
bool Notifier::MayBegin(const Task& task)
{
    const base::MutexLock lock(m_mutex);
    return !m_stopping && !task.handle->Closed();
}

// The observer is called first, so that a notification callback may use what it has seen.
void Notifier::Deliver(const Task& task, Task::Report& report, const Waiting& waiting)
{
    for (const tagTRAVEX_FTP_STEP step : waiting)
    {
        if (step == TRAVEX_FTP_STEP_NONE)
        {
            ObserveProgress(task, report);
        }
        else
        {
            ObserveStep(task, step);
        }
    }
    if (!report.finished)
    {
        return;
    }
    ObserveEnd(task, report);
    if (Failed(report.failure))
    {
        Notify(task, TRAVEX_FTP_NOTIFY_FAILED, &report.failure);
        return;
    }
    Notify(task, TRAVEX_FTP_NOTIFY_SUCCESS, nullptr);
    Notify(task, TRAVEX_FTP_NOTIFY_OVER, nullptr);
}

void Notifier::Notify(const Task& task, unsigned int type, Failure* failure)
{
    if (task.callback == nullptr || !MayBegin(task))
    {
        return;
    }
    // A fresh record for each call: the client may write to it.
    tagTRAVEX_FTP_S_NOTIFY_DATA data{};
    data.ulTaskID = task.id;
    memcpy(data.DownFileName, task.serverFile.c_str(), task.serverFile.size());
    data.ulType = type;
    data.pstErrInfo = failure;
    task.callback(nullptr, &data);
    base::Changes::Get().Raise();
}

void Notifier::ObserveStep(const Task& task, tagTRAVEX_FTP_STEP step)
{
    Observation seen = ObservationOf(task, TRAVEX_FTP_OBSERVED_STEP);
    seen.ulStep = step;
    NotifyObserver(task, seen);
}

void Notifier::ObserveProgress(const Task& task, const Task::Report& report)
{
    Observation seen = ObservationOf(task, TRAVEX_FTP_OBSERVED_PROGRESS);
    seen.ullBytes = report.bytes;
    seen.ullTotal = report.total;
    NotifyObserver(task, seen);
}

void Notifier::ObserveEnd(const Task& task, const Task::Report& report)
{
    const Failure& failure = report.failure;
    const bool failed = Failed(failure);
    Observation seen =
        ObservationOf(task, failed ? TRAVEX_FTP_OBSERVED_FAILED : TRAVEX_FTP_OBSERVED_SUCCESS);
    seen.ullBytes = report.bytes;
    seen.ullTotal = report.total;
    seen.pstTimings = &report.timings;
    if (failed)
    {
        seen.ulRet = failure.ulRet;
        seen.ulStep = failure.ulStep;
        seen.ulReply = failure.ulReply;
        seen.ulDetail = failure.ulDetail;
        seen.pcReason = failure.acReason;
    }
    NotifyObserver(task, seen);
}

void Notifier::NotifyObserver(const Task& task, const Observation& seen)
{
    if (MayBegin(task))
    {
        Observe(seen);
    }
}

}  // namespace travex_ftp
