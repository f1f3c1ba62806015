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

}  // namespace

std::vector<ServerEntry> SplitServers(const std::string& list)
{
    std::vector<ServerEntry> entries;
    const std::vector<std::string> pieces = client::SplitList(list);
    for (const std::string& piece : pieces)
    {
        ServerEntry entry;
        switch (client::ReadEntry(piece, entry))
        {
            case client::EntryProblem::kEmpty:
                throw ExitError(kExitArguments, pieces.size() == 1
                                                    ? "--servers is empty"
                                                    : "--servers: entry " +
                                                          std::to_string(entries.size() + 1) +
                                                          " of '" + Printable(list) + "' is empty");
            case client::EntryProblem::kZeroAddress:
                throw ExitError(kExitArguments, "--servers: " + entry.text +
                                                    " is the unspecified address, not a server");
            case client::EntryProblem::kNeither:
                RefuseEntry(entry.text);
            case client::EntryProblem::kNone:
                entries.push_back(entry);
        }
    }
    return entries;
}

}  // namespace corpdir_tool
