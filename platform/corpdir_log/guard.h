// The layer's lock: std::mutex with annotations that clang's -Wthread-safety checks, and waits on
// the monotonic clock.
#ifndef CORPDIR_LOG_GUARD_H
#define CORPDIR_LOG_GUARD_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define CORPDIR_LOG_ANNOTATE(x) __attribute__((x))
#else
#define CORPDIR_LOG_ANNOTATE(x)
#endif
#define CORPDIR_LOG_GUARDED_BY(guard) CORPDIR_LOG_ANNOTATE(guarded_by(guard))
#define CORPDIR_LOG_REQUIRES(guard) CORPDIR_LOG_ANNOTATE(requires_capability(guard))

namespace corpdir_log
{
using Clock = std::chrono::steady_clock;

// Held for short sections only, never while formatting or while touching a file.
class CORPDIR_LOG_ANNOTATE(capability("mutex")) Guard
{
private:
    friend class Hold;
    friend class Signal;
    std::mutex m_mutex;
};

// Holds a guard for a scope.
class CORPDIR_LOG_ANNOTATE(scoped_lockable) Hold
{
public:
    explicit Hold(Guard& guard) CORPDIR_LOG_ANNOTATE(acquire_capability(guard))
        : m_lock(guard.m_mutex)
    {
    }
    ~Hold() CORPDIR_LOG_ANNOTATE(release_capability()) {}
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    std::lock_guard<std::mutex> m_lock;
};

// What holders of a guard wait for; a wait may end for no reason.
class Signal
{
public:
    void Wait(Guard& guard) CORPDIR_LOG_REQUIRES(guard)
    {
        std::unique_lock<std::mutex> lock(guard.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();
    }
    // False when the deadline has passed.
    bool WaitUntil(Guard& guard, Clock::time_point deadline) CORPDIR_LOG_REQUIRES(guard)
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

}  // namespace corpdir_log

#endif
