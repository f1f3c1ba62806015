// What the exit of the process needs of the mutexes.
#ifndef OSAK_MUTEX_H
#define OSAK_MUTEX_H

namespace osak
{
// Wakes the threads that wait for a mutex, so that those of the layer come to rest instead.
void WakeMutexWaiters();

}  // namespace osak

#endif
