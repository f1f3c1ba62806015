#include "settings.h"

#include <arpa/inet.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstring>

#include "base/printable.h"
#include "base/resolved_names.h"

namespace travex_ftp
{
namespace
{
constexpr unsigned int kFtpPort = 21;
constexpr unsigned int kImplicitPort = 990;  // TLS from the first byte on, by convention

// Leaves OpenSSL's error queue of the caller's thread as it was.
class ErrorQueueGuard
{
public:
    ErrorQueueGuard()
    {
        (void)ERR_set_mark();
    }
    ~ErrorQueueGuard()
    {
        (void)ERR_pop_to_mark();
    }
    ErrorQueueGuard(const ErrorQueueGuard&) = delete;
    ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

// The bytes after an IPv4 address are ignored.
Address ReadAddress(unsigned int type, const unsigned char (&bytes)[16])
{
    Address address;
    address.length = type == 1 ? 16 : 4;
    memcpy(address.bytes, bytes, address.length);
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(type == 1 ? AF_INET6 : AF_INET, address.bytes, text, sizeof text);
    address.literal = text;
    return address;
}

std::string Describe(const Address& address, unsigned int port)
{
    const bool brackets = address.length == 16;
    return (brackets ? "[" : "") + address.literal + (brackets ? "]:" : ":") + std::to_string(port);
}

unsigned int PortOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
{
    return record.ulServerPort == 0 ? kFtpPort : record.ulServerPort;
}

// A text field of the record: terminated, not empty, and without control characters if it becomes
// part of a command. The reason does not quote the text, which may be the password.
template <size_t kSize>
bool CheckText(const char (&text)[kSize], const char* name, bool command, Failure& failure)
{
    if (memchr(text, '\0', kSize) == nullptr)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the %s is not NUL-terminated", name);
    }
    if (text[0] == '\0')
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the %s is empty", name);
    }
    if (command && HasControlCharacter(text))
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the %s contains a control character", name);
    }
    return true;
}

// Unknown numbers are refused, not replaced by a default.
bool CheckNumbers(const tagTRAVEX_FTP_S_CTRL_PARAM& record, Failure& failure)
{
    if (record.ulServerType > 1)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "unknown server type %u", record.ulServerType);
    }
    if (record.ulServerIpType > 1 || record.ulLocalIpType > 1)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "unknown address type %u",
                    std::max(record.ulServerIpType, record.ulLocalIpType));
    }
    if (record.ulServerPort > 65535)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "port %u is out of range", record.ulServerPort);
    }
    if (record.ulCipherNum != 0 && record.piCipherList == nullptr)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARAM, "the cipher list is null");
    }
    return true;
}

// Sets the names of "name=" as the identity. An address among them is refused: they are
// compared with DNS entries only.
bool SetTrustNames(TlsPolicy& tls, Failure& failure)
{
    for (const std::string& name : tls.trust.names)
    {
        std::string normalized;
        if (!NormalizeServerName(name.c_str(), normalized) || IsAddress(normalized))
        {
            return Fail(failure, TRAVEX_FTP_ERR_TRUST,
                        "trusted certificates: \"%s\" is not a DNS name", name.c_str());
        }
        tls.identity.push_back(normalized);
    }
    return true;
}

bool ReadTlsPolicy(const tagTRAVEX_FTP_S_CTRL_PARAM& record, unsigned int port, TlsPolicy& tls,
                   Failure& failure)
{
    const ErrorQueueGuard guard;
    tls.encrypted = record.ulServerType == 1;
    if (!tls.encrypted)
    {
        return true;
    }
    if (!ChooseSuites(record.piCipherList, record.ulCipherNum, tls.suites, failure))
    {
        return false;
    }
    tls.verify = record.ulCertVerify != 0;
    tls.verifyCallback = record.pfnFtpsVerify;
    // Without verification the trusted certificates are optional.
    const bool given = record.pcFtpCtrlInfo != nullptr && *record.pcFtpCtrlInfo != '\0';
    if ((tls.verify || given) && !ParseTrustSettings(record.pcFtpCtrlInfo, tls.trust, failure))
    {
        return false;
    }
    tls.implicit = port == kImplicitPort || tls.trust.implicit;
    return !tls.verify || LoadTrustAnchors(tls.trust.authorities, tls.anchors, failure);
}

