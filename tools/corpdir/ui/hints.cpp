#include "ui/hints.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "exit_error.h"
#include "suites.h"
#include "text.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

namespace
{

constexpr unsigned int kImplicitPort = 990;

// Replies that are more specific than the step in which they came.
constexpr unsigned int kServiceClosed = 421;
constexpr unsigned int kNoDataConnection = 425;

const char kServerLogHint[] = "the server's log may say why";

// The command line with another value for an option.
std::string CommandWith(const Plan& plan, const std::string& option, const std::string& value)
{
    std::string line = "corpdir";
    bool isOldValue = false;
    for (const std::string& word : plan.words)
    {
        if (!isOldValue && word != option && word.rfind(option + "=", 0) != 0)
        {
            line += " " + ShellWord(word);
        }
        isOldValue = !isOldValue && word == option;
    }
    return line + " " + option + " " + ShellWord(value);
}

// For failures that only a log explains.
std::string LogHint(const Plan& plan)
{
    constexpr unsigned int kEverything = 2;
    return plan.UsedLogLevel() == kEverything
               ? "the log has every step"
               : "log every step: " + CommandWith(plan, "--log-level", "2");
}

std::string PortOf(const Plan& plan)
{
    return "port " + std::to_string(plan.UsedPort());
}

std::string ClosedHint(const Failure& failure)
{
    return failure.step == TRAVEX_FTP_STEP_GREETING || failure.step == TRAVEX_FTP_STEP_LOGIN
               ? "connection limit reached or service closed; try again later"
               : "the server closed the connection: time limit or shutdown; try again later";
}

std::string ConnectHint(const Failure& failure, const Plan& plan)
{
    switch (failure.step)
    {
        case TRAVEX_FTP_STEP_DATA_CONNECT:
            return "open the server's passive ports, on the server and in the firewalls in front "
                   "of it";
        case TRAVEX_FTP_STEP_GREETING:
            return std::string("the server refuses connections from this machine; ") +
                   kServerLogHint;
        default:
            return "check that the server is running and can be reached, and that --" +
                   PortOf(plan) + " is right" +
                   (plan.localIp.empty() ? "" : "; --local-ip must be an address of this machine");
    }
}

// The identifiers of the TLS 1.3 suites begin with 0x030013.
bool IsTls13(int cipher)
{
    return (cipher & 0xff00) == 0x1300;
}

// The TLS versions offered follow from the suites.
std::string VersionHint(const Plan& plan)
{
    const auto count = std::count_if(plan.suites.begin(), plan.suites.end(), IsTls13);
    const bool both = count != 0 && static_cast<std::size_t>(count) != plan.suites.size();
    if (both)
    {
        return "the server has no TLS 1.2 or later: update the server";
    }
    return std::string("the server requires ") + (count == 0 ? "TLS 1.3" : "TLS 1.2") +
           ", which the suites of --ciphers exclude: " +
           CommandWith(plan, "--ciphers", "compatible");
}

std::string SuitesHint(const Plan& plan)
{
    if (plan.suites == client::SuitesOf(client::SuiteSet::kCompatible))
    {
        return "the server accepts none of the default cipher suites: 'corpdir ciphers' lists "
               "others for --ciphers";
    }
    return "the server accepts none of the suites of --ciphers: " +
           CommandWith(plan, "--ciphers", "compatible");
}

std::string TlsHint(const Failure& failure, const Plan& plan)
{
    if (failure.detail == TRAVEX_FTP_DETAIL_TLS_VERSION)
    {
        return VersionHint(plan);
    }
    if (failure.detail == TRAVEX_FTP_DETAIL_TLS_SUITES)
    {
        return SuitesHint(plan);
    }
    switch (failure.step)
    {
        case TRAVEX_FTP_STEP_AUTH:
            return failure.reply == 0
                       ? "a device in between may have altered the replies: check the network"
                       : "the server offers no TLS on " + PortOf(plan) +
                             ": enable FTPS there; --plain would send the password unencrypted";
        case TRAVEX_FTP_STEP_PROTECT:
            return "the server refuses an encrypted data channel: enable PROT P there";
        case TRAVEX_FTP_STEP_DATA_TLS:
            return kServerLogHint;
        default:
            return "port 990 is for implicit FTPS, other ports are for explicit FTPS; check that "
                   "--" +
                   PortOf(plan) + " is right";
    }
}

// The names are the server's claim: it may be an impostor, and they are only shown and quoted.
std::string NameHint(const Failure& failure, const Plan& plan)
{
    constexpr std::size_t kMostShown = 5;
    const std::vector<std::string> names = CertificateNames(failure.certificateNames);
    if (names.empty())
    {
        return "the certificate has no names: the server needs one with the name or address by "
               "which it is listed";
    }
    std::string shown;
    for (std::size_t i = 0; i != std::min(names.size(), kMostShown); ++i)
    {
        shown += (i == 0 ? "" : ", ") + names[i];
    }
    const std::string hint = "the certificate is for " + shown +
                             (names.size() > kMostShown ? ", ..." : "") +
                             "; if this is the right server, ";
    const auto usable = std::find_if(names.begin(), names.end(),
                                     [](const std::string& name)
                                     { return IsHostName(name) && name.front() != '-'; });
    return usable == names.end()
               ? hint + "list it by a name or address of the certificate"
               : hint + "list it by that name, or: " + CommandWith(plan, "--verify-name", *usable);
}

std::string CertificateHint(const Failure& failure, const Plan& plan)
{
    const std::string rest = "; 'corpdir check' shows the certificate";
    switch (failure.detail)
    {
        case TRAVEX_FTP_DETAIL_CERT_NAME:
            return NameHint(failure, plan);
        case TRAVEX_FTP_DETAIL_CERT_DATES:
            return "renew the certificate on the server, or correct this machine's clock" + rest;
        default:
            return "check that --ca has the authority that issued the certificate, and that it has "
                   "not expired" +
                   rest;
    }
}

std::string TimeHint(const Failure& failure, const Plan& plan)
{
    const std::string silent = "the server accepted the connection but sent no FTP greeting: ";
    switch (failure.step)
    {
        case TRAVEX_FTP_STEP_CONNECT:
            return "a firewall may drop packets to " + PortOf(plan) +
                   ", or the server is down; raise --connect-timeout if the network is slow";
        case TRAVEX_FTP_STEP_DATA_CONNECT:
            return "a firewall may drop packets to the server's passive ports; raise "
                   "--connect-timeout if the network is slow";
        case TRAVEX_FTP_STEP_GREETING:
            return plan.port == kImplicitPort || plan.plain
                       ? silent + "check the server"
                       : silent + "implicit FTPS needs --port 990; otherwise check the server";
        case TRAVEX_FTP_STEP_TLS:
        case TRAVEX_FTP_STEP_DATA_TLS:
            return "the server accepted the connection but did not answer the TLS handshake: check "
                   "the server";
        case TRAVEX_FTP_STEP_RECEIVE:
            return "the server or the network is too slow or has stalled; try again later";
        case TRAVEX_FTP_STEP_CONFIRM:
            return kServerLogHint;
        default:
            return "the server is too slow or has stalled; try again later";
    }
}

std::string LoginHint(const Plan& plan)
{
    return plan.plain ? "the server may refuse logins without TLS: remove --plain; otherwise check "
                        "--user and the password"
                      : "check --user and the password, and on the server that the account is not "
                        "locked";
}

std::string FileHint(const Failure& failure, const Plan& plan)
{
    if (failure.reply == kNoDataConnection)
    {
        return std::string("the server could not use the data channel; ") + kServerLogHint;
    }
    if (failure.reply >= 400 && failure.reply < 500)
    {
        return "the server cannot send the file at the moment; try again later";
    }
    const std::string option =
        failure.file == plan.versionFile ? "--version-file" : "--directory-file";
    return "check " + option + "; without a leading '/' it is relative to the login directory";
}

}  // namespace

