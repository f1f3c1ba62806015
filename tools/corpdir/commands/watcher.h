// The states of `watch`: what the service does on its own, and what it leaves to its client.
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

// A state machine on the main thread, fed by the event queue; it never polls. Not thread-safe.
//
// The service checks the version every ten minutes, and goes through the servers while the version
// file fails. It does not ask again for a directory file that failed, nor for a transfer that could
// not be started, and it would take its servers' addresses for good. So the watcher makes a new
// request, for which the service is stopped first:
//   - at once, to the next server, when the directory file failed at one of several, or the version
//     file there is not valid;
//   - after the plan's retry time, names looked up again, when all of them failed so, when the file
//     could not be written, or when no version was seen since the request;
//   - when every server failed and their names have got other addresses.
// A new request downloads the directory file even if its version is the one that is there; the
// command is run for other versions only.
class Watcher
{
public:
    // All references must outlive the watcher.
    Watcher(IFtpCorpDir& service, const Plan& plan, Lookup lookup, const Secret& password,
            EventQueue& events, WatchOutput& output, ChildCommand* command);

    // Runs until a signal asks it to stop, then gives 0; any other status after a failure that
    // repeating cannot mend. The service is stopped when it returns. Throws ExitError when it
    // cannot be started.
    int Run();

private:
    // Each returns the exit status when it ends the watch.
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

    // The request under way.
    std::vector<Server> m_found;    // as the names stand for them, in the order given
    std::vector<Server> m_servers;  // in the order of the request
    bool m_requestDue = true;       // a new one is to be made as soon as names are looked up
    std::optional<Clock::time_point> m_askAgainAt;
    std::size_t m_left = 0;       // version failures that the service bears before it pauses
    bool m_moving = false;        // a version file failed, and the next server is asked
    std::size_t m_fruitless = 0;  // requests in a row that brought no directory file
    std::string m_version;        // that the service has taken note of
    std::map<unsigned int, std::string> m_expected;  // version of each directory file under way
    bool m_taken = false;                            // a transfer was accepted once

    // What has arrived.
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
