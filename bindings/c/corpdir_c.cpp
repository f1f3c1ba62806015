#include "corpdir_c.h"

#include <string.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/handle.h"
#include "base/mutex.h"
#include "event_thread.h"
#include "ftpcorpdir.h"
#include "request.h"
#include "server_list.h"
#include "travex_ftp.h"

namespace corpdir_c
{
namespace
{
constexpr std::uint32_t kCipherPrefix = 0x03000000;  // of the service's identifiers
constexpr std::size_t kMaxCiphers = 65536;

// Why a check was refused while the calling thread started it.
struct Refusal
{
    corpdir_code code = CORPDIR_ERR_NOT_STARTED;
    char reason[512] = "";

    void Say(std::string_view words)
    {
        const std::size_t length = words.copy(reason, sizeof reason - 1);
        reason[length] = '\0';
    }
};

thread_local Refusal* t_refusal = nullptr;

// Where the service's callback queues its events: it has no user pointer.
std::atomic<EventThread*> g_events{nullptr};

// Failures are left to the observer, which gives the reason.
void OnResult(unsigned int /*kind*/, unsigned int result, const char* /*text*/, void* /*reserved*/)
{
    EventThread* const events = g_events;
    if (result == 0 && events != nullptr)
    {
        events->PushDelivered();
    }
}

void OnObservation(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
{
    if (seen->ulKind == TRAVEX_FTP_OBSERVED_ACCEPTED || seen->ulKind == TRAVEX_FTP_OBSERVED_STEP)
    {
        return;  // a transfer is reported to the client when it has bytes or a result
    }
    if (seen->ulKind != TRAVEX_FTP_OBSERVED_REFUSED || t_refusal == nullptr)
    {
        static_cast<EventThread*>(user)->Push(*seen);
        return;
    }
    t_refusal->code = CodeOf(seen->ulRet);
    t_refusal->Say(seen->pcReason);
}

// The one client of the process and the service under it. Thread-safe.
//
// m_mutex guards all members. It is held while the service is called, which waits for the service's
// threads: these take the event queue's lock only. It is not held while a callback of the client is
// waited for, which may call any function of the interface.
//
// Never destroyed: calls may come until the process is gone.
class Binding
{
public:
    static Binding& Get();

    corpdir_code Open(const corpdir_log_settings* log, corpdir_client*& client)
        CORPDIR_EXCLUDES(m_mutex);
    void Close(corpdir_client* client) CORPDIR_EXCLUDES(m_mutex);
    corpdir_code Start(corpdir_client* client, const corpdir_request& record)
        CORPDIR_EXCLUDES(m_mutex);
    std::size_t StartReason(corpdir_client* client, char* buffer, std::size_t capacity)
        CORPDIR_EXCLUDES(m_mutex);
    corpdir_code SetCiphers(corpdir_client* client, const std::uint16_t* suites, std::size_t count)
        CORPDIR_EXCLUDES(m_mutex);
    corpdir_code AddCipher(corpdir_client* client, std::uint16_t suite) CORPDIR_EXCLUDES(m_mutex);

private:
    bool IsOpen(corpdir_client* client) const CORPDIR_REQUIRES(m_mutex);
    corpdir_code OpenService() CORPDIR_REQUIRES(m_mutex);
    void StopService() CORPDIR_REQUIRES(m_mutex);
    void Detach() CORPDIR_REQUIRES(m_mutex);
    void Retire() CORPDIR_REQUIRES(m_mutex);
    void ForgetEnded() CORPDIR_REQUIRES(m_mutex);
    void WaitForEnd(corpdir_client* client) CORPDIR_REQUIRES(m_mutex);
    bool MakeWay(corpdir_client* client) CORPDIR_REQUIRES(m_mutex);
    corpdir_code RegisterServers(Request& request, ServerList& list, Refusal& refusal)
        CORPDIR_REQUIRES(m_mutex);
    corpdir_code StartStopped(Request& request, Refusal& refusal) CORPDIR_REQUIRES(m_mutex);
    corpdir_code ApplyCiphers() CORPDIR_REQUIRES(m_mutex);
    corpdir_code Failed(corpdir_code code, const char* reason) CORPDIR_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    base::CondVar m_closed;

    corpdir_client* m_client CORPDIR_GUARDED_BY(m_mutex) = nullptr;  // the open one
    bool m_closing CORPDIR_GUARDED_BY(m_mutex) = false;  // on another thread than its event thread
    std::shared_ptr<EventThread> m_events CORPDIR_GUARDED_BY(m_mutex);
    std::shared_ptr<EventThread> m_ended
        CORPDIR_GUARDED_BY(m_mutex);  // list: clients closed within their callbacks

    bool m_hasLog CORPDIR_GUARDED_BY(m_mutex) = false;
    tag_CORPDIR_LOGINFO m_log CORPDIR_GUARDED_BY(m_mutex) = {};
    std::vector<int> m_ciphers CORPDIR_GUARDED_BY(m_mutex);
    bool m_defaultCiphersFirst CORPDIR_GUARDED_BY(m_mutex) = false;  // the list only adds
    bool m_running CORPDIR_GUARDED_BY(m_mutex) = false;   // the service was started and not stopped
    bool m_asked CORPDIR_GUARDED_BY(m_mutex) = false;     // a request is under way
    char m_reason[512] CORPDIR_GUARDED_BY(m_mutex) = "";  // why the last start failed
};

Binding& Binding::Get()
{
    static Binding* const s_binding = new Binding;
    return *s_binding;
}

bool Binding::IsOpen(corpdir_client* client) const
{
    return client != nullptr && client == m_client && !m_closing;
}

corpdir_code Binding::OpenService()
{
    constexpr unsigned int kNotTheLog = 1;
    tag_CORPDIR_LOGINFO log = m_log;
    const unsigned int result = GetCorpDirInstance()->CorpDirInit(m_hasLog ? &log : nullptr);
    m_running = result == 0;
    if (!m_running)
    {
        GetCorpDirInstance()->CorpDirUninit();  // required between a failed start and the next one
        return result == kNotTheLog ? CORPDIR_ERR_SERVICE : CORPDIR_ERR_LOG;
    }
    return CORPDIR_OK;
}

void Binding::StopService()
{
    if (m_running)
    {
        GetCorpDirInstance()->CorpDirUninit();
    }
    m_running = false;
    m_asked = false;
}

// After this the layers below do not use the event thread any more.
void Binding::Detach()
{
    StopService();
    TRAVEX_FTP_SetObserver(nullptr, nullptr);
    g_events = nullptr;
    m_events->Stop();
    m_ciphers.clear();
}

// An event thread that closes its client cannot be joined before its callback has returned.
void Binding::Retire()
{
    m_events->nextEnded = std::move(m_ended);
    m_ended = std::move(m_events);
    m_client = nullptr;
}

// Joins the threads that have ended since, without waiting.
void Binding::ForgetEnded()
{
    for (std::shared_ptr<EventThread>* link = &m_ended; *link != nullptr;)
    {
        if ((*link)->HasEnded())
        {
            (*link)->Join();
            std::shared_ptr<EventThread> next = std::move((*link)->nextEnded);
            *link = std::move(next);
        }
        else
        {
            link = &(*link)->nextEnded;
        }
    }
}

// Waits for the callback in which this client was closed.
void Binding::WaitForEnd(corpdir_client* client)
{
    std::shared_ptr<EventThread> ended = m_ended;
    while (ended != nullptr && ended->Client() != client)
    {
        ended = ended->nextEnded;
    }
    if (ended != nullptr)
    {
        m_mutex.Unlock();
        ended->Join();
        m_mutex.Lock();
    }
    ForgetEnded();
}

corpdir_code Binding::Open(const corpdir_log_settings* log, corpdir_client*& client)
{
    tag_CORPDIR_LOGINFO info = {};
    const corpdir_code usable = log == nullptr ? CORPDIR_OK : ReadLogSettings(*log, info);
    if (usable != CORPDIR_OK)
    {
        return usable;
    }
    const base::MutexLock lock(m_mutex);
    ForgetEnded();
    if (m_client != nullptr)
    {
        return CORPDIR_ERR_BUSY;
    }
    m_hasLog = log != nullptr;
    m_log = info;
    m_reason[0] = '\0';
    auto* const opened = base::NewHandle<corpdir_client*>();
    auto events = std::make_shared<EventThread>(opened);
    events->Start();
    m_events = std::move(events);
    g_events = m_events.get();
    TRAVEX_FTP_SetObserver(&OnObservation, m_events.get());
    const corpdir_code code = OpenService();
    if (code != CORPDIR_OK)
    {
        Detach();
        m_events->Join();  // it had no callback to wait for
        m_events.reset();
        return code;
    }
    m_client = opened;
    client = opened;
    return CORPDIR_OK;
}

void Binding::Close(corpdir_client* client)
{
    const base::MutexLock lock(m_mutex);
    if (IsOpen(client))
    {
        Detach();
        if (m_events->IsCaller())
        {
            Retire();
            return;
        }
        m_closing = true;
        const std::shared_ptr<EventThread> events = m_events;
        m_mutex.Unlock();
        events->Join();
        m_mutex.Lock();
        m_events.reset();
        m_client = nullptr;
        m_closing = false;
        m_closed.NotifyAll();
    }
    // A callback waits neither for itself nor for another callback, which may wait for it.
    if (EventThread::CallerIsOne())
    {
        return;
    }
    while (m_client == client)
    {
        m_closed.Wait(m_mutex);
    }
    WaitForEnd(client);
}

// Stops an earlier request and waits for its callback. False when the client was closed meanwhile.
bool Binding::MakeWay(corpdir_client* client)
{
    while (IsOpen(client))
    {
        if (m_asked)
        {
            StopService();
        }
        m_events->Hold();
        if (m_events->IsCaller() || !m_events->InCallback())
        {
            return true;
        }
        // That callback may make a request itself, which is then the earlier one.
        const std::shared_ptr<EventThread> events = m_events;
        m_mutex.Unlock();
        events->WaitForCallback();
        m_mutex.Lock();
    }
    return false;
}

corpdir_code Binding::ApplyCiphers()
{
    if (m_ciphers.empty())
    {
        return CORPDIR_OK;
    }
    IFtpCorpDir* const service = GetCorpDirInstance();
    const auto count = static_cast<unsigned int>(m_ciphers.size());
    const unsigned int result =
        m_defaultCiphersFirst ? service->CorpDirAddFtpCipherListToDirImpl(m_ciphers.data(), count)
                              : service->CorpDirSetFtpCipherListToDirImpl(m_ciphers.data(), count);
    return result == 0 ? CORPDIR_OK : CORPDIR_ERR_MEMORY;
}

// A name without an address counts as a server that failed: the others are asked.
corpdir_code Binding::RegisterServers(Request& request, ServerList& list, Refusal& refusal)
{
    tag_CORPDIR_DOWNLOADINFO& info = request.Info();
    list = FindServers(info.pszFtpIPs, info.pszLocalIP);
    for (const client::LeftOut& entry : list.leftOut)
    {
        tagTRAVEX_FTP_S_OBSERVATION failure = {};
        failure.ulKind = TRAVEX_FTP_OBSERVED_FAILED;
        failure.pcServer = entry.text.c_str();
        failure.pcServerFile = info.szVersionServerFile;
        failure.ullTotal = TRAVEX_FTP_SIZE_UNKNOWN;
        failure.ulRet = TRAVEX_FTP_ERR_CONNECT;
        failure.pcReason = entry.problem.c_str();
        m_events->Push(failure);
    }
    if (list.servers.empty())
    {
        refusal.Say(list.leftOut.front().text + ": " + list.leftOut.front().problem);
        return CORPDIR_ERR_NOT_STARTED;
    }
    info.pszFtpIPs = list.forService.c_str();
    return CodeOf(client::RegisterNames(list.servers, {}));
}

corpdir_code Binding::StartStopped(Request& request, Refusal& refusal)
{
    ServerList servers;
    corpdir_code code = m_running ? CORPDIR_OK : OpenService();
    if (code == CORPDIR_OK)
    {
        code = ApplyCiphers();
    }
    if (code == CORPDIR_OK)
    {
        code = RegisterServers(request, servers, refusal);
    }
    if (code != CORPDIR_OK)
    {
        return code;
    }
    t_refusal = &refusal;
    const unsigned int result =
        GetCorpDirInstance()->CorpDirDownloadNetaddr(&request.Info(), &OnResult);
    t_refusal = nullptr;
    return result == 0 ? CORPDIR_OK : refusal.code;
}

corpdir_code Binding::Failed(corpdir_code code, const char* reason)
{
    const std::size_t length = std::min(strlen(reason), sizeof m_reason - 1);
    memcpy(m_reason, reason, length);
    m_reason[length] = '\0';
    return code;
}

corpdir_code Binding::Start(corpdir_client* client, const corpdir_request& record)
{
    Request request;
    const corpdir_code usable = request.Read(record);
    const base::MutexLock lock(m_mutex);
    if (!IsOpen(client))
    {
        return CORPDIR_ERR_CLIENT;
    }
    if (usable != CORPDIR_OK)
    {
        return Failed(usable, corpdir_error_text(usable));
    }
    if (!MakeWay(client))
    {
        return CORPDIR_ERR_CLIENT;
    }
    Refusal refusal;
    const corpdir_code code = StartStopped(request, refusal);
    if (code != CORPDIR_OK)
    {
        StopService();  // wipes the service's copy of the request
        m_events->Hold();
        return Failed(code, *refusal.reason != '\0' ? refusal.reason : corpdir_error_text(code));
    }
    m_asked = true;
    m_reason[0] = '\0';
    m_events->Release(record.on_event, record.user_data);
    return CORPDIR_OK;
}

std::size_t Binding::StartReason(corpdir_client* client, char* buffer, std::size_t capacity)
{
    const base::MutexLock lock(m_mutex);
    const char* const reason = IsOpen(client) ? m_reason : "";
    const std::size_t length = strlen(reason);
    if (capacity > 0)
    {
        const std::size_t copied = std::min(length, capacity - 1);
        memcpy(buffer, reason, copied);
        buffer[copied] = '\0';
    }
    return length;
}

corpdir_code Binding::SetCiphers(corpdir_client* client, const std::uint16_t* suites,
                                 std::size_t count)
{
    std::vector<int> ciphers;
    ciphers.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        ciphers.push_back(static_cast<int>(kCipherPrefix | suites[i]));
    }
    const base::MutexLock lock(m_mutex);
    if (!IsOpen(client))
    {
        return CORPDIR_ERR_CLIENT;
    }
    m_ciphers.swap(ciphers);
    m_defaultCiphersFirst = false;
    return CORPDIR_OK;
}

corpdir_code Binding::AddCipher(corpdir_client* client, std::uint16_t suite)
{
    const base::MutexLock lock(m_mutex);
    if (!IsOpen(client))
    {
        return CORPDIR_ERR_CLIENT;
    }
    const int cipher = static_cast<int>(kCipherPrefix | suite);
    if (std::find(m_ciphers.begin(), m_ciphers.end(), cipher) == m_ciphers.end())
    {
        m_defaultCiphersFirst = m_defaultCiphersFirst || m_ciphers.empty();
        m_ciphers.push_back(cipher);
    }
    return CORPDIR_OK;
}

// No exception may pass into another language: a lack of memory or threads becomes a code.
template <class Body>
corpdir_code Guarded(Body body) noexcept
{
    try
    {
        return body();
    }
    catch (const std::bad_alloc&)
    {
        return CORPDIR_ERR_MEMORY;
    }
    catch (const std::system_error&)
    {
        return CORPDIR_ERR_MEMORY;
    }
}

struct CodeText
{
    corpdir_code code;
    const char* text;
};

constexpr CodeText kCodeTexts[] = {
    {CORPDIR_OK, "success"},
    {CORPDIR_ERR_ARGUMENT, "a null pointer, or a record whose size or reserved member is wrong"},
    {CORPDIR_ERR_CLIENT, "the client is not open"},
    {CORPDIR_ERR_BUSY, "the process has an open client already"},
    {CORPDIR_ERR_MEMORY, "memory or threads ran out"},
    {CORPDIR_ERR_LOG, "the log's directory cannot be used"},
    {CORPDIR_ERR_SERVICE, "the service could not be started; the log says why"},
    {CORPDIR_ERR_NOT_STARTED, "the first check could not be started; the log says why"},
    {CORPDIR_ERR_CONNECT, "no connection to the server"},
    {CORPDIR_ERR_TLS, "TLS was refused, or its handshake failed"},
    {CORPDIR_ERR_CERTIFICATE, "the server's certificate was not accepted"},
    {CORPDIR_ERR_LOGIN, "the server did not accept user or password"},
    {CORPDIR_ERR_FILE, "the server does not send the file"},
    {CORPDIR_ERR_REPLY, "an unexpected reply, or one that is too long"},
    {CORPDIR_ERR_TIMEOUT, "a time limit was reached"},
    {CORPDIR_ERR_PARTIAL, "the file ended early, or its size is not the one announced"},
    {CORPDIR_ERR_TOO_LARGE, "the file is larger than the limit"},
    {CORPDIR_ERR_LOCAL_FILE, "the local file cannot be written"},
    {CORPDIR_ERR_TRANSFER, "the transfer failed"},
    {CORPDIR_ERR_REFUSED, "the transfer was refused for one of its parameters"},
    {CORPDIR_ERR_CIPHER, "a cipher suite is unknown or not allowed"},
    {CORPDIR_ERR_AUTHORITIES, "an entry, a file or a certificate of trust cannot be used"},
    {CORPDIR_ERR_SYSTEM, "memory or another resource of the system ran out"},
    {CORPDIR_ERR_SERVERS,
     "servers: missing, or not a list separated by \";\" of names and addresses of 1 to 255 bytes"},
    {CORPDIR_ERR_USER, "user: not 1 to 127 bytes without control bytes"},
    {CORPDIR_ERR_PASSWORD, "password: not 1 to 127 bytes without control bytes"},
    {CORPDIR_ERR_VERSION_FILE,
     "version_file: not 1 to 255 bytes without control bytes and a closing \"/\""},
    {CORPDIR_ERR_DIRECTORY_FILE,
     "directory_file: not 1 to 255 bytes without control bytes and a closing \"/\", or the version "
     "file"},
    {CORPDIR_ERR_VERSION_DIR, "version_dir: not 1 to 127 bytes with a closing \"/\""},
    {CORPDIR_ERR_VERSION_NAME,
     "version_name: not a plain name of 1 to 255 bytes, or the directory file's place"},
    {CORPDIR_ERR_DIRECTORY_DIR, "directory_dir: not 1 to 127 bytes with a closing \"/\""},
    {CORPDIR_ERR_DIRECTORY_NAME, "directory_name: not a plain name of 1 to 255 bytes"},
    {CORPDIR_ERR_LOCAL_ADDRESS, "local_address: not an IPv4 or IPv6 address"},
    {CORPDIR_ERR_TRUST, "trust: not 1 to 255 bytes without control bytes"},
    {CORPDIR_ERR_PORT, "port: above 65535"},
    {CORPDIR_ERR_MODE, "mode: neither FTPS nor FTP"},
    {CORPDIR_ERR_VERIFICATION, "without_verification: neither 0 nor 1"},
    {CORPDIR_ERR_LOG_DIR, "log directory: longer than 255 bytes, or with a control byte"},
    {CORPDIR_ERR_LOG_LEVEL, "log level: above 2"},
};

}  // namespace
}  // namespace corpdir_c

