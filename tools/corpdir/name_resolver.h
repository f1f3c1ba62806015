// Name resolution beside the main thread, which meanwhile can be told to stop: the system's
// resolver may take long, and nothing can interrupt it.
#ifndef CORPDIR_TOOL_NAME_RESOLVER_H
#define CORPDIR_TOOL_NAME_RESOLVER_H

#include <thread>
#include <vector>

#include "events.h"
#include "servers.h"

namespace corpdir_tool
{

// Used on one thread; its own thread only fills the result and then pushes RESOLVED.
class NameResolver
{
public:
    // entries and events must outlive the resolver.
    NameResolver(const std::vector<ServerEntry>& entries, int family, Lookup lookup,
                 EventQueue& events);

    // Waits for the lookups. A program that cannot wait must leave by _exit.
    ~NameResolver();

    NameResolver(const NameResolver&) = delete;
    NameResolver& operator=(const NameResolver&) = delete;

    // What was found; call it once, after RESOLVED.
    ResolvedServers Take();

private:
    void Resolve() noexcept;

    const std::vector<ServerEntry>& m_entries;
    const int m_family;
    const Lookup m_lookup;
    EventQueue& m_events;
    ResolvedServers m_resolved;
    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace corpdir_tool

#endif
