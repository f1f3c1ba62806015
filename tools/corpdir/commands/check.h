// The command `check`.
#ifndef CORPDIR_TOOL_CHECK_H
#define CORPDIR_TOOL_CHECK_H

#include "cli/options.h"

namespace corpdir_tool
{

// As RunFetch, without a download: the status is the one that `fetch` would end with.
int RunCheck(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