using corpdir_c::Binding;
using corpdir_c::Guarded;

corpdir_code corpdir_open(const corpdir_log_settings* log, corpdir_client** client)
{
    if (client == nullptr)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    *client = nullptr;
    return Guarded([=] { return Binding::Get().Open(log, *client); });
}

void corpdir_close(corpdir_client* client)
{
    if (client != nullptr)
    {
        (void)Guarded(
            [=]
            {
                Binding::Get().Close(client);
                return CORPDIR_OK;
            });
    }
}

corpdir_code corpdir_start(corpdir_client* client, const corpdir_request* request)
{
    if (request == nullptr)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    return Guarded([=] { return Binding::Get().Start(client, *request); });
}

size_t corpdir_start_reason(corpdir_client* client, char* buffer, size_t capacity)
{
    std::size_t length = 0;
    (void)Guarded(
        [&]
        {
            length = Binding::Get().StartReason(client, buffer, buffer == nullptr ? 0 : capacity);
            return CORPDIR_OK;
        });
    return length;
}

corpdir_code corpdir_set_ciphers(corpdir_client* client, const uint16_t* suites, size_t count)
{
    if ((suites == nullptr && count != 0) || count > corpdir_c::kMaxCiphers)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    return Guarded([=] { return Binding::Get().SetCiphers(client, suites, count); });
}

corpdir_code corpdir_add_cipher(corpdir_client* client, uint16_t suite)
{
    return Guarded([=] { return Binding::Get().AddCipher(client, suite); });
}

const char* corpdir_error_text(uint32_t code)
{
    for (const corpdir_c::CodeText& known : corpdir_c::kCodeTexts)
    {
        if (static_cast<std::uint32_t>(known.code) == code)
        {
            return known.text;
        }
    }
    return "unknown code";
}

const char* corpdir_version(void)
{
    return CORPDIR_VERSION;
}
