// Every limit of the layer, in one place.
#ifndef TRAVEX_FTP_LIMITS_H
#define TRAVEX_FTP_LIMITS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace travex_ftp
{
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How long a peer may take and how much it may send. The environment variable named beside a limit
// overrides it, as a positive number of its unit; it is read at TRAVEX_FTP_Init. No time is longer
// than 20 days.
struct Limits
{
    milliseconds connect{10000};    // CORPDIR_FTP_CONNECT_MS: one TCP connection, control or data
    milliseconds handshake{10000};  // CORPDIR_FTP_HANDSHAKE_MS: one TLS handshake; some hold up
                                    // all transfers, as the wait for the 226 does
    milliseconds response{20000};   // CORPDIR_FTP_RESPONSE_MS: from a command to its reply's next
                                    // line, the greeting included
    milliseconds stall{30000};      // CORPDIR_FTP_STALL_MS: window of the data channel's pace
    uint64_t stallBytes = 1024;     // CORPDIR_FTP_STALL_BYTES: least that must arrive in a window
    milliseconds confirm{5000};     // CORPDIR_FTP_CONFIRM_MS, in effect whole seconds: from the end
                                    // of the data channel to the 226. Short, since libcurl waits
                                    // for it in a blocking call, which holds up all transfers
    milliseconds transfer{6 * 3600 * 1000};  // CORPDIR_FTP_TRANSFER_MS: one transfer, all in all
    milliseconds idle{15000};         // CORPDIR_FTP_IDLE_MS: an unused control connection is closed
    milliseconds observe{100};        // CORPDIR_FTP_OBSERVE_MS: between two progress observations
    uint64_t fileBytes = 1ull << 34;  // CORPDIR_FTP_FILE_BYTES: 16 GiB, ends an endless file
    uint64_t replyBytes = 65536;      // CORPDIR_FTP_REPLY_BYTES: all replies of one transfer
    uint64_t replyLines = 1000;       // CORPDIR_FTP_REPLY_LINES: the same, in lines
    uint64_t connections = 64;        // CORPDIR_FTP_CONNECTIONS: control connections at a time, at
                                      // most 4096

    static Limits fromEnvironment();
};

// Connections to one server that it has not greeted yet. Its queue may be no longer than 32.
constexpr size_t kProving = 16;

// At process exit nothing of the layer is waited for longer than this.
constexpr milliseconds kExitPatience{1000};

// Bytes collected before they are written to the file: libcurl hands out 16 KB at a time. More
// would make the page cache take larger blocks of memory, which a virtual machine is more likely to
// have given back to its host: getting them again takes longer than all the rest.
constexpr size_t kFilePiece = 65536;

// Bytes after which the system is told to begin writing them to the disk.
constexpr off_t kWriteBehind = 8 << 20;

// Receive buffer of libcurl, per control connection in use. The fewer reads, the fewer wake-ups;
// scripts/bench shows it.
constexpr long kReceiveBuffer = 524288;

}  // namespace travex_ftp

#endif
