#include "os/signals.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

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

sigset_t SignalsOf(const SignalRequests& requests)
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    if (requests.checkNow)
    {
        AddUnlessIgnored(SIGUSR1, signals);
    }
    if (requests.reload && isatty(STDIN_FILENO) == 0)
    {
        AddUnlessIgnored(SIGHUP, signals);
    }
    return signals;
}

sigset_t Both(const sigset_t& one, const sigset_t& other)
{
    sigset_t both;
    (void)sigorset(&both, &one, &other);
    return both;
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

SignalWatch::SignalWatch(Handler onSignal, Handler lastResort, std::chrono::milliseconds patience,
                         SignalRequests requests)
    : m_onSignal(std::move(onSignal)),
      m_lastResort(std::move(lastResort)),
      m_patience(patience),
      m_requests(std::move(requests)),
      m_requestSignals(SignalsOf(m_requests)),
      m_signals(Both(StopSignals(), m_requestSignals))
{
    (void)pthread_sigmask(SIG_BLOCK, &m_signals, &m_savedMask);
    m_thread = std::thread(&SignalWatch::Watch, this);
}

SignalWatch::~SignalWatch()
{
    m_ending = true;
    (void)pthread_kill(m_thread.native_handle(), kWakeSignal);
    m_thread.join();
    const sigset_t mask = Both(m_savedMask, m_requestSignals);
    (void)pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

bool SignalWatch::IsRequest(int signalNumber) const
{
    return sigismember(&m_requestSignals, signalNumber) == 1;
}

// Also returns when the watch ends.
int SignalWatch::AwaitStopSignal()
{
    for (;;)
    {
        int signalNumber = 0;
        (void)sigwait(&m_signals, &signalNumber);  // fails only for a bad set
        if (m_ending || !IsRequest(signalNumber))
        {
            return signalNumber;
        }
        (signalNumber == SIGUSR1 ? m_requests.checkNow : m_requests.reload)();
    }
}

void SignalWatch::Watch()
{
    const int signalNumber = AwaitStopSignal();
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
        const bool isRepeated = second > 0 && Since(begin) < kRepeatTime;
        isWaiting = !m_ending && (isInterrupted || isRepeated || IsRequest(second));
    }
    // A second stop signal came, or the time is over.
    if (!m_ending)
    {
        m_lastResort(signalNumber);
    }
}

}  // namespace corpdir_tool
