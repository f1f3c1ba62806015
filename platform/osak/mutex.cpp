// Recursive mutexes that are named by an address and live apart from it.
//
// The state of a mutex is found by its address in a table of chains. States are never freed and
// never leave their chain; one whose mutex was destroyed serves the next address of that chain. So
// a thread may look at any state at any time, and what keeps it from taking another's mutex is the
// generation in the lock word: it changes with every destruction, and every step names the one it
// means. An uncontended lock or unlock is a look-up and one compare-and-exchange.
//
// Who finds the mutex held, or wants to destroy it, takes the state's guard and sets the contended
// bit. It makes the exchange of everybody else fail, so that they come for the guard too; the last
// one to leave takes it away. Threads of a generation that ended may still be leaving when the next
// one has begun: they only count down, and wake everybody.
#include "mutex.h"

#include "common/guard.h"
#include "osak.h"
#include "process.h"
#include "thread.h"

#include <atomic>
#include <cstdint>
#include <new>

namespace osak
{
namespace
{
// The lock word: the held bit, the contended bit, the generation. Who holds it stands beside it: a
// number that is never given twice leaves no room for a generation.
constexpr std::uint64_t kHeld = 1;
constexpr std::uint64_t kContended = 2;
constexpr std::uint64_t kGenerationStep = 4;

// The word of the generation when nobody holds the mutex or waits for it.
std::uint64_t GenerationOf(std::uint64_t word)
{
    return word & ~(kGenerationStep - 1);
}

// One mutex, or the place for one. On a cache line of its own, so that one mutex's traffic does not
// slow another's.
struct alignas(64) State
{
    explicit State(State* nextOfChain) : next(nextOfChain) {}

    State* const next;

    // While the contended bit is set the word changes under the guard only: an exchange without the
    // guard expects the bit clear, and fails.
    std::atomic<std::uint64_t> word{0};
    // The name; null: free. It is cleared before the generation changes and set after it did.
    std::atomic<const OSAK_MUTEX*> storage{nullptr};
    // Number of the holding thread; 0 while nobody holds it, and for a moment around that. A thread
    // that reads its own number holds the mutex: it is the only one to write that number here, and
    // writes 0 before it lets go.
    std::atomic<std::uint64_t> owner{0};
    unsigned int depth = 0;  // the holder's own

