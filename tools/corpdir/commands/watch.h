// The command `watch`.
#ifndef CORPDIR_TOOL_WATCH_H
#define CORPDIR_TOOL_WATCH_H

#include "cli/options.h"

namespace corpdir_tool
{

// Runs the command until a signal asks it to stop, and returns the exit status. Call it on the main
// thread before any other exists. Throws ExitError.
int RunWatch(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
