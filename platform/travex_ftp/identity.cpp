#include "identity.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "base/resolved_names.h"
#include "openssl_ptr.h"

namespace travex_ftp
{
namespace
{
constexpr size_t kMostNames = 65536;
constexpr size_t kLongestName = 253;  // RFC 1035, without the trailing dot

std::string AddressText(const std::string& key)
{
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(key.size() == 16 ? AF_INET6 : AF_INET, key.data(), text, sizeof text);
    return text;
}

// inet_aton also accepts short forms such as "10.1".
bool ReadAddress(const char* listed, std::string& normalized)
{
    unsigned char bytes[16];
    const bool v6 = inet_pton(AF_INET6, listed, bytes) == 1;
    in_addr v4{};
    const bool digits = strspn(listed, "0123456789.") == strlen(listed);
    if (!v6 && (!digits || inet_aton(listed, &v4) != 1))
    {
        return false;
    }
    normalized =
        AddressText(v6 ? base::AddressKey(AF_INET6, bytes) : base::AddressKey(AF_INET, &v4));
    return true;
}

std::string BytesOf(const ASN1_STRING* text)
{
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
            static_cast<size_t>(ASN1_STRING_length(text))};
}

// With the escapes of RFC 4514 for all that could be mistaken for something else in a list.
std::string EscapedName(const std::string& name)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char each : name)
    {
        const auto byte = static_cast<unsigned char>(each);
        if (byte > ' ' && byte < 0x7f && byte != '\\' && byte != ',')
        {
            escaped += each;
        }
        else
        {
            escaped.append({'\\', kDigits[byte >> 4], kDigits[byte & 0x0f]});
        }
    }
    return escaped;
}

// Empty for other kinds of names, and for an address of another length.
std::string TextOf(const GENERAL_NAME* name)
{
    if (name->type == GEN_DNS)
    {
        return EscapedName(BytesOf(name->d.dNSName));
    }
    const std::string key = name->type == GEN_IPADD ? BytesOf(name->d.iPAddress) : "";
    return key.size() == 4 || key.size() == 16 ? AddressText(key) : "";
}

}  // namespace

bool NormalizeServerName(const char* listed, std::string& normalized)
{
    const size_t length = strnlen(listed, kLongestName + 2);
    if (ReadAddress(listed, normalized))
    {
        return true;
    }
    const bool addressLike = strspn(listed, "0123456789.:") == length;
    const bool anySubdomain = *listed == '.';  // OpenSSL would match every subdomain
    const bool zone = strchr(listed, '%') != nullptr;
    const bool control = std::any_of(
        listed, listed + length, [](unsigned char byte) { return byte <= ' ' || byte == 0x7f; });
    if (addressLike || anySubdomain || zone || control)
    {
        return false;
    }
    const bool dot = length != 0 && listed[length - 1] == '.';
    normalized.assign(listed, length - (dot ? 1 : 0));
    return !normalized.empty() && normalized.size() <= kLongestName;
}

bool IsAddress(const std::string& normalized)
{
    unsigned char bytes[16];
    return inet_pton(AF_INET, normalized.c_str(), bytes) == 1 ||
           inet_pton(AF_INET6, normalized.c_str(), bytes) == 1;
}

bool CertificateIsFor(X509* certificate, const Identity& identity)
{
    constexpr unsigned int kDnsEntriesOnly =
        X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS;
    return std::any_of(identity.begin(), identity.end(),
                       [certificate](const std::string& one)
                       {
                           return IsAddress(one)
                                      ? X509_check_ip_asc(certificate, one.c_str(), 0) == 1
                                      : X509_check_host(certificate, one.data(), one.size(),
                                                        kDnsEntriesOnly, nullptr) == 1;
                       });
}

std::string NamesOf(X509* certificate, size_t limit)
{
    ERR_set_mark();  // an error left behind would look like one of the handshake
    const OpensslPtr<GENERAL_NAMES> names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    ERR_pop_to_mark();
    std::string joined;
    const std::string separator = ", ";
    const int count = names != nullptr ? sk_GENERAL_NAME_num(names.get()) : 0;
    for (int i = 0; i != count; ++i)
    {
        const std::string text = TextOf(sk_GENERAL_NAME_value(names.get(), i));
        joined += (joined.empty() || text.empty() ? "" : separator) + text;
    }
    if (joined.size() > limit)
    {
        const std::string mark = separator + "...";
        const std::size_t end =
            limit < mark.size() ? std::string::npos : joined.rfind(separator, limit - mark.size());
        joined = end == std::string::npos ? "" : joined.substr(0, end) + mark;
    }
    return joined;
}

std::string JoinNames(const Identity& identity)
{
    std::string names;
    for (const std::string& one : identity)
    {
        names.append(names.empty() ? "" : " or ").append(one);
    }
    return names;
}

bool ServerNames::Add(const std::string& address, const std::string& normalized)
{
    const base::MutexLock lock(m_mutex);
    const auto range = m_names.equal_range(address);
    const bool known =
        std::any_of(range.first, range.second,
                    [&normalized](const auto& entry) { return entry.second == normalized; });
    if (!known && m_names.size() == kMostNames)
    {
        return false;
    }
    if (!known)
    {
        m_names.emplace(address, normalized);  // after the earlier ones
    }
    return true;
}

void ServerNames::Forget(const std::string& address)
{
    const base::MutexLock lock(m_mutex);
    m_names.erase(address);
}

void ServerNames::ForgetAll()
{
    const base::MutexLock lock(m_mutex);
    m_names.clear();
}

Identity ServerNames::Find(const std::string& address)
{
    const base::MutexLock lock(m_mutex);
    const auto range = m_names.equal_range(address);
    Identity found;
    std::transform(range.first, range.second, std::back_inserter(found),
                   [](const auto& entry) { return entry.second; });
    return found;
}

}  // namespace travex_ftp
