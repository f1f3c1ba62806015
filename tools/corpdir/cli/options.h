// The options as given, and the checked plan made from them.
#ifndef CORPDIR_TOOL_OPTIONS_H
#define CORPDIR_TOOL_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/ciphers.h"
#include "cli/servers.h"

namespace corpdir_tool
{

// As given on the command line; the defaults are those of the help text. Options that a command
// does not have keep their defaults.
struct Options
{
    std::vector<std::string> words;  // of the command line, without the program's name
    std::string given;               // those of the run, as words of a shell; no commands
    std::string settingsFile;
    std::vector<std::string> settings;  // names of the options that the file gave

    std::string servers;
    unsigned int port = 0;  // 0: not given
    std::string localIp;    // empty: chosen by the system

    std::string user;
    std::string passwordFile;

    std::string versionFile;
    std::string directoryFile;
    std::string outputDir;
    std::string versionName;    // empty: the base name of versionFile
    std::string directoryName;  // empty: the base name of directoryFile

    bool plain = false;
    bool noVerify = false;
    std::string ca;  // empty: "system"
    std::vector<std::string> verifyNames;
    std::vector<std::string> ciphers;

    std::uint64_t maxSize = 0;             // bytes; 0: the FTP layer's limit
    unsigned int connectTimeout = 0;       // seconds; 0: the FTP layer's limit
    unsigned int timeoutSeconds = 120;     // fetch and check: without progress
    unsigned int maxTimeSeconds = 0;       // fetch and check: the whole command; 0: no limit
    bool ifChanged = false;                // fetch
    unsigned int retrySeconds = 60;        // watch
    unsigned int splaySeconds = 0;         // watch: longest random wait before the first check
    std::string execute;                   // watch: shell command; empty: none
    std::string onFailure;                 // watch: shell command; empty: none
    unsigned int execTimeoutSeconds = 0;   // watch: of either command; 0: no limit
    unsigned int maxAgeSeconds = 0;        // status; 0: no limit
    std::string logDir;                    // empty: standard error
    std::optional<unsigned int> logLevel;  // not set: see UsedLogLevel()
    unsigned int logSize = 0;              // bytes of one log file; 0: the log's default
    unsigned int logFiles = 0;             // rotated log files; 0: the log's default
    bool quiet = false;
    bool noProgress = false;
    bool json = false;

    unsigned int UsedPort() const
    {
        return port == 0 ? 21 : port;
    }

    // Not set: no log.
    std::optional<unsigned int> UsedLogLevel() const
    {
        constexpr unsigned int kEverything = 2;
        return logLevel || logDir.empty() ? logLevel : kEverything;
    }
};

// The options of a download after the checks: each value is within its limit, both local names are
// set, and outputDir ends in "/" unless it is empty.
struct Plan : Options
{
    std::vector<ServerEntry> entries;  // of --servers
    int family = 0;                    // the family of localIp, else AF_UNSPEC
    bool verify = true;
    std::string trust;             // text for the FTP layer, never empty
    std::vector<int> suites;       // of --ciphers, never empty
    std::string workingDirectory;  // at the time of the checks; set when outputDir is relative

    std::string VersionPath() const
    {
        return outputDir + versionName;
    }
    std::string DirectoryPath() const
    {
        return outputDir + directoryName;
    }
    std::string AbsoluteDirectoryPath() const;
};

// Checks the options one by one. Uses no network, and only tests whether files and directories are
// usable. Throws ExitError with a message that names the option, and the settings file when it gave
// the option. ciphers: called when a suite is
// given by name. output: whether there must be an outputDir.
enum class Output
{
    kRequired,
    kOptional
};
Plan MakePlan(const Options& options, const CipherSource& ciphers,
              Output output = Output::kRequired);

// Checks the options of `status`; sets directoryName and outputDir only. Throws ExitError.
Plan PlanStatus(const Options& options);

}  // namespace corpdir_tool

#endif
