// The layer's own locks: std::mutex and std::condition_variable with annotations that clang's
// -Wthread-safety checks, waits on the monotonic clock, and storage for objects that outlive the
// exit handlers.
#ifndef OSAK_GUARD_H
#define OSAK_GUARD_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

#if defined(__clang__)
#define OSAK_ANNOTATE(x) __attribute__((x))
#else
#define OSAK_ANNOTATE(x)
#endif
#define OSAK_GUARDED_BY(guard) OSAK_ANNOTATE(guarded_by(guard))
#define OSAK_REQUIRES(guard) OSAK_ANNOTATE(requires_capability(guard))

namespace osak
{
using Clock = std::chrono::steady_clock;

// The longest that a destroyed mutex or the exit of the process waits for another thread.
constexpr std::chrono::seconds kLongestWait{1};

// A lock that is held for short sections only, never while calling a client or another layer.
class OSAK_ANNOTATE(capability("mutex")) Guard
{
public:
    void Lock() OSAK_ANNOTATE(acquire_capability())
    {
        m_mutex.lock();
    }
    void Unlock() OSAK_ANNOTATE(release_capability())
    {
        m_mutex.unlock();
    }

private:
    friend class Signal;
    std::mutex m_mutex;
};

// Holds a guard for a scope.
class OSAK_ANNOTATE(scoped_lockable) Hold
{
public:
    explicit Hold(Guard& guard) OSAK_ANNOTATE(acquire_capability(guard)) : m_guard(guard)
    {
        m_guard.Lock();
    }
    ~Hold() OSAK_ANNOTATE(release_capability())
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
    void Wait(Guard& guard) OSAK_REQUIRES(guard)
    {
        std::unique_lock<std::mutex> lock(guard.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();
    }
    // False when the deadline has passed.
    bool WaitUntil(Guard& guard, Clock::time_point deadline) OSAK_REQUIRES(guard)
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

// A static object that is never destroyed: threads and static destructors still use it after the
// exit handlers have run. Making one takes no memory from the heap.
template <typename T>
class NeverDestroyed
{
public:
    NeverDestroyed()
    {
        new (m_storage) T;
    }
    T& Get()
    {
        return *std::launder(reinterpret_cast<T*>(m_storage));
    }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace osak

#endif
