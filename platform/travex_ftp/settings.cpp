#include "settings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace travex_ftp
{
namespace
{
constexpr unsigned int kFtpPort = 21;
constexpr unsigned int kImplicitPort = 990;  // TLS from the first byte on, by convention

// The bytes behind an IPv4 address are not looked at.
Address readAddress(unsigned int type, const unsigned char (&bytes)[16])
{
    Address address;
    address.length = type == 1 ? 16 : 4;
    memcpy(address.bytes, bytes, address.length);
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(type == 1 ? AF_INET6 : AF_INET, address.bytes, text, sizeof text);
    address.literal = text;
    return address;
}

std::string describe(const Address& address, unsigned int port)
{
    const bool brackets = address.length == 16;
    return (brackets ? "[" : "") + address.literal + (brackets ? "]:" : ":") + std::to_string(port);
}

unsigned int portOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
{
    return record.ulServerPort == 0 ? kFtpPort : record.ulServerPort;
}

// A text field of the record: terminated, not empty, free of control bytes where it becomes part of
// a command. The text itself is not quoted: it may be the password.
template <size_t N>
bool checkText(const char (&text)[N], const char* name, bool command, Failure& failure)
{
    if (memchr(text, '\0', N) == nullptr)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the %s has no end", name);
    }
    if (text[0] == '\0')
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the %s is empty", name);
    }
    if (command && hasControlByte(text))
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the %s holds a control byte", name);
    }
    return true;
}

// Numbers that have no meaning are refused rather than taken for one that has.
bool checkNumbers(const tagTRAVEX_FTP_S_CTRL_PARAM& record, Failure& failure)
{
    if (record.ulServerType > 1)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "server type %u is unknown",
                    record.ulServerType);
    }
    if (record.ulServerIpType > 1 || record.ulLocalIpType > 1)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "address type %u is unknown",
                    std::max(record.ulServerIpType, record.ulLocalIpType));
    }
    if (record.ulServerPort > 65535)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "port %u is out of range", record.ulServerPort);
    }
    if (record.ulCipherNum != 0 && record.piCipherList == nullptr)
    {
        return fail(failure, TRAVEX_FTP_ERR_PARAM, "the cipher list is null");
    }
    return true;
}

}  // namespace

bool Address::zero() const
{
    // ::ffff:0.0.0.0 is the IPv4 zero address in IPv6 clothes.
    static const unsigned char kMapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0, 0, 0, 0};
    return std::all_of(bytes, bytes + length, [](unsigned char byte) { return byte == 0; }) ||
           (length == 16 && memcmp(bytes, kMapped, sizeof kMapped) == 0);
}

bool hasControlByte(const char* text)
{
    for (; *text != '\0'; ++text)
    {
        const unsigned char byte = static_cast<unsigned char>(*text);
        if (byte < 0x20 || byte == 0x7f)
        {
            return true;
        }
    }
    return false;
}

Settings::Settings(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
    : server(readAddress(record.ulServerIpType, record.aucServerIp)),
      port(portOf(record)),
      serverText(describe(server, port)),
      local(readAddress(record.ulLocalIpType, record.aucLocalIp)),
      user(record.acUserName),
      password(record.acPassword),
      workDir(record.acWorkDir)
{
}

// The address with its port tells the family too; the work directory is the transfer's affair.
bool Settings::sameConnection(const Settings& other) const
{
    return serverText == other.serverText && local.literal == other.local.literal &&
           user == other.user && password == other.password && tls == other.tls;
}

std::shared_ptr<const Settings> readSettings(const tagTRAVEX_FTP_S_CTRL_PARAM& record,
                                             Failure& failure)
{
    if (!checkNumbers(record, failure) ||
        !checkText(record.acUserName, "user name", true, failure) ||
        !checkText(record.acPassword, "password", true, failure) ||
        !checkText(record.acWorkDir, "work directory", false, failure))
    {
        return nullptr;
    }
    auto settings = std::make_shared<Settings>(record);
    const bool implicit = settings->port == kImplicitPort;
    if (!settings->tls.read(record, implicit, failure))
    {
        return nullptr;
    }
    return settings;
}

std::string serverOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record)
{
    return describe(readAddress(record.ulServerIpType, record.aucServerIp), portOf(record));
}

}  // namespace travex_ftp
