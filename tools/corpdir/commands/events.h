// What happens while the program waits, and the one queue that carries it to the main thread.
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

namespace corpdir_tool
{

enum class EventKind
{
    // Of the service:
    ACCEPTED,       // a transfer is to begin
    PROGRESS,       // bytes of a file have arrived
    TRANSFERRED,    // a file is complete and in place
    FAILED,         // a transfer failed
    REFUSED,        // a transfer was refused before it began
    DELIVERED,      // the service says that the directory file has arrived
                    // Others:
    RESOLVED,       // the names of the servers have been looked up
    COMMAND_ENDED,  // a command that was run for a new file has ended
    SIGNAL,         // the program is asked to stop
    DEADLINE,       // the time that a wait was given is over
    OUT_OF_MEMORY
};

struct Event
{
    EventKind kind = EventKind::DEADLINE;
    unsigned int task = 0;  // of the FTP layer; 0: none
    std::string server;     // address of the server; empty when not known
    std::string file;       // file on the server; empty when not known
    std::uint64_t bytes = 0;
    std::uint64_t total = TRAVEX_FTP_SIZE_UNKNOWN;
    unsigned int code = 0;    // tagTRAVEX_FTP_RESULT of a failure or refusal
    unsigned int step = 0;    // tagTRAVEX_FTP_STEP of a failure
    unsigned int reply = 0;   // number of the server's reply that caused it; 0: none did
    unsigned int detail = 0;  // tagTRAVEX_FTP_DETAIL of it
    std::string reason;       // in words, without the server
    VersionFile version;      // what a version file held when it had arrived
    tagTRAVEX_FTP_S_TIMINGS timings = {};  // of a transfer that is over
    int number = 0;                        // the signal, or the exit status of the command
};

// "[2001:db8::1]:21" or "192.0.2.1:21" without brackets and port.
std::string AddressOfEndpoint(const std::string& endpoint);

// No server would do better with the same arguments.
bool IsArgumentRefusal(unsigned int code);

// The reason of such a refusal, with the option that is to blame.
std::string ArgumentProblem(const Event& event);

// Thread-safe: one mutex guards all members and is held for no call out of the class.
class EventQueue
{
public:
    using Clock = std::chrono::steady_clock;

    // Appends an event. Runs in callbacks of other layers, so it never throws: when memory runs
    // out the waiting thread gets OUT_OF_MEMORY instead.
    void Push(Event event) noexcept;
    void PushKind(EventKind kind) noexcept;
    void PushNumber(EventKind kind, int number) noexcept;
    void PushObservation(const tagTRAVEX_FTP_S_OBSERVATION& seen) noexcept;

    // The same for an observer of the service: a version file that has arrived is read here and
    // now, as the service will do next, since a later one may replace it before the event is looked
    // at.
    void PushObservation(const tagTRAVEX_FTP_S_OBSERVATION& seen, const std::string& versionFile,
                         const std::string& localVersionFile) noexcept;

    // The next event, or DEADLINE when there is none before that time. One thread waits at a time.
    Event WaitUntil(Clock::time_point deadline);

    // Removes and returns all events of a service that has been stopped; others stay.
    std::vector<Event> TakeServiceEvents();

private:
    void SetOutOfMemory() noexcept;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Event> m_events;
    bool m_outOfMemory = false;
};

}  // namespace corpdir_tool

#endif
