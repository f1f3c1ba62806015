// What the layer knows about its process: it runs, it is ending, or it is the child of a fork.
#ifndef OSAK_PROCESS_H
#define OSAK_PROCESS_H

#include <atomic>
#include <chrono>

namespace osak
{
// The longest that a destroyed mutex or the exit of the process waits for another thread.
constexpr std::chrono::seconds kLongestWait{1};

enum class Phase
{
    kRunning,
    kExiting,     // the exit handlers have begun
    kForkedChild  // the threads of the layer, and whoever held its guards, stayed with the parent
};

// Written by the exit and fork handlers only.
extern std::atomic<Phase> g_phase;

inline Phase CurrentPhase()
{
    return g_phase.load(std::memory_order_acquire);
}

// In the child of a fork a guard may be held by a thread that does not exist there, so nothing of
// the layer may be touched.
inline bool IsForkedChild()
{
    return CurrentPhase() == Phase::kForkedChild;
}

// Sees to it that the exit and fork handlers are registered; every operation that makes something
// calls it first.
void WatchProcess();

// True on the thread that runs the exit handlers.
bool IsExitingThread();

}  // namespace osak

#endif