std::string HintFor(const Failure& failure, const Plan& plan)
{
    if (failure.reply == kServiceClosed)
    {
        return ClosedHint(failure);
    }
    switch (failure.code)
    {
        case TRAVEX_FTP_ERR_CONNECT:
            return ConnectHint(failure, plan);
        case TRAVEX_FTP_ERR_TLS:
            return TlsHint(failure, plan);
        case TRAVEX_FTP_ERR_CERT:
            return CertificateHint(failure, plan);
        case TRAVEX_FTP_ERR_LOGIN:
            return LoginHint(plan);
        case TRAVEX_FTP_ERR_FILE:
            return FileHint(failure, plan);
        case TRAVEX_FTP_ERR_TIMEOUT:
            return TimeHint(failure, plan);
        case TRAVEX_FTP_ERR_PARTIAL:
            return std::string("the server or a device in between cut the file short; ") +
                   kServerLogHint;
        case TRAVEX_FTP_ERR_TOO_LARGE:
            return "raise --max-size if the file should be this large";
        case TRAVEX_FTP_ERR_LOCAL_FILE:
            return "check free space and permissions of --output-dir: df -h " +
                   ShellWord(plan.outputDir) + "; ls -ld " + ShellWord(plan.outputDir);
        case TRAVEX_FTP_ERR_TRANSFER:
            return failure.step == TRAVEX_FTP_STEP_GREETING
                       ? "the server closes connections at once: connection limit reached, or --" +
                             PortOf(plan) + " is wrong"
                       : LogHint(plan);
        case TRAVEX_FTP_ERR_REPLY:
            return LogHint(plan);
        case TRAVEX_FTP_OK:
            return failure.file.empty() || failure.reason.empty()
                       ? ""
                       : "the version file must be ASCII or UTF-8 text with 5 to 30 bytes in its "
                         "first line";
        default:
            return "";
    }
}

