// The state machine of `watch`.
#ifndef CORPDIR_TOOL_WATCHER_H
#define CORPDIR_TOOL_WATCHER_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/events.h"
#include "commands/name_resolver.h"
#include "commands/service_link.h"
#include "os/child_command.h"
#include "os/secret.h"
#include "ui/watch_output.h"

namespace corpdir_tool
{

// Runs on the main thread, driven by the event queue. Not thread-safe.
//
// The service checks the version every ten minutes, and goes through the servers while the version
// file fails. It does not retry a directory file that failed or a transfer that could not be
// started, and never looks up names again. In these cases the watcher stops the service and makes a
// new request:
//   - at once, to the next server, when the directory file failed or the version file is not valid;
//   - after the plan's retry time, with names looked up again, when all servers failed in this way,
//     when the file could not be written, or when no version was seen since the request;
//   - when every server failed and their names have other addresses now.
// A new request always downloads the directory file; the command runs only for a new version.
class Watcher
{
public:
    // All references must outlive the watcher.
    Watcher(IFtpCorpDir& service, const Plan& plan, Lookup lookup, const Secret& password,
            EventQueue& events, WatchOutput& output, ChildCommand* command);

    // Runs until a signal asks it to stop; returns the exit status. The service is stopped on
    // return. Throws ExitError when the service cannot be started or the events cannot be written.
    int Run();

private:
    // These return the exit status when the watch ends.
    using Settled = std::optional<int>;
    using Clock = EventQueue::Clock;

    void LookUp();
    Settled OnResolved();
    Settled Request(std::size_t first);
    unsigned int StartAndRequest();
    Settled Handle(const Event& event);
    void OnAccepted(const Event& event);
    Settled OnTransferred(const Event& event);
    void OnDirectoryArrived(const Event& event);
    void OnDelivered();
    Settled OnFailed(const Event& event);
    void OnVersionFailed();
    Settled OnDirectoryFailed(const Event& event);
    Settled TryElsewhere(const Server& server);
    Settled OnRefused(const Event& event);
    void OnDeadline();
    void OnCommandEnded(int status);

    bool RefillWhenUsedUp();
    void Refill();
    void AskAgainLater();
    void RunCommand();
    bool IsVersionFile(const Event& event) const;
    Server ServerOf(const Event& event) const;

    const Plan& m_plan;
    const Lookup m_lookup;
    const Secret& m_password;
    EventQueue& m_events;
    WatchOutput& m_output;
    ChildCommand* const m_command;  // null: none
    ServiceLink m_link;
    std::unique_ptr<NameResolver> m_resolver;

    // The current request.
    std::vector<Server> m_found;    // as looked up last, in the order given
    std::vector<Server> m_servers;  // in the order of the request
    bool m_requestDue = true;       // make a request when the names have been looked up
    std::optional<Clock::time_point> m_askAgainAt;
    std::size_t m_left = 0;       // servers that the service will still try before it pauses
    bool m_moving = false;        // a version file failed, and the next server is tried
    std::size_t m_fruitless = 0;  // requests in a row without a directory file
    std::string m_version;        // seen last by the service
    // Version of each directory file being transferred, by task.
    std::map<unsigned int, std::string> m_expected;
    bool m_taken = false;  // a transfer has been accepted

    // The directory file that arrived last.
    struct Arrival
    {
        Server server;
        std::string version;
        std::uint64_t bytes = 0;
    };
    Arrival m_arrival;      // on disk
    std::string m_current;  // version of the file that the command was run for
    bool m_commandDue = false;
};

}  // namespace corpdir_tool

#endif
