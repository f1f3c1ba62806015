// SIGINT, SIGTERM and SIGHUP as events, and a last resort when the stop hangs.
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

// Receives the signals on its own thread while it lives. Make it before any other thread, so that
// all threads inherit the blocked signals. One at a time in a process.
//
// SIGINT and SIGHUP stay ignored if they were ignored at the start (as by "nohup" and "&").
class SignalWatch
{
public:
    using Handler = std::function<void(int signalNumber)>;

    // onSignal: called with the first signal. lastResort: called when the watch still lives after
    // `patience`, or when another signal comes 0.3 s after the first or later; it should end the
    // process. Both run on the watch's thread and must not throw.
    SignalWatch(Handler onSignal, Handler lastResort, std::chrono::milliseconds patience);

    // Restores the signal mask. Waits for a handler in progress.
    ~SignalWatch();

    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    void Watch();

    const Handler m_onSignal;
    const Handler m_lastResort;
    const std::chrono::milliseconds m_patience;
    sigset_t m_signals;
    sigset_t m_savedMask;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace corpdir_tool

#endif
