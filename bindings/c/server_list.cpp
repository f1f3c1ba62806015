#include "server_list.h"

#include <algorithm>
#include <utility>

namespace corpdir_c
{

ServerList FindServers(const std::string& list, const char* localAddress)
{
    ServerList found;
    std::vector<client::ServerEntry> entries;
    for (const std::string& text : client::SplitList(list))
    {
        const std::string address = client::NormalAddress(text);
        if (!address.empty() || client::IsHostName(text))
        {
            entries.push_back({address.empty() ? text : address, !address.empty()});
        }
        else
        {
            found.leftOut.push_back({text, "neither an address nor a host name"});
        }
    }
    client::ServerLookup lookup(entries, client::FamilyOf(localAddress), client::SystemLookup);
    client::ResolvedServers resolved = lookup.Wait();
    const auto isLeftOut = [&resolved](const client::ServerEntry& entry)
    {
        return std::any_of(resolved.leftOut.begin(), resolved.leftOut.end(),
                           [&entry](const auto& one) { return one.text == entry.text; });
    };
    for (const client::ServerEntry& entry : entries)
    {
        if (!isLeftOut(entry))
        {
            found.forService += (found.forService.empty() ? "" : ";") + entry.text;
        }
    }
    found.servers = std::move(resolved.servers);
    found.leftOut.insert(found.leftOut.end(), resolved.leftOut.begin(), resolved.leftOut.end());
    return found;
}

}  // namespace corpdir_c
