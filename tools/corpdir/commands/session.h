// One download, from the first request to the outcome.
#ifndef CORPDIR_TOOL_SESSION_H
#define CORPDIR_TOOL_SESSION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "client.h"
#include "commands/client_settings.h"
#include "commands/events.h"
#include "commands/time_limits.h"
#include "ui/hints.h"
#include "ui/report.h"

namespace corpdir_tool
{

struct Outcome
{
    int status = 0;                    // exit status
    std::string error;                 // message; empty on success
    bool unchanged = false;            // the local file has the server's version: nothing fetched
    std::string version;               // of the directory file
    std::uint64_t bytes = 0;           // its size
    std::vector<Attempt> attempts;     // in the order in which they ended
    std::vector<std::string> leftOut;  // names without an address, with the reason
};

// One check of the client, on the main thread. Not thread-safe.
class Session
{
public:
    // All references must outlive the session.
    Session(IFtpCorpDir& service, const Plan& plan, Lookup lookup, PasswordSource& password,
            EventQueue& events, Report& report);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Returns the outcome at the latest when one of the plan's times is over. The service is
    // stopped on return. Throws ExitError when it cannot be started.
    Outcome Run();

    // For a process that ends without a stop. Any thread.
    void RemoveStaged() const noexcept
    {
        m_client.RemoveStaged();
    }

private:
    using Clock = EventQueue::Clock;
    // The exit status when the session ends.
    using Settled = std::optional<int>;

    Settled Step();
    Settled Handle(const client::Event& event);
    Settled HandleOwn();
    Settled OnEnd(const client::Event& event);
    Settled OnInvalidVersion(const client::Event& event);
    Settled OnFailed(const client::Event& event);
    Settled OnAllFailed();
    Settled Fail(int status, const std::string& message, const std::string& hint = "");
    void Begin(const Server& server);
    void ReportServer(const Server& server, const Failure& failure, client::Next next);
    std::size_t ServersAsked() const;
    std::string Activity() const;

    const Plan& m_plan;
    PasswordSource& m_password;
    EventQueue& m_events;
    Report& m_report;
    client::Client m_client;

    TimeLimits m_limits;
    Server m_server;            // asked now; no address: the names are looked up
    bool m_directory = false;   // the current file is the directory file
    std::uint64_t m_bytes = 0;  // of the current file
    std::uint64_t m_total = TRAVEX_FTP_SIZE_UNKNOWN;
    bool m_invalidVersion = false;  // of any server
    Outcome m_outcome;
};

}  // namespace corpdir_tool

#endif
