/// @file
/// Corporate-directory download service: the interface for C++17, header only, on corpdir_c.h.
///
///     corpdir::Request request;
///     request.servers = {"ftp1.example.com", "ftp2.example.com"};
///     ...
///     request.onEvent = [](const corpdir::Event& event) { ... };
///
///     corpdir::Client client;               // the log opens, the service runs
///     client.Start(request);                // first check now, then every ten minutes
///
/// corpdir_c.h is the contract of each operation and has the limits of each text; here is what
/// differs. Link libcorpdir_c: the CMake target corpdir::corpdir_cpp, or pkg-config corpdir_c.
///
/// Errors. An operation that fails throws corpdir::Error. Called with a std::error_code it sets
/// that instead, and clears it on success. Both forms throw std::bad_alloc when memory runs out
/// here and not in the library.
///
/// Threads. Any thread may call an open Client, also several at once, and so may onEvent.
/// Exception: NextEvent is for one thread at a time, and not while another one is in Close. To
/// move, assign or destroy a Client, no other thread may be in one of its functions; onEvent may do
/// so while Start has not returned. The free functions may be called on any thread.
///
/// Texts are byte strings. One with a NUL byte is refused like one with another control byte.
#ifndef CORPDIR_CORPDIR_HPP
#define CORPDIR_CORPDIR_HPP

#if __cplusplus < 201703L
#error "corpdir.hpp needs C++17; corpdir_c.h serves C99 and C++11"
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "corpdir_c.h"

/// The interface for C++17.
namespace corpdir
{

/// Results of calls, and codes of failures in events: those of corpdir_c.h. As a std::error_code it
/// has the category corpdir::Category().
enum class Code : std::uint32_t
{
    kOk = CORPDIR_OK,                         ///< of an event: nothing failed
    kArgument = CORPDIR_ERR_ARGUMENT,         ///< an argument that cannot be used
    kClient = CORPDIR_ERR_CLIENT,             ///< the client is not open, or is being closed
    kBusy = CORPDIR_ERR_BUSY,                 ///< the process has an open client already
    kMemory = CORPDIR_ERR_MEMORY,             ///< memory or threads ran out in the library
    kLog = CORPDIR_ERR_LOG,                   ///< the log's directory cannot be used
    kService = CORPDIR_ERR_SERVICE,           ///< the service could not be started
    kNotStarted = CORPDIR_ERR_NOT_STARTED,    ///< no request is under way
    kNoEvent = CORPDIR_ERR_NO_EVENT,          ///< NextEvent returns no event instead
    kNoState = CORPDIR_ERR_NO_STATE,          ///< Status returns no state instead
    kConnect = CORPDIR_ERR_CONNECT,           ///< no connection: refused, unreachable, no answer
    kTls = CORPDIR_ERR_TLS,                   ///< TLS refused, or its handshake failed
    kCertificate = CORPDIR_ERR_CERTIFICATE,   ///< the server's certificate was not accepted
    kLogin = CORPDIR_ERR_LOGIN,               ///< user or password not accepted
    kFile = CORPDIR_ERR_FILE,                 ///< the server refused the file
    kReply = CORPDIR_ERR_REPLY,               ///< an unexpected reply, or one that is too long
    kTimeout = CORPDIR_ERR_TIMEOUT,           ///< a time limit was exceeded
    kPartial = CORPDIR_ERR_PARTIAL,           ///< the file ended early, or has another size
    kTooLarge = CORPDIR_ERR_TOO_LARGE,        ///< the file is larger than the limit
    kLocalFile = CORPDIR_ERR_LOCAL_FILE,      ///< a local file or directory cannot be used
    kTransfer = CORPDIR_ERR_TRANSFER,         ///< any other failure of the transfer
    kName = CORPDIR_ERR_NAME,                 ///< a server's name has no address
    kVersion = CORPDIR_ERR_VERSION,           ///< the version file is not valid
    kRefused = CORPDIR_ERR_REFUSED,           ///< a parameter that cannot be used
    kCipher = CORPDIR_ERR_CIPHER,             ///< a cipher suite that is unknown or not allowed
    kAuthorities = CORPDIR_ERR_AUTHORITIES,   ///< a file or certificate of trust cannot be used
    kSystem = CORPDIR_ERR_SYSTEM,             ///< a resource of the system ran out
    kServers = CORPDIR_ERR_SERVERS,           ///< Request::servers cannot be used
    kUser = CORPDIR_ERR_USER,                 ///< Request::user cannot be used
    kPassword = CORPDIR_ERR_PASSWORD,         ///< Request::password cannot be used
    kVersionFile = CORPDIR_ERR_VERSION_FILE,  ///< Request::versionFile cannot be used
    kDirectoryFile = CORPDIR_ERR_DIRECTORY_FILE,  ///< Request::directoryFile cannot be used
    kVersionDir = CORPDIR_ERR_VERSION_DIR,        ///< Request::versionDir cannot be used
    kVersionName = CORPDIR_ERR_VERSION_NAME,      ///< Request::versionName cannot be used
    kDirectoryDir = CORPDIR_ERR_DIRECTORY_DIR,    ///< Request::directoryDir cannot be used
    kDirectoryName = CORPDIR_ERR_DIRECTORY_NAME,  ///< Request::directoryName cannot be used
    kLocalAddress = CORPDIR_ERR_LOCAL_ADDRESS,    ///< Request::localAddress cannot be used
    kTrust = CORPDIR_ERR_TRUST,                   ///< Request::trust cannot be used
    kPort = CORPDIR_ERR_PORT,                     ///< Request::port cannot be used
    kMode = CORPDIR_ERR_MODE,                     ///< Request::mode cannot be used
    kVerification = CORPDIR_ERR_VERIFICATION,     ///< not used by this interface
    kLogDir = CORPDIR_ERR_LOG_DIR,                ///< LogSettings::directory cannot be used
    kLogLevel = CORPDIR_ERR_LOG_LEVEL,            ///< LogSettings::level cannot be used
    kNames = CORPDIR_ERR_NAMES,                   ///< Request::certificateNames cannot be used
    kTimes = CORPDIR_ERR_TIMES                    ///< a time of Request cannot be used
};

namespace detail
{
class ErrorCategory final : public std::error_category
{
public:
    const char* name() const noexcept override
    {
        return "corpdir";
    }

