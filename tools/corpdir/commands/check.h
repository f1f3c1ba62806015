// The command `check`.
#ifndef CORPDIR_TOOL_CHECK_H
#define CORPDIR_TOOL_CHECK_H

#include "cli/options.h"

namespace corpdir_tool
{

// Returns the exit status that `fetch` would have.
int RunCheck(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
