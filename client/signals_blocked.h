// A scope in which threads are made that leave the program's signals to the program's threads.
#ifndef CORPDIR_CLIENT_SIGNALS_BLOCKED_H
#define CORPDIR_CLIENT_SIGNALS_BLOCKED_H

#include <signal.h>

namespace corpdir_shared
{

// Blocks all signals but those of faults on the calling thread, and those it makes inherit that.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        (void)sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        {
            (void)sigdelset(&blocked, fault);
        }
        (void)pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
    }
    ~SignalsBlocked()
    {
        (void)pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

}  // namespace corpdir_shared

#endif