    std::string message(int code) const override
    {
        return corpdir_error_text(static_cast<std::uint32_t>(code));
    }
};
}  // namespace detail

/// The category of the codes, by the name "corpdir". Its messages are those of corpdir_error_text.
[[gnu::visibility("default")]] inline const std::error_category& Category() noexcept
{
    static const detail::ErrorCategory s_category;
    return s_category;
}

/// Makes a std::error_code of a code; `error == corpdir::Code::kLogin` uses it.
inline std::error_code make_error_code(Code code) noexcept
{
    return {static_cast<int>(code), Category()};
}

/// Thrown by the operations that fail. code() has the category Category().
class [[gnu::visibility("default")]] Error : public std::system_error
{
public:
    /// reason: a sentence for what(); when it is empty, the message of code.
    explicit Error(std::error_code code, const std::string& reason = {})
        : std::system_error(code), m_reason(reason.empty() ? code.message() : reason)
    {
    }

    /// The reason in words; of Client::Start that of StartReason().
    const char* what() const noexcept override
    {
        return m_reason.what();
    }

private:
    std::runtime_error m_reason;  // a text whose copy cannot fail
};

/// The default of an operation's last argument, for which it throws corpdir::Error.
[[gnu::visibility("default")]] inline std::error_code& Throws() noexcept
{
    static std::error_code s_never;
    return s_never;
}

/// Where the service writes its log, and how much of it.
struct LogSettings
{
    std::string directory;           ///< for corpdir.log; empty: standard error
    std::uint32_t level = 0;         ///< highest level written: 0 errors, 1 fallbacks, 2 everything
    std::uint32_t maxFileBytes = 0;  ///< size at which a file is rotated; 0: 10 MiB
    std::uint32_t maxFiles = 0;      ///< rotated files kept beside the current one; 0: 5
};

/// Steps of a transfer, in their order.
enum class Step : std::uint32_t
{
    kNone = CORPDIR_STEP_NONE,                 ///< before the first step
    kLocalFile = CORPDIR_STEP_LOCAL_FILE,      ///< the local file: opened, written, renamed
    kConnect = CORPDIR_STEP_CONNECT,           ///< the control connection
    kGreeting = CORPDIR_STEP_GREETING,         ///< the server's first reply
    kAuth = CORPDIR_STEP_AUTH,                 ///< AUTH TLS
    kTls = CORPDIR_STEP_TLS,                   ///< the control channel's handshake and certificate
    kLogin = CORPDIR_STEP_LOGIN,               ///< USER and PASS
    kProtect = CORPDIR_STEP_PROTECT,           ///< PBSZ and PROT
    kType = CORPDIR_STEP_TYPE,                 ///< TYPE I
    kPassive = CORPDIR_STEP_PASSIVE,           ///< EPSV or PASV
    kDataConnect = CORPDIR_STEP_DATA_CONNECT,  ///< the data connection
    kSize = CORPDIR_STEP_SIZE,                 ///< SIZE
    kRetrieve = CORPDIR_STEP_RETRIEVE,         ///< RETR, until the server begins to send
    kDataTls = CORPDIR_STEP_DATA_TLS,          ///< the data channel's handshake and certificate
    kReceive = CORPDIR_STEP_RECEIVE,           ///< the file's bytes
    kConfirm = CORPDIR_STEP_CONFIRM            ///< the server's last reply for the file
};

/// An event. Members that are not set for its kind are empty or 0; corpdir_event_kind lists those
/// that are set.
struct Event
{
    /// A check begins with kChecking and ends with kDelivered, kUnchanged, kNoServerLeft or
    /// kCheckFailed. Later versions may add kinds.
    enum class Kind : std::uint32_t
    {
        kProgress = CORPDIR_EVENT_PROGRESS,       ///< bytes of a file have arrived
        kFailed = CORPDIR_EVENT_FAILED,           ///< a transfer failed
        kDelivered = CORPDIR_EVENT_DELIVERED,     ///< a new directory file is complete
        kLost = CORPDIR_EVENT_LOST,               ///< events before this one are missing
        kChecking = CORPDIR_EVENT_CHECKING,       ///< a server is asked for the version file
        kNextServer = CORPDIR_EVENT_NEXT_SERVER,  ///< the server before failed
        kNewVersion = CORPDIR_EVENT_NEW_VERSION,  ///< the directory file follows
        kUnchanged = CORPDIR_EVENT_UNCHANGED,     ///< the local file has the server's version
        kInvalidVersion = CORPDIR_EVENT_INVALID_VERSION,  ///< the version file is not valid
        kNameFailed = CORPDIR_EVENT_NAME_FAILED,          ///< a server's name has no address
        kNoServerLeft = CORPDIR_EVENT_NO_SERVER_LEFT,     ///< the check failed: all servers did
        kCheckFailed = CORPDIR_EVENT_CHECK_FAILED,        ///< the check failed for another reason
        kRecovered = CORPDIR_EVENT_RECOVERED,      ///< the check succeeded after some that failed
        kWaiting = CORPDIR_EVENT_WAITING,          ///< until the next check after a failure
        kWarning = CORPDIR_EVENT_WARNING,          ///< something to look at
        kStartFailed = CORPDIR_EVENT_START_FAILED  ///< the service could not be started again
    };

