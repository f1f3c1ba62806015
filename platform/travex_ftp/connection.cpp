#include "connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "curl_errors.h"
#include "log.h"

namespace travex_ftp
{
namespace
{
// A control socket that was readable, but from which libcurl took nothing, is left alone for this
// time: it would be readable again at once, and keep the thread spinning.
constexpr milliseconds kMute{100};

// Calls in a row that libcurl gets to open a data socket; it needs one.
constexpr unsigned int kPasses = 4;

// A farewell is over as soon as it has begun; should libcurl ever wait, then not for longer.
constexpr milliseconds kFarewell{1000};

// Some servers have room for few connections that they have not accepted yet. What does not fit is
// offered again by the system after 1 s, 3 s, 7 s and so on.
constexpr milliseconds kGreeting{1000};

bool connected(curl_socket_t socket)
{
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    return socket != CURL_SOCKET_BAD &&
           getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

}  // namespace

Connection::Connection(std::shared_ptr<const Settings> settings, const Limits& limits,
                       Sockets& sockets, unsigned int number)
    : settings_(std::move(settings)),
      limits_(limits),
      sockets_(sockets),
      number_(number),
      control_(*settings_, TlsChannel::Kind::Control, *this),
      data_(*settings_, TlsChannel::Kind::Data, *this)
{
}

Connection::~Connection() = default;

bool Connection::open() const
{
    return (transfer_ != nullptr || idle()) && connected(alive() ? controlSocket_ : connecting_);
}

bool Connection::welcome() const
{
    return alive() && (used_ || (transfer_ != nullptr && *transfer_->replies().verb() != '\0'));
}

Clock::time_point Connection::patience() const
{
    const bool greeted = transfer_ == nullptr || used_ || transfer_->replies().lines() != 0;
    return greeted ? Clock::time_point::max() : started_ + kGreeting;
}

bool Connection::matches(const Settings& settings) const
{
    return settings_->sameConnection(settings);
}

bool Connection::serves(const Settings& settings) const
{
    return idle() && matches(settings);
}

// Once per connection: what is set here holds for all its transfers.
bool Connection::prepare()
{
    if (easy_ != nullptr)
    {
        return true;
    }
    easy_.reset(curl_easy_init());
    return easy_ != nullptr && installCallbacks() &&
           setConnectionOptions(easy_.get(), *settings_, limits_, number_) == CURLE_OK;
}

bool Connection::installCallbacks()
{
    CURL* const easy = easy_.get();
    return curl_easy_setopt(easy, CURLOPT_PRIVATE, this) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, detail_) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, onOpenSocket) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, onCloseSocket) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, onReady) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_PREREQDATA, this) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onReply) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_HEADERDATA, this) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onData) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_WRITEDATA, this) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, onTlsContext) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, this) == CURLE_OK &&
           // The debug callback is how libcurl tells which commands it sends.
           curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, onDebug) == CURLE_OK &&
           curl_easy_setopt(easy, CURLOPT_DEBUGDATA, this) == CURLE_OK;
}

bool Connection::add(CURLM* multi)
{
    loggedIn_ = false;
    socketError_ = 0;
    detail_[0] = '\0';
    started_ = Clock::now();
    // Until the file flows it is Transfer that finds a reply missing.
    if (setReplyLimit(easy_.get(), leaving_ ? kFarewell : limits_.transfer) != CURLE_OK ||
        curl_multi_add_handle(multi, easy_.get()) != CURLM_OK)
    {
        return false;
    }
    multi_ = multi;
    return true;
}

bool Connection::start(CURLM* multi, std::unique_ptr<Transfer> transfer)
{
    transfer_ = std::move(transfer);
    transfer_->begin(alive());
    data_.forget();
    mutedUntil_ = Clock::time_point();
    try
    {
        const std::string& file = transfer_->task().serverFile;
        if (prepare() && setDownload(easy_.get(), *settings_, file, request_) == CURLE_OK &&
            add(multi))
        {
            return true;
        }
    }
    catch (const std::bad_alloc&)
    {
        // said below
    }
    return failSystem(transfer_->failure(), "connection");
}

