// A thread of the layer that can be waited for in bounded time.
#ifndef TRAVEX_FTP_WORKER_H
#define TRAVEX_FTP_WORKER_H

#include <functional>

#include "base/mutex.h"
#include "base/thread.h"
#include "limits.h"

namespace travex_ftp
{
// Thread-safe. A started worker is joined before it is destroyed, or never destroyed.
class Worker
{
public:
    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Runs `body` on a new thread with this name. Once only. Throws std::system_error or
    // std::bad_alloc.
    void Start(const char* name, std::function<void()> body) CORPDIR_EXCLUDES(m_mutex);

    // Waits for the end of the body, for ever or until a deadline, and joins the thread if it has
    // ended. Any number of callers may call it; on this worker's thread it does nothing.
    void Join(Clock::time_point deadline = Clock::time_point::max()) CORPDIR_EXCLUDES(m_mutex);

    // The body has ended, or was not started: a join would not wait.
    bool HasEnded() CORPDIR_EXCLUDES(m_mutex);

    // True on this worker's thread; true on any worker's thread.
    bool IsCaller();
    static bool CallerIsOurs();

    // Does not return once the process has ended the transfers' stage: libraries are torn down.
    static void ParkAtExit();

private:
    base::Mutex m_mutex;
    base::CondVar m_ended;
    bool m_running CORPDIR_GUARDED_BY(m_mutex) = false;
    base::Thread m_thread CORPDIR_GUARDED_BY(m_mutex);
};

}  // namespace travex_ftp

#endif
