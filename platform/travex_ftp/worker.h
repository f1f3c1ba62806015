// A thread of the layer that can be waited for in bounded time.
#ifndef TRAVEX_FTP_WORKER_H
#define TRAVEX_FTP_WORKER_H

#include <functional>
#include <thread>

#include "base/mutex.h"
#include "limits.h"

namespace travex_ftp
{
// Thread-safe. A started worker must be joined before it is destroyed, or never be destroyed.
class Worker
{
public:
    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Runs `body` on a new thread. Throws std::system_error or std::bad_alloc.
    void Start(std::function<void()> body);

    // Waits for the end of the body, for ever or until a deadline, and joins the thread. Any number
    // of callers may; not this thread itself. False when the deadline came first.
    bool Join(Clock::time_point deadline = Clock::time_point::max());

    // The body has ended: a join would not wait.
    bool Over();

    // The caller is this thread; the caller is a thread of the layer, of an earlier run perhaps.
    bool IsCaller();
    static bool CallerIsOurs();

    // The process has begun to end: threads are asked to end without touching other libraries.
    static void BeginExit();
    static bool Exiting();

    // Nobody waits for the threads any more, and the libraries are being torn down around them. A
    // thread of the layer that comes by the check then sleeps until the process is gone.
    static void EndExit();
    static void ParkAtExit();

private:
    enum class State
    {
        kIdle,
        kRunning,
        kOver,
        kJoining,
        kJoined,
    };

    base::Mutex m_mutex;
    base::CondVar m_changed;
    State m_state CORPDIR_GUARDED_BY(m_mutex) = State::kIdle;
    std::thread m_thread;  // set by Start(), used by the one caller that joins
};

}  // namespace travex_ftp

#endif
