// Starts the service, makes a request, stops it. Reports of the service and the FTP layer arrive in
// the event queue.
#ifndef CORPDIR_TOOL_SERVICE_LINK_H
#define CORPDIR_TOOL_SERVICE_LINK_H

#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "commands/events.h"
#include "ftpcorpdir.h"
#include "os/secret.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

// Not thread-safe: belongs to the main thread, the only one that calls the service; callbacks only
// fill the queue. One at a time in a process: the client callback has no user pointer.
class ServiceLink
{
public:
    // service, plan and events must outlive the link.
    ServiceLink(IFtpCorpDir& service, const Plan& plan, EventQueue& events);
    ~ServiceLink();  // stops
    ServiceLink(const ServiceLink&) = delete;
    ServiceLink& operator=(const ServiceLink&) = delete;

    // Starts the service with the plan's limits and cipher list. Throws ExitError.
    void Start();

    // Requests the files from these servers, and registers their certificate names. 0 when the
    // first check was started.
    [[nodiscard]] unsigned int Request(const std::vector<Server>& servers, const Secret& password);

    // Turns an observation into an event. Called on threads of the FTP layer.
    void Observe(const tagTRAVEX_FTP_S_OBSERVATION& seen) const noexcept;

    // Stops the service and discards its events.
    void Stop();

private:
    IFtpCorpDir& m_service;
    const Plan& m_plan;
    EventQueue& m_events;
    const std::string m_versionPath;
    bool m_started = false;
};

}  // namespace corpdir_tool

#endif
