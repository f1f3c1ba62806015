// The cipher suites of a control record, as OpenSSL names.
#ifndef TRAVEX_FTP_CIPHER_SUITES_H
#define TRAVEX_FTP_CIPHER_SUITES_H

#include <openssl/ssl.h>

#include <string>

#include "failure.h"

namespace travex_ftp
{
// The suites to offer, and no others. The protocol versions follow from them: a version without a
// suite is not offered.
struct CipherSuites
{
    std::string tls12;    // names for TLS 1.2, separated by ":"
    std::string tls13;    // names for TLS 1.3
    bool chosen = false;  // false: OpenSSL's default suites

    bool operator==(const CipherSuites& other) const
    {
        return chosen == other.chosen && tls12 == other.tls12 && tls13 == other.tls13;
    }

    // Makes a context offer these suites and versions. Never older than TLS 1.2.
    bool Apply(SSL_CTX* context) const;
};

// Looks up the identifiers. Refuses one that OpenSSL does not know, one without encryption or
// authentication, and one that the system's security level would silently drop. Throws
// std::bad_alloc.
bool ChooseSuites(const int* identifiers, unsigned int count, CipherSuites& suites,
                  Failure& failure);

// Calls back for each suite that ChooseSuites accepts. False when OpenSSL fails.
bool ListSuites(TRAVEX_FTP_CIPHER_CB callback, void* user);

}  // namespace travex_ftp

#endif
