// The sleep of a thread that polls.
#ifndef OSAK_SLEEP_H
#define OSAK_SLEEP_H

#include <chrono>

namespace osak
{
// The longest sleep without a change: 1 s, unless it is set. For tests: with a longer one, a change
// that wakes no sleeper is a failure and not a delay.
void SetLongestSleep(std::chrono::milliseconds longest);

}  // namespace osak

extern "C"
{
    // In place of usleep in the service, which looks at its queue between two sleeps. A thread's
    // first sleep lasts the time asked, in microseconds, as does one within 1 ms after a change;
    // any other lasts until a change ("base/changes.h"), at most 1 s. A change since the caller's
    // last sleep ends it at once. In the child of a fork it is usleep. While the process exits, a
    // thread of the layer does not return from it. The result is 0.
    int OSAK_PollSleep(unsigned int microseconds);
}

#endif
