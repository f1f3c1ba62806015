#include "commands/name_resolver.h"

#include <new>
#include <utility>

namespace corpdir_tool
{

NameResolver::NameResolver(const std::vector<ServerEntry>& entries, int family, Lookup lookup,
                           EventQueue& events)
    : m_events(events), m_lookup(entries, family, std::move(lookup))
{
    m_thread = std::thread(&NameResolver::Resolve, this);
}

NameResolver::~NameResolver()
{
    m_lookup.GiveUp();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

ResolvedServers NameResolver::Take()
{
    m_thread.join();
    return std::move(m_resolved);
}

void NameResolver::Resolve() noexcept
{
    try
    {
        m_resolved = m_lookup.Wait();
        m_events.Push(EventKind::kResolved);
    }
    catch (const std::bad_alloc&)
    {
        m_events.Push(EventKind::kOutOfMemory);
    }
}

}  // namespace corpdir_tool
