#include "observer.h"

#include "base/mutex.h"

namespace travex_ftp
{
namespace
{
// A call of the observer in progress, on the stack of its thread.
struct Call
{
    uint64_t setting;  // number of the SetObserver that set this observer
    Call* next;
};

// Never destroyed: threads may observe until the process has ended.
struct State
{
    base::Mutex mutex;
    base::CondVar ended;
    TRAVEX_FTP_OBSERVER_CB observer CORPDIR_GUARDED_BY(mutex) = nullptr;
    void* user CORPDIR_GUARDED_BY(mutex) = nullptr;
    uint64_t settings CORPDIR_GUARDED_BY(mutex) = 0;
    Call* calls CORPDIR_GUARDED_BY(mutex) = nullptr;
};

State& TheState()
{
    static State* const s_state = new State;
    return *s_state;
}

// Depth of observer calls on this thread.
thread_local unsigned int t_observing = 0;

// True while an observer that was replaced before `setting` is running.
bool CallsBefore(const State& all, uint64_t setting) CORPDIR_REQUIRES(all.mutex)
{
    for (const Call* call = all.calls; call != nullptr; call = call->next)
    {
        if (call->setting < setting)
        {
            return true;
        }
    }
    return false;
}

void Unlink(State& all, const Call& call) CORPDIR_REQUIRES(all.mutex)
{
    Call** link = &all.calls;
    while (*link != &call)
    {
        link = &(*link)->next;
    }
    *link = call.next;
}

}  // namespace

void SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user)
{
    State& all = TheState();
    const base::MutexLock lock(all.mutex);
    const uint64_t setting = ++all.settings;
    all.observer = observer;
    all.user = user;
    // An observer that replaces itself cannot wait for its own return.
    while (t_observing == 0 && CallsBefore(all, setting))
    {
        all.ended.Wait(all.mutex);
    }
}

bool Observed()
{
    State& all = TheState();
    const base::MutexLock lock(all.mutex);
    return all.observer != nullptr;
}

void Observe(const Observation& seen)
{
    State& all = TheState();
    Call call{};
    TRAVEX_FTP_OBSERVER_CB observer = nullptr;
    void* user = nullptr;
    {
        const base::MutexLock lock(all.mutex);
        if (all.observer == nullptr)
        {
            return;
        }
        observer = all.observer;
        user = all.user;
        call = Call{all.settings, all.calls};
        all.calls = &call;
    }
    ++t_observing;
    observer(user, &seen);
    --t_observing;
    const base::MutexLock lock(all.mutex);
    Unlink(all, call);
    all.ended.NotifyAll();
}

}  // namespace travex_ftp