void Connection::leave(CURLM* multi)
{
    leaving_ = true;
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: closing the connection", settings_->serverText.c_str());
    try
    {
        if (setFarewell(easy_.get(), *settings_, request_) == CURLE_OK && add(multi))
        {
            return;
        }
    }
    catch (const std::bad_alloc&)
    {
        // as below
    }
    // Useless from now on; libcurl closes it with its pool.
    shutDown();
}

std::unique_ptr<Transfer> Connection::end()
{
    if (transfer_ != nullptr)
    {
        describe(transfer_->course());
    }
    if (busy())
    {
        (void)curl_multi_remove_handle(multi_, easy_.get());
        multi_ = nullptr;
    }
    connecting_ = CURL_SOCKET_BAD;
    idleSince_ = Clock::now();
    return std::move(transfer_);
}

std::unique_ptr<Transfer> Connection::end(CURLcode result)
{
    if (transfer_ != nullptr)
    {
        (void)judge(result);
    }
    return end();
}

// What only the connection knows of the transfer's course.
void Connection::describe(tagTRAVEX_FTP_S_COURSE& course) const
{
    control_.describe(course);
    course.ulDataResumed = data_.resumed() ? 1 : 0;
}

// The one place where success is decided: libcurl's word alone is not enough.
bool Connection::judge(CURLcode result)
{
    Failure& failure = transfer_->failure();
    if (failed(failure) || cancelled())
    {
        return false;
    }
    if (result != CURLE_OK || !checkDataChannel())
    {
        // With implicit TLS a server with too many connections may say so before the handshake.
        if (control_.turnedAway())
        {
            static const char kReply[] = "421 in clear, before TLS\r\n";
            (void)transfer_->replyHeard(kReply, sizeof kReply - 1);
        }
        explain({result, detail_, easy_.get(), socketError_, loggedIn_, control_, data_,
                 settings_->tls},
                *transfer_);
        return false;
    }
    const bool complete = transfer_->checkComplete() && transfer_->commit();
    Worker::parkAtExit();  // flushing a file may take longer than the process cares to wait
    return complete;
}

// Over TLS the end of the file is the end of a channel that was checked, said by the peer.
bool Connection::checkDataChannel()
{
    return !settings_->tls.encrypted ||
           (control_.established() && data_.established() && data_.closed());
}

void Connection::shutDown()
{
    for (const curl_socket_t socket : {controlSocket_, dataSocket_})
    {
        if (socket != CURL_SOCKET_BAD)
        {
            (void)shutdown(socket, SHUT_RDWR);
        }
    }
}

// Of what the connection is doing now; there is always one thing.
Clock::time_point Connection::deadline() const
{
    if (transfer_ != nullptr)
    {
        return transfer_->deadline();
    }
    return leaving_ ? started_ + kFarewell : idleSince_ + limits_.idle;
}

bool Connection::expire(Clock::time_point now)
{
    if (transfer_ == nullptr)
    {
        shutDown();
        return true;
    }
    const curl_socket_t made = loggedIn_ ? dataSocket_ : controlSocket_;
    transfer_->expire(now, connected(connecting_ != CURL_SOCKET_BAD ? connecting_ : made));
    return failed(transfer_->failure());
}

// libcurl 7.88 reads the address of the data connection, returns, and then waits for no socket at
// all: it opens the data socket when it is called again. Without a call that is when some timer of
// its own happens to run out, if one does.
bool Connection::owesDataSocket() const
{
    const unsigned int code = transfer_ != nullptr ? transfer_->replies().code() : 0;
    return loggedIn_ && dataSocket_ == CURL_SOCKET_BAD && connecting_ == CURL_SOCKET_BAD &&
           (code == 229 || code == 227) && passes_ < kPasses;
}

Clock::time_point Connection::wakeAt(Clock::time_point now)
{
    if (leaving_ && !busy())
    {
        return Clock::time_point::max();  // left to the pool
    }
    if (owesDataSocket())
    {
        ++passes_;
        return now;
    }
    if (!alive() && !busy())
    {
        return now;  // dead, and in the way of what waits for a connection
    }
    Clock::time_point at = deadline();
    for (const Clock::time_point other : {mutedUntil_, patience()})
    {
        at = other > now ? std::min(at, other) : at;
    }
    return at;
}

