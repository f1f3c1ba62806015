// The servers of a request: looked up and registered by the client, then handed to the service.
#ifndef CORPDIR_C_SERVER_LIST_H
#define CORPDIR_C_SERVER_LIST_H

#include <string>
#include <vector>

#include "server_names.h"

namespace corpdir_c
{

struct ServerList
{
    std::string forService;  // the entries that have an address, separated by ";"
    std::vector<client::Server> servers;
    std::vector<client::LeftOut> leftOut;
};

// Looks up the names of a list in parallel, for at most client::kLookupLimit. The service
// gets the names, and looks them up again at each check. localAddress: when not empty, names need
// an address of its family. Throws std::bad_alloc, and std::system_error when no thread
// can be made.
ServerList FindServers(const std::string& list, const char* localAddress);

}  // namespace corpdir_c

#endif
