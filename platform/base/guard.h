// The layers' own locks: std::mutex and std::condition_variable with annotations that clang's
// -Wthread-safety checks, and waits on the monotonic clock.
#ifndef CORPDIR_BASE_GUARD_H
#define CORPDIR_BASE_GUARD_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define CORPDIR_ANNOTATE(x) __attribute__((x))
#else
#define CORPDIR_ANNOTATE(x)
#endif
#define CORPDIR_GUARDED_BY(guard) CORPDIR_ANNOTATE(guarded_by(guard))
#define CORPDIR_REQUIRES(guard) CORPDIR_ANNOTATE(requires_capability(guard))
#define CORPDIR_EXCLUDES(guard) CORPDIR_ANNOTATE(locks_excluded(guard))

namespace base
{
using Clock = std::chrono::steady_clock;

// A lock that is held for short sections only, never while calling a client or another layer, nor
// while touching a file.
class CORPDIR_ANNOTATE(capability("mutex")) Guard
{
public:
    Guard() = default;
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    void Lock() CORPDIR_ANNOTATE(acquire_capability())
    {
        m_mutex.lock();
    }
    void Unlock() CORPDIR_ANNOTATE(release_capability())
    {
        m_mutex.unlock();
    }

private:
    friend class Signal;
    std::mutex m_mutex;
};

// Holds a guard for a scope.
class CORPDIR_ANNOTATE(scoped_lockable) Hold
{
public:
    explicit Hold(Guard& guard) CORPDIR_ANNOTATE(acquire_capability(guard)) : m_guard(guard)
    {
        m_guard.Lock();
    }
    ~Hold() CORPDIR_ANNOTATE(release_capability())
    {
        m_guard.Unlock();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    Guard& m_guard;
};

// What threads that hold a guard wait for; a wait may end for no reason.
class Signal
{
public:
    void Wait(Guard& guard) CORPDIR_REQUIRES(guard)
    {
        std::unique_lock<std::mutex> lock(guard.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();
    }
    // False when the deadline has passed.
    bool WaitUntil(Guard& guard, Clock::time_point deadline) CORPDIR_REQUIRES(guard)
    {
        std::unique_lock<std::mutex> lock(guard.m_mutex, std::adopt_lock);
        const std::cv_status status = m_condition.wait_until(lock, deadline);
        lock.release();
        return status == std::cv_status::no_timeout;
    }
    void NotifyAll()
    {
        m_condition.notify_all();
    }

private:
    std::condition_variable m_condition;
};

}  // namespace base

#endif
