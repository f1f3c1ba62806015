// The options of `fetch` as they were given, and the checked plan that is made of them.
#ifndef CORPDIR_TOOL_OPTIONS_H
#define CORPDIR_TOOL_OPTIONS_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "servers.h"

namespace corpdir_tool
{

// As the command line gave them; the defaults are those of the help text.
struct FetchOptions
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

    unsigned int timeoutSeconds = 120;
    std::string logDir;
    std::optional<unsigned int> logLevel;
    bool quiet = false;
    bool noProgress = false;
};

// Everything that a download needs except the password, each value within its limit.
struct FetchPlan
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
    std::string trust;         // text for the FTP layer, never empty
    std::vector<int> ciphers;  // empty: the service's own list

    std::chrono::seconds timeout{0};
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
// can be used. Throws Failure with a message that names the option, the limit and the length.
FetchPlan MakePlan(const FetchOptions& options);

// A cipher suite identifier in the service's form from "0x03000035", "0x0035" or a decimal number.
// Throws Failure for anything else.
int ParseCipher(const std::string& text);

}  // namespace corpdir_tool

#endif
