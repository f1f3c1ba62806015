#include "worker.h"

#include <utility>

#include "base/process_end.h"

namespace travex_ftp
{
namespace
{
// The worker that the current thread belongs to.
thread_local Worker* t_worker = nullptr;

}  // namespace

void Worker::Start(const char* name, std::function<void()> body)
{
    const base::MutexLock lock(m_mutex);
    m_thread = base::Thread(name,
                            [this, run = std::move(body)]
                            {
                                t_worker = this;
                                run();
                                const base::MutexLock end(m_mutex);
                                m_running = false;
                                m_ended.NotifyAll();
                            });
    m_running = true;
}

// The thread clears m_running in its last step, so joining it after that is short.
void Worker::Join(Clock::time_point deadline)
{
    const base::MutexLock lock(m_mutex);
    while (m_running && !IsCaller())
    {
        if (deadline == Clock::time_point::max())
        {
            m_ended.Wait(m_mutex);
        }
        else if (!m_ended.WaitUntil(m_mutex, deadline) && m_running)
        {
            return;
        }
    }
    if (!m_running && m_thread.Joinable())
    {
        m_thread.Join();
    }
}

bool Worker::HasEnded()
{
    const base::MutexLock lock(m_mutex);
    return !m_running;
}

bool Worker::IsCaller()
{
    return t_worker == this;
}

bool Worker::CallerIsOurs()
{
    return t_worker != nullptr;
}

void Worker::ParkAtExit()
{
    if (CallerIsOurs() && base::ProcessEnd::IsOver(base::EndStage::kTransfers))
    {
        base::ProcessEnd::HoldCaller();
    }
}

}  // namespace travex_ftp
