// What the exit of the process needs of the mutexes.
#ifndef OSAK_MUTEX_H
#define OSAK_MUTEX_H

namespace osak
{
// Wakes the threads that wait for a mutex: those of the layer come to rest instead, and the others
// see which holders have. Call it with no guard held.
void WakeMutexWaiters();

}  // namespace osak

#endif
