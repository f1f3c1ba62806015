#include "cli/options.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "base/printable.h"
#include "exit_error.h"
#include "os/output_files.h"
#include "state.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

// Bytes that fit without the terminator: in a field of the request record, and in the narrower
// fields of the FTP layer.
constexpr std::size_t kMaxField = 255;
constexpr std::size_t kMaxUser = 127;
constexpr std::size_t kMaxDirectory = 127;

const std::string kTrustPrefix = "ca=";

[[noreturn]] void Refuse(const std::string& message)
{
    throw ExitError(kExitArguments, message);
}

void CheckLength(const std::string& what, std::size_t length, std::size_t limit)
{
    if (length > limit)
    {
        Refuse(what + " is " + std::to_string(length) + " bytes long; at most " +
               std::to_string(limit) + " are allowed");
    }
}

// For a text that is sent to the server or becomes a file name.
void CheckText(const std::string& option, const std::string& text, std::size_t limit)
{
    if (text.empty())
    {
        Refuse(option + " is empty");
    }
    CheckLength(option, text.size(), limit);
    if (std::any_of(text.begin(), text.end(), base::IsControlByte))
    {
        Refuse(option + " contains a control byte, such as a newline: '" + Printable(text) + "'");
    }
}

// The local name: as given, otherwise the last component of the name on the server.
std::string LocalName(const std::string& option, const std::string& given,
                      const std::string& remoteOption, const std::string& remote)
{
    if (given.empty())
    {
        std::string name = remote.substr(remote.rfind('/') + 1);
        if (name.empty() || name == "." || name == "..")
        {
            Refuse(remoteOption + " '" + remote + "' does not end in a file name");
        }
        return name;
    }
    CheckText(option, given, kMaxField);
    if (given.find('/') != std::string::npos || given == "." || given == "..")
    {
        Refuse(option + " '" + given +
               "' must be a file name without a directory; --output-dir gives the directory");
    }
    return given;
}

// Without repeated "/" and without "." between two of them.
std::string Tidied(std::string path)
{
    for (const char* const part : {"/./", "//"})
    {
        const std::size_t extra = std::string(part).size() - 1;
        for (auto at = path.find(part); at != std::string::npos; at = path.find(part, at))
        {
            path.erase(at, extra);
        }
    }
    return path;
}

std::string OutputDirectory(const Options& options)
{
    if (options.outputDir.empty())
    {
        Refuse("--output-dir is empty");
    }
    return Tidied(options.outputDir + "/");
}

void PlanOutput(Plan& plan)
{
    plan.outputDir = OutputDirectory(plan);
    CheckLength("--output-dir with its trailing '/'", plan.outputDir.size(), kMaxDirectory);
    if (plan.outputDir.front() != '/')
    {
        std::error_code error;
        plan.workingDirectory = std::filesystem::current_path(error);
        if (error)
        {
            throw ExitError(kExitLocalFile,
                            "the working directory cannot be determined: " + error.message() +
                                "; give --output-dir as an absolute path");
        }
    }
}

// The name of the state file must fit.
void CheckDirectoryName(const std::string& name)
{
    if (name.size() > client::kMaxDirectoryName)
    {
        Refuse("the local name of the directory file is " + std::to_string(name.size()) +
               " bytes long; at most " + std::to_string(client::kMaxDirectoryName) +
               " are allowed: give a shorter --directory-name");
    }
}

void PlanFiles(Plan& plan)
{
    CheckText("--version-file", plan.versionFile, kMaxField);
    CheckText("--directory-file", plan.directoryFile, kMaxField);
    if (plan.versionFile == plan.directoryFile)
    {
        Refuse("--version-file and --directory-file are the same file '" + plan.versionFile + "'");
    }
    plan.versionName =
        LocalName("--version-name", plan.versionName, "--version-file", plan.versionFile);
    plan.directoryName =
        LocalName("--directory-name", plan.directoryName, "--directory-file", plan.directoryFile);
    if (plan.versionName == plan.directoryName)
    {
        Refuse("both files would be stored as '" + plan.versionName +
               "' (--version-name, --directory-name); give one of them another name");
    }
    CheckDirectoryName(plan.directoryName);
}

void PlanServers(Plan& plan)
{
    plan.entries = SplitServers(plan.servers);
    plan.family = AF_UNSPEC;
    if (plan.localIp.empty())
    {
        return;
    }
    plan.family = client::FamilyOf(plan.localIp.c_str());
    if (plan.family == AF_UNSPEC)
    {
        Refuse("--local-ip '" + Printable(plan.localIp) + "' is not an IPv4 or IPv6 address");
    }
    // Names are looked up in this family only; a listed address must be of the same family.
    for (const ServerEntry& entry : plan.entries)
    {
        if (entry.isAddress && client::FamilyOf(entry.text.c_str()) != plan.family)
        {
            Refuse("server " + entry.text + " of --servers cannot be reached from --local-ip " +
                   plan.localIp + ": one is IPv4, the other IPv6");
        }
    }
}

