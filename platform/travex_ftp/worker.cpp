#include "worker.h"

#include <unistd.h>

#include <atomic>

namespace travex_ftp
{
namespace
{
// The worker that the current thread belongs to.
thread_local Worker* t_worker = nullptr;

std::atomic<bool> g_exiting{false};
std::atomic<bool> g_unwaited{false};

}  // namespace

void Worker::start(std::function<void()> body)
{
    {
        Lock lock(mutex_);
        state_ = State::Running;
    }
    // Before the thread exists, which may be over before this function is.
    try
    {
        thread_ = std::thread(
            [this, run = std::move(body)]
            {
                t_worker = this;
                run();
                Lock lock(mutex_);
                state_ = State::Over;
                changed_.notify_all();
            });
    }
    catch (...)
    {
        Lock lock(mutex_);
        state_ = State::Idle;
        throw;
    }
}

// One caller joins the thread; the others wait for it, or for their deadline.
bool Worker::join(Clock::time_point deadline)
{
    {
        Lock lock(mutex_);
        while (state_ == State::Running || state_ == State::Joining)
        {
            if (deadline == Clock::time_point::max())
            {
                lock.wait(changed_);
            }
            else if (!lock.waitUntil(changed_, deadline) && state_ != State::Over)
            {
                return false;
            }
        }
        if (state_ != State::Over)
        {
            return true;  // never started, or joined by another caller
        }
        state_ = State::Joining;
    }
    thread_.join();
    Lock lock(mutex_);
    state_ = State::Joined;
    changed_.notify_all();
    return true;
}

bool Worker::over()
{
    Lock lock(mutex_);
    return state_ != State::Running;
}

bool Worker::isCaller()
{
    return t_worker == this;
}

bool Worker::callerIsOurs()
{
    return t_worker != nullptr;
}

void Worker::beginExit()
{
    g_exiting = true;
}

bool Worker::exiting()
{
    return g_exiting;
}

void Worker::endExit()
{
    g_unwaited = true;
}

void Worker::parkAtExit()
{
    while (g_unwaited && callerIsOurs())
    {
        (void)pause();
    }
}

}  // namespace travex_ftp
