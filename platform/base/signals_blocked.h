// A scope in which threads are made that leave the program's signals to the program's threads.
#ifndef CORPDIR_BASE_SIGNALS_BLOCKED_H
#define CORPDIR_BASE_SIGNALS_BLOCKED_H

#include <signal.h>

#include <initializer_list>

namespace base
{
// Blocks all signals but those of faults on the calling thread, and those it makes inherit that.
// SIGPIPE must not end the process: OpenSSL writes to sockets without MSG_NOSIGNAL.
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

}  // namespace base

#endif
