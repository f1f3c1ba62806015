// Events, and the one queue that carries them to the main thread.
#ifndef CORPDIR_TOOL_EVENTS_H
#define CORPDIR_TOOL_EVENTS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "commands/version_file.h"
#include "travex_ftp.h"
#include "ui/hints.h"

namespace corpdir_tool
{

enum class EventKind
{
    // From the service and the FTP layer:
    kAccepted,     // a transfer was accepted
    kProgress,     // bytes of a file have arrived
    kTransferred,  // a file is complete and in place
    kFailed,       // a transfer failed
    kRefused,      // a transfer was refused before it began
    kDelivered,    // the service reports that the directory file has arrived

    // From elsewhere:
    kResolved,      // the names of the servers have been looked up
    kCommandEnded,  // the command of --exec has ended
    kSignal,        // a signal asks the program to stop
    kDeadline,      // the wait timed out
    kOutOfMemory
};

struct Event
{
    EventKind kind = EventKind::kDeadline;
    unsigned int task = 0;  // of the FTP layer; 0: none
    std::string server;     // address of the server; empty when not known
    std::string file;       // file on the server; empty when not known
    std::uint64_t bytes = 0;
    std::uint64_t total = TRAVEX_FTP_SIZE_UNKNOWN;
    unsigned int code = 0;    // tagTRAVEX_FTP_RESULT of a failure or refusal
    unsigned int step = 0;    // tagTRAVEX_FTP_STEP of a failure
    unsigned int reply = 0;   // number of the server reply that caused the failure; 0: none
    unsigned int detail = 0;  // tagTRAVEX_FTP_DETAIL of a failure
    std::string reason;       // in words, without the server
    VersionFile version;      // content of a version file that has arrived
    tagTRAVEX_FTP_S_TIMINGS timings = {};  // of a transfer that has ended
    int number = 0;                        // the signal, or the exit status of the command
};

Failure FailureOf(const Event& event);

// "[2001:db8::1]:21" or "192.0.2.1:21" without brackets and port.
std::string AddressOfEndpoint(const std::string& endpoint);

// True when every server would refuse the same arguments.
bool IsArgumentRefusal(unsigned int code);

// The reason of such a refusal, with the option that caused it.
std::string ArgumentProblem(const Event& event);

// Thread-safe: one mutex guards all members; no other code is called while it is held.
class EventQueue
{
public:
    using Clock = std::chrono::steady_clock;

    // Appends an event. Runs in callbacks of other layers, so it never throws: when memory runs
    // out the waiting thread gets kOutOfMemory instead.
    void Push(EventKind kind, int number = 0) noexcept;

    // The same for an observation. When it completes `versionFile`, the local copy is read at once:
    // a later download may replace it before the main thread gets the event.
    void PushObservation(const tagTRAVEX_FTP_S_OBSERVATION& seen,
                         const std::string& versionFile = {},
                         const std::string& localVersionFile = {}) noexcept;

    // The next event, or kDeadline when none comes before that time. One thread waits at a time.
    Event WaitUntil(Clock::time_point deadline);

    // Removes and returns the events of a service that has been stopped; the others stay.
    std::vector<Event> TakeServiceEvents();

private:
    void Append(Event event) noexcept;
    void SetOutOfMemory() noexcept;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Event> m_events;
    bool m_outOfMemory = false;
};

}  // namespace corpdir_tool

#endif
