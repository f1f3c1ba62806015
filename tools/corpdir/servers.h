// The server list: splitting it, and turning names into the addresses that the service is given.
#ifndef CORPDIR_TOOL_SERVERS_H
#define CORPDIR_TOOL_SERVERS_H

#include <functional>
#include <string>
#include <vector>

namespace corpdir_tool
{

// One entry of --servers.
struct ServerEntry
{
    std::string text;        // an address in its usual form, or a host name
    bool isAddress = false;  // false: a host name
};

// One address to ask, and the name that it was found by (empty for an address of the list).
struct Server
{
    std::string address;
    std::string name;

    // "192.0.2.1 (dir.example)", or the address alone.
    std::string Label() const;
};

// What a lookup found: addresses in the order of preference, or in words why there is none.
struct LookupResult
{
    std::vector<std::string> addresses;
    std::string problem;
};

// Finds the addresses of a host name; family: AF_INET, AF_INET6, or AF_UNSPEC for both.
using Lookup = std::function<LookupResult(const std::string& name, int family)>;

// The servers to ask, in order and each once, and a message for each name that gave none.
struct ResolvedServers
{
    std::vector<Server> servers;
    std::vector<std::string> problems;
};

// Letters, digits, "-", "_" and "." in labels of 1 to 63 bytes, at most 253 bytes, and not a number
// that only looks like an address.
bool IsHostName(const std::string& text);

// Splits a list at ";"; blanks around an entry do not count, IPv6 addresses may stand in brackets.
// Throws Failure for an empty list or entry and for one that is neither address nor host name.
std::vector<ServerEntry> SplitServers(const std::string& list);

// Asks the system's resolver. Blocks; any thread.
LookupResult SystemLookup(const std::string& name, int family);

// Replaces each name by all its addresses. Blocks as long as `lookup` does.
ResolvedServers ResolveServers(const std::vector<ServerEntry>& entries, int family,
                               const Lookup& lookup);

}  // namespace corpdir_tool

#endif
