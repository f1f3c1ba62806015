#include "observer.h"

#include "guarded.h"

namespace travex_ftp
{
namespace
{
// A call of the observer in progress; lives on the stack of its thread.
struct Call
{
    uint64_t setting;  // number of the SetObserver whose observer is called
    Call* next;
};

// Never destroyed: observations may come until the process is gone.
struct State
{
    Mutex mutex;
    std::condition_variable ended;
    TRAVEX_FTP_OBSERVER_CB observer GUARDED_BY(mutex) = nullptr;
    void* user GUARDED_BY(mutex) = nullptr;
    uint64_t settings GUARDED_BY(mutex) = 0;
    Call* calls GUARDED_BY(mutex) = nullptr;
};

State& state()
{
    static State* const instance = new State;
    return *instance;
}

// Depth of observer calls on this thread.
thread_local unsigned int t_observing = 0;

// An observer that was replaced is still running.
bool callsBefore(const State& all, uint64_t setting) REQUIRES(all.mutex)
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

void unlink(State& all, const Call& call) REQUIRES(all.mutex)
{
    Call** link = &all.calls;
    while (*link != &call)
    {
        link = &(*link)->next;
    }
    *link = call.next;
}

}  // namespace

void setObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user)
{
    State& all = state();
    Lock lock(all.mutex);
    const uint64_t setting = ++all.settings;
    all.observer = observer;
    all.user = user;
    // An observer that replaces itself cannot wait for its own end.
    while (t_observing == 0 && callsBefore(all, setting))
    {
        lock.wait(all.ended);
    }
}

bool observed()
{
    State& all = state();
    Lock lock(all.mutex);
    return all.observer != nullptr;
}

void observe(const tagTRAVEX_FTP_S_OBSERVATION& seen)
{
    State& all = state();
    Call call{};
    TRAVEX_FTP_OBSERVER_CB observer = nullptr;
    void* user = nullptr;
    {
        Lock lock(all.mutex);
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
    Lock lock(all.mutex);
    unlink(all, call);
    all.ended.notify_all();
}

}  // namespace travex_ftp
