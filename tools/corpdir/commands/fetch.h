// The command `fetch`.
#ifndef CORPDIR_TOOL_FETCH_H
#define CORPDIR_TOOL_FETCH_H

#include "cli/options.h"

namespace corpdir_tool
{

// Runs the command and returns the exit status. Call it on the main thread before any other exists.
// Throws ExitError.
int RunFetch(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
