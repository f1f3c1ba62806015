// SIGINT, SIGTERM, SIGHUP and SIGUSR1 as events, and a last resort when the stop hangs.
#ifndef CORPDIR_TOOL_SIGNALS_H
#define CORPDIR_TOOL_SIGNALS_H

#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace corpdir_tool
{

// "SIGTERM".
std::string SignalName(int signalNumber);

// Signals that ask for something else than the stop. An empty function: SIGUSR1 is not taken, and
// SIGHUP asks for the stop.
struct SignalRequests
{
    std::function<void()> checkNow;  // SIGUSR1
    // SIGHUP, unless standard input is a terminal: there it is the end of the terminal, and asks
    // for the stop.
    std::function<void()> reload;
};

// Receives the signals on its own thread while it lives. Make it before any other thread, so that
// all threads inherit the blocked signals. One at a time in a process.
//
// SIGINT, SIGHUP and SIGUSR1 stay ignored if they were ignored at the start (as by "nohup" and
// "&").
class SignalWatch
{
public:
    using Handler = std::function<void(int signalNumber)>;

    // onSignal: called with the first stop signal. lastResort: called when the watch still lives
    // after `patience`, or when another stop signal comes 0.3 s after the first or later; it should
    // end the process. requests: called for each such signal before the first stop signal. All run
    // on the watch's thread and must not throw.
    SignalWatch(Handler onSignal, Handler lastResort, std::chrono::milliseconds patience,
                SignalRequests requests = {});

    // Restores the signal mask, but for the signals of requests: a late one must not end the
    // process. Waits for a handler in progress.
    ~SignalWatch();

    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    void Watch();
    int AwaitStopSignal();
    bool IsRequest(int signalNumber) const;

    const Handler m_onSignal;
    const Handler m_lastResort;
    const std::chrono::milliseconds m_patience;
    const SignalRequests m_requests;
    sigset_t m_requestSignals;  // those of requests
    sigset_t m_signals;         // all that are taken
    sigset_t m_savedMask;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace corpdir_tool

#endif