// Sets the names and addresses that the certificate must carry; the first source that has any
// applies.
bool SetIdentity(Settings& settings, const Identity& added, const std::string& converted,
                 Failure& failure)
{
    TlsPolicy& tls = settings.tls;
    if (!tls.verify || !tls.trust.names.empty())
    {
        return !tls.verify || SetTrustNames(tls, failure);
    }
    tls.identity = added;
    if (added.empty())
    {
        const std::string& listed = converted.empty() ? settings.server.literal : converted;
        std::string normalized;
        tls.identity.push_back(NormalizeServerName(listed.c_str(), normalized) ? normalized
                                                                               : listed);
    }
    return true;
}

}  // namespace

bool Address::Zero() const
{
    return Key().find_first_not_of('\0') == std::string::npos;
}

bool Address::Ipv4() const
{
    return Key().size() == 4;
}

std::string Address::Key() const
{
    return base::AddressKey(length == 16 ? AF_INET6 : AF_INET, bytes);
}

bool TlsPolicy::operator==(const TlsPolicy& other) const
{
    return encrypted == other.encrypted && implicit == other.implicit && verify == other.verify &&
           verifyCallback == other.verifyCallback && identity == other.identity &&
           suites == other.suites && trust.names == other.trust.names &&
           trust.authorities == other.trust.authorities && anchors.digest == other.anchors.digest;
}

bool HasControlCharacter(const char* text)
{
    return std::any_of(text, text + strlen(text), base::IsControlByte);
}

Settings::Settings(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
    : server(ReadAddress(record.ulServerIpType, record.aucServerIp)),
      port(PortOf(record)),
      serverText(Describe(server, port)),
      local(ReadAddress(record.ulLocalIpType, record.aucLocalIp)),
      user(record.acUserName),
      password(record.acPassword),
      workDir(record.acWorkDir)
{
}

bool Settings::SameLogin(const Settings& other) const
{
    return serverText == other.serverText && user == other.user && password == other.password &&
           tls.encrypted == other.tls.encrypted;
}

// The server's text includes the port and implies the address family.
bool Settings::SameConnection(const Settings& other) const
{
    return SameLogin(other) && local.literal == other.local.literal && tls == other.tls;
}

std::shared_ptr<const Settings> ReadSettings(const tagTRAVEX_FTP_S_CTRL_PARAM& record,
                                             const Identity& added, const std::string& converted,
                                             Failure& failure)
{
    if (!CheckNumbers(record, failure) ||
        !CheckText(record.acUserName, "user name", true, failure) ||
        !CheckText(record.acPassword, "password", true, failure) ||
        !CheckText(record.acWorkDir, "work directory", false, failure))
    {
        return nullptr;
    }
    auto settings = std::make_shared<Settings>(record);
    if (!ReadTlsPolicy(record, settings->port, settings->tls, failure) ||
        !SetIdentity(*settings, added, converted, failure))
    {
        return nullptr;
    }
    return settings;
}

std::string TakeConvertedText(const tagTRAVEX_FTP_S_CTRL_PARAM* record)
{
    base::ResolvedNames& names = base::ResolvedNames::OfThisThread();
    std::string text;
    if (record != nullptr)
    {
        text = names.TextFor(record->ulServerIpType == 1 ? AF_INET6 : AF_INET, record->aucServerIp);
    }
    names.Forget();
    return text;
}

std::string AddressKeyOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
{
    return base::AddressKey(record.ulServerIpType == 1 ? AF_INET6 : AF_INET, record.aucServerIp);
}

std::string ServerOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
{
    return Describe(ReadAddress(record.ulServerIpType, record.aucServerIp), PortOf(record));
}

}  // namespace travex_ftp
