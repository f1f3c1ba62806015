// All limits of the layer.
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

// How long a server may take and how much it may send. In this order: TRAVEX_FTP_SetLimits; the
// environment variable named beside the limit (read once, a positive number in its unit); the
// default. Times are capped at 20 days.
struct Limits
{
    milliseconds connect{10000};    // CORPDIR_FTP_CONNECT_MS: one TCP connection, control or data
    milliseconds handshake{10000};  // CORPDIR_FTP_HANDSHAKE_MS: one TLS handshake
    milliseconds response{20000};   // CORPDIR_FTP_RESPONSE_MS: wait for the next line of a reply,
                                    // the greeting included
    milliseconds stall{30000};      // CORPDIR_FTP_STALL_MS: period in which stallBytes must arrive
    uint64_t stallBytes = 1024;     // CORPDIR_FTP_STALL_BYTES: minimum in such a period
    milliseconds confirm{60000};    // CORPDIR_FTP_CONFIRM_MS: from the end of the data channel to
                                    // the 226, which a virus scanner may delay by 30 s
    milliseconds transfer{6 * 3600 * 1000};  // CORPDIR_FTP_TRANSFER_MS: one whole transfer
    milliseconds idle{15000};   // CORPDIR_FTP_IDLE_MS: after which an idle connection is closed
    milliseconds observe{100};  // CORPDIR_FTP_OBSERVE_MS: between two progress observations
    uint64_t fileBytes = 1ull << 34;  // CORPDIR_FTP_FILE_BYTES: 16 GiB, ends an endless file
    uint64_t replyBytes = 65536;      // CORPDIR_FTP_REPLY_BYTES: all replies of one transfer
    uint64_t replyLines = 1000;       // CORPDIR_FTP_REPLY_LINES: the same, in lines

    // The limits in force now. Thread-safe.
    static Limits Current();
};

// Implements TRAVEX_FTP_SetLimits. Thread-safe.
void SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits);

// Limits::fileBytes of a program that only asks whether the server sends a file. Exceeding it is no
// error in the log.
constexpr uint64_t kProbe = 1;

// Grace period: for the server to close the data channel after the 226, and for the reply that
// explains a broken one.
constexpr milliseconds kGracePeriod{1000};

// How long a handle does not repeat a login that was refused with 530: repeated failures may lock
// the account.
constexpr milliseconds kRefusedLogin{60000};

// How long steps may wait for the observer, so that those of a quick transfer wake the notification
// thread once and not each.
constexpr milliseconds kStepDelay{100};

// Size of the file buffer: fewer, larger writes cost the page cache less.
constexpr size_t kFileBufferSize = 262144;

// Bytes after which the system is asked to start writing them to the disk.
constexpr off_t kWriteBehind = 8 << 20;

}  // namespace travex_ftp

#endif
