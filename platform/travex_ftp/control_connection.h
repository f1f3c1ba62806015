// The control connection to a server: the dialogue up to a login, and its commands.
#ifndef TRAVEX_FTP_CONTROL_CONNECTION_H
#define TRAVEX_FTP_CONTROL_CONNECTION_H

#include <atomic>
#include <memory>

#include "attempt.h"
#include "channel.h"
#include "replies.h"
#include "settings.h"
#include "tls_context.h"

namespace travex_ftp
{
// Serves one transfer after the other. Not thread-safe: the transfer thread's.
class ControlConnection
{
public:
    // `closed`: the handle was closed. It must outlive the object.
    ControlConnection(std::shared_ptr<const Settings> settings, const std::atomic<bool>& closed);
    ControlConnection(const ControlConnection&) = delete;
    ControlConnection& operator=(const ControlConnection&) = delete;

    // Connects, greets, secures, logs in, and asks for files as they are. False: it has failed, or
    // was cancelled, as the attempt says; the connection is of no use then.
    bool Open(Attempt& attempt);

    // A further transfer begins on it.
    void Reopen(Attempt& attempt);

    // Sends a command and takes its reply. False: there is none, or it ends the service.
    bool Command(Attempt& attempt, const char* verb, const char* argument, Reply& reply);

    // Sends a command; its reply is taken by ReadReply.
    bool Send(Attempt& attempt, const char* verb, const char* argument);

    // Waits for the next reply. False as Command.
    bool ReadReply(Attempt& attempt, Reply& reply);

    // Takes a reply that has arrived, without waiting. kAgain: there is none; kEnded, kFailed: the
    // connection is lost. A reply that is too long is a failure of the attempt, and kFailed.
    // `heading` names it in the log; null: the last command does.
    Io PollReply(Attempt& attempt, Reply& reply, const char* heading = nullptr);

    // When the next line of the reply must be there; each line moves it.
    Clock::time_point ReplyDue() const
    {
        return m_replyDue;
    }

    // A reply that PollReply took: false if it ends the service.
    bool Accept(Attempt& attempt, const Reply& reply) const;

    // A wait for a reply, or PollReply, has ended so: sets the failure.
    bool FailWait(Attempt& attempt, Io io);

    // The server is there, and has said nothing unasked.
    bool Quiet();

    // Leaves the server with a QUIT, without waiting for its reply.
    void Quit();

    // It was made with settings that serve these too.
    bool Serves(const Settings& settings) const
    {
        return m_settings->SameConnection(settings);
    }

    // A data channel of it, its TLS handshake to be made.
    TlsContext::Ssl MakeDataTls()
    {
        return m_tls->MakeData(m_channel.Tls());
    }
    TlsContext& Tls()
    {
        return *m_tls;
    }

    Channel& TheChannel()
    {
        return m_channel;
    }
    const Settings& TheSettings() const
    {
        return *m_settings;
    }

    // Replies since Open or Reopen.
    unsigned int Heard() const
    {
        return m_heard;
    }

    // On this connection SIZE, the 150 and the bytes have agreed: the 150 is enough.
    bool sizesAgree = false;

private:
    bool Connect(Attempt& attempt);
    bool Greet(Attempt& attempt);
    bool Secure(Attempt& attempt);
    bool Handshake(Attempt& attempt);
    bool FailHandshake(Attempt& attempt, Io io);
    bool LogIn(Attempt& attempt);
    bool Protect(Attempt& attempt);
    bool ChooseType(Attempt& attempt);
    bool DiscardStray(Attempt& attempt);
    static Io FailTooLong(Attempt& attempt, uint64_t bytes);

    const std::shared_ptr<const Settings> m_settings;
    Channel m_channel;
    ReplyReader m_reader;
    std::unique_ptr<TlsContext> m_tls;
    const std::atomic<bool>& m_closed;
    const char* m_verb = "the greeting";
    Clock::time_point m_replyDue;
    unsigned int m_heard = 0;
    bool m_greeted = false;
    bool m_loggedIn = false;
};

}  // namespace travex_ftp

#endif
