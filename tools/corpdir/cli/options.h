// The options of the commands as they were given, and the checked plan that is made of them.
#ifndef CORPDIR_TOOL_OPTIONS_H
#define CORPDIR_TOOL_OPTIONS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/ciphers.h"
#include "cli/servers.h"

namespace corpdir_tool
{

// As the command line gave them; the defaults are those of the help text. A command leaves those
// that it does not have as they are.
struct Options
{
    std::string servers;
    unsigned int port = 0;  // 0: not given
    std::string localIp;

    std::string user;
    std::string passwordFile;

    std::string versionFile;
    std::string directoryFile;
    std::string outputDir;
    std::string versionName;    // empty: the base name of versionFile
    std::string directoryName;  // empty: the base name of directoryFile

    bool plain = false;
    bool noVerify = false;
    std::string ca = "system";
    std::vector<std::string> verifyNames;
    std::vector<std::string> ciphers;

    std::uint64_t maxSize = 0;          // bytes; 0: not given
    unsigned int connectTimeout = 0;    // seconds; 0: not given
    unsigned int timeoutSeconds = 120;  // fetch and check
    unsigned int retrySeconds = 60;     // watch
    std::string execute;                // watch: for the shell; empty: nothing
    std::string logDir;
    std::optional<unsigned int> logLevel;
    bool quiet = false;
    bool noProgress = false;
    bool json = false;
};

// Everything that a download needs except the password, each value within its limit.
struct Plan
{
    std::vector<ServerEntry> servers;
    unsigned int port = 0;
    std::string localIp;  // empty: the system's choice
    int family = 0;       // AF_INET or AF_INET6 when localIp asks for one, else AF_UNSPEC

    std::string user;
    std::string versionFile;    // on the server
    std::string directoryFile;  // on the server
    std::string outputDir;      // ends in "/"
    std::string versionName;    // in outputDir
    std::string directoryName;  // in outputDir

    bool plain = false;
    bool verify = true;
    std::string trust;                     // text for the FTP layer, never empty
    std::vector<std::string> verifyNames;  // empty: each server's own as listed
    std::vector<int> ciphers;              // empty: the service's own list

    std::uint64_t maxSize = 0;               // bytes; 0: the FTP layer's limit
    std::chrono::seconds connectTimeout{0};  // 0: the FTP layer's limit
    std::chrono::seconds timeout{0};
    std::chrono::seconds retry{0};
    std::string logDir;                    // empty: standard error
    std::optional<unsigned int> logLevel;  // none: no log at all

    std::string VersionPath() const
    {
        return outputDir + versionName;
    }
    std::string DirectoryPath() const
    {
        return outputDir + directoryName;
    }
};

// Checks the options one by one, touching neither network nor files other than to see whether they
// can be used. Throws ExitError with a message that names the option, the limit and the length.
// ciphers: asked when a suite is given by name.
Plan MakePlan(const Options& options, const CipherSource& ciphers);

}  // namespace corpdir_tool

#endif
