// The layer's handlers for the exit and for the child of a fork.
#ifndef OSAK_PROCESS_H
#define OSAK_PROCESS_H

#include "base/process_end.h"
#include "osak.h"

#include <atomic>

namespace osak
{
// Written by the fork handler only.
extern std::atomic<bool> g_isForkedChild;

// In the child of a fork another thread, which does not exist there, may hold a lock of the layer:
// nothing of the layer may be touched.
inline bool IsForkedChild()
{
    return g_isForkedChild.load(std::memory_order_acquire);
}

// From then on no callback begins and the layer's threads are held.
inline bool IsExiting()
{
    return base::ProcessEnd::HasBegun(base::EndStage::kThreads);
}

// OSAK_OK, or the code for a call with this mutex, thread or timer that must not go on.
inline unsigned int CheckCall(const void* object)
{
    return object == nullptr ? OSAK_ERR_PARAM : IsForkedChild() ? OSAK_ERR_SYSTEM : OSAK_OK;
}

// Registers the exit and fork handlers; each function that makes something calls it first.
void WatchProcess();

// The parts of the exit handler. EndTimers: no callback begins from now on. WakeMutexWaiters: the
// layer's threads among them are held instead. Neither waits.
void EndTimers();
void WakeMutexWaiters();

}  // namespace osak

#endif
