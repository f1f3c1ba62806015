#include "worker.h"

#include <unistd.h>

#include <atomic>

#include "base/signals_blocked.h"

namespace travex_ftp
{
namespace
{
// The worker that the current thread belongs to.
thread_local Worker* t_worker = nullptr;

std::atomic<bool> g_exiting{false};
std::atomic<bool> g_unwaited{false};

}  // namespace

void Worker::Start(std::function<void()> body)
{
    {
        const base::MutexLock lock(m_mutex);
        m_state = State::kRunning;
    }
    // Before the thread exists, which may be over before this function is.
    try
    {
        const base::SignalsBlocked blocked;
        m_thread = std::thread(
            [this, run = std::move(body)]
            {
                t_worker = this;
                run();
                const base::MutexLock lock(m_mutex);
                m_state = State::kOver;
                m_changed.NotifyAll();
            });
    }
    catch (...)
    {
        const base::MutexLock lock(m_mutex);
        m_state = State::kIdle;
        throw;
    }
}

// One caller joins the thread; the others wait for it, or for their deadline.
bool Worker::Join(Clock::time_point deadline)
{
    {
        const base::MutexLock lock(m_mutex);
        while (m_state == State::kRunning || m_state == State::kJoining)
        {
            if (deadline == Clock::time_point::max())
            {
                m_changed.Wait(m_mutex);
            }
            else if (!m_changed.WaitUntil(m_mutex, deadline) && m_state != State::kOver)
            {
                return false;
            }
        }
        if (m_state != State::kOver)
        {
            return true;  // never started, or joined by another caller
        }
        m_state = State::kJoining;
    }
    m_thread.join();
    const base::MutexLock lock(m_mutex);
    m_state = State::kJoined;
    m_changed.NotifyAll();
    return true;
}

bool Worker::Over()
{
    const base::MutexLock lock(m_mutex);
    return m_state != State::kRunning;
}

bool Worker::IsCaller()
{
    return t_worker == this;
}

bool Worker::CallerIsOurs()
{
    return t_worker != nullptr;
}

void Worker::BeginExit()
{
    g_exiting = true;
}

bool Worker::Exiting()
{
    return g_exiting;
}

void Worker::EndExit()
{
    g_unwaited = true;
}

void Worker::ParkAtExit()
{
    while (g_unwaited && CallerIsOurs())
    {
        (void)pause();
    }
}

}  // namespace travex_ftp
