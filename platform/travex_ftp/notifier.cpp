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

// What is queued goes with the thread.
void Notifier::Stop()
{
    const base::MutexLock lock(m_mutex);
    m_stopping = true;
    m_changed.NotifyAll();
}

// A task that waits in the queue already is told of once, with the newest numbers: neither a slow
// callback nor a fast network makes the queue grow.
void Notifier::Progress(const TaskPtr& task, uint64_t bytes, uint64_t total)
{
    const base::MutexLock lock(m_mutex);
    task->news.bytes = bytes;
    task->news.total = total;
    Enqueue(task);
}

// A progress that waits in the queue is overtaken by the outcome.
void Notifier::Finished(const TaskPtr& task, const Failure& failure, uint64_t bytes, uint64_t total,
                        const tagTRAVEX_FTP_S_TIMINGS& timings)
{
    const base::MutexLock lock(m_mutex);
    task->news.over = true;
    task->news.bytes = bytes;
    task->news.total = total;
    task->news.failure = failure;
    task->news.timings = timings;
    Enqueue(task);
}

void Notifier::Enqueue(const TaskPtr& task)
{
    if (!task->news.queued && !m_stopping)
    {
        task->news.queued = true;
        m_queue.Push(task);
        m_changed.NotifyAll();
    }
}

void Notifier::Run()
{
    TaskPtr task;
    Task::News news;
    while (Take(task, news))
    {
        Deliver(*task, news);
        task.reset();  // before the wait: its id is free, its settings are wiped
    }
    TaskQueue<&Task::nextNews> dropped;
    {
        const base::MutexLock lock(m_mutex);
        dropped = std::move(m_queue);
    }
}

// Waits for news. The lock is released before they are told.
bool Notifier::Take(TaskPtr& task, Task::News& news)
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
    task->news.queued = false;
    news = task->news;
    return true;
}

// Asked before each single callback: a handle may be closed, or the layer stopped, between two.
bool Notifier::MayBegin(const Task& task)
{
    const base::MutexLock lock(m_mutex);
    return !m_stopping && !task.handle->Closed();
}

// The observer first: whoever is told by a notification may ask what the observer has seen.
void Notifier::Deliver(const Task& task, Task::News& news)
{
    if (MayBegin(task))
    {
        TellObserver(task, news);
    }
    if (!news.over)
    {
        return;
    }
    if (Failed(news.failure))
    {
        Notify(task, TRAVEX_FTP_NOTIFY_FAILED, &news.failure);
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
    // Of this call alone, so that a client that writes into it harms nobody.
    tagTRAVEX_FTP_S_NOTIFY_DATA data{};
    data.ulTaskID = task.id.Value();
    memcpy(data.DownFileName, task.serverFile.c_str(), task.serverFile.size());
    data.ulType = type;
    data.pstErrInfo = failure;
    task.callback(nullptr, &data);
    base::Changes::Get().Raise();
}

void Notifier::TellObserver(const Task& task, const Task::News& news)
{
    tagTRAVEX_FTP_S_OBSERVATION seen{};
    seen.ulKind = !news.over             ? TRAVEX_FTP_OBSERVED_PROGRESS
                  : Failed(news.failure) ? TRAVEX_FTP_OBSERVED_FAILED
                                         : TRAVEX_FTP_OBSERVED_SUCCESS;
    seen.ulTaskID = task.id.Value();
    seen.pcServer = task.settings->serverText.c_str();
    seen.pcServerFile = task.serverFile.c_str();
    seen.ullBytes = news.bytes;
    seen.ullTotal = news.total;
    const bool failed = news.over && Failed(news.failure);
    seen.ulRet = failed ? news.failure.ulRet : static_cast<unsigned int>(TRAVEX_FTP_OK);
    seen.ulStep = failed ? news.failure.ulStep : 0;
    seen.ulReply = failed ? news.failure.ulReply : 0;
    seen.ulDetail = failed ? news.failure.ulDetail : 0;
    seen.pcReason = failed ? news.failure.acReason : "";
    seen.pstTimings = news.over ? &news.timings : nullptr;
    Observe(seen);
}

}  // namespace travex_ftp