    Kind kind = Kind::kLost;             ///< which event this is
    Code code = Code::kOk;               ///< of a failure
    Step step = Step::kNone;             ///< of a failed transfer
    std::uint32_t reply = 0;             ///< number of the server's reply that caused the failure
    std::uint32_t failures = 0;          ///< checks that failed in a row
    std::chrono::seconds wait{0};        ///< until the next check, at most
    std::string server;                  ///< "192.0.2.1:21" or "[2001:db8::1]:21"
    std::string name;                    ///< the host name by which the server is listed
    std::string file;                    ///< on the server, as the request named it
    std::string version;                 ///< bytes as in the version file's first line
    std::string path;                    ///< of the local directory file
    std::string reason;                  ///< of a failure or warning, in words
    std::uint64_t bytes = 0;             ///< received so far; at the end the file's size
    std::optional<std::uint64_t> total;  ///< size the server announced
    std::chrono::system_clock::time_point time;  ///< of the event, to the second
};

/// Returns a kind's name: "delivered", "new_version"; "unknown" for one that the library does not
/// have.
inline const char* Name(Event::Kind kind) noexcept
{
    return corpdir_event_name(static_cast<std::uint32_t>(kind));
}

/// The certificates of servers that are accepted.
class Trust
{
public:
    /// Those that the system's certificate store confirms: the default.
    static Trust System()
    {
        return {};
    }

