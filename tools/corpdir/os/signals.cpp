#include "os/signals.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <utility>

namespace corpdir_tool
{

namespace
{

// Also wakes the watch's thread to end it.
constexpr int kWakeSignal = SIGTERM;

// A signal that soon after the first is the same request: timeout(1) sends one to the process and
// one to its group.
constexpr std::chrono::milliseconds kRepeatTime{300};

std::chrono::milliseconds Since(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 begin);
}

// The signal's number; -1, and errno set, when none came.
int AwaitSignal(const sigset_t& signals, std::chrono::milliseconds longest)
{
    const long milliseconds = std::max<long>(longest.count(), 0);
    const timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    return sigtimedwait(&signals, nullptr, &time);
}

void AddUnlessIgnored(int signalNumber, sigset_t& signals)
{
    struct sigaction action = {};
    (void)sigaction(signalNumber, nullptr, &action);
    if (action.sa_handler != SIG_IGN)
    {
        (void)sigaddset(&signals, signalNumber);
    }
}

sigset_t StopSignals()
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, kWakeSignal);
    AddUnlessIgnored(SIGINT, signals);
    AddUnlessIgnored(SIGHUP, signals);
    return signals;
}

}  // namespace

std::string SignalName(int signalNumber)
{
    switch (signalNumber)
    {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        default:
            return "signal " + std::to_string(signalNumber);
    }
}

SignalWatch::SignalWatch(Handler onSignal, Handler lastResort, std::chrono::milliseconds patience)
    : m_onSignal(std::move(onSignal)),
      m_lastResort(std::move(lastResort)),
      m_patience(patience),
      m_signals(StopSignals())
{
    (void)pthread_sigmask(SIG_BLOCK, &m_signals, &m_savedMask);
    m_thread = std::thread(&SignalWatch::Watch, this);
}

SignalWatch::~SignalWatch()
{
    m_ending = true;
    (void)pthread_kill(m_thread.native_handle(), kWakeSignal);
    m_thread.join();
    (void)pthread_sigmask(SIG_SETMASK, &m_savedMask, nullptr);
}

void SignalWatch::Watch()
{
    int signalNumber = 0;
    (void)sigwait(&m_signals, &signalNumber);  // fails only for a bad set
    if (m_ending)
    {
        return;
    }
    m_onSignal(signalNumber);

    const auto begin = std::chrono::steady_clock::now();
    bool isWaiting = true;
    while (isWaiting)
    {
        const int second = AwaitSignal(m_signals, m_patience - Since(begin));
        const bool isInterrupted = second < 0 && errno == EINTR;
        isWaiting = !m_ending && (isInterrupted || (second > 0 && Since(begin) < kRepeatTime));
    }
    // A second signal came, or the time is over.
    if (!m_ending)
    {
        m_lastResort(signalNumber);
    }
}

}  // namespace corpdir_tool
