// The thread on which a client of the C library receives events, and the queue in front of it.
#ifndef CORPDIR_C_EVENT_THREAD_H
#define CORPDIR_C_EVENT_THREAD_H

#include <deque>
#include <memory>

#include "base/mutex.h"
#include "base/thread.h"
#include "corpdir_c.h"
#include "transfer_event.h"

namespace corpdir_c
{

// The code of this interface for one of the FTP layer.
corpdir_code CodeOf(unsigned int layerResult) noexcept;

// Thread-safe: one mutex guards all members, and is not held during a callback. A started one is
// stopped and joined before it is destroyed.
//
// Events come from the service's threads, which must not wait for the client. When memory runs out
// an event is lost, and the client gets an event that says so.
class EventThread
{
public:
    explicit EventThread(corpdir_client* client);
    ~EventThread() = default;
    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;

    corpdir_client* Client() const
    {
        return m_client;
    }

    // Throws std::system_error or std::bad_alloc. Nothing is delivered before Release.
    void Start();

    // Drops what is queued; from now on no callback begins, and new events wait.
    void Hold() noexcept;
    // Delivers the waiting events, and those to come, to this callback; null: drops them.
    void Release(corpdir_event_fn callback, void* user) noexcept;
    // As Hold, for good: the thread ends when a callback in progress has returned.
    void Stop() noexcept;

    // Queue an observation of the FTP layer, and the service's report of a delivered file.
    void Push(const tagTRAVEX_FTP_S_OBSERVATION& seen) noexcept;
    void PushDelivered() noexcept;

    bool InCallback();
    void WaitForCallback();  // until no callback is in progress; not on this thread
    void Join();             // after Stop(), any number of callers; not on this thread
    bool HasEnded();         // Join() would not wait

    bool IsCaller() const;
    static bool CallerIsOne();

    // The next one in the list of those whose threads were not joined; under the lock of the list.
    std::shared_ptr<EventThread> nextEnded;

private:
    void Run() noexcept;
    bool Take(client::TransferEvent& event);
    void Deliver(const client::TransferEvent& event);
    bool IsUnwanted() const CORPDIR_REQUIRES(m_mutex);
    void Lose() CORPDIR_REQUIRES(m_mutex);
    void Append(const client::TransferEvent& event) CORPDIR_REQUIRES(m_mutex);
    bool Overtake(const client::TransferEvent& event) CORPDIR_REQUIRES(m_mutex);
    void Clear() CORPDIR_REQUIRES(m_mutex);

    corpdir_client* const m_client;

    base::Mutex m_mutex;
    base::CondVar m_changed;
    base::Thread m_thread CORPDIR_GUARDED_BY(m_mutex);
    std::deque<client::TransferEvent> m_queue CORPDIR_GUARDED_BY(m_mutex);
    // The latest file that was complete.
    client::TransferEvent m_transferred CORPDIR_GUARDED_BY(m_mutex);
    bool m_lost CORPDIR_GUARDED_BY(m_mutex) = false;  // there was no memory for an event
    bool m_held CORPDIR_GUARDED_BY(m_mutex) = true;
    bool m_stopping CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_inCallback CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_over CORPDIR_GUARDED_BY(m_mutex) = false;
    corpdir_event_fn m_callback CORPDIR_GUARDED_BY(m_mutex) = nullptr;
    void* m_user CORPDIR_GUARDED_BY(m_mutex) = nullptr;
};

}  // namespace corpdir_c

#endif
