// The one observer of the process.
#ifndef TRAVEX_FTP_OBSERVER_H
#define TRAVEX_FTP_OBSERVER_H

#include "travex_ftp.h"

namespace travex_ftp
{
// Sets it, and waits until the one before is not running any more, unless called from it.
void setObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user);

// There is one: whoever would have to work for an observation asks first.
bool observed();

// Calls the observer, if there is one, on the calling thread. No lock is held meanwhile.
void observe(const tagTRAVEX_FTP_S_OBSERVATION& seen);

}  // namespace travex_ftp

#endif
