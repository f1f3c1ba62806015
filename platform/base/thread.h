// Starts the layers' threads.
#ifndef CORPDIR_BASE_THREAD_H
#define CORPDIR_BASE_THREAD_H

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <functional>
#include <initializer_list>
#include <memory>
#include <system_error>
#include <utility>

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

// A thread with the program's signals blocked. A started thread is joined or detached before its
// object is destroyed. Not thread-safe.
class Thread
{
public:
    Thread() = default;

    // Starts a thread that runs `body`. `name`: static text, at most 15 bytes. Throws
    // std::system_error or std::bad_alloc. An exception that leaves the body ends the process.
    Thread(const char* name, std::function<void()> body)
    {
        auto start = std::make_unique<Start>(Start{name, std::move(body)});
        // The new thread inherits the mask, so that it never receives a signal.
        const SignalsBlocked blocked;
        const int error = pthread_create(&m_native, nullptr, Run, start.get());
        if (error != 0)
        {
            throw std::system_error(error, std::generic_category());
        }
        (void)start.release();  // Run() owns it now
        m_joinable = true;
    }

    Thread(Thread&& other) noexcept
        : m_native(other.m_native), m_joinable(std::exchange(other.m_joinable, false))
    {
    }
    Thread& operator=(Thread&& other) noexcept
    {
        std::swap(m_native, other.m_native);
        std::swap(m_joinable, other.m_joinable);
        return *this;
    }
    ~Thread()
    {
        if (m_joinable)
        {
            std::terminate();
        }
    }

    // True between the start and the join.
    bool Joinable() const
    {
        return m_joinable;
    }

    bool IsCaller() const
    {
        return m_joinable && pthread_equal(m_native, pthread_self()) != 0;
    }

    void Join()
    {
        m_joinable = false;
        (void)pthread_join(m_native, nullptr);
    }

    void Detach()
    {
        m_joinable = false;
        (void)pthread_detach(m_native);
    }

private:
    struct Start
    {
        const char* name;
        std::function<void()> body;
    };

    static void* Run(void* argument)
    {
        const std::unique_ptr<Start> start(static_cast<Start*>(argument));
        (void)pthread_setname_np(pthread_self(), start->name);  // it works without a name too
        start->body();
        return nullptr;
    }

    pthread_t m_native = {};
    bool m_joinable = false;
};

}  // namespace base

#endif
