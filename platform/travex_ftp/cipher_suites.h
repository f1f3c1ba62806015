// The cipher suites of a control record in OpenSSL's terms.
#ifndef TRAVEX_FTP_CIPHER_SUITES_H
#define TRAVEX_FTP_CIPHER_SUITES_H

#include <openssl/ssl.h>

#include <string>

#include "failure.h"

namespace travex_ftp
{
// Exactly the suites that were asked for. The protocol versions follow from them: a version for
// which no suite is left is not offered. Immutable once chosen.
struct CipherSuites
{
    std::string tls12;    // names for TLS 1.2, separated by ":"
    std::string tls13;    // names for TLS 1.3
    bool chosen = false;  // false: OpenSSL's default suites

    bool operator==(const CipherSuites& other) const
    {
        return chosen == other.chosen && tls12 == other.tls12 && tls13 == other.tls13;
    }

    // Makes a context offer these suites and versions. Never anything older than TLS 1.2.
    bool Apply(SSL_CTX* context) const;
};

// Looks the identifiers up. Refused by identifier: one that OpenSSL does not know, one without
// encryption or without authentication, and one that the system's security level would drop in
// silence. Throws std::bad_alloc.
bool ChooseSuites(const int* identifiers, unsigned int count, CipherSuites& suites,
                  Failure& failure);

// Calls back for each suite that chooseSuites would take. False when OpenSSL fails.
bool ListSuites(TRAVEX_FTP_CIPHER_CB callback, void* user);

}  // namespace travex_ftp

#endif