namespace
{

// The failure that came furthest in the dialogue: its server is the closest to working. One without
// a hint counts less. Null when no server failed.
const Attempt* Furthest(const std::vector<Attempt>& attempts, const Plan& plan)
{
    const Attempt* best = nullptr;
    std::pair<bool, unsigned int> most;
    for (const Attempt& attempt : attempts)
    {
        const Failure& failure = attempt.failure;
        // An invalid version file has arrived.
        const unsigned int step =
            failure.code == TRAVEX_FTP_OK ? TRAVEX_FTP_STEP_CONFIRM + 1 : failure.step;
        const std::pair<bool, unsigned int> rank(!HintFor(failure, plan).empty(), step);
        if (!failure.reason.empty() && (best == nullptr || rank > most))
        {
            best = &attempt;
            most = rank;
        }
    }
    return best;
}

}  // namespace

std::string HintFor(const std::vector<Attempt>& attempts, const Plan& plan)
{
    const Attempt* const attempt = Furthest(attempts, plan);
    if (attempt == nullptr)
    {
        return "";
    }
    const std::string hint = HintFor(attempt->failure, plan);
    const bool several = std::any_of(attempts.begin(), attempts.end(),
                                     [attempt](const Attempt& other)
                                     { return other.server.address != attempt->server.address; });
    return several && !hint.empty() ? attempt->server.Label() + ": " + hint : hint;
}

std::vector<std::string> CertificateNames(const std::string& list)
{
    const std::string separator = ", ";
    std::vector<std::string> names;
    for (std::size_t begin = 0; begin < list.size();)
    {
        const std::size_t end = std::min(list.find(separator, begin), list.size());
        if (list.compare(begin, std::string::npos, "...") != 0)  // not all of them fitted
        {
            names.push_back(list.substr(begin, end - begin));
        }
        begin = end + separator.size();
    }
    return names;
}

std::string WithFile(const Failure& failure)
{
    const bool isAboutFile = failure.code == TRAVEX_FTP_ERR_FILE ||
                             failure.code == TRAVEX_FTP_ERR_PARTIAL ||
                             failure.code == TRAVEX_FTP_ERR_TOO_LARGE;
    return isAboutFile && !failure.file.empty() ? failure.file + ": " + failure.reason
                                                : failure.reason;
}

std::string NoAddress(const Plan& plan)
{
    if (plan.localIp.empty())
    {
        return "no name in --servers could be resolved: check the spelling; 'getent hosts NAME' "
               "asks this machine's resolver";
    }
    return std::string("no name in --servers has an ") +
           (plan.family == AF_INET6 ? "IPv6" : "IPv4") + " address, which --local-ip " +
           plan.localIp + " requires: leave --local-ip out, or check the spelling";
}

std::string AllFailed(std::size_t servers)
{
    return servers == 1 ? "the server failed"
                        : "all " + std::to_string(servers) + " servers failed";
}

std::string OutcomeText(int status, const std::string& message,
                        const std::vector<Attempt>& attempts, const Plan& plan)
{
    const auto text = [](const Attempt& attempt)
    { return attempt.server.Label() + ": " + WithFile(attempt.failure); };
    if (!attempts.empty() && attempts.back().failure.reason == message)
    {
        return text(attempts.back());
    }
    const Attempt* const attempt = Furthest(attempts, plan);
    const bool allFailed = status == kExitNoServer || status == kExitBadVersion;
    return allFailed && attempt != nullptr ? message + "; " + text(*attempt) : message;
}

}  // namespace corpdir_tool
