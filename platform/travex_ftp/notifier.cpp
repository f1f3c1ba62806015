#include "notifier.h"

#include <cstring>

#include "observer.h"

namespace travex_ftp
{
void Notifier::start()
{
    worker_.start([this] { run(); });
}

// What is queued goes with the thread.
void Notifier::stop()
{
    const common::Hold hold(guard_);
    stopping_ = true;
    changed_.NotifyAll();
}

// A task that waits in the queue already is told of once, with the newest numbers: neither a slow
// callback nor a fast network makes the queue grow.
void Notifier::progress(const TaskPtr& task, uint64_t bytes, uint64_t total)
{
    const common::Hold hold(guard_);
    task->news.bytes = bytes;
    task->news.total = total;
    enqueue(task);
}

// A progress that waits in the queue is overtaken by the outcome.
void Notifier::finished(const TaskPtr& task, const Failure& failure, uint64_t bytes, uint64_t total,
                        const tagTRAVEX_FTP_S_COURSE& course)
{
    const common::Hold hold(guard_);
    task->news.over = true;
    task->news.bytes = bytes;
    task->news.total = total;
    task->news.failure = failure;
    task->news.course = course;
    enqueue(task);
}

void Notifier::close(Handle& handle)
{
    const common::Hold hold(guard_);
    handle.closed = true;
}

void Notifier::enqueue(const TaskPtr& task)
{
    if (!task->news.queued && !stopping_)
    {
        task->news.queued = true;
        queue_.push(task);
        changed_.NotifyAll();
    }
}

void Notifier::run()
{
    TaskPtr task;
    Task::News news;
    while (take(task, news))
    {
        deliver(*task, news);
        task.reset();  // before the wait: its id is free, its settings are wiped
    }
    TaskQueue<&Task::nextNews> dropped;
    {
        const common::Hold hold(guard_);
        dropped.append(queue_);
    }
}

// Waits for news. The lock is released before they are told.
bool Notifier::take(TaskPtr& task, Task::News& news)
{
    const common::Hold hold(guard_);
    while (!stopping_ && queue_.empty())
    {
        changed_.Wait(guard_);
    }
    if (stopping_)
    {
        return false;
    }
    task = queue_.pop();
    task->news.queued = false;
    news = task->news;
    return true;
}

// Asked before each single callback: a handle may be closed, or the layer stopped, between two.
bool Notifier::mayBegin(const Task& task)
{
    const common::Hold hold(guard_);
    return !stopping_ && !task.handle->closed;
}

// The observer first: whoever is told by a notification may ask what the observer has seen.
void Notifier::deliver(const Task& task, Task::News& news)
{
    if (mayBegin(task))
    {
        tellObserver(task, news);
    }
    if (!news.over)
    {
        return;
    }
    if (failed(news.failure))
    {
        notify(task, TRAVEX_FTP_NOTIFY_FAILED, &news.failure);
        return;
    }
    notify(task, TRAVEX_FTP_NOTIFY_SUCCESS, nullptr);
    notify(task, TRAVEX_FTP_NOTIFY_OVER, nullptr);
}

void Notifier::notify(const Task& task, unsigned int type, Failure* failure)
{
    if (task.callback == nullptr || !mayBegin(task))
    {
        return;
    }
    // Of this call alone, so that a client that writes into it harms nobody.
    tagTRAVEX_FTP_S_NOTIFY_DATA data{};
    data.ulTaskID = task.id.value();
    memcpy(data.DownFileName, task.serverFile.c_str(), task.serverFile.size());
    data.ulType = type;
    data.pstErrInfo = failure;
    task.callback(nullptr, &data);
}

void Notifier::tellObserver(const Task& task, const Task::News& news)
{
    tagTRAVEX_FTP_S_OBSERVATION seen{};
    seen.ulKind = !news.over             ? TRAVEX_FTP_OBSERVED_PROGRESS
                  : failed(news.failure) ? TRAVEX_FTP_OBSERVED_FAILED
                                         : TRAVEX_FTP_OBSERVED_SUCCESS;
    seen.ulTaskID = task.id.value();
    seen.pcServer = task.settings->serverText.c_str();
    seen.pcServerFile = task.serverFile.c_str();
    seen.ullBytes = news.bytes;
    seen.ullTotal = news.total;
    seen.ulRet = news.over ? news.failure.ulRet : static_cast<unsigned int>(TRAVEX_FTP_OK);
    seen.pcReason = news.over && failed(news.failure) ? news.failure.acReason : "";
    seen.pstCourse = news.over ? &news.course : nullptr;
    observe(seen);
}

}  // namespace travex_ftp
