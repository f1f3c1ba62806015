#include "corpdir_c.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/handle.h"
#include "base/mutex.h"
#include "base/printable.h"
#include "request.h"
#include "state.h"
#include "worker.h"

namespace corpdir_c
{
namespace
{
constexpr std::uint32_t kCipherPrefix = 0x03000000;  // of the service's identifiers
constexpr std::size_t kMaxCiphers = 65536;
constexpr std::uint32_t kDefaultLevel = 2;

// The one client of the process. Thread-safe: the mutex guards all members, and is not held while
// a worker is called. Never destroyed: calls may come until the process is gone.
class Clients
{
public:
    static Clients& Get()
    {
        static Clients* const s_clients = new Clients;
        return *s_clients;
    }

    corpdir_code Open(const corpdir_log_settings* log, corpdir_client*& client);
    void Close(corpdir_client* client);
    std::shared_ptr<Worker> Find(corpdir_client* client);  // null: not open

    // The outcome of the last start in words; of no client, that of the last open that failed.
    void NoteStart(corpdir_client* client, std::string reason);
    std::string StartReason(corpdir_client* client);

private:
    struct Entry
    {
        corpdir_client* client = nullptr;
        std::shared_ptr<Worker> worker;
        std::string startReason;
    };

    void Remove(corpdir_client* client) CORPDIR_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    bool m_busy CORPDIR_GUARDED_BY(m_mutex) = false;  // an open client, or an open under way
    Entry m_open CORPDIR_GUARDED_BY(m_mutex);
    std::string m_openReason CORPDIR_GUARDED_BY(m_mutex);
    // Closed within their callbacks, which may go on.
    std::vector<std::pair<corpdir_client*, std::weak_ptr<Worker>>> m_ended
        CORPDIR_GUARDED_BY(m_mutex);
};

corpdir_code Clients::Open(const corpdir_log_settings* log, corpdir_client*& client)
{
    tag_CORPDIR_LOGINFO info = {};
    info.ulLogLevel = kDefaultLevel;
    const corpdir_code usable = log == nullptr ? CORPDIR_OK : ReadLogSettings(*log, info);
    const auto worker = std::make_shared<Worker>();
    {
        const base::MutexLock lock(m_mutex);
        m_openReason.clear();
        if (usable != CORPDIR_OK)
        {
            return usable;
        }
        if (m_busy)
        {
            return CORPDIR_ERR_BUSY;
        }
        m_ended.reserve(m_ended.size() + 1);  // for the close
        m_busy = true;
    }
    Answer answer;
    try
    {
        answer = worker->Open(info);
    }
    catch (const std::exception&)
    {
        answer.code = CORPDIR_ERR_MEMORY;
    }
    const base::MutexLock lock(m_mutex);
    m_busy = answer.code == CORPDIR_OK;
    m_openReason.swap(answer.reason);
    if (m_busy)
    {
        client = base::NewHandle<corpdir_client*>();
        m_open = {client, worker, ""};
    }
    return answer.code;
}

std::shared_ptr<Worker> Clients::Find(corpdir_client* client)
{
    const base::MutexLock lock(m_mutex);
    return client != nullptr && client == m_open.client ? m_open.worker : nullptr;
}

void Clients::Remove(corpdir_client* client)
{
    if (m_open.client == client)
    {
        m_open = {};
        m_busy = false;
    }
}

void Clients::Close(corpdir_client* client)
{
    if (const std::shared_ptr<Worker> worker = Find(client))
    {
        const bool over = worker->Close();
        const base::MutexLock lock(m_mutex);
        Remove(client);
        if (!over)
        {
            m_ended.erase(std::remove_if(m_ended.begin(), m_ended.end(),
                                         [](const auto& one) { return one.second.expired(); }),
                          m_ended.end());
            m_ended.emplace_back(client, worker);
        }
        return;
    }
    // A callback waits neither for itself nor for another callback, which may wait for it.
    if (Worker::CallerIsOne())
    {
        return;
    }
    std::shared_ptr<Worker> ended;
    {
        const base::MutexLock lock(m_mutex);
        for (const auto& [one, worker] : m_ended)
        {
            ended = one == client ? worker.lock() : ended;
        }
    }
    if (ended != nullptr)
    {
        ended->WaitForEnd();
    }
}

void Clients::NoteStart(corpdir_client* client, std::string reason)
{
    const base::MutexLock lock(m_mutex);
    if (m_open.client == client)
    {
        m_open.startReason.swap(reason);
    }
}

std::string Clients::StartReason(corpdir_client* client)
{
    const base::MutexLock lock(m_mutex);
    return client == nullptr ? m_openReason : m_open.client == client ? m_open.startReason : "";
}

Answer Begin(Worker& worker, const corpdir_request* record)
{
    if (record == nullptr)
    {
        return {CORPDIR_ERR_ARGUMENT, ""};
    }
    try
    {
        Request request;
        Answer answer = ReadRequest(*record, request);
        return answer.code == CORPDIR_OK ? worker.Start(std::move(request)) : answer;
    }
    catch (const std::exception&)
    {
        return {CORPDIR_ERR_MEMORY, ""};
    }
}

corpdir_code Start(corpdir_client* client, const corpdir_request* record)
{
    const std::shared_ptr<Worker> worker = Clients::Get().Find(client);
    if (worker == nullptr)
    {
        return record == nullptr ? CORPDIR_ERR_ARGUMENT : CORPDIR_ERR_CLIENT;
    }
    Answer answer = Begin(*worker, record);
    Clients::Get().NoteStart(client, "");  // what remains when memory runs out
    if (answer.code != CORPDIR_OK && answer.reason.empty())
    {
        answer.reason = corpdir_error_text(answer.code);
    }
    Clients::Get().NoteStart(client, std::move(answer.reason));
    return answer.code;
}

// Cut to fit and terminated.
template <std::size_t kSize>
void Copy(const std::string& text, char (&field)[kSize])
{
    field[text.copy(field, kSize - 1)] = '\0';
}

corpdir_code Status(const std::string& path, corpdir_state& record)
{
    const std::size_t name = path.rfind('/') + 1;  // 0 when there is none
    std::string problem;
    const std::optional<client::State> state =
        client::ReadState(path.substr(0, name) + client::StateName(path.substr(name)), problem);
    const std::size_t size = record.size;
    record = {};
    record.size = size;
    if (!state)
    {
        Copy(problem, record.reason);
        return problem.empty() ? CORPDIR_ERR_NO_STATE : CORPDIR_ERR_LOCAL_FILE;
    }
    struct stat local = {};
    record.bytes = state->size;
    record.fetched = state->fetched;
    record.confirmed = state->confirmed;
    record.checked = state->checked;
    record.failed = state->outcome == "failed" ? 1 : 0;
    record.failures = state->failures;
    record.in_place = !state->version.empty() && stat(path.c_str(), &local) == 0 &&
                              static_cast<std::uint64_t>(local.st_size) == state->size
                          ? 1
                          : 0;
    Copy(state->version, record.version);
    Copy(state->sha256, record.sha256);
    Copy(state->server, record.server);
    Copy(state->reason, record.reason);
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
    catch (const std::exception&)
    {
        return CORPDIR_ERR_MEMORY;
    }
}

// Calls a function of the worker of an open client.
template <class Body>
corpdir_code OfClient(corpdir_client* client, Body body) noexcept
{
    return Guarded(
        [&]
        {
            const std::shared_ptr<Worker> worker = Clients::Get().Find(client);
            return worker == nullptr ? CORPDIR_ERR_CLIENT : body(*worker);
        });
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
    {CORPDIR_ERR_MEMORY, "memory, threads or descriptors ran out"},
    {CORPDIR_ERR_LOG, "the log's directory cannot be used"},
    {CORPDIR_ERR_SERVICE, "the service could not be started"},
    {CORPDIR_ERR_NOT_STARTED, "no request is under way"},
    {CORPDIR_ERR_NO_EVENT, "no event waits"},
    {CORPDIR_ERR_NO_STATE, "no check of this directory file has ended yet"},
    {CORPDIR_ERR_CONNECT, "no connection to the server"},
    {CORPDIR_ERR_TLS, "TLS was refused, or its handshake failed"},
    {CORPDIR_ERR_CERTIFICATE, "the server's certificate was not accepted"},
    {CORPDIR_ERR_LOGIN, "the server did not accept user or password"},
    {CORPDIR_ERR_FILE, "the server does not send the file"},
    {CORPDIR_ERR_REPLY, "an unexpected reply, or one that is too long"},
    {CORPDIR_ERR_TIMEOUT, "a time limit was reached"},
    {CORPDIR_ERR_PARTIAL, "the file ended early, or its size is not the one announced"},
    {CORPDIR_ERR_TOO_LARGE, "the file is larger than the limit"},
    {CORPDIR_ERR_LOCAL_FILE, "a local file or directory cannot be used"},
    {CORPDIR_ERR_TRANSFER, "the transfer failed"},
    {CORPDIR_ERR_NAME, "the server's name has no address"},
    {CORPDIR_ERR_VERSION, "the version file is not valid"},
    {CORPDIR_ERR_REFUSED, "the transfer was refused for one of its parameters"},
    {CORPDIR_ERR_CIPHER, "a cipher suite is unknown or not allowed"},
    {CORPDIR_ERR_AUTHORITIES, "an entry, a file or a certificate of trust cannot be used"},
    {CORPDIR_ERR_SYSTEM, "memory or another resource of the system ran out"},
    {CORPDIR_ERR_SERVERS,
     "servers: missing, or not a list of names and addresses that are separated by \";\""},
    {CORPDIR_ERR_USER, "user: not 1 to 127 bytes without control bytes"},
    {CORPDIR_ERR_PASSWORD, "password: not 1 to 127 bytes without control bytes"},
    {CORPDIR_ERR_VERSION_FILE,
     "version_file: empty, longer than 255 bytes, with a control byte, or ending in \"/\""},
    {CORPDIR_ERR_DIRECTORY_FILE,
     "directory_file: empty, longer than 255 bytes, with a control byte, or ending in \"/\""},
    {CORPDIR_ERR_VERSION_DIR,
     "version_dir: empty, longer than 127 bytes with its closing \"/\", or with a control byte"},
    {CORPDIR_ERR_VERSION_NAME,
     "version_name: not a plain name of 1 to 255 bytes, or that of the directory file or its "
     "state"},
    {CORPDIR_ERR_DIRECTORY_DIR,
     "directory_dir: empty, longer than 127 bytes with its closing \"/\", or with a control byte"},
    {CORPDIR_ERR_DIRECTORY_NAME, "directory_name: not a plain name of 1 to 241 bytes"},
    {CORPDIR_ERR_LOCAL_ADDRESS,
     "local_address: not an IPv4 or IPv6 address, or of another family than a server"},
    {CORPDIR_ERR_TRUST, "trust: not 1 to 255 bytes without control bytes"},
    {CORPDIR_ERR_PORT, "port: above 65535"},
    {CORPDIR_ERR_MODE, "mode: neither FTPS nor FTP"},
    {CORPDIR_ERR_VERIFICATION, "without_verification: neither 0 nor 1"},
    {CORPDIR_ERR_LOG_DIR, "log directory: longer than 255 bytes, or with a control byte"},
    {CORPDIR_ERR_LOG_LEVEL, "log level: above 2"},
    {CORPDIR_ERR_NAMES, "certificate_names: not a list of host names that are separated by \";\""},
    {CORPDIR_ERR_TIMES, "connect_seconds: above 3600, or retry_seconds: above 86400"},
};

}  // namespace
}  // namespace corpdir_c

