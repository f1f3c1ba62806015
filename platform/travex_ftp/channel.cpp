#include "channel.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "failure.h"

namespace travex_ftp
{
namespace
{
// A router drops an idle connection, such as the control connection during a long transfer.
constexpr int kKeepAliveIdle = 45;      // seconds until the first probe
constexpr int kKeepAliveInterval = 15;  // seconds between probes

constexpr char kClosed[] = "closed by the server";

socklen_t ToSystem(const Address& address, unsigned int port, sockaddr_storage& storage)
{
    storage = {};
    if (address.length == 16)
    {
        auto* const v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        memcpy(&v6->sin6_addr, address.bytes, 16);
        return sizeof *v6;
    }
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&storage);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    memcpy(&v4->sin_addr, address.bytes, 4);
    return sizeof *v4;
}

void Set(int socket, int level, int option, int value)
{
    (void)setsockopt(socket, level, option, &value, sizeof value);  // a failure does no harm
}

// Text of an OpenSSL error. For the peer's alerts it is the alert's description: the reason's text
// differs between OpenSSL releases.
const char* TlsErrorText(unsigned long error)
{
    const int reason = ERR_GET_REASON(error);
    if (ERR_GET_LIB(error) == ERR_LIB_SSL && reason >= SSL_AD_REASON_OFFSET)
    {
        return SSL_alert_desc_string_long(reason - SSL_AD_REASON_OFFSET);
    }
    const char* const words = ERR_reason_error_string(error);
    return words != nullptr ? words : "unknown error";
}

// Milliseconds to wait, rounded up.
int Milliseconds(Clock::time_point until)
{
    const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 3600000));
}

}  // namespace

Io Deadline::Wait(int socket, short events) const
{
    for (;;)
    {
        // poll ignores negative descriptors.
        pollfd watched[] = {{socket, events, 0}, {cancel, POLLIN, 0}, {other, otherEvents, 0}};
        const int ready = poll(watched, 3, Milliseconds(at));
        if (watched[1].revents != 0)
        {
            return Io::kCancelled;
        }
        if (watched[0].revents != 0)
        {
            return Io::kDone;
        }
        if (watched[2].revents != 0)
        {
            return Io::kOtherReady;
        }
        if (ready <= 0 && Clock::now() >= at)
        {
            return Io::kTimedOut;
        }
    }
}

Channel::~Channel()
{
    Close();
}

Io Channel::Fail(int error)
{
    m_why = error == 0 ? kClosed : SystemError(error);
    return error == 0 ? Io::kEnded : Io::kFailed;
}

