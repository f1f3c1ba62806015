// One download, from the first request to the outcome.
#ifndef CORPDIR_TOOL_SESSION_H
#define CORPDIR_TOOL_SESSION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/events.h"
#include "commands/service_link.h"
#include "os/secret.h"
#include "ui/hints.h"
#include "ui/report.h"

namespace corpdir_tool
{

// A server that was tried, and its failure.
struct Attempt
{
    Server server;
    Failure failure;  // no reason: the download succeeded
};

struct Outcome
{
    int status = 0;                 // exit status
    std::string error;              // message; empty on success
    std::string version;            // of the directory file
    std::uint64_t bytes = 0;        // its size
    std::vector<Attempt> attempts;  // in the order in which they ended
};

// A state machine on the main thread, driven by the event queue. Not thread-safe.
//
// When the version file fails, the service itself goes on to the next server, and tries a single
// server twice. When the directory file fails, or a transfer cannot be started, the session stops
// the service and makes a new request to the remaining servers.
class Session
{
public:
    // All references must outlive the session. servers: not empty.
    Session(IFtpCorpDir& service, const Plan& plan, std::vector<Server> servers,
            const Secret& password, EventQueue& events, Report& report);

    // Runs until the outcome, and reports a failure. The service is stopped on return. Throws
    // ExitError when the service cannot be started.
    Outcome Run(EventQueue::Clock::time_point deadline);

private:
    // These return the exit status once the outcome is known.
    using Settled = std::optional<int>;

    Settled StartFrom(std::size_t first);
    Settled Handle(const Event& event);
    Settled OnProgress(const Event& event);
    Settled OnTransferred(const Event& event);
    Settled OnFailed(const Event& event);
    Settled OnVersionFailed(const Event& event);
    Settled OnRefused(const Event& event);
    Settled MoveOn(std::size_t failedIndex, const Event& event);
    Settled Fail(int status, const std::string& message, const std::string& hint = "");
    Settled NoServerLeft();

    bool IsVersionFile(const Event& event) const;
    std::size_t IndexOf(const Event& event) const;
    void ReportServer(std::size_t index, const Event& event, const std::string& next);
    void Hint() const;
    std::string Activity() const;

    const Plan& m_plan;
    const std::vector<Server> m_servers;
    const Secret& m_password;
    EventQueue& m_events;
    Report& m_report;
    ServiceLink m_link;

    std::size_t m_first = 0;               // first server of the current request
    std::size_t m_current = 0;             // the current server
    std::size_t m_failures = 0;            // failed version transfers of the current request
    std::optional<std::string> m_version;  // set once the version file is valid
    std::string m_error;
    std::vector<Attempt> m_attempts;
    std::uint64_t m_bytes = 0;  // of the current file, finally of the directory file
    std::uint64_t m_total = 0;
};

}  // namespace corpdir_tool

#endif
