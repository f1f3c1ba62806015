// One download from the first request to its outcome: which server to ask, and when to give up.
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

// A server that was asked, and why it did not give the file.
struct Attempt
{
    Server server;
    Failure failure;  // without a reason: it gave the file
};

struct Outcome
{
    int status = 0;                 // exit status
    std::string error;              // in words, unless it is a success
    std::string version;            // of a directory file that has arrived
    std::uint64_t bytes = 0;        // its size
    std::vector<Attempt> attempts;  // in the order in which they ended
};

// A state machine on the main thread, fed by the event queue; it never polls. Not thread-safe.
//
// The service rotates by itself while the version file fails: to the next server of its list, and
// once more to the only one. Everything else it leaves to its client: a directory file that failed,
// or a transfer that could not be started, is asked for with a new request to the servers that are
// left, for which the service is stopped first.
class Session
{
public:
    // All references must outlive the session. servers: not empty.
    Session(IFtpCorpDir& service, const Plan& plan, std::vector<Server> servers,
            const Secret& password, EventQueue& events, Report& report);

    // Runs to the outcome, which is reported unless it is a success. The service is stopped when it
    // returns. Throws ExitError when the service cannot be started.
    Outcome Run(EventQueue::Clock::time_point deadline);

private:
    // Each returns the exit status when it settles the outcome.
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

    std::size_t m_first = 0;               // first server of the request under way
    std::size_t m_current = 0;             // the server that is being asked
    std::size_t m_failures = 0;            // version transfers that failed since the request
    std::optional<std::string> m_version;  // set once the version file is good
    std::string m_error;
    std::vector<Attempt> m_attempts;
    std::uint64_t m_bytes = 0;  // of the file under way, or of the directory file
    std::uint64_t m_total = 0;
};

}  // namespace corpdir_tool

#endif
