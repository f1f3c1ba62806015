// Threads: a registry of those that were not joined, by numbers that serve as handles.
//
// A join waits for the record's end, not in pthread_join: so a second joiner, and one whose thread
// was held while the process exits, get a code. pthread_join then collects a thread that has
// nothing left to do.
#include "thread.h"

#include "base/changes.h"
#include "base/never_destroyed.h"
#include "handle.h"
#include "mutex.h"
#include "osak_log.h"
#include "process.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <utility>

namespace osak
{
__thread std::uint64_t t_threadNumber = 0;

std::uint64_t GiveThreadNumber()
{
    static std::atomic<std::uint64_t> s_last{0};
    t_threadNumber = s_last.fetch_add(1, std::memory_order_relaxed) + 1;
    return t_threadNumber;
}

namespace
{
// One thread of the layer.
struct Thread
{
    // Constant after the start.
    const char* name = nullptr;  // static text of at most 15 bytes, the system's limit
    OSAK_THREAD_PROC entry = nullptr;

    // Guarded by the registry's mutex.
    pthread_t native = {};
    std::uint64_t threadNumber = 0;  // 0 until the thread runs
    bool runsClient = false;         // the exit of the process waits for it
    bool joined = false;             // somebody waits for its end
    bool refusedItself = false;      // it tried to join itself: most likely nobody will
    bool ended = false;
    bool parked = false;  // held for good, the process exits
};

// The threads that were not joined. Thread-safe: everything is under the mutex.
struct Registry
{
    base::Mutex mutex;
    base::CondVar changed;  // a thread ended, was held, or left a callback
    std::map<std::uintptr_t, std::unique_ptr<Thread>> threads CORPDIR_GUARDED_BY(mutex);
    std::uintptr_t lastNumber CORPDIR_GUARDED_BY(mutex) = 0;
};

Registry& TheRegistry()
{
    static base::NeverDestroyed<Registry> s_registry;
    return s_registry.Get();
}

// The record of the calling thread; null when the layer did not make it.
thread_local Thread* t_self = nullptr;

// The signals that a thread brings upon itself stay deliverable, for a client's crash handler.
// SIGPIPE is not among them: a lost connection is an error code.
void FillAsynchronousSignals(sigset_t* signals)
{
    sigfillset(signals);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
    {
        sigdelset(signals, fault);
    }
}

// Marks the end of the calling thread.
void MarkEnd(void* /*value*/)
{
    if (IsForkedChild())
    {
        return;
    }
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    t_self->ended = true;
    t_self = nullptr;
    registry.changed.NotifyAll();
}

// Thread-specific data whose destructor marks the end. Such destructors run after those of
// thread_local objects, so that the client's still run on a thread that can be held and that a join
// waits for. Unlike an object of that kind it is not destroyed by a call of exit, after which the
// thread goes on, and it takes no memory that a forked child would miss.
struct EndKey
{
    pthread_key_t key = 0;
    bool isMade = pthread_key_create(&key, MarkEnd) == 0;
};

// Sees to it that the end is marked on every way out of the entry, pthread_exit included. When the
// system has no place for the key, that happens as the entry is left.
class EndOfThread
{
public:
    EndOfThread()
    {
        static const EndKey s_end;
        m_isKeySet = s_end.isMade && pthread_setspecific(s_end.key, t_self) == 0;
    }
    EndOfThread(const EndOfThread&) = delete;
    EndOfThread& operator=(const EndOfThread&) = delete;
    ~EndOfThread()
    {
        if (!m_isKeySet)
        {
            MarkEnd(nullptr);
        }
    }

private:
    bool m_isKeySet = false;
};

// Where a thread of the layer begins. Its record lives at least until MarkEnd.
void* RunThread(void* argument)
{
    t_self = static_cast<Thread*>(argument);
    {
        const base::MutexLock lock(TheRegistry().mutex);
        t_self->threadNumber = CurrentThreadNumber();
    }
    const EndOfThread end;
    (void)pthread_setname_np(pthread_self(), t_self->name);  // it works without a name as well
    return PointerOf<void*>(t_self->entry());
}

// pthread_create with the signal mask that the new thread is to inherit.
int CreateNative(pthread_t* native, Thread* thread)
{
    // Set before the start: a signal that arrives at once is not to find the new thread open.
    sigset_t blocked;
    sigset_t before;
    FillAsynchronousSignals(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const int error = pthread_create(native, nullptr, RunThread, thread);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

// Enters the record, stores the handle and starts the thread. The mutex is held across the start,
// so that whoever the entry hands its handle to finds the record complete.
unsigned int StartRegistered(std::unique_ptr<Thread> record, OSAK_THREAD* handle)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    const std::uintptr_t number = ++registry.lastNumber;
    Thread* const thread = record.get();
    registry.threads.emplace(number, std::move(record));
    *handle = PointerOf<OSAK_THREAD>(number);
    if (CreateNative(&thread->native, thread) != 0)
    {
        *handle = nullptr;
        registry.threads.erase(number);
        return OSAK_ERR_SYSTEM;
    }
    return OSAK_OK;
}

// Takes one ended thread out of the registry that was refused a join of itself and that nobody else
// has joined. False when there is none.
bool TakeAbandoned(pthread_t* native)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    for (auto entry = registry.threads.begin(); entry != registry.threads.end(); ++entry)
    {
        const Thread& thread = *entry->second;
        if (thread.ended && thread.refusedItself && !thread.joined)
        {
            *native = thread.native;
            registry.threads.erase(entry);
            return true;
        }
    }
    return false;
}

// Gives the stacks of such threads back: who was refused that join has most likely dropped the
// handle. They are detached since the last of an ended thread, destructors of thread-specific keys,
// is nothing to wait for here.
void CollectAbandoned()
{
    pthread_t native = {};
    while (TakeAbandoned(&native))
    {
        (void)pthread_detach(native);
    }
}

// Waits for the end of a thread that is not going to be held for good.
unsigned int AwaitEnd(Registry& registry, const Thread& thread) CORPDIR_REQUIRES(registry.mutex)
{
    // A join that static destructors make is not to hang the exit.
    const bool exiting = CurrentPhase() == Phase::kExiting;
    const base::Clock::time_point deadline = base::Clock::now() + kLongestWait;
    while (!thread.ended && !thread.parked)
    {
        if (!exiting)
        {
            registry.changed.Wait(registry.mutex);
        }
        else if (!registry.changed.WaitUntil(registry.mutex, deadline))
        {
            break;
        }
    }
    return thread.ended ? OSAK_OK : OSAK_ERR_BUSY;
}

// Takes the right to join the thread, waits for its end, and forgets it.
unsigned int JoinRegistered(std::uintptr_t number, pthread_t* native)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    const auto found = registry.threads.find(number);
    if (found == registry.threads.end())
    {
        return OSAK_ERR_HANDLE;
    }
    Thread& thread = *found->second;
    if (&thread == t_self)
    {
        thread.refusedItself = true;
        return OSAK_ERR_SELF;
    }
    if (thread.joined)
    {
        return OSAK_ERR_HANDLE;
    }
    thread.joined = true;
    const unsigned int code = AwaitEnd(registry, thread);
    if (code != OSAK_OK)
    {
        thread.joined = false;  // another may try
        return code;
    }
    *native = thread.native;
    registry.threads.erase(number);
    return OSAK_OK;
}

// True when the exit of the process need not wait for the thread. The caller is the one that exits.
bool IsAtRest(const Thread& thread)
{
    return &thread == t_self || thread.ended || thread.parked || !thread.runsClient;
}

unsigned int CountAtWork(Registry& registry) CORPDIR_REQUIRES(registry.mutex)
{
    unsigned int count = 0;
    for (const auto& entry : registry.threads)
    {
        count += IsAtRest(*entry.second) ? 0U : 1U;
    }
    return count;
}

void SetRunsClient(bool runsClient)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    t_self->runsClient = runsClient;
    registry.changed.NotifyAll();
}

}  // namespace

