// For whom a server's certificate must be.
#ifndef TRAVEX_FTP_IDENTITY_H
#define TRAVEX_FTP_IDENTITY_H

#include <openssl/x509.h>

#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"

namespace travex_ftp
{
// Names and addresses as text, in the form in which they are compared. The certificate must be for
// one of them.
using Identity = std::vector<std::string>;

// A listed text in the form in which it is compared: an address in its usual form (an IPv4 address
// mapped into IPv6 as IPv4; a text of digits, dots and colons counts as one), a name without its
// trailing dot. False: neither.
bool NormalizeServerName(const char* listed, std::string& normalized);

// The text is an address; given in the form of NormalizeServerName.
bool IsAddress(const std::string& normalized);

// The certificate is for one of them (RFC 6125, 6.4): names by its DNS entries, with a wildcard in
// the left-most label, addresses by its IP entries.
bool CertificateIsFor(X509* certificate, const Identity& identity);

// "192.0.2.1 nor for dir.example", for a sentence.
std::string InWords(const Identity& identity);

// What TRAVEX_FTP_SetServerName added. Thread-safe.
class ServerNames
{
public:
    // Addresses are keys of base::AddressKey. False: the table is full. Throws std::bad_alloc.
    bool Add(const std::string& address, const std::string& normalized) CORPDIR_EXCLUDES(m_mutex);
    void Forget(const std::string& address) CORPDIR_EXCLUDES(m_mutex);
    void ForgetAll() CORPDIR_EXCLUDES(m_mutex);

    Identity Of(const std::string& address) CORPDIR_EXCLUDES(m_mutex);

private:
    base::Mutex m_mutex;
    std::map<std::string, Identity> m_names CORPDIR_GUARDED_BY(m_mutex);
    size_t m_count CORPDIR_GUARDED_BY(m_mutex) = 0;
};

}  // namespace travex_ftp

#endif
