// Every limit of the layer, in one place.
#ifndef TRAVEX_FTP_LIMITS_H
#define TRAVEX_FTP_LIMITS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "travex_ftp.h"

namespace travex_ftp
{
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How long a peer may take and how much it may send. First that applies: what the program set by
// TRAVEX_FTP_SetLimits; the environment variable named beside a limit, a positive number of its
// unit, read once; the default. No time is longer than 20 days.
struct Limits
{
    milliseconds connect{10000};    // CORPDIR_FTP_CONNECT_MS: one TCP connection, control or data
    milliseconds handshake{10000};  // CORPDIR_FTP_HANDSHAKE_MS: one TLS handshake
    milliseconds response{20000};   // CORPDIR_FTP_RESPONSE_MS: from a command to its reply's next
                                    // line, the greeting included
    milliseconds stall{30000};      // CORPDIR_FTP_STALL_MS: window of the data channel's pace
    uint64_t stallBytes = 1024;     // CORPDIR_FTP_STALL_BYTES: least that must arrive in a window
    milliseconds confirm{60000};    // CORPDIR_FTP_CONFIRM_MS: from the end of the data channel to
                                    // the 226, which a virus scanner may delay by half a minute
    milliseconds transfer{6 * 3600 * 1000};  // CORPDIR_FTP_TRANSFER_MS: one transfer, all in all
    milliseconds idle{15000};         // CORPDIR_FTP_IDLE_MS: an unused control connection is closed
    milliseconds observe{100};        // CORPDIR_FTP_OBSERVE_MS: between two progress observations
    uint64_t fileBytes = 1ull << 34;  // CORPDIR_FTP_FILE_BYTES: 16 GiB, ends an endless file
    uint64_t replyBytes = 65536;      // CORPDIR_FTP_REPLY_BYTES: all replies of one transfer
    uint64_t replyLines = 1000;       // CORPDIR_FTP_REPLY_LINES: the same, in lines

    // Those in force now. Thread-safe.
    static Limits Current();
};

// What TRAVEX_FTP_SetLimits does; null: nothing is set. Thread-safe.
void SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits);

// How long a server may leave the data channel open once it has confirmed a complete file, and how
// long it may take to say why it broke off a data channel.
constexpr milliseconds kLastWord{1000};

// How long a login that the server refused with 530 is not tried again on a handle: repeated
// refusals would lock the account.
constexpr milliseconds kRefusedLogin{60000};

// Bytes collected before they are written to the file: the page cache takes a block for each piece,
// and fewer, larger blocks cost it less.
constexpr size_t kFilePiece = 262144;

// Bytes after which the system is told to begin writing them to the disk.
constexpr off_t kWriteBehind = 8 << 20;

}  // namespace travex_ftp

#endif
