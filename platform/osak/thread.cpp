// Threads: a registry of those that were not joined.
//
// A join waits until the entry has returned, not in pthread_join: so a second joiner, and one whose
// thread is held while the process exits, get a code. The join of the system's thread then waits
// for its thread_local destructors only.
#include "thread.h"

#include "base/changes.h"
#include "base/handle.h"
#include "base/never_destroyed.h"
#include "base/thread.h"
#include "osak.h"
#include "process.h"

#include <map>
#include <new>
#include <system_error>
#include <utility>

namespace osak
{
namespace
{
// One thread of the layer.
struct Thread
{
    base::Thread native;
    unsigned int result = 0;
    bool joined = false;  // a caller waits for its end, or it is detached
    bool ended = false;
};

// Thread-safe: everything is under the mutex.
struct Registry
{
    base::Mutex mutex;
    base::CondVar changed;  // a thread ended, was held, or left the client's code; the exit began
    std::map<OSAK_THREAD, Thread> threads CORPDIR_GUARDED_BY(mutex);
    unsigned int inClientCode CORPDIR_GUARDED_BY(mutex) = 0;
    bool awaited CORPDIR_GUARDED_BY(mutex) = false;  // the exit has waited for the threads
};

Registry& TheRegistry()
{
    static base::NeverDestroyed<Registry> s_registry;
    return s_registry.Get();
}

thread_local bool t_inClientCode = false;

// Marks the end of the entry on every way out, pthread_exit included.
class RunningThread
{
public:
    explicit RunningThread(OSAK_THREAD handle) : m_handle(handle)
    {
        BeginClientCode();
    }
    ~RunningThread()
    {
        if (!IsForkedChild())
        {
            MarkEnd();  // first: the exit finds the thread ended
            EndClientCode();
        }
    }
    RunningThread(const RunningThread&) = delete;
    RunningThread& operator=(const RunningThread&) = delete;

private:
    void MarkEnd() const
    {
        Registry& registry = TheRegistry();
        const base::MutexLock lock(registry.mutex);
        const auto found = registry.threads.find(m_handle);
        found->second.ended = true;
        if (!found->second.native.Joinable())  // detached
        {
            registry.threads.erase(found);
        }
        registry.changed.NotifyAll();
    }

    const OSAK_THREAD m_handle;
};

void Run(OSAK_THREAD handle, OSAK_THREAD_PROC entry)
{
    const RunningThread running(handle);
    HoldIfExiting();  // the exit may have waited before this thread was counted
    const unsigned int result = entry();
    if (IsForkedChild())
    {
        return;
    }
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    registry.threads.at(handle).result = result;
}

// The mutex is held across the start, so that a caller to whom the entry hands its handle finds the
// record complete.
unsigned int Start(OSAK_THREAD_PROC entry, OSAK_THREAD* handle)
{
    const auto started = base::NewHandle<OSAK_THREAD>();
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    try
    {
        Thread& thread = registry.threads[started];
        *handle = started;
        thread.native = base::Thread("corpdir-worker", [started, entry] { Run(started, entry); });
        return OSAK_OK;
    }
    catch (const std::bad_alloc&)
    {
    }
    catch (const std::system_error&)
    {
    }
    *handle = nullptr;
    registry.threads.erase(started);
    return OSAK_ERR_SYSTEM;
}

// Waits until the entry has returned. A thread that runs when the exit handler is done is held, or
// is not going to end in time.
unsigned int AwaitEnd(Registry& registry, const Thread& thread) CORPDIR_REQUIRES(registry.mutex)
{
    while (!thread.ended)
    {
        if (MustHold() || registry.awaited)
        {
            return OSAK_ERR_BUSY;
        }
        registry.changed.Wait(registry.mutex);
    }
    return OSAK_OK;
}

// Takes the right to join the thread, waits for its end, and takes it out of the registry.
unsigned int TakeEnded(OSAK_THREAD handle, Thread* ended)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    const auto found = registry.threads.find(handle);
    if (found == registry.threads.end())
    {
        return OSAK_ERR_HANDLE;
    }
    Thread& thread = found->second;
    const bool wasJoined = std::exchange(thread.joined, true);
    if (thread.native.IsCaller())
    {
        if (!wasJoined)
        {
            thread.native.Detach();  // the refused caller most likely drops the handle
        }
        return OSAK_ERR_SELF;
    }
    if (wasJoined)
    {
        return OSAK_ERR_HANDLE;
    }
    const unsigned int code = AwaitEnd(registry, thread);
    if (code != OSAK_OK)
    {
        thread.joined = false;  // another caller may try
        return code;
    }
    *ended = std::move(thread);
    registry.threads.erase(found);
    return OSAK_OK;
}

}  // namespace

void BeginClientCode()
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    t_inClientCode = true;
    ++registry.inClientCode;
}

void EndClientCode()
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    t_inClientCode = false;
    --registry.inClientCode;
    registry.changed.NotifyAll();
}

bool MustHold()
{
    return t_inClientCode && IsExiting() && !base::ProcessEnd::IsCaller();
}

void HoldIfExiting()
{
    if (MustHold())
    {
        EndClientCode();
        base::ProcessEnd::HoldCaller();
    }
}

unsigned int AwaitClientCode(base::Clock::time_point deadline)
{
    Registry& registry = TheRegistry();
    const base::MutexLock lock(registry.mutex);
    registry.changed.NotifyAll();  // joiners that are to be held
    const unsigned int own = t_inClientCode ? 1 : 0;
    while (registry.inClientCode > own && registry.changed.WaitUntil(registry.mutex, deadline))
    {
    }
    registry.awaited = true;
    registry.changed.NotifyAll();  // callers that join a thread that is held
    return registry.inClientCode - own;
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
    if (osak::IsForkedChild() || osak::IsExiting())
    {
        return OSAK_ERR_SYSTEM;
    }
    osak::WatchProcess();
    return osak::Start(entry, thread);
}

unsigned int OSAK_PthreadJoin(OSAK_THREAD thread, void** result)
{
    unsigned int code = osak::CheckCall(thread);
    if (code != OSAK_OK)
    {
        return code;
    }
    base::Changes::Get().Raise();  // a poller that was asked to end shall look
    osak::Thread ended;
    code = osak::TakeEnded(thread, &ended);
    if (code != OSAK_OK)
    {
        osak::HoldIfExiting();
        return code;
    }
    ended.native.Join();
    if (result != nullptr)
    {
        *result = base::PointerOf<void*>(ended.result);
    }
    return OSAK_OK;
}
