// The control connection to a server: connect, TLS, login, commands and replies.
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
// Serves transfers one after the other. Not thread-safe: transfer thread only.
class ControlConnection
{
public:
    // `closed` becomes true when the handle is closed; it must outlive the object.
    ControlConnection(std::shared_ptr<const Settings> settings, const std::atomic<bool>& closed);
    ControlConnection(const ControlConnection&) = delete;
    ControlConnection& operator=(const ControlConnection&) = delete;

    // Connects, reads the greeting, secures the connection, logs in and selects the image type
    // (TYPE I). False: failed or cancelled, see the attempt; the connection is unusable.
    bool Open(Attempt& attempt);

    // Prepares the connection for a further transfer.
    void BeginTransfer(Attempt& attempt);

    // Sends a command and reads its reply. False: no reply, or a 421.
    bool Command(Attempt& attempt, const char* verb, const char* argument, Reply& reply);

    // Sends a command; ReadReply reads its reply.
    bool Send(Attempt& attempt, const char* verb, const char* argument);

    // Waits for the next reply. False: no reply, or a 421.
    bool ReadReply(Attempt& attempt, Reply& reply);

    // Reads a reply that has arrived, without waiting. kAgain: none; kEnded, kFailed: the
    // connection is lost. A reply that exceeds the limits fails the attempt and returns kFailed.
    // `heading` labels the reply in the log; null: the last command.
    Io PollReply(Attempt& attempt, Reply& reply, const char* heading = nullptr);

    // When the next line of the reply is due; each line extends it.
    Clock::time_point ReplyDue() const
    {
        return m_replyDue;
    }

    // False, with the failure set, if a reply from PollReply is a 421.
    bool Accept(Attempt& attempt, const Reply& reply) const;

    // Sets the failure for the result of a wait for a reply, or of PollReply. Returns false.
    bool FailWait(Attempt& attempt, Io io);

    // True if the connection is open and no unsolicited reply has arrived.
    bool NothingPending();

    // Sends QUIT without waiting for its reply, and closes the connection.
    void Quit();

    // True if the connection may be reused with these settings.
    bool Serves(const Settings& settings) const
    {
        return m_settings->SameConnection(settings);
    }

    // A TLS object for the handshake of a data channel.
    OpensslPtr<SSL> MakeDataTls()
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

    // Replies since Open or BeginTransfer.
    unsigned int ReplyCount() const
    {
        return m_replyCount;
    }

    // SIZE, the 150 and the received bytes agreed for a file on this connection: SIZE is left out
    // from then on.
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
    bool Require(Attempt& attempt, const char* verb, const char* argument, unsigned int code,
                 const char* refused);
    bool DiscardUnsolicited(Attempt& attempt);
    static Io FailTooLong(Attempt& attempt, uint64_t limit, const char* unit);

    const std::shared_ptr<const Settings> m_settings;
    Channel m_channel;
    ReplyReader m_reader;
    std::unique_ptr<TlsContext> m_tls;
    const std::atomic<bool>& m_closed;
    const char* m_verb = "the greeting";
    Clock::time_point m_replyDue;
    unsigned int m_replyCount = 0;
    bool m_greeted = false;
    bool m_loggedIn = false;
};

}  // namespace travex_ftp

#endif
