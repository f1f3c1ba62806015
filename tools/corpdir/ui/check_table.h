// What `check` shows of a server.
#ifndef CORPDIR_TOOL_CHECK_TABLE_H
#define CORPDIR_TOOL_CHECK_TABLE_H

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "os/terminal.h"
#include "travex_ftp.h"
#include "ui/hints.h"

namespace corpdir_tool
{

// How far a server got.
enum class CheckStep
{
    kConnect,
    kTls,
    kCertificate,
    kLogin,
    kVersionFile,
    kDirectoryFile,
    kDone
};

struct CheckResult
{
    Server server;
    CheckStep failedAt = CheckStep::kDone;
    Failure failure;                       // of the failure; its code is 0 for a bad version file
    tagTRAVEX_FTP_S_TIMINGS timings = {};  // of the version file's transfer
    std::string version;
    std::uint64_t versionBytes = 0;
    std::uint64_t directoryBytes = TRAVEX_FTP_SIZE_UNKNOWN;  // as the server announced it
};

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
