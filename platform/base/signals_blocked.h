// A scope in which threads are made that leave the program's signals to the program's threads.
#ifndef CORPDIR_BASE_SIGNALS_BLOCKED_H
#define CORPDIR_BASE_SIGNALS_BLOCKED_H

#include <signal.h>

#include <initializer_list>

namespace base
{
// Blocks all signals except those of faults on the calling thread; threads that it makes inherit
// the mask. SIGPIPE and SIGXFSZ are among the blocked: both become errors of the write.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        (void)sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
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

}  // namespace base

#endif
