#include "worker.h"

#include <pthread.h>
#include <signal.h>
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

// A thread made meanwhile has all signals blocked but those of its own faults. The program's
// signals are the program's threads' business, and SIGPIPE must not end the process: with
// CURLOPT_NOSIGNAL libcurl leaves that to us.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        (void)sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        {
            (void)sigdelset(&blocked, fault);
        }
        (void)pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~SignalsBlocked()
    {
        (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

}  // namespace

void Worker::start(std::function<void()> body)
{
    {
        const common::Hold hold(guard_);
        state_ = State::Running;
    }
    // Before the thread exists, which may be over before this function is.
    try
    {
        const SignalsBlocked blocked;
        thread_ = std::thread(
            [this, run = std::move(body)]
            {
                t_worker = this;
                run();
                const common::Hold hold(guard_);
                state_ = State::Over;
                changed_.NotifyAll();
            });
    }
    catch (...)
    {
        const common::Hold hold(guard_);
        state_ = State::Idle;
        throw;
    }
}

// One caller joins the thread; the others wait for it, or for their deadline.
bool Worker::join(Clock::time_point deadline)
{
    {
        const common::Hold hold(guard_);
        while (state_ == State::Running || state_ == State::Joining)
        {
            if (deadline == Clock::time_point::max())
            {
                changed_.Wait(guard_);
            }
            else if (!changed_.WaitUntil(guard_, deadline) && state_ != State::Over)
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
    const common::Hold hold(guard_);
    state_ = State::Joined;
    changed_.NotifyAll();
    return true;
}

bool Worker::over()
{
    const common::Hold hold(guard_);
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
