// The trusted certificates and expected names of pcFtpCtrlInfo.
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
// The parsed text; no file is read yet.
struct TrustSettings
{
    std::string authorities = "system";  // path of a PEM file or directory, or "system"
    std::vector<std::string> names;      // names of which the certificate must carry one
    bool implicit = false;               // "tls=implicit"
};

// "key=value;key=value", "system" or a path. Throws std::bad_alloc.
bool ParseTrustSettings(const char* text, TrustSettings& trust, Failure& failure);

// Trust anchors, and the revocation lists found with them. Immutable, shared by threads.
struct TrustAnchors
{
    std::shared_ptr<X509_STORE> store;
    // Digest of the loaded certificates and lists. Connections are not reused when it differs, even
    // if the path is the same.
    std::array<unsigned char, 32> digest{};
};

// Loads every certificate and revocation list of a PEM file or of all files in a directory, or uses
// the system's store. Never combines private and system anchors. A file that cannot be read
// completely is a failure: a missing revocation list would accept too much. Throws std::bad_alloc.
bool LoadTrustAnchors(const std::string& authorities, TrustAnchors& anchors, Failure& failure);

}  // namespace travex_ftp

#endif
