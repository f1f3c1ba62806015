// The command `fetch`.
#ifndef CORPDIR_TOOL_FETCH_H
#define CORPDIR_TOOL_FETCH_H

#include "cli/options.h"

namespace corpdir_tool
{

// Runs the command to its end; call it on the main thread before any other exists. Returns the exit
// status. Throws ExitError. Leaves the process at once, with its status, when a stop is asked for
// or the time is over while names are being looked up.
int RunFetch(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
