// Events of transfers, made from the FTP layer's observations.
#ifndef CORPDIR_CLIENT_TRANSFER_EVENT_H
#define CORPDIR_CLIENT_TRANSFER_EVENT_H

#include <cstdint>
#include <string>

#include "travex_ftp.h"

namespace client
{

enum class EventKind
{
    kStep,         // a transfer has reached another step
    kAccepted,     // a transfer was accepted
    kProgress,     // bytes of a file have arrived
    kTransferred,  // a file is complete and in place
    kFailed,       // a transfer failed
    kRefused       // a transfer was refused before it began
};

struct TransferEvent
{
    EventKind kind = EventKind::kAccepted;
    unsigned int task = 0;  // of the FTP layer; 0: none
    std::string server;     // "192.0.2.1:21" or "[2001:db8::1]:21"; empty when not known
    std::string file;       // file on the server; empty when not known
    std::uint64_t bytes = 0;
    std::uint64_t total = TRAVEX_FTP_SIZE_UNKNOWN;
    unsigned int code = 0;    // tagTRAVEX_FTP_RESULT of a failure or refusal
    unsigned int step = 0;    // tagTRAVEX_FTP_STEP of a failure or step
    unsigned int reply = 0;   // number of the server reply that caused the failure; 0: none
    unsigned int detail = 0;  // tagTRAVEX_FTP_DETAIL of a failure
    std::string reason;       // in words, without the server
    tagTRAVEX_FTP_S_TIMINGS timings = {};  // of a transfer that has ended
};

// Copies everything: an observation is valid only during the observer's call. Throws
// std::bad_alloc.
TransferEvent EventOf(const tagTRAVEX_FTP_S_OBSERVATION& seen);

// True for the code of a refusal that every server would repeat with the same settings.
bool IsSettingsRefusal(unsigned int code);

// An endpoint as in TransferEvent::server without brackets and port.
std::string AddressOfEndpoint(const std::string& endpoint);

}  // namespace client

#endif
