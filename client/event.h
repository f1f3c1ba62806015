// What a client reports to its user.
#ifndef CORPDIR_CLIENT_EVENT_H
#define CORPDIR_CLIENT_EVENT_H

#include <chrono>
#include <cstdint>
#include <string>

#include "server_names.h"
#include "transfer_event.h"

namespace client
{

// What the client does after a failure.
enum class Next
{
    kNothing,
    kSameServer,
    kOtherServer,
};

struct Event
{
    enum class Kind
    {
        kChecking,    // a transfer of the version file has begun
        kProgress,    // bytes have arrived, or the dialogue has reached another step
        kNewVersion,  // the version file was read: `version`; the directory file follows
        kUnchanged,   // the end of a check: version and local directory file are those of before
        kInvalidVersion,  // the version file was read, and is not valid: `reason`
        kDelivered,       // the end of a check: directory file and version file are in place
        kFailed,       // a transfer failed, could not be started, or a file could not be replaced
        kRefused,      // every server would refuse these settings: `code`, `reason`
        kNameFailed,   // a name in the list of servers has no address: `reason`
        kStartFailed,  // the service could not be started again: `code` as in StartError::Log()
        kPassFailed,   // the end of a check: every server failed, or no server could help;
                       // `server` and `transfer` of the last failure
        kRecovered,    // after a check that succeeded: `failures` before it
        kWaiting,      // until the next check: `wait`
        kWarning,      // `reason`
    };

    Kind kind = Kind::kChecking;
    Server server;           // empty when none is concerned
    std::string version;     // byte for byte
    bool known = false;      // of a new version: the local files have it already
    std::string path;        // of the local directory file, at the end of a check
    std::uint64_t size = 0;  // of it
    TransferEvent transfer;  // file, bytes, code, step, reply, detail, reason, timings
    std::chrono::seconds wait{0};
    Next next = Next::kNothing;    // of a failure, an invalid version, and the check after one
    bool retries = false;          // of a wait: the client makes a new request after it
    bool serverFailed = false;     // of a failure: another server may help
    Kind failure = Kind::kFailed;  // of kPassFailed: the last failure
    bool fetched = false;          // of kUnchanged: the directory file was fetched and compared
    unsigned int failures = 0;     // checks that failed in a row
};

}  // namespace client

#endif
