// The list of --servers.
#ifndef CORPDIR_TOOL_SERVERS_H
#define CORPDIR_TOOL_SERVERS_H

#include <string>
#include <vector>

#include "server_names.h"

namespace corpdir_tool
{

using client::IsHostName;
using client::Lookup;
using client::LookupResult;
using client::ResolvedServers;
using client::Server;
using client::ServerEntry;
using client::SystemLookup;

// Splits a list at ";". Blanks around an entry are ignored; IPv6 addresses may be in brackets.
// Throws ExitError for an empty list or entry and for one that is neither address nor host name.
std::vector<ServerEntry> SplitServers(const std::string& list);

}  // namespace corpdir_tool

#endif
