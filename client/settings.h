// What a client asks for.
#ifndef CORPDIR_CLIENT_SETTINGS_H
#define CORPDIR_CLIENT_SETTINGS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "corpdir_loginfo.h"
#include "secret.h"
#include "server_names.h"

namespace client
{

// Checked by the caller: each text fits its field of the request record.
struct Settings
{
    std::vector<ServerEntry> servers;
    int family = 0;            // of the addresses to look up: AF_INET, AF_INET6, AF_UNSPEC
    unsigned int port = 0;     // 0: 21
    std::string localAddress;  // empty: chosen by the system
    std::string user;
    bool plain = false;  // FTP without TLS
    bool verify = true;
    std::string trust;               // for the FTP layer, never empty
    std::vector<std::string> names;  // of which each certificate must carry one; empty: as listed
    std::vector<int> suites;         // to offer, never empty
    std::uint64_t maxFileBytes = 0;  // 0: the FTP layer's limit
    unsigned int connectMs = 0;      // 0: the FTP layer's limit

    std::string versionFile;  // on the server
    std::string directoryFile;
    std::string versionFolder;  // local, ending with "/"
    std::string versionName;
    std::string directoryFolder;
    std::string directoryName;

    tag_CORPDIR_LOGINFO log = {};
    std::chrono::seconds retry{60};  // until the next pass, when the service does not check again
    // Fetch no directory file when the local one has the server's version; the client stops then.
    bool onlyIfChanged = false;
    // Fills the password, for each request. loginRefused: a server has refused it since the last
    // call, so its source is worth reading again. What it throws leaves Client::Next().
    std::function<void(Secret& password, bool loginRefused)> readPassword;

    std::string VersionPath() const
    {
        return versionFolder + versionName;
    }
    std::string DirectoryPath() const
    {
        return directoryFolder + directoryName;
    }
};

}  // namespace client

#endif
