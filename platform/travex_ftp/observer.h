// The observer of the process.
#ifndef TRAVEX_FTP_OBSERVER_H
#define TRAVEX_FTP_OBSERVER_H

#include "travex_ftp.h"

namespace travex_ftp
{
// Sets the observer and waits until calls of earlier ones have ended, unless called within one.
void SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user);

// True if an observer is set. Lets callers skip the work of an observation.
bool Observed();

// Calls the observer, if set, on the calling thread and without a lock.
void Observe(const tagTRAVEX_FTP_S_OBSERVATION& seen);

}  // namespace travex_ftp

#endif
