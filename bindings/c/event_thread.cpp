#include "event_thread.h"

#include <new>
#include <utility>

#include "base/gate.h"
#include "base/process_end.h"

namespace corpdir_c
{
using client::EventKind;

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
static_assert(CORPDIR_EVENT_PROGRESS == static_cast<int>(client::EventKind::kProgress) &&
                  CORPDIR_EVENT_TRANSFERRED == static_cast<int>(client::EventKind::kTransferred) &&
                  CORPDIR_EVENT_FAILED == static_cast<int>(client::EventKind::kFailed) &&
                  CORPDIR_EVENT_REFUSED == static_cast<int>(client::EventKind::kRefused) &&
                  CORPDIR_EVENT_DELIVERED == static_cast<int>(client::EventKind::kDelivered) &&
                  CORPDIR_EVENT_LOST == static_cast<int>(client::EventKind::kOutOfMemory),
              "events have the client layer's numbers");

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
    const base::MutexLock lock(m_mutex);
    if (seen.ulKind == TRAVEX_FTP_OBSERVED_SUCCESS)
    {
        // What remains known when memory runs out below.
        m_transferred = client::TransferEvent();
        m_transferred.bytes = seen.ullBytes;
        m_transferred.total = seen.ullTotal;
    }
    try
    {
        const client::TransferEvent event = client::EventOf(seen);
        if (event.kind == EventKind::kTransferred)
        {
            client::TransferEvent copy = event;
            m_transferred = std::move(copy);
        }
        Append(event);
    }
    catch (const std::bad_alloc&)
    {
        Lose();
    }
}

// The service reports it right after the FTP layer's success, on the same thread.
void EventThread::PushDelivered() noexcept
{
    const base::MutexLock lock(m_mutex);
    try
    {
        client::TransferEvent event = m_transferred;
        event.kind = EventKind::kDelivered;
        Append(event);
    }
    catch (const std::bad_alloc&)
    {
        Lose();
    }
}

// A progress that waits in the queue is updated: a slow callback makes no queue grow.
bool EventThread::Overtake(const client::TransferEvent& event)
{
    for (client::TransferEvent& waiting : m_queue)
    {
        if (waiting.kind == EventKind::kProgress && waiting.task == event.task)
        {
            waiting.bytes = event.bytes;
            waiting.total = event.total;
            return true;
        }
    }
    return false;
}

bool EventThread::IsUnwanted() const
{
    return m_stopping || (!m_held && m_callback == nullptr);
}

void EventThread::Append(const client::TransferEvent& event)
{
    if (!IsUnwanted() && !(event.kind == EventKind::kProgress && Overtake(event)))
    {
        m_queue.push_back(event);
        m_changed.NotifyAll();
    }
}

void EventThread::Lose()
{
    m_lost = m_lost || !IsUnwanted();
    m_changed.NotifyAll();
}

void EventThread::Clear()
{
    m_queue.clear();
    m_lost = false;
}

void EventThread::Run() noexcept
{
    t_thread = this;
    client::TransferEvent event;
    while (Take(event))
    {
        Deliver(event);
    }
    const base::MutexLock lock(m_mutex);
    m_over = true;
    m_changed.NotifyAll();
}

// Waits for an event that may be delivered; the callback counts as in progress from here on. A loss
// is reported first. False: the thread is to end.
bool EventThread::Take(client::TransferEvent& event)
{
    const base::MutexLock lock(m_mutex);
    m_inCallback = false;
    m_changed.NotifyAll();
    while (!m_stopping && (m_held || (!m_lost && m_queue.empty())))
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
        event = client::TransferEvent();
        event.kind = EventKind::kOutOfMemory;
        return true;
    }
    event = std::move(m_queue.front());
    m_queue.pop_front();
    return true;
}

// Callback and user do not change meanwhile: a caller that changes them waits for the callback
// first, or is called by it.
void EventThread::Deliver(const client::TransferEvent& event)
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
    corpdir_event record = {};
    record.size = sizeof record;
    record.kind = static_cast<corpdir_event_kind>(event.kind);
    record.code = CodeOf(event.code);
    record.server = event.server.c_str();
    record.file = event.file.c_str();
    record.reason = event.reason.c_str();
    record.bytes = event.bytes;
    record.total = event.total;
    callback(user, &record);
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

bool EventThread::HasEnded()
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
