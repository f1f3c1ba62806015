// What `check` finds out: what each server would do with a request, found out without downloading
// the directory file.
#ifndef CORPDIR_TOOL_CHECKER_H
#define CORPDIR_TOOL_CHECKER_H

#include <cstdint>
#include <optional>
#include <string>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/events.h"
#include "commands/service_link.h"
#include "os/secret.h"
#include "ui/hints.h"

namespace corpdir_tool
{

// How far a server got.
enum class CheckStep
{
    CONNECT,
    TLS,
    CERTIFICATE,
    LOGIN,
    VERSION_FILE,
    DIRECTORY_FILE,
    DONE
};

struct CheckResult
{
    Server server;
    CheckStep failedAt = CheckStep::DONE;
    Trouble trouble;                       // of the failure; its code is 0 for a bad version file
    tagTRAVEX_FTP_S_TIMINGS timings = {};  // of the version file's transfer
    std::string version;
    std::uint64_t versionBytes = 0;
    std::uint64_t directoryBytes = TRAVEX_FTP_SIZE_UNKNOWN;  // as the server announced it
};

// The check cannot go on: the time is over, or a stop was asked for.
struct CheckStopped
{
    int status;
    std::string message;
};

// Makes requests of its own to one server after the other. The version file goes to a scratch
// directory. The directory file is only begun: with the size limit at its smallest the FTP layer
// gives it up as soon as the server has opened it or sent a first piece.
// Belongs to the main thread.
class Checker
{
public:
    // All references must outlive the checker. scratch: an empty directory, ending in "/".
    Checker(IFtpCorpDir& service, const Plan& plan, const std::string& scratch,
            const Secret& password, EventQueue& events);

    // Throws CheckStopped, or Failure when the service cannot be started or an argument is refused.
    CheckResult Check(const Server& server, EventQueue::Clock::time_point deadline);

private:
    Event OutcomeOf(const Plan& plan, const Server& server, EventQueue::Clock::time_point deadline);
    void CheckVersion(const Event& event, CheckResult& result) const;
    void CheckDirectory(const Event& event, CheckResult& result) const;

    IFtpCorpDir& m_service;
    const Plan& m_plan;
    const std::string m_scratch;
    const Secret& m_password;
    EventQueue& m_events;
};

}  // namespace corpdir_tool

#endif