unsigned int StartThread(const char* name, Duty duty, OSAK_THREAD_PROC entry, OSAK_THREAD* handle)
{
    *handle = nullptr;
    CollectAbandoned();
    try
    {
        auto thread = std::make_unique<Thread>();
        thread->name = name;
        thread->entry = entry;
        thread->runsClient = duty == Duty::kClient;
        return StartRegistered(std::move(thread), handle);
    }
    catch (const std::bad_alloc&)
    {
        return OSAK_ERR_SYSTEM;
    }
}

void BeginClientCall()
{
    SetRunsClient(true);
}

void EndClientCall()
{
    SetRunsClient(false);
}

bool MustPark()
{
    return CurrentPhase() == Phase::kExiting && t_self != nullptr && !IsExitingThread();
}

void ParkIfExiting()
{
    if (!MustPark())
    {
        return;
    }
    Registry& registry = TheRegistry();
    {
        const base::MutexLock lock(registry.mutex);
        t_self->parked = true;
        registry.changed.NotifyAll();
    }
    WakeMutexWaiters();
    for (;;)  // a signal that the client's handler took ends one pause
    {
        pause();
    }
}

bool IsParked(std::uint64_t threadNumber)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    for (const auto& entry : registry.threads)
    {
        if (entry.second->threadNumber == threadNumber)
        {
            return entry.second->parked;
        }
    }
    return false;
}

unsigned int AwaitThreadsAtRest(base::Clock::time_point deadline)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    unsigned int running = CountAtWork(registry);
    while (running != 0 && registry.changed.WaitUntil(registry.mutex, deadline))
    {
        running = CountAtWork(registry);
    }
    return running;
}

}  // namespace osak

unsigned int OSAK_PthreadCreate(OSAK_THREAD* thread, void* attr, OSAK_THREAD_PROC entry, void* arg)
{
    if (thread == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    *thread = nullptr;
    if (entry == nullptr || attr != nullptr || arg != nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::CurrentPhase() != osak::Phase::kRunning)
    {
        return OSAK_ERR_SYSTEM;
    }
    osak::WatchProcess();
    return osak::StartThread("corpdir-worker", osak::Duty::kClient, entry, thread);
}

unsigned int OSAK_PthreadJoin(OSAK_THREAD thread, void** result)
{
    if (thread == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    base::Changes::Get().Raise();  // a poller whose time is over is to see it
    pthread_t native = {};
    const unsigned int code = osak::JoinRegistered(osak::NumberOf(thread), &native);
    if (code != OSAK_OK)
    {
        return code;
    }
    void* value = nullptr;
    if (pthread_join(native, &value) != 0)
    {
        return OSAK_ERR_SYSTEM;
    }
    if (result != nullptr)
    {
        *result = value;
    }
    return OSAK_OK;
}