    /// Those that these certification authorities confirm. path: of a PEM file, or of a directory
    /// of such files, at most 238 bytes, without ";".
    static Trust Authorities(const std::string& path)
    {
        Trust trust;
        trust.m_authorities = path == "system" ? "./system" : path;  // a file's name here
        return trust;
    }

    /// Any certificate, without a check: any host that answers gets the password.
    static Trust DangerouslyWithoutVerification()
    {
        Trust trust;
        trust.m_verified = false;
        return trust;
    }

private:
    friend class Client;

    std::string m_authorities = "system";
    bool m_verified = true;
};

/// Protocol of a request's servers.
enum class Mode
{
    kFtps,          ///< control and data encrypted after AUTH TLS; as kImplicitFtps on port 990
    kImplicitFtps,  ///< control and data encrypted from the first byte
    kFtp            ///< nothing is encrypted, not even the password
};

/// A download request. servers, user, password, versionFile, directoryFile and directoryDir are
/// required.
struct Request
{
    std::vector<std::string> servers;           ///< asked in this order: addresses or host names
    std::uint16_t port = 0;                     ///< 0: 21
    Mode mode = Mode::kFtps;                    ///< protocol
    Trust trust;                                ///< certificates that are accepted
    std::vector<std::string> certificateNames;  ///< DNS names of which each certificate must carry
                                                ///< one; empty: the server as it is listed
    std::string user;                           ///< FTP login
    std::string password;       ///< wipe it after Start, which makes no copy except the library's,
                                ///< which is kept sealed and is wiped
    std::string versionFile;    ///< on the server
    std::string directoryFile;  ///< on the server, another one than versionFile
    std::string directoryDir;   ///< existing local directory for the directory file
    std::string directoryName;  ///< its name there; empty: the last part of directoryFile
    std::string versionDir;     ///< likewise for the version file; empty: directoryDir
    std::string versionName;    ///< its name there; empty: the last part of versionFile
    std::string localAddress;   ///< address to connect from; empty: the system's choice
    std::uint64_t maxFileBytes = 0;             ///< largest file that is accepted; 0: 16 GiB
    std::chrono::seconds connectTimeout{0};     ///< for each connection, at most an hour; 0: 10 s
    std::chrono::seconds retryInterval{0};      ///< as retry_seconds in corpdir_c.h, at most a day;
                                                ///< 0: 60 s
    std::function<void(const Event&)> onEvent;  ///< see Client::Start; empty: the events wait for
                                                ///< Client::NextEvent
};

/// What is known of a local directory file.
struct State
{
    using Time = std::optional<std::chrono::system_clock::time_point>;  ///< empty: never

