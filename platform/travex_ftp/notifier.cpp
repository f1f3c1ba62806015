#include "notifier.h"

#include <cstring>
#include <utility>

#include "base/changes.h"
#include "handle.h"
#include "observer.h"

namespace travex_ftp
{
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

// A task that is queued already is reported once, with the newest numbers: the queue does not grow
// when a callback is slow.
void Notifier::Progress(const TaskPtr& task, uint64_t bytes, uint64_t total)
{
    const base::MutexLock lock(m_mutex);
    task->report.bytes = bytes;
    task->report.total = total;
    Enqueue(task);
}

// Replaces a queued progress.
void Notifier::Finished(const TaskPtr& task, const Task::Report& report)
{
    const base::MutexLock lock(m_mutex);
    task->report = report;
    task->report.finished = true;
    Enqueue(task);
}

void Notifier::Enqueue(const TaskPtr& task)
{
    if (!task->reportQueued && !m_stopping)
    {
        task->reportQueued = true;
        m_queue.Push(task);
        m_changed.NotifyAll();
    }
}

void Notifier::Run()
{
    TaskPtr task;
    Task::Report report;
    while (Take(task, report))
    {
        Deliver(*task, report);
        task.reset();  // before the wait: its settings, password included, may be destroyed
    }
    TaskQueue<&Task::nextReport> dropped;
    {
        const base::MutexLock lock(m_mutex);
        dropped = std::move(m_queue);
    }
}

// Waits for a report. False: the notifier was stopped.
bool Notifier::Take(TaskPtr& task, Task::Report& report)
{
    const base::MutexLock lock(m_mutex);
    while (!m_stopping && m_queue.IsEmpty())
    {
        m_changed.Wait(m_mutex);
    }
    if (m_stopping)
    {
        return false;
    }
    task = m_queue.Pop();
    task->reportQueued = false;
    report = task->report;
    return true;
}

// Checked before each callback: the handle may be closed, or the layer stopped, between two.
bool Notifier::MayBegin(const Task& task)
{
    const base::MutexLock lock(m_mutex);
    return !m_stopping && !task.handle->Closed();
}

// The observer is called first, so that a notification callback may use what it has seen.
void Notifier::Deliver(const Task& task, Task::Report& report)
{
    if (MayBegin(task))
    {
        NotifyObserver(task, report);
    }
    if (!report.finished)
    {
        return;
    }
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

void Notifier::NotifyObserver(const Task& task, const Task::Report& report)
{
    Observation seen{};
    seen.ulKind = !report.finished         ? TRAVEX_FTP_OBSERVED_PROGRESS
                  : Failed(report.failure) ? TRAVEX_FTP_OBSERVED_FAILED
                                           : TRAVEX_FTP_OBSERVED_SUCCESS;
    seen.ulTaskID = task.id;
    seen.pcServer = task.settings->serverText.c_str();
    seen.pcServerFile = task.serverFile.c_str();
    seen.ullBytes = report.bytes;
    seen.ullTotal = report.total;
    const bool failed = report.finished && Failed(report.failure);
    seen.ulRet = failed ? report.failure.ulRet : static_cast<unsigned int>(TRAVEX_FTP_OK);
    seen.ulStep = failed ? report.failure.ulStep : 0;
    seen.ulReply = failed ? report.failure.ulReply : 0;
    seen.ulDetail = failed ? report.failure.ulDetail : 0;
    seen.pcReason = failed ? report.failure.acReason : "";
    seen.pstTimings = report.finished ? &report.timings : nullptr;
    Observe(seen);
}

}  // namespace travex_ftp
