// The layer's threads, as its own parts see them.
#ifndef OSAK_THREAD_H
#define OSAK_THREAD_H

#include "base/mutex.h"
#include "osak.h"

#include <cstdint>

namespace osak
{
// Number of the calling thread, 0 until it was given one. Of 64 bits: it tells who holds a mutex,
// and a process can outlive 2^32 threads. Plain __thread: the lock path reads it and an `extern
// thread_local` would go through a wrapper function.
extern __thread std::uint64_t t_threadNumber;

std::uint64_t GiveThreadNumber();

// A number of the calling thread that no other thread of the process has had, never 0.
inline std::uint64_t CurrentThreadNumber()
{
    return t_threadNumber != 0 ? t_threadNumber : GiveThreadNumber();
}

// Whose code a thread of the layer runs, which tells the exit of the process what to wait for.
enum class Duty
{
    kClient,  // the client's entry, until it returns
    kLayer    // the layer's own loop; a client's callback between BeginClientCall and EndClientCall
};

// Starts a thread with the name and all asynchronous signals blocked. *handle is stored before the
// entry runs, null on failure. An exception that leaves the entry ends the process.
unsigned int StartThread(const char* name, Duty duty, OSAK_THREAD_PROC entry, OSAK_THREAD* handle);

// Mark the calling thread, one with Duty::kLayer, as running a client's callback.
void BeginClientCall();
void EndClientCall();

// True for a thread of the layer while the process exits, unless it is the one that called exit:
// it must not run client code any further.
bool MustPark();

// Holds the calling thread for good if MustPark, and wakes who waits for what it holds. Call it
// with no guard held.
void ParkIfExiting();

// True when the thread with this number was held for good: what it holds, nobody will release.
bool IsParked(std::uint64_t threadNumber);

// Waits until no other thread of the layer runs client code, or until the deadline. Returns how
// many still do.
unsigned int AwaitThreadsAtRest(base::Clock::time_point deadline);

}  // namespace osak

#endif
