// The one observer of the process.
#ifndef TRAVEX_FTP_OBSERVER_H
#define TRAVEX_FTP_OBSERVER_H

#include "travex_ftp.h"

namespace travex_ftp
{
// Sets it, and waits until the one before is not running any more, unless called from it.
void SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user);

// There is one: whoever would have to work for an observation asks first.
bool Observed();

// Calls the observer, if there is one, on the calling thread. No lock is held meanwhile.
void Observe(const tagTRAVEX_FTP_S_OBSERVATION& seen);

}  // namespace travex_ftp

#endif
