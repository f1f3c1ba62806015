#include "event_thread.h"

#include <string.h>

#include <new>
#include <utility>

#include "base/gate.h"
#include "base/process_end.h"

namespace corpdir_c
{
static_assert(CORPDIR_ERR_CONNECT == static_cast<int>(TRAVEX_FTP_ERR_CONNECT) &&
                  CORPDIR_ERR_TLS == static_cast<int>(TRAVEX_FTP_ERR_TLS) &&
                  CORPDIR_ERR_CERTIFICATE == static_cast<int>(TRAVEX_FTP_ERR_CERT) &&
                  CORPDIR_ERR_LOGIN == static_cast<int>(TRAVEX_FTP_ERR_LOGIN) &&
                  CORPDIR_ERR_FILE == static_cast<int>(TRAVEX_FTP_ERR_FILE) &&
                  CORPDIR_ERR_REPLY == static_cast<int>(TRAVEX_FTP_ERR_REPLY) &&
                  CORPDIR_ERR_TIMEOUT == static_cast<int>(TRAVEX_FTP_ERR_TIMEOUT) &&
                  CORPDIR_ERR_PARTIAL == static_cast<int>(TRAVEX_FTP_ERR_PARTIAL) &&
                  CORPDIR_ERR_TOO_LARGE == static_cast<int>(TRAVEX_FTP_ERR_TOO_LARGE) &&
                  CORPDIR_ERR_LOCAL_FILE == static_cast<int>(TRAVEX_FTP_ERR_LOCAL_FILE) &&
                  CORPDIR_ERR_TRANSFER == static_cast<int>(TRAVEX_FTP_ERR_TRANSFER),
              "failures have the FTP layer's numbers");
static_assert(CORPDIR_SIZE_UNKNOWN == TRAVEX_FTP_SIZE_UNKNOWN, "one value for both");

namespace
{
thread_local const EventThread* t_thread = nullptr;

// Callbacks in progress, of all event threads.
base::Gate g_callbacks;

// exit() within a callback cannot wait for that callback.
void EndCallbacks(base::Clock::time_point deadline)
{
    g_callbacks.Close(EventThread::CallerIsOne() ? 1 : 0, deadline);
}

corpdir_event_kind KindOf(unsigned int observed)
{
    switch (observed)
    {
        case TRAVEX_FTP_OBSERVED_SUCCESS:
            return CORPDIR_EVENT_TRANSFERRED;
        case TRAVEX_FTP_OBSERVED_FAILED:
            return CORPDIR_EVENT_FAILED;
        case TRAVEX_FTP_OBSERVED_REFUSED:
            return CORPDIR_EVENT_REFUSED;
        default:
            return CORPDIR_EVENT_PROGRESS;
    }
}

template <std::size_t kSize>
void Copy(char (&to)[kSize], const char* from)
{
    const std::size_t length = strnlen(from, kSize - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

}  // namespace

corpdir_code CodeOf(unsigned int layerResult) noexcept
{
    switch (layerResult)
    {
        case TRAVEX_FTP_OK:
            return CORPDIR_OK;
        case TRAVEX_FTP_ERR_CIPHER:
            return CORPDIR_ERR_CIPHER;
        case TRAVEX_FTP_ERR_TRUST:
            return CORPDIR_ERR_AUTHORITIES;
        case TRAVEX_FTP_ERR_SYSTEM:
            return CORPDIR_ERR_SYSTEM;
        default:
            return layerResult >= TRAVEX_FTP_ERR_CONNECT && layerResult <= TRAVEX_FTP_ERR_TRANSFER
                       ? static_cast<corpdir_code>(layerResult)
                       : CORPDIR_ERR_REFUSED;
    }
}

EventThread::EventThread(corpdir_client* client) : m_client(client) {}

void EventThread::Start()
{
    static const bool s_registered = base::ProcessEnd::Register<base::EndStage::kEvents>(
        EndCallbacks, [] { g_callbacks.ForgetInside(); });
    if (!s_registered)
    {
        throw std::bad_alloc();
    }
    const base::MutexLock lock(m_mutex);
    m_transferred = std::make_unique<Item>();
    m_thread = base::Thread("corpdir-events", [this] { Run(); });
}

void EventThread::Hold() noexcept
{
    const base::MutexLock lock(m_mutex);
    m_held = true;
    Clear();
}

void EventThread::Release(corpdir_event_fn callback, void* user) noexcept
{
    const base::MutexLock lock(m_mutex);
    m_held = false;
    m_callback = callback;
    m_user = user;
    m_changed.NotifyAll();
}

void EventThread::Stop() noexcept
{
    const base::MutexLock lock(m_mutex);
    m_stopping = true;
    Clear();
    m_changed.NotifyAll();
}

void EventThread::Push(const tagTRAVEX_FTP_S_OBSERVATION& seen) noexcept
{
    Item item;
    item.task = seen.ulTaskID;
    item.kind = KindOf(seen.ulKind);
    item.code = CodeOf(seen.ulRet);
    item.bytes = seen.ullBytes;
    item.total = seen.ullTotal;
    Copy(item.server, seen.pcServer);
    Copy(item.file, seen.pcServerFile);
    Copy(item.reason, seen.pcReason);
    const base::MutexLock lock(m_mutex);
    if (item.kind == CORPDIR_EVENT_TRANSFERRED)
    {
        *m_transferred = item;
    }
    Append(item);
}

// The service reports it right after the FTP layer's success, on the same thread.
void EventThread::PushDelivered() noexcept
{
    const base::MutexLock lock(m_mutex);
    Item item = *m_transferred;
    item.kind = CORPDIR_EVENT_DELIVERED;
    Append(item);
}

// A progress that waits in the queue is updated: a slow callback makes no queue grow.
bool EventThread::Overtake(const Item& item)
{
    for (QueuedItem* waiting = m_queue.First(); waiting != nullptr; waiting = waiting->next.get())
    {
        if (waiting->item.kind == CORPDIR_EVENT_PROGRESS && waiting->item.task == item.task)
        {
            waiting->item.bytes = item.bytes;
            waiting->item.total = item.total;
            return true;
        }
    }
    return false;
}

void EventThread::Append(const Item& item)
{
    const bool unwanted = m_stopping || (!m_held && m_callback == nullptr);
    if (unwanted || (item.kind == CORPDIR_EVENT_PROGRESS && Overtake(item)))
    {
        return;
    }
    std::unique_ptr<QueuedItem> queued(new (std::nothrow) QueuedItem{item, nullptr});
    if (queued == nullptr)
    {
        m_lost = true;
    }
    else
    {
        m_queue.Push(std::move(queued));
    }
    m_changed.NotifyAll();
}

void EventThread::Clear()
{
    m_queue.Clear();
    m_lost = false;
}

void EventThread::Run() noexcept
{
    t_thread = this;
    Item item;
    while (Take(item))
    {
        Deliver(item);
    }
    const base::MutexLock lock(m_mutex);
    m_over = true;
    m_changed.NotifyAll();
}

// Waits for an event that may be delivered; the callback counts as in progress from here on. A loss
// is reported first. False: the thread is to end.
bool EventThread::Take(Item& item)
{
    const base::MutexLock lock(m_mutex);
    m_inCallback = false;
    m_changed.NotifyAll();
    while (!m_stopping && (m_held || (!m_lost && m_queue.IsEmpty())))
    {
        m_changed.Wait(m_mutex);
    }
    if (m_stopping)
    {
        return false;
    }
    m_inCallback = true;
    if (m_lost)
    {
        m_lost = false;
        item = Item();
        return true;
    }
    item = m_queue.Pop()->item;
    return true;
}

// Callback and user do not change meanwhile: a caller that changes them waits for the callback
// first, or is called by it.
void EventThread::Deliver(const Item& item)
{
    corpdir_event_fn callback = nullptr;
    void* user = nullptr;
    {
        const base::MutexLock lock(m_mutex);
        callback = m_callback;
        user = m_user;
    }
    if (callback == nullptr || !g_callbacks.Enter())
    {
        return;
    }
    corpdir_event event = {};
    event.size = sizeof event;
    event.kind = item.kind;
    event.code = item.code;
    event.server = item.server;
    event.file = item.file;
    event.reason = item.reason;
    event.bytes = item.bytes;
    event.total = item.total;
    callback(user, &event);
    g_callbacks.Leave();
}

bool EventThread::InCallback()
{
    const base::MutexLock lock(m_mutex);
    return m_inCallback;
}

void EventThread::WaitForCallback()
{
    const base::MutexLock lock(m_mutex);
    while (m_inCallback)
    {
        m_changed.Wait(m_mutex);
    }
}

// The thread marks its end in its last section under the mutex, so the join within it is short.
void EventThread::Join()
{
    const base::MutexLock lock(m_mutex);
    while (!m_over)
    {
        m_changed.Wait(m_mutex);
    }
    if (m_thread.Joinable())
    {
        m_thread.Join();
    }
}

bool EventThread::Over()
{
    const base::MutexLock lock(m_mutex);
    return m_over;
}

bool EventThread::IsCaller() const
{
    return t_thread == this;
}

bool EventThread::CallerIsOne()
{
    return t_thread != nullptr;
}

}  // namespace corpdir_c