bool Channel::BindLocal(const Address& local)
{
    sockaddr_storage storage;
    const socklen_t length = ToSystem(local, 0, storage);
    Set(Socket(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
    return local.Zero() || bind(Socket(), reinterpret_cast<sockaddr*>(&storage), length) == 0;
}

Io Channel::Connect(const Address& server, unsigned int port, const Address& local)
{
    sockaddr_storage storage;
    const socklen_t length = ToSystem(server, port, storage);
    m_socket =
        base::Descriptor(socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_socket.IsOpen() || !BindLocal(local))
    {
        return Fail(errno);
    }
    Set(Socket(), SOL_SOCKET, SO_KEEPALIVE, 1);
    Set(Socket(), IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdle);
    Set(Socket(), IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveInterval);
    Set(Socket(), IPPROTO_TCP, TCP_NODELAY, 1);
    m_connecting = Io::kAgain;
    if (connect(Socket(), reinterpret_cast<sockaddr*>(&storage), length) == 0)
    {
        m_connecting = Io::kDone;
    }
    else if (errno != EINPROGRESS && errno != EINTR)
    {
        m_connecting = Fail(errno);
    }
    return m_connecting == Io::kAgain ? Io::kDone : m_connecting;
}

Io Channel::Connected()
{
    pollfd watched = {Socket(), POLLOUT, 0};
    if (m_connecting != Io::kAgain || poll(&watched, 1, 0) <= 0)
    {
        return m_connecting;
    }
    // SO_ERROR returns an error only once.
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(Socket(), SOL_SOCKET, SO_ERROR, &error, &size);
    m_connecting = error == 0 ? Io::kDone : Fail(error);
    return m_connecting;
}

Io Channel::AwaitConnected(const Deadline& deadline)
{
    for (;;)
    {
        const Io connected = Connected();
        if (connected != Io::kAgain)
        {
            return connected;
        }
        const Io waited = deadline.Wait(Socket(), POLLOUT);
        if (waited != Io::kDone)
        {
            return waited;
        }
    }
}

Io Channel::Handshake(OpensslPtr<SSL> ssl)
{
    m_ssl = std::move(ssl);
    m_answered = false;
    m_messages = 0;
    SSL_set_msg_callback(m_ssl.get(), OnMessage);
    SSL_set_msg_callback_arg(m_ssl.get(), this);
    // OpenSSL reads from the socket only after AnswersInTls has seen the first byte.
    BIO* const nothing = BIO_new(BIO_s_mem());
    if (nothing == nullptr || SSL_set_wfd(m_ssl.get(), Socket()) != 1)
    {
        BIO_free(nothing);
        return Fail(ENOMEM);
    }
    SSL_set0_rbio(m_ssl.get(), nothing);
    SSL_set_connect_state(m_ssl.get());
    return Io::kDone;
}

// OpenSSL skips some messages, such as HelloRequest, without returning. A server that sends them
// without end would keep the thread beyond every deadline.
void Channel::OnMessage(int sent, int, int type, const void*, size_t, SSL*, void* channel)
{
    constexpr unsigned int kMostMessages = 1000;
    auto* const self = static_cast<Channel*>(channel);
    if (sent == 0 && type == SSL3_RT_HANDSHAKE && ++self->m_messages > kMostMessages)
    {
        (void)shutdown(self->Socket(), SHUT_RD);
    }
}

// Looks at the peer's first byte: a server that refuses the connection in cleartext, or does not
// speak TLS, must not be answered with a TLS alert.
bool Channel::AnswersInTls()
{
    if (m_answered)
    {
        return true;
    }
    char begin[512];
    const ssize_t length = recv(Socket(), begin, sizeof begin - 1, MSG_PEEK);
    if (length < 0)
    {
        // The system reports an error only once.
        const bool later = errno == EAGAIN || errno == EINTR;
        return later || Fail(errno) == Io::kDone;
    }
    m_answered = true;
    constexpr char kFirstType = 0x14;
    constexpr char kLastType = 0x18;  // of a TLS record
    if (length == 0 || (begin[0] >= kFirstType && begin[0] <= kLastType))
    {
        return SSL_set_rfd(m_ssl.get(), Socket()) == 1 || Fail(ENOMEM) == Io::kDone;
    }
    begin[length] = '\0';
    m_clearText = std::string(begin, strcspn(begin, "\r\n"));
    MakePrintable(m_clearText.data());
    m_why = "the server does not speak TLS";
    return false;
}

Io Channel::ContinueHandshake(const Deadline& deadline)
{
    for (;;)
    {
        ERR_clear_error();
        const int result = SSL_do_handshake(m_ssl.get());
        if (result == 1)
        {
            m_events = POLLIN;
            return Io::kDone;
        }
        const Io ended = Classify(result);
        if (ended != Io::kAgain)
        {
            return ended;
        }
        const Io waited = deadline.Wait(Socket(), m_events);
        if (waited != Io::kDone)
        {
            return waited;
        }
        if (!AnswersInTls())
        {
            return Io::kFailed;
        }
    }
}

// Classifies an unsuccessful call of OpenSSL.
Io Channel::Classify(int result)
{
    const int error = errno;
    switch (SSL_get_error(m_ssl.get(), result))
    {
        case SSL_ERROR_WANT_READ:
            m_events = POLLIN;
            return Io::kAgain;
        case SSL_ERROR_WANT_WRITE:
            m_events = POLLOUT;
            return Io::kAgain;
        case SSL_ERROR_ZERO_RETURN:
            m_closeNotified = true;
            return Fail(0);
        case SSL_ERROR_SYSCALL:
            return Fail(error);
        default:
            m_tlsError = ERR_peek_last_error();
            if (ERR_GET_REASON(m_tlsError) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
            {
                return Fail(0);
            }
            m_why = TlsErrorText(m_tlsError);
            return Io::kFailed;
    }
}

Io Channel::Read(char* buffer, size_t size, size_t& length)
{
    length = 0;
    if (m_ssl != nullptr)
    {
        ERR_clear_error();
        const int result = SSL_read_ex(m_ssl.get(), buffer, size, &length);
        return result == 1 ? Io::kDone : Classify(result);
    }
    ssize_t result = 0;
    do
    {
        result = recv(Socket(), buffer, size, 0);
    } while (result < 0 && errno == EINTR);
    if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
    {
        return Io::kAgain;
    }
    length = result > 0 ? static_cast<size_t>(result) : 0;
    return result > 0 ? Io::kDone : Fail(result == 0 ? 0 : errno);
}

void Channel::Acknowledge() const
{
    Set(Socket(), IPPROTO_TCP, TCP_QUICKACK, 1);
}

Io Channel::AwaitReadable(const Deadline& deadline)
{
    return deadline.Wait(Socket(), m_events);
}

Io Channel::Write(const char* data, size_t length, const Deadline& deadline)
{
    if (m_ssl != nullptr && SSL_is_init_finished(m_ssl.get()) != 1)
    {
        return Fail(0);  // the handshake has failed
    }
    while (length != 0)
    {
        size_t written = 0;
        Io result = Io::kDone;
        if (m_ssl != nullptr)
        {
            ERR_clear_error();
            const int sent = SSL_write_ex(m_ssl.get(), data, length, &written);
            result = sent == 1 ? Io::kDone : Classify(sent);
        }
        else
        {
            const ssize_t sent = send(Socket(), data, length, MSG_NOSIGNAL);
            m_events = POLLOUT;
            const bool later = sent < 0 && (errno == EAGAIN || errno == EINTR);
            result = sent >= 0 ? Io::kDone : later ? Io::kAgain : Fail(errno);
            written = sent > 0 ? static_cast<size_t>(sent) : 0;
        }
        data += written;
        length -= written;
        result = result == Io::kAgain ? deadline.Wait(Socket(), m_events) : result;
        if (result != Io::kDone)
        {
            return result;
        }
    }
    m_events = POLLIN;
    return Io::kDone;
}

void Channel::Close()
{
    if (m_ssl != nullptr)
    {
        ERR_clear_error();
        if (SSL_is_init_finished(m_ssl.get()) == 1)
        {
            (void)SSL_shutdown(m_ssl.get());
        }
        // Without both flags OpenSSL makes the session unusable for resumption.
        SSL_set_shutdown(m_ssl.get(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
        m_ssl.reset();
        ERR_clear_error();
    }
    m_socket = base::Descriptor();
}

}  // namespace travex_ftp
