// Handles and the downloads accepted on them.
#ifndef TRAVEX_FTP_TASK_H
#define TRAVEX_FTP_TASK_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "failure.h"
#include "settings.h"

namespace travex_ftp
{
// What a handle that was handed out stands for. The client sees only a number, which is never used
// again: a stale handle is found out however old it is.
struct Handle
{
    // Set once, under the notifier's lock, so that afterwards no notification begins; read by the
    // transfer thread to drop the handle's transfers.
    std::atomic<bool> closed{false};

    // Guarded by the layer's lock.
    std::shared_ptr<const Settings> settings;
    bool dataParam = false;
};

// A task id, reserved while the object lives. Never 0, unique among live tasks.
class TaskId
{
public:
    TaskId();  // throws std::bad_alloc
    ~TaskId();
    TaskId(const TaskId&) = delete;
    TaskId& operator=(const TaskId&) = delete;

    unsigned int value() const
    {
        return value_;
    }

private:
    unsigned int value_ = 0;
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
        tagTRAVEX_FTP_S_COURSE course{};
    } news;

    // Links of the queue that the task waits in: to be transferred, to be told of. A task is in
    // each at most once, so that neither queue can grow beyond the tasks or fail for lack of
    // memory.
    std::shared_ptr<Task> nextTransfer;
    std::shared_ptr<Task> nextNews;
};

using TaskPtr = std::shared_ptr<Task>;

// First in, first out, linked through the tasks. Not thread-safe: guarded by its owner.
template <TaskPtr Task::*Next>
class TaskQueue
{
public:
    TaskQueue() = default;
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;
    ~TaskQueue()
    {
        // One by one: a chain of links would be destroyed recursively.
        while (pop() != nullptr)
        {
        }
    }

    bool empty() const
    {
        return first_ == nullptr;
    }

    Task* front() const
    {
        return first_.get();
    }

    void push(TaskPtr task)
    {
        Task* const pushed = task.get();
        (last_ == nullptr ? first_ : last_->*Next) = std::move(task);
        last_ = pushed;
    }

    // Before all others.
    void pushFront(TaskPtr task)
    {
        Task* const pushed = task.get();
        pushed->*Next = std::move(first_);
        first_ = std::move(task);
        last_ = last_ == nullptr ? pushed : last_;
    }

    // Null when the queue is empty.
    TaskPtr pop()
    {
        TaskPtr task;
        task.swap(first_);
        if (task != nullptr)
        {
            first_ = std::move(task.get()->*Next);
            last_ = first_ == nullptr ? nullptr : last_;
        }
        return task;
    }

    // Takes all tasks of the other queue behind its own.
    void append(TaskQueue& other)
    {
        while (TaskPtr task = other.pop())
        {
            push(std::move(task));
        }
    }

private:
    TaskPtr first_;
    Task* last_ = nullptr;
};

}  // namespace travex_ftp

#endif
