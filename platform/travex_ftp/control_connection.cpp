#include "control_connection.h"

#include <cstring>

#include "log.h"

namespace travex_ftp
{
namespace
{
constexpr unsigned int kLoggedIn = 230;

bool IsLogin(const char* verb)
{
    return strcmp(verb, "USER") == 0 || strcmp(verb, "PASS") == 0;
}

}  // namespace

ControlConnection::ControlConnection(std::shared_ptr<const Settings> settings,
                                     const std::atomic<bool>& closed)
    : m_settings(std::move(settings)), m_reader(m_settings->password), m_closed(closed)
{
}

bool ControlConnection::Open(Attempt& attempt)
{
    const TlsPolicy& tls = m_settings->tls;
    m_reader.Restart(attempt.limits);
    if (tls.encrypted)
    {
        m_tls = std::make_unique<TlsContext>(*m_settings, [this] { return m_closed.load(); });
    }
    const bool opened = Connect(attempt) && (!tls.implicit || Handshake(attempt)) &&
                        Greet(attempt) && (!tls.encrypted || tls.implicit || Secure(attempt)) &&
                        LogIn(attempt) && (!tls.encrypted || Protect(attempt)) &&
                        ChooseType(attempt);
    if (m_tls != nullptr)
    {
        m_tls->Describe(attempt.timings);
    }
    return opened;
}

void ControlConnection::BeginTransfer(Attempt& attempt)
{
    m_reader.Restart(attempt.limits);
    m_replyCount = 0;
    attempt.timings.ulReused = 1;
    if (m_tls != nullptr)
    {
        m_tls->Describe(attempt.timings);
    }
}

bool ControlConnection::Connect(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_CONNECT);
    const milliseconds limit = attempt.limits.connect;
    Io io = m_channel.Connect(m_settings->server, m_settings->port, m_settings->local);
    io = io == Io::kDone ? m_channel.AwaitConnected(attempt.Within(limit)) : io;
    if (io == Io::kDone)
    {
        attempt.timings.ullConnected = attempt.Elapsed();
        return true;
    }
    if (attempt.EndedBy(io))
    {
        return false;
    }
    return io == Io::kTimedOut ? Fail(attempt.failure, TRAVEX_FTP_ERR_TIMEOUT,
                                      "connection timed out after %g s", Attempt::Seconds(limit))
                               : Fail(attempt.failure, TRAVEX_FTP_ERR_CONNECT, "cannot connect: %s",
                                      m_channel.Why());
}

bool ControlConnection::Greet(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_GREETING);
    m_replyDue = Clock::now() + attempt.limits.response;
    Reply reply;
    do
    {
        if (!ReadReply(attempt, reply))
        {
            return false;
        }
    } while (reply.Preliminary());  // 120: service ready in some minutes
    m_greeted = true;
    if (reply.Negative())
    {
        return FailByReply(attempt.failure, TRAVEX_FTP_ERR_CONNECT,
                           "the server refused the connection", reply);
    }
    return reply.PositiveCompletion() ||
           FailByReply(attempt.failure, TRAVEX_FTP_ERR_REPLY, "unexpected greeting", reply);
}

// Explicit TLS (RFC 4217).
bool ControlConnection::Secure(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_AUTH);
    Reply reply;
    if (!Command(attempt, "AUTH", "TLS", reply))
    {
        return false;
    }
    constexpr unsigned int kSecurityDataExpected = 334;
    if (!reply.PositiveCompletion() && reply.code != kSecurityDataExpected)
    {
        return FailByReply(attempt.failure, TRAVEX_FTP_ERR_TLS, "AUTH refused", reply);
    }
    // Cleartext that is buffered here may have been injected, and would be read as a reply that
    // came over TLS.
    if (m_reader.Pending())
    {
        return Fail(attempt.failure, TRAVEX_FTP_ERR_TLS,
                    "plaintext received after the reply to AUTH: possible injection");
    }
    return Handshake(attempt);
}

