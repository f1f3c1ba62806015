// Recursive mutexes that are named by an address and live apart from it: a registry under one lock.
#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "osak.h"
#include "process.h"
#include "thread.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <new>

namespace osak
{
namespace
{
// A number of the calling thread that no other thread of the process has had, never 0. 64 bits: a
// process can outlive 2^32 threads.
std::uint64_t CallerNumber()
{
    static std::atomic<std::uint64_t> s_last{0};
    thread_local const std::uint64_t t_number = ++s_last;
    return t_number;
}

struct Mutex
{
    const OSAK_MUTEX* storage;  // its name in the registry
    std::uint64_t owner = 0;    // number of the holding thread; 0: it is free
    unsigned int depth = 0;     // locks of the holder
    unsigned int ending = 0;    // threads that wait to destroy it; no other thread gets it
    bool destroyed = false;     // threads that wait for it may still have it
};

// Thread-safe: everything is under the guard, the mutexes included.
struct Registry
{
    base::Mutex guard;
    base::CondVar changed;  // a mutex was released or destroyed, or the process exits
    std::map<const OSAK_MUTEX*, std::shared_ptr<Mutex>> mutexes CORPDIR_GUARDED_BY(guard);
};

Registry& TheRegistry()
{
    static base::NeverDestroyed<Registry> s_registry;
    return s_registry.Get();
}

// Waits until a locker may have the mutex. While the process exits, at most for a moment: static
// destructors are not to hang on a thread that does not come back.
unsigned int AwaitFree(Registry& registry, const Mutex& mutex) CORPDIR_REQUIRES(registry.guard)
{
    const bool bounded = IsExiting();
    const base::Clock::time_point deadline = base::Clock::now() + base::ProcessEnd::kPatience;
    while (mutex.owner != 0 || mutex.ending != 0)
    {
        if (MustHold())
        {
            return OSAK_ERR_SYSTEM;
        }
        if (!bounded)
        {
            registry.changed.Wait(registry.guard);
        }
        else if (!registry.changed.WaitUntil(registry.guard, deadline))
        {
            return OSAK_ERR_BUSY;
        }
        if (mutex.destroyed)
        {
            return OSAK_ERR_NO_MUTEX;
        }
    }
    return OSAK_OK;
}

// Runs one of the operations below on the mutex that the storage names.
unsigned int Apply(const OSAK_MUTEX* storage, unsigned int (*operation)(Registry&, Mutex&))
{
    if (const unsigned int code = CheckCall(storage); code != OSAK_OK)
    {
        return code;
    }
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.guard);
    const auto found = registry.mutexes.find(storage);
    if (found == registry.mutexes.end())
    {
        return OSAK_ERR_NO_MUTEX;
    }
    // Another thread may destroy the mutex while the operation waits.
    const std::shared_ptr<Mutex> mutex = found->second;
    return operation(registry, *mutex);
}

unsigned int Lock(Registry& registry, Mutex& mutex) CORPDIR_REQUIRES(registry.guard)
{
    if (mutex.owner != CallerNumber())
    {
        const unsigned int code = AwaitFree(registry, mutex);
        if (code != OSAK_OK)
        {
            return code;
        }
        mutex.owner = CallerNumber();
    }
    ++mutex.depth;
    return OSAK_OK;
}

unsigned int Unlock(Registry& registry, Mutex& mutex) CORPDIR_REQUIRES(registry.guard)
{
    if (mutex.owner != CallerNumber())
    {
        return OSAK_ERR_OWNER;
    }
    if (--mutex.depth == 0)
    {
        mutex.owner = 0;
        registry.changed.NotifyAll();
    }
    return OSAK_OK;
}

// Waits until no thread holds the mutex. After the deadline it looks once more: an unlock that
// comes with the deadline counts.
unsigned int AwaitUnheld(Registry& registry, const Mutex& mutex) CORPDIR_REQUIRES(registry.guard)
{
    const base::Clock::time_point deadline = base::Clock::now() + base::ProcessEnd::kPatience;
    bool inTime = true;
    while (!mutex.destroyed && mutex.owner != 0)
    {
        if (!inTime)
        {
            return OSAK_ERR_BUSY;
        }
        inTime = registry.changed.WaitUntil(registry.guard, deadline);
    }
    return mutex.destroyed ? OSAK_ERR_NO_MUTEX : OSAK_OK;
}

unsigned int Destroy(Registry& registry, Mutex& mutex) CORPDIR_REQUIRES(registry.guard)
{
    if (mutex.owner == CallerNumber())
    {
        return OSAK_ERR_OWNER;
    }
    ++mutex.ending;
    const unsigned int code = AwaitUnheld(registry, mutex);
    --mutex.ending;
    if (code == OSAK_OK)
    {
        mutex.destroyed = true;
        registry.mutexes.erase(mutex.storage);
    }
    registry.changed.NotifyAll();
    return code;
}

}  // namespace

void WakeMutexWaiters()
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.guard);
    registry.changed.NotifyAll();
}

}  // namespace osak

unsigned int OSAK_MutexInitRecursive(OSAK_MUTEX* mutex, void* attr)
{
    if (mutex == nullptr || attr != nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    osak::WatchProcess();
    try
    {
        osak::Registry& registry = osak::TheRegistry();
        const base::MutexLock lock(registry.guard);
        const bool made =
            registry.mutexes.emplace(mutex, std::make_shared<osak::Mutex>(osak::Mutex{mutex}))
                .second;
        return made ? OSAK_OK : OSAK_ERR_PARAM;
    }
    catch (const std::bad_alloc&)
    {
        return OSAK_ERR_SYSTEM;
    }
}

unsigned int OSAK_MutexDestroy(OSAK_MUTEX* mutex)
{
    return osak::Apply(mutex, osak::Destroy);
}

unsigned int OSAK_MutexLock(OSAK_MUTEX* mutex)
{
    osak::HoldIfExiting();
    const unsigned int code = osak::Apply(mutex, osak::Lock);
    if (code != OSAK_OK)
    {
        osak::HoldIfExiting();
    }
    return code;
}

unsigned int OSAK_MutexUnLock(OSAK_MUTEX* mutex)
{
    return osak::Apply(mutex, osak::Unlock);
}
