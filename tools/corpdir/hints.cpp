#include "hints.h"

#include <algorithm>
#include <numeric>

#include "travex_ftp.h"

namespace corpdir_tool
{

namespace
{

// Letters that may be missing, too many, or wrong in a word that is still recognised.
constexpr std::size_t MAX_MISTAKES = 2;

constexpr unsigned int USUAL_PORT = 21;

bool Says(const Trouble& trouble, const char* words)
{
    return trouble.reason.find(words) != std::string::npos;
}

std::string PortOf(const Plan& plan)
{
    return "port " + std::to_string(plan.port == 0 ? USUAL_PORT : plan.port);
}

std::string TlsHint(const Trouble& trouble, const Plan& plan)
{
    if (Says(trouble, "AUTH refused"))
    {
        return "the server offers no TLS on " + PortOf(plan) +
               ": have FTPS switched on there; --plain would send the password in clear";
    }
    if (Says(trouble, "handshake failure") || Says(trouble, "no shared cipher"))
    {
        return "the server takes none of the cipher suites; 'corpdir ciphers' lists what --ciphers "
               "can offer";
    }
    if (Says(trouble, "timeout"))
    {
        return "the server took the connection and did not answer in TLS: look at it, or at a "
               "firewall";
    }
    return "port 990 is for implicit FTPS, the others are for explicit; is --" + PortOf(plan) +
           " the right one?";
}

std::string CertificateHint(const Trouble& trouble)
{
    const char* const rest = "; 'corpdir check' shows the certificate";
    if (Says(trouble, "certificate is not for"))
    {
        return std::string("--verify-name names what it is for, if that server is meant") + rest;
    }
    if (Says(trouble, "expired") || Says(trouble, "not yet valid"))
    {
        return std::string("its owner has to renew it, or this machine's clock is wrong") + rest;
    }
    return std::string("--ca names the authorities to trust") + rest;
}

std::string TimeHint(const Trouble& trouble)
{
    if (Says(trouble, "no greeting"))
    {
        return "the server took the connection and said nothing: one for implicit FTPS wants "
               "--port "
               "990; else look at it, or at a firewall";
    }
    return "a firewall may drop packets: FTP needs the server's passive ports too; "
           "--connect-timeout allows more time to connect";
}

std::string FileHint(const Trouble& trouble, const Plan& plan)
{
    const std::string option =
        trouble.file == plan.versionFile ? "--version-file" : "--directory-file";
    return "check " + option +
           "; without a leading '/' it is relative to the directory after the login";
}

// What has to be changed in one word to get the other (Levenshtein's distance).
std::size_t Mistakes(const std::string& word, const std::string& other)
{
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (const char letter : word)
    {
        std::size_t before = row[0]++;
        for (std::size_t i = 1; i != row.size(); ++i)
        {
            const std::size_t swapped = before + (letter == other[i - 1] ? 0 : 1);
            before = row[i];
            row[i] = std::min({row[i] + 1, row[i - 1] + 1, swapped});
        }
    }
    return row.back();
}

}  // namespace

std::string HintFor(const Trouble& trouble, const Plan& plan)
{
    if (Says(trouble, "421"))
    {
        return "the server has as many connections as it wants, for all or for this user; try "
               "later";
    }
    switch (trouble.code)
    {
        case TRAVEX_FTP_ERR_CONNECT:
            return "is the server up, and is --" + PortOf(plan) + " the right one?";
        case TRAVEX_FTP_ERR_TLS:
            return TlsHint(trouble, plan);
        case TRAVEX_FTP_ERR_CERT:
            return CertificateHint(trouble);
        case TRAVEX_FTP_ERR_LOGIN:
            return plan.plain ? "the server may let nobody in without TLS: leave out --plain; else "
                                "check --user and the password"
                              : "check --user and the password";
        case TRAVEX_FTP_ERR_FILE:
            return FileHint(trouble, plan);
        case TRAVEX_FTP_ERR_TIMEOUT:
            return TimeHint(trouble);
        case TRAVEX_FTP_ERR_PARTIAL:
            return "the server, or something between, ended the file early; its log may say why";
        case TRAVEX_FTP_ERR_TOO_LARGE:
            return "--max-size allows more";
        case TRAVEX_FTP_ERR_LOCAL_FILE:
            return "see to space and rights in --output-dir";
        case TRAVEX_FTP_ERR_REPLY:
        case TRAVEX_FTP_ERR_TRANSFER:
            return "--log-dir DIR writes a log of every step";
        default:
            return "";
    }
}

std::vector<std::string> HintsFor(const std::vector<Trouble>& troubles, const Plan& plan)
{
    std::vector<std::string> hints;
    for (const Trouble& trouble : troubles)
    {
        const std::string hint = HintFor(trouble, plan);
        if (!hint.empty() && std::find(hints.begin(), hints.end(), hint) == hints.end())
        {
            hints.push_back(hint);
        }
    }
    return hints;
}

std::string WithFile(const Trouble& trouble)
{
    const bool isAboutFile = trouble.code == TRAVEX_FTP_ERR_FILE ||
                             trouble.code == TRAVEX_FTP_ERR_PARTIAL ||
                             trouble.code == TRAVEX_FTP_ERR_TOO_LARGE;
    return isAboutFile && !trouble.file.empty() ? trouble.file + ": " + trouble.reason
                                                : trouble.reason;
}

std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates)
{
    const auto closest = std::min_element(candidates.begin(), candidates.end(),
                                          [&word](const std::string& one, const std::string& other)
                                          { return Mistakes(word, one) < Mistakes(word, other); });
    if (closest == candidates.end() || Mistakes(word, *closest) > MAX_MISTAKES)
    {
        return "";
    }
    return "; did you mean '" + *closest + "'?";
}

}  // namespace corpdir_tool
