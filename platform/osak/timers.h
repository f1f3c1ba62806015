// Timers beyond the interface of the layer.
#ifndef OSAK_TIMERS_H
#define OSAK_TIMERS_H

namespace osak
{
// Lets all running timers expire now: each is due at once, on the timer thread. A repeating timer
// then goes on with its full period. Timers that do not run are left alone. Does nothing while the
// process exits and in the child of a fork. Any thread, also within a callback; does not wait.
void ExpireTimers() noexcept;

}  // namespace osak

#endif