// Options without effect are refused: a user may rely on the protection that they suggest.
void CheckProtection(const Options& options)
{
    const bool trustGiven = !options.ca.empty() || !options.verifyNames.empty();
    if (options.plain && (trustGiven || !options.ciphers.empty()))
    {
        Refuse("--plain does not use TLS; remove --ca, --verify-name and --ciphers");
    }
    if (options.noVerify && trustGiven)
    {
        Refuse("--no-verify checks no certificate; remove --ca and --verify-name");
    }
}

void CheckAuthorities(const std::string& ca)
{
    CheckLength("--ca", ca.size(), kMaxField - kTrustPrefix.size());
    if (ca.find(';') != std::string::npos)
    {
        Refuse("--ca '" + Printable(ca) + "' contains a ';', which is not allowed there");
    }
    if (ca != "system" && access(ca.c_str(), R_OK) != 0)
    {
        Refuse("--ca '" + Printable(ca) + "' cannot be read: " + SystemMessage(errno));
    }
}

void CheckNames(const std::vector<std::string>& names)
{
    for (const std::string& name : names)
    {
        if (!IsHostName(name))
        {
            Refuse("--verify-name '" + Printable(name) + "' is not a DNS name");
        }
    }
}

void PlanProtection(const CipherSource& ciphers, Plan& plan)
{
    CheckProtection(plan);
    plan.verify = !plan.plain && !plan.noVerify;
    plan.trust = "system";  // the service requires one even when nothing is verified
    if (plan.verify)
    {
        const std::string ca = plan.ca.empty() ? "system" : plan.ca;
        CheckAuthorities(ca);
        CheckNames(plan.verifyNames);
        plan.trust = kTrustPrefix + ca;
    }
    plan.suites = FindSuites(plan.ciphers, ciphers);
}

Plan Checked(const Options& options, const CipherSource& ciphers, Output output)
{
    Plan plan;
    static_cast<Options&>(plan) = options;
    // In the order of the help text.
    PlanServers(plan);
    CheckText("--user", plan.user, kMaxUser);
    PlanFiles(plan);
    const bool hasOutput = output == Output::kRequired || !plan.outputDir.empty();
    if (hasOutput)
    {
        PlanOutput(plan);
    }
    PlanProtection(ciphers, plan);
    CheckLength("--log-dir", plan.logDir.size(), kMaxField);
    // Last, so that a mistake in an argument is reported first.
    if (hasOutput)
    {
        CheckWritableDirectory("--output-dir", plan.outputDir);
        CheckReplaceable(plan.VersionPath());
        CheckReplaceable(plan.DirectoryPath());
    }
    if (!plan.logDir.empty())
    {
        CheckWritableDirectory("--log-dir", plan.logDir);
    }
    return plan;
}

Plan CheckedForStatus(const Options& options)
{
    Plan plan;
    static_cast<Options&>(plan) = options;
    if (plan.directoryName.empty() && plan.directoryFile.empty())
    {
        Refuse("--directory-file or --directory-name is required");
    }
    plan.directoryName =
        LocalName("--directory-name", plan.directoryName, "--directory-file", plan.directoryFile);
    CheckDirectoryName(plan.directoryName);
    plan.outputDir = OutputDirectory(plan);
    return plan;
}

// For a message on options: which of them the settings file gave. Advice follows a ';'.
std::string FromFile(const Options& options, const std::string& message)
{
    const std::string problem = message.substr(0, message.find(';'));
    std::string names;
    for (const std::string& name : options.settings)
    {
        const std::size_t at = problem.find("--" + name);
        const std::size_t end = at + 2 + name.size();
        if (at != std::string::npos &&
            (end == problem.size() || problem.find_first_of(" ,:)", end) == end))
        {
            names += (names.empty() ? "" : ", ") + name;
        }
    }
    return names.empty() ? "" : " (" + options.settingsFile + " has " + names + ")";
}

}  // namespace

std::string Plan::AbsoluteDirectoryPath() const
{
    return outputDir.front() == '/' ? DirectoryPath()
                                    : Tidied(workingDirectory + "/" + DirectoryPath());
}

Plan MakePlan(const Options& options, const CipherSource& ciphers, Output output)
{
    try
    {
        return Checked(options, ciphers, output);
    }
    catch (const ExitError& error)
    {
        throw ExitError(error.Status(), error.what() + FromFile(options, error.what()));
    }
}

Plan PlanStatus(const Options& options)
{
    try
    {
        return CheckedForStatus(options);
    }
    catch (const ExitError& error)
    {
        throw ExitError(error.Status(), error.what() + FromFile(options, error.what()));
    }
}

}  // namespace corpdir_tool