    std::string version;         ///< of the directory file; empty: none was ever fetched
    std::string sha256;          ///< of the directory file, 64 lower-case hexadecimal digits
    std::string server;          ///< that gave it: "192.0.2.1", or "192.0.2.1 (host name)"
    std::uint64_t bytes = 0;     ///< size of the directory file that was fetched
    bool inPlace = false;        ///< the local file exists and has this size
    Time fetched;                ///< when it was fetched
    Time confirmed;              ///< end of the last check that fetched it or found it unchanged
    Time checked;                ///< end of the last check
    bool failed = false;         ///< the last check failed
    std::uint32_t failures = 0;  ///< checks that failed in a row
    std::string reason;          ///< why the last check failed; may be cut
};

namespace detail
{
using Function = std::function<void(const Event&)>;

struct Callback  // of a request, in a list: its address is the user_data
{
    std::shared_ptr<const Function> function;
    std::uint64_t number;  // in the order in which calls returned
};

inline void Report(corpdir_code code, std::error_code& error, const std::string& reason = {})
{
    const std::error_code result =
        code == CORPDIR_OK ? std::error_code() : make_error_code(static_cast<Code>(code));
    if (&error != &Throws())
    {
        error = result;
    }
    else if (result)
    {
        throw Error(result, reason);
    }
}

inline std::chrono::system_clock::time_point TimeOf(std::int64_t seconds)
{
    return std::chrono::system_clock::from_time_t(static_cast<std::time_t>(seconds));
}

inline State::Time TimeUnlessNever(std::int64_t seconds)
{
    return seconds == 0 ? State::Time() : TimeOf(seconds);
}

inline Event EventOf(const corpdir_event& record)
{
    Event event;
    event.kind = static_cast<Event::Kind>(record.kind);
    event.code = static_cast<Code>(record.code);
    event.step = static_cast<Step>(record.step);
    event.reply = record.reply;
    event.failures = record.failures;
    event.wait = std::chrono::seconds(record.seconds);
    event.server = record.server;
    event.name = record.name;
    event.file = record.file;
    event.version = record.version;
    event.path = record.path;
    event.reason = record.reason;
    event.bytes = record.bytes;
    if (record.total != CORPDIR_SIZE_UNKNOWN)
    {
        event.total = record.total;
    }
    event.time = TimeOf(record.time);
    return event;
}

struct Session  // of a Client; it outlives one that onEvent destroys before Start returns
{
    corpdir_client* client = nullptr;
    std::mutex mutex;
    std::list<Callback> callbacks;
    std::atomic<std::uint64_t> answered{0};
};

inline void OnEvent(void* user, const corpdir_event* record) noexcept
{
    /* A copy: the function may replace its own request, or close its client. */
    const std::shared_ptr<const Function> function = static_cast<Callback*>(user)->function;
    (*function)(EventOf(*record));
}

inline corpdir_client* ClientOf(const std::shared_ptr<Session>& session)
{
    return session == nullptr ? nullptr : session->client;
}

inline std::string StartReason(const std::shared_ptr<Session>& session)
{
    std::string reason(512, '\0');
    std::size_t length = 0;
    while ((length = corpdir_start_reason(ClientOf(session), reason.data(), reason.size())) >=
           reason.size())
    {
        reason.resize(length + 1);
    }
    reason.resize(length);
    return reason;
}

/* Makes a call that ends the earlier request. Calls on several threads at once may be answered in
 * another order than they return, and onEvent may make some itself. So a call that succeeds ends
 * those functions alone whose calls had returned before it began. They are destroyed without the
 * lock. */
template <class Call>
corpdir_code Replace(std::shared_ptr<Session> session, std::list<Callback> own, Call call)
{
    if (session == nullptr)
    {
        return CORPDIR_ERR_CLIENT;
    }
    std::list<Callback> ended;
    const std::uint64_t earlier = session->answered;
    const corpdir_code code = call(session->client);
    if (code == CORPDIR_OK)
    {
        std::list<Callback>& callbacks = session->callbacks;
        const std::lock_guard<std::mutex> lock(session->mutex);
        ++session->answered;
        const auto later = std::find_if(callbacks.begin(), callbacks.end(),
                                        [=](const auto& one) { return one.number > earlier; });
        ended.splice(ended.end(), callbacks, callbacks.begin(), later);
        for (Callback& callback : own)
        {
            callback.number = session->answered;
        }
        callbacks.splice(callbacks.end(), own);
    }
    return code;
}

inline constexpr const char* kUnusable = "\1";  // the library refuses it in each text

inline const char* Text(const std::string& text)
{
    return text.find('\0') == std::string::npos ? text.c_str() : kUnusable;
}

inline const char* TextOrNull(const std::string& text)
{
    return text.empty() ? nullptr : Text(text);
}

inline std::string Joined(const std::vector<std::string>& entries)
{
    std::string joined;
    for (const std::string& entry : entries)
    {
        if (entry.empty() || entry.find(';') != std::string::npos)
        {
            return kUnusable;
        }
        joined += (joined.empty() ? "" : ";") + entry;
    }
    return joined;
}

inline std::uint32_t Seconds(std::chrono::seconds time)
{
    constexpr std::uint32_t kTooLong = UINT32_MAX;
    return time.count() >= 0 && time.count() < kTooLong ? static_cast<std::uint32_t>(time.count())
                                                        : kTooLong;
}
}  // namespace detail

/// Reads what is known of a local directory file, from the state beside it; no state when no check
/// of it has ended yet. path: of the directory file. No Client is required, and it may be kept
/// current by another process. Blocks for reading a small file.
[[nodiscard]] inline std::optional<State> Status(const std::string& path,
                                                 std::error_code& error = Throws())
{
    corpdir_state record = {};
    record.size = sizeof record;
    const corpdir_code code = corpdir_status(detail::Text(path), &record);
    detail::Report(code == CORPDIR_ERR_NO_STATE ? CORPDIR_OK : code, error, record.reason);
    if (code != CORPDIR_OK)
    {
        return std::nullopt;
    }
    State state;
    state.version = record.version;
    state.sha256 = record.sha256;
    state.server = record.server;
    state.bytes = record.bytes;
    state.inPlace = record.in_place != 0;
    state.fetched = detail::TimeUnlessNever(record.fetched);
    state.confirmed = detail::TimeUnlessNever(record.confirmed);
    state.checked = detail::TimeUnlessNever(record.checked);
    state.failed = record.failed != 0;
    state.failures = record.failures;
    state.reason = record.reason;
    return state;
}

/// Returns the library's version, such as "1.0.0".
inline const char* Version() noexcept
{
    return corpdir_version();
}

/// A running service; one in a process at a time. Move-only. One that was moved from, closed or not
/// opened fails with Code::kClient.
class Client
{
public:
    /// Opens the log and starts the service; blocks for 5 s at most. After a failure with an error
    /// code the client is not open.
    explicit Client(const LogSettings& log = {}, std::error_code& error = Throws())
        : m_session(std::make_shared<detail::Session>())
    {
        corpdir_log_settings record = {};
        record.size = sizeof record;
        record.directory = detail::Text(log.directory);
        record.level = log.level;
        record.max_file_bytes = log.maxFileBytes;
        record.max_files = log.maxFiles;
        const corpdir_code code = corpdir_open(&record, &m_session->client);
        detail::Report(code, error, code == CORPDIR_OK ? "" : detail::StartReason(m_session));
    }

