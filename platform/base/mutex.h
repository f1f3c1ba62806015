// The layers' own locks: std::mutex and std::condition_variable with annotations that clang's
// -Wthread-safety checks, and waits on the monotonic clock.
#ifndef CORPDIR_BASE_MUTEX_H
#define CORPDIR_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define CORPDIR_ANNOTATE(x) __attribute__((x))
#else
#define CORPDIR_ANNOTATE(x)
#endif
#define CORPDIR_GUARDED_BY(mutex) CORPDIR_ANNOTATE(guarded_by(mutex))
#define CORPDIR_REQUIRES(mutex) CORPDIR_ANNOTATE(requires_capability(mutex))
#define CORPDIR_EXCLUDES(mutex) CORPDIR_ANNOTATE(locks_excluded(mutex))

namespace base
{
using Clock = std::chrono::steady_clock;

// A lock that is held for short sections only, never while calling a client or another layer, nor
// while touching a file.
class CORPDIR_ANNOTATE(capability("mutex")) Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() CORPDIR_ANNOTATE(acquire_capability())
    {
        m_mutex.lock();
    }
    void Unlock() CORPDIR_ANNOTATE(release_capability())
    {
        m_mutex.unlock();
    }

private:
    friend class CondVar;
    std::mutex m_mutex;
};

// Holds a mutex for a scope.
class CORPDIR_ANNOTATE(scoped_lockable) MutexLock
{
public:
    explicit MutexLock(Mutex& mutex) CORPDIR_ANNOTATE(acquire_capability(mutex)) : m_mutex(mutex)
    {
        m_mutex.Lock();
    }
    ~MutexLock() CORPDIR_ANNOTATE(release_capability())
    {
        m_mutex.Unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

// A condition that threads wait for while they hold a mutex; a wait may end spuriously.
class CondVar
{
public:
    void Wait(Mutex& mutex) CORPDIR_REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();
    }
    // False when the deadline has passed.
    bool WaitUntil(Mutex& mutex, Clock::time_point deadline) CORPDIR_REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
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
