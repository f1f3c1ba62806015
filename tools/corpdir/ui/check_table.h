// What `check` shows of a server.
#ifndef CORPDIR_TOOL_CHECK_TABLE_H
#define CORPDIR_TOOL_CHECK_TABLE_H

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "cli/options.h"
#include "commands/checker.h"
#include "os/terminal.h"

namespace corpdir_tool
{

// A table of the steps: what came of each, and how long it took. now: for what is left of the
// certificate's time.
void PrintCheck(const CheckResult& result, const Plan& plan, std::time_t now,
                const Terminal& output);

// All servers as one JSON object. leftOut: names without an address, and why; port: 0 for the usual
// one; status: the program's exit status; error: in words, empty when a server works.
void PrintChecksAsJson(const std::vector<CheckResult>& results,
                       const std::vector<std::string>& leftOut, unsigned int port, int status,
                       const std::string& error, std::FILE* output);

}  // namespace corpdir_tool

#endif
