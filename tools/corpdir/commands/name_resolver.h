// Name resolution on a separate thread, so that the main thread can react to signals.
#ifndef CORPDIR_TOOL_NAME_RESOLVER_H
#define CORPDIR_TOOL_NAME_RESOLVER_H

#include <thread>
#include <vector>

#include "cli/servers.h"
#include "commands/events.h"

namespace corpdir_tool
{

// Used on one thread; its own thread only fills the result and pushes kResolved.
class NameResolver
{
public:
    // events must outlive the resolver.
    NameResolver(const std::vector<ServerEntry>& entries, int family, Lookup lookup,
                 EventQueue& events);

    // Cancels; does not wait for the system's resolver.
    ~NameResolver();

    NameResolver(const NameResolver&) = delete;
    NameResolver& operator=(const NameResolver&) = delete;

    // The servers; call it once, after kResolved.
    ResolvedServers Take();

private:
    void Resolve() noexcept;

    EventQueue& m_events;
    client::ServerLookup m_lookup;
    ResolvedServers m_resolved;
    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace corpdir_tool

#endif
