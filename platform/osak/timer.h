// What the exit of the process needs of the timers.
#ifndef OSAK_TIMER_H
#define OSAK_TIMER_H

namespace osak
{
// From now on no callback begins and no timer is made or started; threads of the layer that wait
// for a callback are held. Does not wait.
void EndTimers();

}  // namespace osak

#endif