    /// Does not disturb a running onEvent.
    Client(Client&& other) noexcept = default;

    /// Closes this client. A process has one at a time, so the other one was opened after a Close
    /// of this one.
    Client& operator=(Client&& other) noexcept
    {
        Close();
        m_session = std::move(other.m_session);
        return *this;
    }

    /// Closes the client, as Close does.
    ~Client()
    {
        Close();
    }

    /// Stops the service, wipes the request's data and closes the client; once more it has no
    /// effect. Waits for an onEvent in progress, so do not hold a lock that onEvent takes.
    ///
    /// Afterwards onEvent does not run, and its copy is destroyed. Called by onEvent it does not
    /// wait for that call, which is the last one.
    void Close()
    {
        if (m_session != nullptr)
        {
            corpdir_close(m_session->client);
            std::list<detail::Callback> ended;
            const std::lock_guard<std::mutex> lock(m_session->mutex);
            ended.swap(m_session->callbacks);
        }
    }

    /// Takes a request and starts its first check; an earlier request ends. A request that cannot
    /// be used changes nothing: the code names the member, StartReason() the rule.
    ///
    /// onEvent is copied. It runs on the client's own thread, one call at a time, in the order of
    /// the events; the next event waits for its return. The first may come before Start returns. It
    /// may call every function, and destroy the Client. An exception that leaves it ends the
    /// process by std::terminate, and so does a lack of memory for the event.
    ///
    /// The copy is destroyed by Close and Stop, and when a later request was accepted, but not
    /// before its last call has returned. When calls overlap, the next one destroys it. A function
    /// that owns the Client keeps it until Close.
    ///
    /// Waits for the earlier request's end and an onEvent in progress, unless onEvent calls it; not
    /// for the network. Do not hold a lock that onEvent takes.
    void Start(const Request& request, std::error_code& error = Throws())
    {
        const std::string servers = detail::Joined(request.servers);
        const std::string names = detail::Joined(request.certificateNames);
        const std::string trust = TrustText(request);
        corpdir_request record = {};
        record.size = sizeof record;
        record.servers = detail::Text(servers);
        record.port = request.port;
        record.mode = request.mode == Mode::kFtp ? CORPDIR_MODE_FTP : CORPDIR_MODE_FTPS;
        record.trust = detail::Text(trust);
        record.without_verification = request.trust.m_verified ? 0 : 1;
        record.certificate_names = detail::TextOrNull(names);
        record.user = detail::Text(request.user);
        record.password = detail::Text(request.password);
        record.version_file = detail::Text(request.versionFile);
        record.directory_file = detail::Text(request.directoryFile);
        record.directory_dir = detail::Text(request.directoryDir);
        record.directory_name = detail::TextOrNull(request.directoryName);
        record.version_dir = detail::TextOrNull(request.versionDir);
        record.version_name = detail::TextOrNull(request.versionName);
        record.local_address = detail::Text(request.localAddress);
        record.max_file_bytes = request.maxFileBytes;
        record.connect_seconds = detail::Seconds(request.connectTimeout);
        record.retry_seconds = detail::Seconds(request.retryInterval);
        std::list<detail::Callback> own;
        if (request.onEvent)
        {
            own.push_back({std::make_shared<const detail::Function>(request.onEvent), 0});
            record.on_event = &detail::OnEvent;
            record.user_data = &own.front();
        }
        const std::shared_ptr<detail::Session> session = m_session;
        const corpdir_code code =
            detail::Replace(session, std::move(own),
                            [&](corpdir_client* client) { return corpdir_start(client, &record); });
        detail::Report(code, error, code == CORPDIR_OK ? "" : detail::StartReason(session));
    }