bool ControlConnection::Handshake(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_TLS);
    OpensslPtr<SSL> ssl = m_tls->MakeControl();
    if (ssl == nullptr)
    {
        return FailSystem(attempt.failure, "TLS channel");
    }
    Io io = m_channel.Handshake(std::move(ssl));
    io = io == Io::kDone ? m_channel.ContinueHandshake(attempt.Within(attempt.limits.handshake))
                         : io;
    if (io != Io::kDone)
    {
        return FailHandshake(attempt, io);
    }
    m_tls->Established(m_channel.Tls(), false, attempt.timings);
    attempt.timings.ullSecured = attempt.Elapsed();
    return true;
}

// With implicit TLS a server at its connection limit may send its 421 in clear.
bool ControlConnection::FailHandshake(Attempt& attempt, Io io)
{
    const std::string& clear = m_channel.ClearText();
    if (attempt.EndedBy(io))
    {
        return false;
    }
    if (m_settings->tls.implicit && clear.compare(0, 4, "421 ") == 0)
    {
        SetStep(attempt.failure, TRAVEX_FTP_STEP_GREETING);
        attempt.failure.ulReply = kServiceNotAvailable;
        return Fail(attempt.failure, TRAVEX_FTP_ERR_CONNECT, "service not available: %s",
                    clear.c_str());
    }
    if (io == Io::kTimedOut)
    {
        return Fail(attempt.failure, TRAVEX_FTP_ERR_TIMEOUT, "TLS handshake timed out after %g s",
                    Attempt::Seconds(attempt.limits.handshake));
    }
    m_tls->Explain(m_channel.TlsError(), m_channel.Why(), false, attempt.failure);
    return false;
}

bool ControlConnection::LogIn(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_LOGIN);
    Reply reply;
    if (!Command(attempt, "USER", m_settings->user.c_str(), reply))
    {
        return false;
    }
    constexpr unsigned int kNeedPassword = 331;
    if (reply.code == kNeedPassword)
    {
        const RevealedSecret password(m_settings->password);
        if (!Send(attempt, "PASS", password.Text()) || !ReadReply(attempt, reply))
        {
            return false;
        }
    }
    if (!reply.PositiveCompletion())
    {
        return FailByReply(attempt.failure, TRAVEX_FTP_ERR_LOGIN, "login refused", reply);
    }
    m_loggedIn = true;
    attempt.timings.ullLoggedIn = attempt.Elapsed();
    return true;
}

bool ControlConnection::Protect(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_PROTECT);
    return Require(attempt, "PBSZ", "0", TRAVEX_FTP_ERR_TLS, "PBSZ refused") &&
           Require(attempt, "PROT", "P", TRAVEX_FTP_ERR_TLS, "PROT refused");
}

bool ControlConnection::ChooseType(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_TYPE);
    return Require(attempt, "TYPE", "I", TRAVEX_FTP_ERR_REPLY, "TYPE refused");
}

// Sends a command whose reply must be positive; `code` and `refused` are for one that is not.
bool ControlConnection::Require(Attempt& attempt, const char* verb, const char* argument,
                                unsigned int code, const char* refused)
{
    Reply reply;
    return Command(attempt, verb, argument, reply) &&
           (reply.PositiveCompletion() || FailByReply(attempt.failure, code, refused, reply));
}

bool ControlConnection::Command(Attempt& attempt, const char* verb, const char* argument,
                                Reply& reply)
{
    return Send(attempt, verb, argument) && ReadReply(attempt, reply);
}

// Sends nothing after the handle was closed.
bool ControlConnection::Send(Attempt& attempt, const char* verb, const char* argument)
{
    attempt.cancelled = attempt.cancelled || m_closed;
    if (attempt.cancelled || !DiscardUnsolicited(attempt))
    {
        return false;
    }
    m_verb = verb;
    char line[320];  // arguments have up to 255 bytes
    const int length =
        snprintf(line, sizeof line, "%s%s%s\r\n", verb, *argument != '\0' ? " " : "", argument);
    const milliseconds limit = attempt.limits.response;
    const Io sent = m_channel.Write(line, static_cast<size_t>(length), attempt.Within(limit));
    explicit_bzero(line, sizeof line);  // it may contain the password
    m_replyDue = Clock::now() + limit;
    return sent == Io::kDone || FailWait(attempt, sent);
}

