// A control record, checked and copied.
#ifndef TRAVEX_FTP_SETTINGS_H
#define TRAVEX_FTP_SETTINGS_H

#include <memory>
#include <string>

#include "failure.h"
#include "secret.h"
#include "tls_policy.h"

namespace travex_ftp
{
// An address of the record: as bytes for the certificate, as text for sentences.
struct Address
{
    unsigned char bytes[16] = {};
    size_t length = 4;    // 4 or 16 bytes
    std::string literal;  // "192.0.2.1", "2001:db8::1"

    // Of no use as a peer: connecting to it would reach the local host.
    bool Zero() const;

    // Also one that is mapped into IPv6: the wire has IPv4.
    bool Ipv4() const;
};

// Immutable, and shared by the handle and by all tasks accepted with it.
struct Settings
{
    explicit Settings(const tagTRAVEX_FTP_S_CTRL_PARAM& record);

    Address server;
    unsigned int port = 21;
    std::string serverText;  // "192.0.2.1:21", "[2001:db8::1]:21": names the server in sentences
    Address local;           // zero: the system's choice
    std::string user;
    Secret password;
    std::string workDir;
    TlsPolicy tls;

    // A control connection made with the other settings serves these too: the same server, user,
    // local address and security. The work directory does not matter.
    bool SameConnection(const Settings& other) const;

    // The same server, user and password, in clear or encrypted.
    bool SameLogin(const Settings& other) const;
};

// Checks and copies a record; null, with the reason, when it is refused. `added` is what
// TRAVEX_FTP_SetServerName added for its address, `converted` the text from which the calling
// thread got it. Throws std::bad_alloc.
std::shared_ptr<const Settings> ReadSettings(const tagTRAVEX_FTP_S_CTRL_PARAM& record,
                                             const Identity& added, const std::string& converted,
                                             Failure& failure);

// The text that the calling thread converted first to the record's server address, else empty. The
// thread's conversions are forgotten, also when there is no record.
std::string TakeConvertedText(const tagTRAVEX_FTP_S_CTRL_PARAM* record);

// The record's server address, as base::AddressKey has it.
std::string AddressKeyOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record);

// "192.0.2.1:21" as far as the record gives it, for the observation of a refusal.
std::string ServerOf(const tagTRAVEX_FTP_S_CTRL_PARAM& record);

// A byte that may end a command or hide in it.
bool HasControlByte(const char* text);

}  // namespace travex_ftp

#endif
