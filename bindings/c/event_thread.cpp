#include "event_thread.h"

#include <pthread.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <initializer_list>
#include <new>

#include "base/signals_blocked.h"

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

constexpr std::chrono::seconds EXIT_PATIENCE{1};
constexpr std::chrono::milliseconds EXIT_POLL{1};

thread_local const EventThread* t_thread = nullptr;

// Callbacks in progress, and whether the process is ending. In this order a callback that begins
// beside the end is either seen there or sees it.
std::atomic<unsigned int> g_callbacks{0};
std::atomic<bool> g_exiting{false};

void LetNoCallbackBegin()
{
    g_exiting = true;
    // exit() within a callback cannot wait for that callback.
    const unsigned int own = EventThread::CallerIsOne() ? 1 : 0;
    const auto deadline = std::chrono::steady_clock::now() + EXIT_PATIENCE;
    while (g_callbacks > own && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::sleep_for(EXIT_POLL);
    }
}

class CallbackCount
{
public:
    CallbackCount()
    {
        ++g_callbacks;
    }
    ~CallbackCount()
    {
        --g_callbacks;
    }
    CallbackCount(const CallbackCount&) = delete;
    CallbackCount& operator=(const CallbackCount&) = delete;
};

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

template <std::size_t SIZE>
void Copy(char (&to)[SIZE], const char* from)
{
    const std::size_t length = strnlen(from, SIZE - 1);
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

// An event with its texts. The bounds are those of the FTP layer.
struct EventThread::Item
{
    Item* next = nullptr;
    unsigned int task = 0;
    corpdir_event_kind kind = CORPDIR_EVENT_LOST;
    corpdir_code code = CORPDIR_OK;
    std::uint64_t bytes = 0;
    std::uint64_t total = CORPDIR_SIZE_UNKNOWN;
    char server[64] = "";
    char file[256] = "";
    char reason[512] = "";
};

EventThread::EventThread(corpdir_client* client) : m_client(client) {}

EventThread::~EventThread()
{
    Clear();
}

void EventThread::Start()
{
    static const bool registered = std::atexit(LetNoCallbackBegin) == 0;
    if (!registered)
    {
        throw std::bad_alloc();
    }
    m_transferred = std::make_unique<Item>();
    const base::SignalsBlocked blocked;
    m_thread = std::thread([this] { Run(); });
    (void)pthread_setname_np(m_thread.native_handle(), "corpdir-events");
}

void EventThread::Hold() noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = true;
    Clear();
}

void EventThread::Release(corpdir_event_fn callback, void* user) noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = false;
    m_callback = callback;
    m_user = user;
    m_changed.notify_all();
}

void EventThread::Stop() noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
    Clear();
    m_changed.notify_all();
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
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (item.kind == CORPDIR_EVENT_TRANSFERRED)
    {
        *m_transferred = item;
    }
    Append(item);
}

// The service tells it right after the FTP layer's success, on the same thread.
void EventThread::PushDelivered() noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Item item = *m_transferred;
    item.kind = CORPDIR_EVENT_DELIVERED;
    Append(item);
}

// A progress that waits in the queue is brought up to date: a slow callback makes no queue grow.
bool EventThread::Overtake(const Item& item)
{
    for (Item* waiting = m_first; waiting != nullptr; waiting = waiting->next)
    {
        if (waiting->kind == CORPDIR_EVENT_PROGRESS && waiting->task == item.task)
        {
            waiting->bytes = item.bytes;
            waiting->total = item.total;
            return true;
        }
    }
    return false;
}

void EventThread::Append(const Item& item)
{
    const bool toNobody = !m_held && m_callback == nullptr;
    if (m_stopping || toNobody || (item.kind == CORPDIR_EVENT_PROGRESS && Overtake(item)))
    {
        return;
    }
    Item* const queued = new (std::nothrow) Item(item);
    if (queued == nullptr)
    {
        m_lost = true;
    }
    else
    {
        queued->next = nullptr;
        (m_first == nullptr ? m_first : m_last->next) = queued;
        m_last = queued;
    }
    m_changed.notify_all();
}

void EventThread::Clear()
{
    while (m_first != nullptr)
    {
        Item* const item = m_first;
        m_first = item->next;
        delete item;
    }
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
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_over = true;
    m_changed.notify_all();
}

// Waits for an event that may be delivered; the callback counts as in progress from here on. What
// was lost is told as soon as possible. False: the thread is to end.
bool EventThread::Take(Item& item)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_inCallback = false;
    m_changed.notify_all();
    m_changed.wait(lock,
                   [this] { return m_stopping || (!m_held && (m_lost || m_first != nullptr)); });
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
    const std::unique_ptr<Item> taken(m_first);
    m_first = taken->next;
    item = *taken;
    return true;
}

// Callback and user do not change meanwhile: whoever changes them waits for the callback first, or
// is called by it.
void EventThread::Deliver(const Item& item)
{
    corpdir_event_fn callback = nullptr;
    void* user = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        callback = m_callback;
        user = m_user;
    }
    const CallbackCount count;
    if (callback == nullptr || g_exiting)
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
}

bool EventThread::InCallback()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_inCallback;
}

void EventThread::WaitForCallback()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_inCallback; });
}

void EventThread::Join()
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_over; });
    }
    const std::lock_guard<std::mutex> lock(m_joinMutex);
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

bool EventThread::Over()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
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