    /// Returns a sentence about the last Start; empty after a success. Does not block.
    std::string StartReason() const
    {
        return detail::StartReason(m_session);
    }

    /// Ends the request under way; the client stays open. Waits as Start does.
    void Stop(std::error_code& error = Throws())
    {
        detail::Report(detail::Replace(m_session, {}, &corpdir_stop), error);
    }

    /// Checks now. A check under way goes on, and another one follows it. Does not block.
    void CheckNow(std::error_code& error = Throws())
    {
        detail::Report(corpdir_check_now(Handle()), error);
    }

    /// Returns a descriptor that can be read while an event waits for NextEvent, for poll and event
    /// loops; -1 for a client that is not open. Do not read, write or close it, and remove it from
    /// the loop before Close. Does not block.
    int EventFd() const
    {
        return corpdir_event_fd(Handle());
    }

    /// Takes the next waiting event of a request without onEvent; nothing when none waits. After
    /// 1,000 events the oldest are dropped, and kLost is reported. Does not block.
    [[nodiscard]] std::optional<Event> NextEvent(std::error_code& error = Throws())
    {
        corpdir_event record = {};
        record.size = sizeof record;
        const corpdir_code code = corpdir_next_event(Handle(), &record);
        detail::Report(code == CORPDIR_ERR_NO_EVENT ? CORPDIR_OK : code, error);
        return code == CORPDIR_OK ? std::optional<Event>(detail::EventOf(record)) : std::nullopt;
    }

    /// Sets the TLS cipher suites for later requests, in order of preference, as two-byte IANA
    /// numbers; none: the default suites. Start refuses an unknown one. Does not block.
    void SetCiphers(const std::vector<std::uint16_t>& suites, std::error_code& error = Throws())
    {
        detail::Report(corpdir_set_ciphers(Handle(), suites.data(), suites.size()), error);
    }

private:
    corpdir_client* Handle() const noexcept
    {
        return detail::ClientOf(m_session);
    }

    static std::string TrustText(const Request& request)
    {
        const std::string& authorities = request.trust.m_authorities;
        if (authorities.find(';') != std::string::npos)
        {
            return detail::kUnusable;
        }
        return "ca=" + authorities + (request.mode == Mode::kImplicitFtps ? ";tls=implicit" : "");
    }

    std::shared_ptr<detail::Session> m_session;
};

}  // namespace corpdir

namespace std
{
/// Makes corpdir::Code convertible to std::error_code.
template <>
struct is_error_code_enum<corpdir::Code> : true_type
{
};
}  // namespace std

#endif