// Discards replies that arrived before the command is sent. Some servers answer PASS twice.
bool ControlConnection::DiscardUnsolicited(Attempt& attempt)
{
    Reply reply;
    Io io = Io::kAgain;
    while ((io = PollReply(attempt, reply, "unsolicited reply")) == Io::kDone)
    {
        if (reply.code == kServiceNotAvailable)
        {
            return Accept(attempt, reply);
        }
    }
    return io == Io::kAgain || FailWait(attempt, io);
}

bool ControlConnection::ReadReply(Attempt& attempt, Reply& reply)
{
    for (;;)
    {
        Io io = PollReply(attempt, reply);
        if (io == Io::kDone)
        {
            return Accept(attempt, reply);
        }
        io = io == Io::kAgain ? m_channel.AwaitReadable(attempt.Until(m_replyDue)) : io;
        if (io != Io::kDone)
        {
            return FailWait(attempt, io);
        }
    }
}

Io ControlConnection::FailTooLong(Attempt& attempt, uint64_t limit, const char* unit)
{
    (void)Fail(attempt.failure, TRAVEX_FTP_ERR_REPLY, "the reply exceeds %llu %s",
               static_cast<unsigned long long>(limit), unit);
    return Io::kFailed;
}

Io ControlConnection::PollReply(Attempt& attempt, Reply& reply, const char* heading)
{
    const uint64_t bytes = attempt.limits.replyBytes;
    for (;;)
    {
        const uint64_t lines = m_reader.LinesLeft();
        const ReplyReader::Result result = m_reader.Next(reply, IsLogin(m_verb));
        if (lines != m_reader.LinesLeft())
        {
            m_replyDue = Clock::now() + attempt.limits.response;
        }
        switch (result)
        {
            case ReplyReader::Result::kReply:
                ++m_replyCount;
                TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: %s: %u %s", m_settings->serverText.c_str(),
                               heading != nullptr ? heading : m_verb, reply.code, reply.text);
                if (m_loggedIn && reply.code == kLoggedIn)
                {
                    continue;  // some servers answer PASS twice
                }
                return Io::kDone;
            case ReplyReader::Result::kTooManyBytes:
                return bytes % 1024 == 0 ? FailTooLong(attempt, bytes / 1024, "KB")
                                         : FailTooLong(attempt, bytes, "bytes");
            case ReplyReader::Result::kTooManyLines:
                return FailTooLong(attempt, attempt.limits.replyLines, "lines");
            case ReplyReader::Result::kIncomplete:
                break;
        }
        size_t size = 0;
        size_t length = 0;
        char* const room = m_reader.FreeSpace(size);
        const Io io = m_channel.Read(room, size, length);
        if (io != Io::kDone)
        {
            return io;
        }
        m_reader.Arrived(length);
    }
}

// A 421 is a failure, whatever the command.
bool ControlConnection::Accept(Attempt& attempt, const Reply& reply) const
{
    return reply.code != kServiceNotAvailable ||
           FailByReply(attempt.failure, TRAVEX_FTP_ERR_CONNECT, "service not available", reply);
}

bool ControlConnection::FailWait(Attempt& attempt, Io io)
{
    if (attempt.EndedBy(io))
    {
        return false;
    }
    if (io != Io::kTimedOut)
    {
        return Fail(attempt.failure, TRAVEX_FTP_ERR_TRANSFER, "connection lost during %s: %s",
                    m_verb, m_channel.Why());
    }
    const bool greeting = attempt.failure.ulStep == TRAVEX_FTP_STEP_GREETING;
    return Fail(attempt.failure, TRAVEX_FTP_ERR_TIMEOUT, "no %s%s within %g s",
                greeting ? "" : "reply to ", greeting ? "greeting" : m_verb,
                Attempt::Seconds(attempt.limits.response));
}

bool ControlConnection::NothingPending()
{
    char byte = 0;
    size_t length = 0;
    return !m_reader.Pending() && m_channel.Read(&byte, 1, length) == Io::kAgain;
}

void ControlConnection::Quit()
{
    if (m_greeted)
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: closing the connection",
                       m_settings->serverText.c_str());
        // Does not wait: if the socket's buffer is full, QUIT is not sent.
        (void)m_channel.Write("QUIT\r\n", 6, {Clock::now()});
    }
    m_channel.Close();
}

}  // namespace travex_ftp
