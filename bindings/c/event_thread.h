// The thread on which a client of the C library is told of events, and the queue in front of it.
#ifndef CORPDIR_C_EVENT_THREAD_H
#define CORPDIR_C_EVENT_THREAD_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "corpdir_c.h"
#include "travex_ftp.h"

namespace corpdir_c
{

// The code of this interface for one of the FTP layer.
corpdir_code CodeOf(unsigned int layerResult) noexcept;

// Thread-safe: one mutex guards all members but the thread, and is held for no call out of the
// class. A started one must be stopped and joined before it is destroyed.
//
// Events come from the service's threads, which must neither wait for the client nor lose their way
// for want of memory: an event for which there is none is counted as lost, and that is told.
class EventThread
{
public:
    explicit EventThread(corpdir_client* client);
    ~EventThread();
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
    // Delivers what waits, and what is to come, to this callback; null: to nobody.
    void Release(corpdir_event_fn callback, void* user) noexcept;
    // As Hold, for good: the thread ends when a callback in progress has returned.
    void Stop() noexcept;

    // What the FTP layer observed, and what the service told the client.
    void Push(const tagTRAVEX_FTP_S_OBSERVATION& seen) noexcept;
    void PushDelivered() noexcept;

    bool InCallback();
    void WaitForCallback();  // until none is in progress; not on this thread
    void Join();             // of a stopped one, any number of callers; not on this thread
    bool Over();             // Join would not wait

    bool IsCaller() const;
    static bool CallerIsOne();

    // A stopped one whose thread was not joined yet; under the lock of its list.
    std::shared_ptr<EventThread> nextEnded;

private:
    struct Item;

    void Run() noexcept;
    bool Take(Item& item);
    void Deliver(const Item& item);
    void Append(const Item& item);
    bool Overtake(const Item& item);
    void Clear();

    corpdir_client* const m_client;
    std::thread m_thread;  // set by Start, joined under m_joinMutex
    std::mutex m_joinMutex;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    Item* m_first = nullptr;
    Item* m_last = nullptr;
    bool m_lost = false;  // an event for which there was no memory
    bool m_held = true;
    bool m_stopping = false;
    bool m_inCallback = false;
    bool m_over = false;
    corpdir_event_fn m_callback = nullptr;
    void* m_user = nullptr;
    std::unique_ptr<Item> m_transferred;  // the file that was complete last
};

}  // namespace corpdir_c

#endif
