// The hint after a failure, on standard error and in the log.
#ifndef CORPDIR_TOOL_ADVICE_H
#define CORPDIR_TOOL_ADVICE_H

#include <string>

#include "cli/options.h"
#include "ui/report.h"

namespace corpdir_tool
{

// An empty hint is none. The service may have closed the log of the run. Main thread.
void GiveHint(const std::string& hint, const Plan& plan, Report& report);

}  // namespace corpdir_tool

#endif
