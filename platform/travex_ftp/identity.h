// Names and addresses that a server's certificate must carry.
#ifndef TRAVEX_FTP_IDENTITY_H
#define TRAVEX_FTP_IDENTITY_H

#include <openssl/x509.h>

#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"

namespace travex_ftp
{
// Names and addresses as normalized text. The certificate must carry one of them.
using Identity = std::vector<std::string>;

// Normalizes a listed name or address: an address to its canonical text, IPv4-mapped IPv6 to IPv4;
// a name loses its trailing dot. A text of digits, dots and colons counts as an address. False: the
// text is neither.
bool NormalizeServerName(const char* listed, std::string& normalized);

// True if a normalized text is an address.
bool IsAddress(const std::string& normalized);

// True if the certificate carries one of them (RFC 6125, 6.4): a name among its DNS entries, with a
// wildcard in the left-most label only; an address among its IP entries.
bool CertificateIsFor(X509* certificate, const Identity& identity);

// The certificate's DNS names and addresses, in its order: "dir.example, 192.0.2.1". A backslash, a
// comma and bytes that are not visible ASCII are written as a backslash and two hexadecimal digits.
// Those that do not fit into `limit` bytes become ", ...". Throws std::bad_alloc.
std::string NamesOf(X509* certificate, size_t limit);

// "192.0.2.1 or dir.example".
std::string JoinNames(const Identity& identity);

// The names that TRAVEX_FTP_SetServerName added. Thread-safe: one mutex guards them.
class ServerNames
{
public:
    // `address` is a base::AddressKey. False: the table is full. Throws std::bad_alloc.
    bool Add(const std::string& address, const std::string& normalized) CORPDIR_EXCLUDES(m_mutex);
    void Forget(const std::string& address) CORPDIR_EXCLUDES(m_mutex);
    void ForgetAll() CORPDIR_EXCLUDES(m_mutex);

    Identity Find(const std::string& address) CORPDIR_EXCLUDES(m_mutex);

private:
    base::Mutex m_mutex;
    std::multimap<std::string, std::string> m_names CORPDIR_GUARDED_BY(m_mutex);
};

}  // namespace travex_ftp

#endif
