// The command `watch`.
#ifndef CORPDIR_TOOL_WATCH_H
#define CORPDIR_TOOL_WATCH_H

#include "cli/options.h"

namespace corpdir_tool
{

// Runs the command until it is asked to stop; call it on the main thread before any other exists.
// Returns the exit status. Throws ExitError. Leaves the process at once when it is asked to stop
// while names are being looked up.
int RunWatch(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