using corpdir_c::Clients;
using corpdir_c::Guarded;
using corpdir_c::OfClient;
using corpdir_c::Worker;

corpdir_code corpdir_open(const corpdir_log_settings* log, corpdir_client** client)
{
    if (client == nullptr)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    *client = nullptr;
    return Guarded([&] { return Clients::Get().Open(log, *client); });
}

void corpdir_close(corpdir_client* client)
{
    (void)Guarded(
        [=]
        {
            Clients::Get().Close(client);
            return CORPDIR_OK;
        });
}

corpdir_code corpdir_start(corpdir_client* client, const corpdir_request* request)
{
    return Guarded([=] { return corpdir_c::Start(client, request); });
}

size_t corpdir_start_reason(corpdir_client* client, char* buffer, size_t capacity)
{
    std::size_t length = 0;
    (void)Guarded(
        [&]
        {
            const std::string reason = Clients::Get().StartReason(client);
            length = reason.size();
            if (buffer != nullptr && capacity > 0)
            {
                buffer[reason.copy(buffer, capacity - 1)] = '\0';
            }
            return CORPDIR_OK;
        });
    return length;
}

corpdir_code corpdir_stop(corpdir_client* client)
{
    return OfClient(client, [](Worker& worker) { return worker.Stop().code; });
}

