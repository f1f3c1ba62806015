// Events, and the one queue that carries them to the main thread.
#ifndef CORPDIR_TOOL_EVENTS_H
#define CORPDIR_TOOL_EVENTS_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "transfer_event.h"
#include "travex_ftp.h"
#include "ui/hints.h"

namespace corpdir_tool
{

struct Event
{
    enum class Kind
    {
        kTransfer,  // the FTP layer's observer was called
        kResolved,  // the names of the servers have been looked up
        kCommandEnded,
        kFailureCommandEnded,
        kSignal,       // a signal asks the program to stop
        kCheckNow,     // a signal asks for a check
        kReload,       // a signal asks for the settings to be read again
        kOutOfMemory,  // events before this one are lost
        kDeadline,     // the wait timed out
    };

    Kind kind = Kind::kDeadline;
    int number = 0;                  // the signal, or the exit status of the command
    client::TransferEvent transfer;  // its server is the address alone
};

Failure FailureOf(const client::TransferEvent& event);

// The reason of such a refusal, with the option that caused it.
std::string ArgumentProblem(const client::TransferEvent& event);

// Thread-safe: one mutex guards all members; no other code is called while it is held.
class EventQueue
{
public:
    using Clock = std::chrono::steady_clock;

    // Appends an event. Runs in callbacks of other layers, so it never throws: when memory runs
    // out the waiting thread gets kOutOfMemory instead.
    void Push(Event::Kind kind, int number = 0) noexcept;

    // The same for an observation of the FTP layer.
    void PushObservation(const tagTRAVEX_FTP_S_OBSERVATION& seen) noexcept;

    // Called after each event has been appended or lost, on any thread, with the queue locked: it
    // may set a flag. Called at once when events are waiting. Null: none.
    void SetWake(std::function<void()> wake);

    // The next event, or kDeadline when none comes before that time. One thread waits at a time.
    Event WaitUntil(Clock::time_point deadline);

    // Removes and returns the observations; the other events stay.
    std::vector<client::TransferEvent> TakeObservations();

private:
    void Append(Event event) noexcept;
    void SetOutOfMemory() noexcept;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Event> m_events;
    std::function<void()> m_wake;
    bool m_outOfMemory = false;
};

}  // namespace corpdir_tool

#endif
