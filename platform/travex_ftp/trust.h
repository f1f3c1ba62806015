// The trust text: which certification authorities and which names are believed.
#ifndef TRAVEX_FTP_TRUST_H
#define TRAVEX_FTP_TRUST_H

#include <openssl/x509.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "failure.h"

namespace travex_ftp
{
// What a trust text says, before any file is read.
struct TrustText
{
    std::string authorities = "system";  // path of a PEM file or directory, or "system"
    std::vector<std::string> names;      // further names that the certificate may carry
    bool implicit = false;               // "tls=implicit"
};

// "key=value;key=value", "system" or a path. Throws std::bad_alloc.
bool ParseTrustText(const char* text, TrustText& trust, Failure& failure);

// Trust anchors, and the revocation lists that lie beside them. Immutable, and used by several
// threads at once.
struct Anchors
{
    std::shared_ptr<X509_STORE> store;
    // Of what was loaded: connections made under other anchors are told apart by it, also when the
    // path is the same and its content has changed.
    std::array<unsigned char, 32> digest{};
};

// Reads every certificate and revocation list of a PEM file, of all files of a directory, or opens
// the system's store. No system anchor is added to private ones. A file that is there and cannot be
// read whole is a failure: without its revocation lists too much would be believed. Throws
// std::bad_alloc.
bool LoadAnchors(const std::string& authorities, Anchors& anchors, Failure& failure);

}  // namespace travex_ftp

#endif
