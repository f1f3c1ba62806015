// The layer's threads, as the other files of the layer see them.
#ifndef OSAK_THREAD_H
#define OSAK_THREAD_H

#include "base/mutex.h"

namespace osak
{
// Mark the calling thread, one that the layer made, as running the client's code: a thread's entry
// or a timer's callback. The exit of the process waits for these, and holds them.
void BeginClientCode();
void EndClientCode();

// True while the process exits, on a thread that runs the client's code and did not call exit: it
// must not go on.
bool MustHold();

// Holds the calling thread for good if MustHold(). Call it with no lock held.
void HoldIfExiting();

// Waits until no other thread runs the client's code, or for the deadline. Returns how many do.
unsigned int AwaitClientCode(base::Clock::time_point deadline);

}  // namespace osak

#endif