corpdir_code corpdir_check_now(corpdir_client* client)
{
    return OfClient(client, [](Worker& worker) { return worker.CheckNow(); });
}

int corpdir_event_fd(corpdir_client* client)
{
    int descriptor = -1;
    (void)OfClient(client,
                   [&](Worker& worker)
                   {
                       descriptor = worker.EventDescriptor();
                       return CORPDIR_OK;
                   });
    return descriptor;
}

corpdir_code corpdir_next_event(corpdir_client* client, corpdir_event* event)
{
    if (event == nullptr || !corpdir_c::HasRoom(event->size, sizeof *event))
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    return OfClient(client, [=](Worker& worker) { return worker.NextEvent(*event); });
}

corpdir_code corpdir_status(const char* path, corpdir_state* state)
{
    if (path == nullptr || *path == '\0' ||
        std::any_of(path, path + strlen(path), base::IsControlByte) || state == nullptr ||
        !corpdir_c::HasRoom(state->size, sizeof *state))
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    return Guarded([=] { return corpdir_c::Status(path, *state); });
}

corpdir_code corpdir_set_ciphers(corpdir_client* client, const uint16_t* suites, size_t count)
{
    if ((suites == nullptr && count != 0) || count > corpdir_c::kMaxCiphers)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    return OfClient(
        client,
        [=](Worker& worker)
        {
            std::vector<int> ciphers;
            ciphers.reserve(count);
            for (std::size_t i = 0; i < count; ++i)
            {
                ciphers.push_back(static_cast<int>(corpdir_c::kCipherPrefix | suites[i]));
            }
            return worker.SetSuites(std::move(ciphers));
        });
}

corpdir_code corpdir_add_cipher(corpdir_client* client, uint16_t suite)
{
    return OfClient(
        client, [=](Worker& worker)
        { return worker.AddSuite(static_cast<int>(corpdir_c::kCipherPrefix | suite)); });
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

const char* corpdir_event_name(uint32_t kind)
{
    constexpr const char* kNames[] = {
        "unknown",     "progress",       "transferred",  "failed",
        "refused",     "delivered",      "lost",         "checking",
        "next_server", "new_version",    "unchanged",    "invalid_version",
        "name_failed", "no_server_left", "check_failed", "recovered",
        "waiting",     "warning",        "start_failed"};
    return kNames[kind < std::size(kNames) ? kind : 0];
}

const char* corpdir_version(void)
{
    return CORPDIR_VERSION;
}
