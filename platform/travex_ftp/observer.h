// The observer of the process.
#ifndef TRAVEX_FTP_OBSERVER_H
#define TRAVEX_FTP_OBSERVER_H

#include "travex_ftp.h"

namespace travex_ftp
{
using Observation = tagTRAVEX_FTP_S_OBSERVATION;
using Timings = tagTRAVEX_FTP_S_TIMINGS;

// Sets the observer and waits until calls of earlier ones have ended, unless called within one.
void SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user);

// True if an observer is set. Lets callers skip the work of an observation.
bool Observed();

// Calls the observer, if set, on the calling thread and without a lock.
void Observe(const Observation& seen);

}  // namespace travex_ftp

#endif