    common::Guard guard;
    common::Signal changed;
    unsigned int waiting CORPDIR_GUARDED_BY(guard) =
        0;                                              // threads that the contended bit stands for
    unsigned int ending CORPDIR_GUARDED_BY(guard) = 0;  // those of them that want to destroy it
};

// Enough that a chain has one state in any program but a test.
constexpr unsigned int kChainBits = 10;

// The chains grow at the head only, under this guard.
common::Guard g_growth;
std::atomic<State*> g_chains[1U << kChainBits];

// Multiplicative hashing: the upper bits depend on all bits of the address.
std::atomic<State*>& ChainOf(const OSAK_MUTEX* storage)
{
    const std::uint64_t address = reinterpret_cast<std::uintptr_t>(storage);
    return g_chains[(address * 0x9E3779B97F4A7C15U) >> (64 - kChainBits)];
}

// The state that the address names, or null. *word is read before the name: a word of another
// mutex that had or will have this state differs in the generation.
State* Find(const OSAK_MUTEX* storage, std::uint64_t* word)
{
    State* state = ChainOf(storage).load(std::memory_order_acquire);
    for (; state != nullptr; state = state->next)
    {
        *word = state->word.load(std::memory_order_acquire);
        if (state->storage.load(std::memory_order_acquire) == storage)
        {
            return state;
        }
    }
    return nullptr;
}

// Names a free state of the chain, or a new one. Null when memory ran out.
State* Claim(const OSAK_MUTEX* storage) CORPDIR_REQUIRES(g_growth)
{
    std::atomic<State*>& chain = ChainOf(storage);
    State* const head = chain.load(std::memory_order_acquire);
    for (State* state = head; state != nullptr; state = state->next)
    {
        if (state->storage.load(std::memory_order_acquire) == nullptr)
        {
            // The destroying thread has the guard until the generation has changed too.
            const common::Hold hold(state->guard);
            state->storage.store(storage, std::memory_order_release);
            return state;
        }
    }
    State* const state = new (std::nothrow) State(head);
    if (state != nullptr)
    {
        state->storage.store(storage, std::memory_order_release);
        chain.store(state, std::memory_order_release);
    }
    return state;
}

// From here the fast paths fail, and the word changes under the guard only.
void Enlist(State& state) CORPDIR_REQUIRES(state.guard)
{
    ++state.waiting;
    state.word.fetch_or(kContended);
}

// The contended bit goes with the last of those that it stands for.
void Leave(State& state) CORPDIR_REQUIRES(state.guard)
{
    if (--state.waiting == 0)
    {
        state.word.fetch_and(~kContended);
    }
}

// True when the holder was held for good while the process exits.
bool IsHolderParked(const State& state)
{
    return CurrentPhase() == Phase::kExiting &&
           IsParked(state.owner.load(std::memory_order_relaxed));
}

// Notes that the calling thread holds the mutex from now on.
void BecomeHolder(State& state, std::uint64_t self)
{
    state.owner.store(self, std::memory_order_relaxed);
    state.depth = 1;
}

// Waits until the mutex is free for a locker, and takes it.
unsigned int AwaitLock(State& state, std::uint64_t generation) CORPDIR_REQUIRES(state.guard)
{
    // Static destructors are not to hang on a thread that will not come back.
    const bool bounded = CurrentPhase() == Phase::kExiting;
    const common::Clock::time_point deadline = common::Clock::now() + kLongestWait;
    for (;;)
    {
        const std::uint64_t word = state.word.load();
        if (GenerationOf(word) != generation)
        {
            return OSAK_ERR_NO_MUTEX;
        }
        if (MustPark())
        {
            return OSAK_ERR_SYSTEM;
        }
        if ((word & kHeld) == 0 && state.ending == 0)
        {
            // Nobody else writes the word: the contended bit is set and the guard held.
            state.word.store(word | kHeld);
            BecomeHolder(state, CurrentThreadNumber());
            return OSAK_OK;
        }
        if (bounded && IsHolderParked(state))
        {
            return OSAK_ERR_BUSY;
        }
        if (!bounded)
        {
            state.changed.Wait(state.guard);
        }
        else if (!state.changed.WaitUntil(state.guard, deadline))
        {
            return OSAK_ERR_BUSY;
        }
    }
}

// A lock whose exchange failed. The generation is the one that the look-up saw.
unsigned int LockContended(State& state, std::uint64_t generation)
{
    unsigned int code = OSAK_ERR_NO_MUTEX;
    {
        const common::Hold hold(state.guard);
        if (GenerationOf(state.word.load()) == generation)
        {
            Enlist(state);
            code = AwaitLock(state, generation);
            Leave(state);
        }
    }
    if (code != OSAK_OK)
    {
        ParkIfExiting();
    }
    return code;
}

// An unlock whose exchange failed. All are woken: among them may be one who wants to destroy the
// mutex, or whose own has ended, and who would not pass the turn on.
void UnlockContended(State& state)
{
    const common::Hold hold(state.guard);
    state.word.fetch_and(~kHeld);
    state.changed.NotifyAll();
}

// Waits until the mutex is free to be destroyed; lockers stand back meanwhile. A holder that was
// held for good counts as none. One more look follows the deadline: an unlock that comes with it
// still counts.
unsigned int AwaitUnheld(State& state, std::uint64_t generation) CORPDIR_REQUIRES(state.guard)
{
    const common::Clock::time_point deadline = common::Clock::now() + kLongestWait;
    bool inTime = true;
    for (;;)
    {
        const std::uint64_t word = state.word.load();
        if (GenerationOf(word) != generation)
        {
            return OSAK_ERR_NO_MUTEX;  // another thread destroyed it first
        }
        if ((word & kHeld) == 0 || IsHolderParked(state))
        {
            return OSAK_OK;
        }
        if (!inTime)
        {
            return OSAK_ERR_BUSY;
        }
        inTime = state.changed.WaitUntil(state.guard, deadline);
    }
}

// Takes the name away, then lets a new generation begin, unheld. The contended bit goes as well:
// those in line are of the old generation and only leave, and whoever joins the line of the new one
// sets it again.
void Retire(State& state, std::uint64_t generation) CORPDIR_REQUIRES(state.guard)
{
    state.storage.store(nullptr, std::memory_order_release);
    state.owner.store(0, std::memory_order_relaxed);  // that of a thread that was held for good
    state.word.store(generation + kGenerationStep);
}

// The steps of a destruction; a mutex that is not held goes through them without waiting.
unsigned int Destroy(State& state, std::uint64_t generation)
{
    const common::Hold hold(state.guard);
    const std::uint64_t word = state.word.load();
    if (GenerationOf(word) != generation)
    {
        return OSAK_ERR_NO_MUTEX;
    }
    if (state.owner.load(std::memory_order_relaxed) == CurrentThreadNumber())
    {
        return OSAK_ERR_OWNER;
    }
    Enlist(state);
    ++state.ending;
    const unsigned int code = AwaitUnheld(state, generation);
    if (code == OSAK_OK)
    {
        Retire(state, generation);
    }
    --state.ending;
    Leave(state);
    state.changed.NotifyAll();
    return code;
}

}  // namespace

void WakeMutexWaiters()
{
    for (std::atomic<State*>& chain : g_chains)
    {
        for (State* state = chain.load(std::memory_order_acquire); state != nullptr;
             state = state->next)
        {
            const common::Hold hold(state->guard);
            state->changed.NotifyAll();
        }
    }
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
    std::uint64_t word = 0;
    const common::Hold hold(
        osak::g_growth);  // covers the test and the claim: one of two inits wins
    if (osak::Find(mutex, &word) != nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    return osak::Claim(mutex) != nullptr ? OSAK_OK : OSAK_ERR_SYSTEM;
}

unsigned int OSAK_MutexDestroy(OSAK_MUTEX* mutex)
{
    if (mutex == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    std::uint64_t word = 0;
    osak::State* const state = osak::Find(mutex, &word);
    if (state == nullptr)
    {
        return OSAK_ERR_NO_MUTEX;
    }
    return osak::Destroy(*state, osak::GenerationOf(word));
}

unsigned int OSAK_MutexLock(OSAK_MUTEX* mutex)
{
    if (mutex == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::CurrentPhase() != osak::Phase::kRunning)
    {
        osak::ParkIfExiting();
        if (osak::IsForkedChild())
        {
            return OSAK_ERR_SYSTEM;
        }
    }
    std::uint64_t word = 0;
    osak::State* const state = osak::Find(mutex, &word);
    if (state == nullptr)
    {
        return OSAK_ERR_NO_MUTEX;
    }
    const std::uint64_t self = osak::CurrentThreadNumber();
    if (state->owner.load(std::memory_order_relaxed) == self)
    {
        ++state->depth;
        return OSAK_OK;
    }
    std::uint64_t unheld = osak::GenerationOf(word);
    if (state->word.compare_exchange_strong(unheld, unheld | osak::kHeld,
                                            std::memory_order_acquire))
    {
        osak::BecomeHolder(*state, self);
        return OSAK_OK;
    }
    return osak::LockContended(*state, osak::GenerationOf(word));
}

unsigned int OSAK_MutexUnLock(OSAK_MUTEX* mutex)
{
    if (mutex == nullptr)
    {
        return OSAK_ERR_PARAM;
    }
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    std::uint64_t word = 0;
    osak::State* const state = osak::Find(mutex, &word);
    if (state == nullptr)
    {
        return OSAK_ERR_NO_MUTEX;
    }
    if (state->owner.load(std::memory_order_relaxed) != osak::CurrentThreadNumber())
    {
        return OSAK_ERR_OWNER;
    }
    // The holder's word cannot change generation beneath it: a destroy waits for this unlock.
    if (--state->depth != 0)
    {
        return OSAK_OK;
    }
    state->owner.store(0, std::memory_order_relaxed);
    const std::uint64_t unheld = osak::GenerationOf(word);
    std::uint64_t held = unheld | osak::kHeld;
    if (!state->word.compare_exchange_strong(held, unheld, std::memory_order_release))
    {
        osak::UnlockContended(*state);
    }
    return OSAK_OK;
}
