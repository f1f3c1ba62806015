// std::mutex with the annotations of clang's thread-safety analysis, which libstdc++'s own lacks.
#ifndef TRAVEX_FTP_GUARDED_H
#define TRAVEX_FTP_GUARDED_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define TRAVEX_FTP_ANNOTATE(x) __attribute__((x))
#else
#define TRAVEX_FTP_ANNOTATE(x)
#endif
#define GUARDED_BY(mutex) TRAVEX_FTP_ANNOTATE(guarded_by(mutex))
#define REQUIRES(...) TRAVEX_FTP_ANNOTATE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TRAVEX_FTP_ANNOTATE(locks_excluded(__VA_ARGS__))

namespace travex_ftp
{
class TRAVEX_FTP_ANNOTATE(capability("mutex")) Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

private:
    friend class Lock;
    std::mutex mutex_;
};

// Holds a mutex for a scope; waits for a condition variable with it.
class TRAVEX_FTP_ANNOTATE(scoped_lockable) Lock
{
public:
    explicit Lock(Mutex& mutex) TRAVEX_FTP_ANNOTATE(acquire_capability(mutex)) : lock_(mutex.mutex_)
    {
    }
    ~Lock() TRAVEX_FTP_ANNOTATE(release_capability()) = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void wait(std::condition_variable& changed)
    {
        changed.wait(lock_);
    }

    // False once the deadline has passed.
    bool waitUntil(std::condition_variable& changed, std::chrono::steady_clock::time_point deadline)
    {
        return changed.wait_until(lock_, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace travex_ftp

#endif