curl_socket_t Connection::watched(Clock::time_point now) const
{
    if (!busy())
    {
        return leaving_ ? CURL_SOCKET_BAD : controlSocket_;  // the server may give up an idle one
    }
    // While the data channel's handshake is pending libcurl watches the data socket alone, and
    // finds the reply that it needs to go on by a timer of 200 ms.
    const bool handshakePending = transfer_ != nullptr && settings_->tls.encrypted && loggedIn_ &&
                                  dataSocket_ != CURL_SOCKET_BAD && transfer_->received() == 0;
    return handshakePending && now >= mutedUntil_ ? controlSocket_ : CURL_SOCKET_BAD;
}

// Called between two passes of libcurl: what it has not read in the last one it will not read in
// the next.
void Connection::woken(Clock::time_point now)
{
    const uint64_t heard = transfer_ != nullptr ? transfer_->replies().lines() : 0;
    if (heard == heardAtWake_)
    {
        mutedUntil_ = now + kMute;
    }
    heardAtWake_ = heard;
}

curl_socket_t Connection::onOpenSocket(void* self, curlsocktype, curl_sockaddr* address)
{
    Connection& it = *static_cast<Connection*>(self);
    // A connection is made once: what its pooled control connection has become unfit for is tried
    // anew by a new one, and a farewell to a dead one is none.
    if (it.leaving_ || it.transfer_ == nullptr || (!it.loggedIn_ && it.transfer_->reused()))
    {
        return CURL_SOCKET_BAD;
    }
    const curl_socket_t socket =
        it.sockets_.open(address->family, address->socktype, address->protocol);
    it.socketError_ = socket == CURL_SOCKET_BAD ? errno : 0;
    it.connecting_ = socket;
    it.transfer_->connecting(it.loggedIn_);
    if (it.loggedIn_)
    {
        // A data connection by EPSV that does not come is followed by one by PASV: for that it is
        // libcurl that has to find out.
        it.limitConnecting(it.limits_.connect);
    }
    return socket;
}

// libcurl does not tell when a socket is connected; it shows by what comes next.
void Connection::socketConnected()
{
    if (connecting_ != CURL_SOCKET_BAD)
    {
        sockets_.connected(connecting_);
        (loggedIn_ ? dataSocket_ : controlSocket_) = connecting_;
        connecting_ = CURL_SOCKET_BAD;
        if (!loggedIn_ && transfer_ != nullptr)
        {
            transfer_->course().ullConnected = transfer_->elapsed();
        }
    }
}

// libcurl's clock for connecting runs from the start of the transfer, and rules all it does before
// the login and between address and first command of a data connection.
void Connection::limitConnecting(milliseconds limit)
{
    const auto since = std::chrono::duration_cast<milliseconds>(Clock::now() - started_);
    (void)curl_easy_setopt(easy_.get(), CURLOPT_CONNECTTIMEOUT_MS,
                           static_cast<long>((since + limit).count()));
}

// The last that is heard of a channel: after its TLS session has been freed.
int Connection::onCloseSocket(void* self, curl_socket_t socket)
{
    Connection& it = *static_cast<Connection*>(self);
    for (curl_socket_t* known : {&it.connecting_, &it.controlSocket_, &it.dataSocket_})
    {
        if (*known == socket)
        {
            *known = CURL_SOCKET_BAD;
        }
    }
    return it.sockets_.close(socket);
}

// Called when a control connection is there and logged in, new or reused.
int Connection::onReady(void* self, char*, char*, int, int)
{
    auto* const it = static_cast<Connection*>(self);
    it->loggedIn_ = it->used_ = true;
    if (it->transfer_ != nullptr && !it->transfer_->reused())
    {
        it->transfer_->course().ullLoggedIn = it->transfer_->elapsed();
    }
    return CURL_PREREQFUNC_OK;
}

