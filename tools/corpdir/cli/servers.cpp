#include "cli/servers.h"

#include <algorithm>

#include "exit_error.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

[[noreturn]] void RefuseEntry(const std::string& text)
{
    // Hints for the most frequent mistakes.
    const bool hasPort =
        std::count(text.begin(), text.end(), ':') == 1 || text.find("]:") != std::string::npos;
    const bool hasZone = text.find('%') != std::string::npos;
    const bool isList = text.find_first_of(", \t") != std::string::npos;
    throw ExitError(kExitArguments, "--servers: '" + Printable(text) +
                                        "' is neither an address nor a host name" +
                                        (isList    ? "; servers are separated by ';'"
                                         : hasPort ? "; give the port with --port"
                                         : hasZone ? "; addresses with a zone are not supported"
                                                   : ""));
}

ServerEntry MakeEntry(const std::string& text)
{
    const std::string address = client::NormalAddress(text);
    if (client::IsZeroAddress(address))
    {
        throw ExitError(kExitArguments,
                        "--servers: " + text + " is the unspecified address, not a server");
    }
    if (address.empty() && !IsHostName(text))
    {
        RefuseEntry(text);
    }
    return address.empty() ? ServerEntry{text, false} : ServerEntry{address, true};
}

}  // namespace

std::vector<ServerEntry> SplitServers(const std::string& list)
{
    std::vector<ServerEntry> entries;
    const std::vector<std::string> pieces = client::SplitList(list);
    for (const std::string& piece : pieces)
    {
        const std::string text = Trimmed(piece);
        if (text.empty())
        {
            throw ExitError(kExitArguments, pieces.size() == 1
                                                ? "--servers is empty"
                                                : "--servers: entry " +
                                                      std::to_string(entries.size() + 1) + " of '" +
                                                      Printable(list) + "' is empty");
        }
        entries.push_back(MakeEntry(text));
    }
    return entries;
}

}  // namespace corpdir_tool
