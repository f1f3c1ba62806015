// Output of `check`.
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

// The rows of the table.
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
    Failure failure;                       // code 0: the version file is not valid
    tagTRAVEX_FTP_S_TIMINGS timings = {};  // of the version file's transfer
    std::string version;
    std::uint64_t versionBytes = 0;
    std::uint64_t directoryBytes = TRAVEX_FTP_SIZE_UNKNOWN;  // as announced by the server
    std::vector<std::string> warnings;                       // of a server that may work
};

// A table of the steps, with result and time. now: to compute the remaining validity of the
// certificate.
void PrintCheck(const CheckResult& result, const Plan& plan, std::time_t now,
                const Terminal& output);

// All servers as one JSON object. leftOut: names without an address, with the reason. status: the
// exit status. error: empty when a server works.
void PrintChecksAsJson(const std::vector<CheckResult>& results,
                       const std::vector<std::string>& leftOut, unsigned int port, int status,
                       const std::string& error, std::FILE* output);

}  // namespace corpdir_tool

#endif