// Called with each line of a reply.
size_t Connection::onReply(char* line, size_t size, size_t count, void* self)
{
    Connection& it = *static_cast<Connection*>(self);
    const size_t length = size * count;
    if (it.transfer_ == nullptr)
    {
        return length;
    }
    if (!it.loggedIn_)
    {
        it.socketConnected();
    }
    if (it.cancelled() || !it.transfer_->replyHeard(line, length))
    {
        it.shutDown();
        return 0;
    }
    if (it.transfer_->replies().opened())
    {
        // From here on libcurl waits in blocking calls: for the data channel's handshake, and after
        // the file for the 226.
        it.limitConnecting(it.limits_.handshake);
        (void)setReplyLimit(it.easy_.get(), it.limits_.confirm);
    }
    it.goOn();
    return length;
}

size_t Connection::onData(char* data, size_t size, size_t count, void* self)
{
    Connection& it = *static_cast<Connection*>(self);
    const size_t length = size * count;
    if (it.transfer_ != nullptr && !it.cancelled() && it.dataAllowed() &&
        it.transfer_->dataArrived(data, length))
    {
        return length;
    }
    // After a refused write libcurl would wait, in a blocking call, for what the server says of it.
    it.shutDown();
    return 0;
}

// Second to libcurl's own care: not one byte of a file is taken in clear where TLS is demanded.
bool Connection::dataAllowed()
{
    if (!settings_->tls.encrypted || (control_.established() && data_.established()))
    {
        return true;
    }
    return fail(transfer_->failure(), TRAVEX_FTP_ERR_TLS, "the data channel is not encrypted");
}

int Connection::onDebug(CURL*, curl_infotype type, char* data, size_t size, void* self)
{
    Connection& it = *static_cast<Connection*>(self);
    if (type != CURLINFO_HEADER_OUT)
    {
        return 0;
    }
    if (it.transfer_ != nullptr)
    {
        // A data socket that does not connect is followed by PASV; any other command finds it
        // connected.
        if (size >= 4 && memcmp(data, "PASV", 4) == 0)
        {
            it.connecting_ = CURL_SOCKET_BAD;
        }
        it.socketConnected();
        it.transfer_->commandSent(data, size);
        it.proven_ = it.proven_ || !it.blocksToConnect();
        it.limitConnecting(it.limits_.transfer);
        it.passes_ = 0;
    }
    // libcurl waits for the answer to QUIT in a blocking call, which would hold up every transfer.
    // The command is on its way; with the socket shut down the call returns at once.
    if (size >= 4 && memcmp(data, "QUIT", 4) == 0 && it.controlSocket_ != CURL_SOCKET_BAD)
    {
        (void)shutdown(it.controlSocket_, SHUT_RDWR);
    }
    return 0;
}

// Called with the fresh context of every TLS channel, before its handshake.
CURLcode Connection::onTlsContext(CURL*, void* context, void* self)
{
    Connection& it = *static_cast<Connection*>(self);
    it.socketConnected();
    TlsChannel& channel = it.loggedIn_ ? it.data_ : it.control_;
    // The handshake of an explicit control channel is a blocking call; for all others this is far
    // beyond our own limit.
    const bool blocks = !it.loggedIn_ && it.blocksToConnect();
    it.limitConnecting(blocks ? it.limits_.handshake : it.limits_.transfer);
    return channel.configure(static_cast<SSL_CTX*>(context)) ? CURLE_OK : CURLE_SSL_CIPHER;
}

void Connection::handshakeStarted()
{
    goOn();
}

void Connection::handshakeDone()
{
    proven_ = proven_ || control_.established();
    if (transfer_ != nullptr && !loggedIn_)
    {
        transfer_->course().ullSecured = transfer_->elapsed();
    }
    limitConnecting(limits_.transfer);
    goOn();
}

// What is to be waited for next. A data channel's handshake is pending from its connection on, but
// the server may take it up only when it has said 150.
void Connection::goOn()
{
    if (transfer_ == nullptr)
    {
        return;
    }
    const Replies& replies = transfer_->replies();
    if (control_.shaking() || (data_.shaking() && (replies.opened() || replies.answered())))
    {
        transfer_->shaking();
    }
    else
    {
        transfer_->goOn();
    }
}

}  // namespace travex_ftp
