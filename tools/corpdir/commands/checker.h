// The work of `check`: tries each server without downloading the directory file.
#ifndef CORPDIR_TOOL_CHECKER_H
#define CORPDIR_TOOL_CHECKER_H

#include <string>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/command.h"
#include "commands/events.h"
#include "secret.h"
#include "ui/check_table.h"

namespace corpdir_tool
{

// The check cannot go on: a time limit is over, or a signal asks the program to stop.
struct CheckStopped
{
    int status;
    std::string message;
};

// Uses the FTP layer without the service: one handle for each server, the same parameters as the
// service would set. The version file goes to a scratch directory. The transfer of the directory
// file runs under the smallest size limit, so that it ends as soon as the server begins to send.
// Belongs to the main thread; one at a time in a process.
class Checker
{
public:
    // All references must outlive the checker. scratch: an empty directory, ending in "/".
    // Throws ExitError when the FTP layer cannot be started.
    Checker(const Plan& plan, const std::string& scratch, const client::Secret& password,
            EventQueue& events, TimeLimits& limits);
    ~Checker();  // cancels what is still under way
    Checker(const Checker&) = delete;
    Checker& operator=(const Checker&) = delete;

    // Throws CheckStopped, or ExitError when the FTP layer refuses an argument.
    CheckResult Check(const Server& server);

private:
    void CheckVersionFile(const client::TransferEvent& event, CheckResult& result) const;
    void CheckDirectoryFile(const client::TransferEvent& event, CheckResult& result) const;
    void AddWarnings(CheckResult& result) const;
    unsigned int SetParameters(TRAVEX_FTP_HANDLE handle, const Server& server) const;
    client::TransferEvent Download(TRAVEX_FTP_HANDLE handle, const std::string& file,
                                   const std::string& localName, const Server& server);
    client::TransferEvent Refusal(unsigned int code);
    client::TransferEvent Outcome(const Server& server);

    const Plan& m_plan;
    const std::string m_scratch;
    const client::Secret& m_password;
    EventQueue& m_events;
    TimeLimits& m_limits;
};

}  // namespace corpdir_tool

#endif
