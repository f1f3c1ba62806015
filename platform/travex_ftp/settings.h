// A control record, checked and copied.
#ifndef TRAVEX_FTP_SETTINGS_H
#define TRAVEX_FTP_SETTINGS_H

#include <memory>
#include <string>

#include "cipher_suites.h"
#include "failure.h"
#include "identity.h"
#include "secret.h"
#include "trust.h"

namespace travex_ftp
{
struct Address
{
    unsigned char bytes[16] = {};
    size_t length = 4;    // 4 or 16 bytes
    std::string literal;  // "192.0.2.1", "2001:db8::1"

    // The zero address, which would connect to the local host. IPv4-mapped zero included.
    bool Zero() const;

    // IPv4, or IPv4-mapped IPv6, which is IPv4 on the wire.
    bool Ipv4() const;

private:
    std::string Key() const;
};

// TLS settings of a control record. Two policies are equal when a connection made under one may
// serve the other.
struct TlsPolicy
{
    bool encrypted = false;  // control and data channel
    bool implicit = false;   // TLS from the first byte on, else AUTH TLS
    bool verify = false;     // chain, dates and identity
    CipherSuites suites;
    TrustSettings trust;
    Identity identity;     // with verify only
    TrustAnchors anchors;  // with verify only
    TRAVEX_FTP_VERIFY_CB verifyCallback = nullptr;

    bool operator==(const TlsPolicy& other) const;
};

// Immutable, and shared by the handle and by all tasks accepted with it.
struct Settings
{
    explicit Settings(const tagTRAVEX_FTP_S_CTRL_PARAM& record);

    Address server;
    unsigned int port = 21;
    std::string serverText;  // "192.0.2.1:21", "[2001:db8::1]:21"
    Address local;           // zero: the system's choice
    std::string user;
    Secret password;
    std::string workDir;
    TlsPolicy tls;

    // True: a control connection made with `other` may serve these settings. Server, login, local
    // address and TLS policy are equal; the work directory may differ.
    bool SameConnection(const Settings& other) const;

    // Server, user, password and encryption are equal.
    bool SameLogin(const Settings& other) const;
};

// Checks and copies a record, and reads the files of its trusted certificates. Null, with the
// reason, when it is refused. `added`: names that TRAVEX_FTP_SetServerName added for its address;
// `converted`: see TakeConvertedText. Throws std::bad_alloc.
std::shared_ptr<const Settings> ReadSettings(const tagTRAVEX_FTP_S_CTRL_PARAM& record,
                                             const Identity& added, const std::string& converted,
                                             Failure& failure);

// The first text that the calling thread converted to the record's server address, else empty.
// Forgets all conversions of the thread, also when the record is null.
std::string TakeConvertedText(const tagTRAVEX_FTP_S_CTRL_PARAM* record);

// The record's server address as a base::AddressKey.
std::string AddressKeyOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record);

// "192.0.2.1:21", for the report of a refused record.
std::string ServerOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record);

// True if the text has a control character, which could end a command or hide in it.
bool HasControlCharacter(const char* text);

}  // namespace travex_ftp

#endif
