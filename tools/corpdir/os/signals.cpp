#include "os/signals.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <utility>

namespace corpdir_tool
{

namespace
{

// Also wakes the watch's thread to end it.
constexpr int kWakeSignal = SIGTERM;

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

    const timespec patience = {m_patience.count() / 1000, m_patience.count() % 1000 * 1000000};
    int second = -1;
    do
    {
        second = sigtimedwait(&m_signals, nullptr, &patience);
    } while (second < 0 && errno == EINTR);
    // A second signal came, or the time is over.
    if (!m_ending)
    {
        m_lastResort(signalNumber);
    }
}

}  // namespace corpdir_tool
