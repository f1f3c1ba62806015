// A TCP connection, with or without TLS.
#ifndef TRAVEX_FTP_CHANNEL_H
#define TRAVEX_FTP_CHANNEL_H

#include <poll.h>

#include <string>

#include "base/descriptor.h"
#include "limits.h"
#include "openssl_ptr.h"
#include "settings.h"

namespace travex_ftp
{
// Result of an operation on a channel.
enum class Io
{
    kDone,
    kAgain,       // it would block
    kEnded,       // the peer closed the channel: Channel::Why
    kFailed,      // it failed otherwise: Channel::Why
    kTimedOut,    // the deadline has passed
    kCancelled,   // the transfer was cancelled
    kOtherReady,  // Deadline::other is ready
};

// Limits of a wait: a point in time, and a descriptor that becomes readable when the transfer is
// cancelled. The wait also ends when `other`, if set, is ready.
struct Deadline
{
    Clock::time_point at;
    int cancel = -1;
    int other = -1;
    short otherEvents = POLLIN;

    // Waits for events on the socket (-1: none). Returns kDone, kTimedOut, kCancelled or
    // kOtherReady.
    Io Wait(int socket, short events) const;
};

// Not thread-safe: transfer thread only. Operations with a deadline return by then, the others do
// not block. SIGPIPE is blocked on the transfer thread.
class Channel
{
public:
    Channel() = default;
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Starts to connect. kDone: in progress or complete.
    Io Connect(const Address& server, unsigned int port, const Address& local);

    // Result of the connect; kAgain while in progress.
    Io Connected();
    Io AwaitConnected(const Deadline& deadline);

    // Prepares a TLS handshake.
    Io Handshake(OpensslPtr<SSL> ssl);

    // Makes the handshake. May be called again after kOtherReady.
    Io ContinueHandshake(const Deadline& deadline);

    // Reads available bytes. After kEnded CloseNotified() tells how the channel ended.
    Io Read(char* buffer, size_t size, size_t& length);

    // Waits until Read returns something other than kAgain.
    Io AwaitReadable(const Deadline& deadline);

    // Sends the TCP acknowledgement at once: a server may delay its next reply until it arrives.
    void Acknowledge() const;

    // Writes all bytes.
    Io Write(const char* data, size_t length, const Deadline& deadline);

    // Sends close_notify if that does not block, and closes the connection.
    void Close();

    int Socket() const
    {
        return m_socket.Number();
    }
    SSL* Tls() const
    {
        return m_ssl.get();
    }

    // The peer sent close_notify: nothing was truncated.
    bool CloseNotified() const
    {
        return m_closeNotified;
    }

    // Plaintext that the peer sent instead of a handshake, else empty.
    const std::string& ClearText() const
    {
        return m_clearText;
    }

    // Why the last operation ended or failed.
    const char* Why() const
    {
        return m_why;
    }

    // OpenSSL's error code of a failed handshake, else 0.
    unsigned long TlsError() const
    {
        return m_tlsError;
    }

private:
    Io Fail(int error);
    Io Classify(int result);
    bool BindLocal(const Address& local);
    bool AnswersInTls();
    static void OnMessage(int sent, int version, int type, const void* data, size_t length,
                          SSL* ssl, void* channel);

    base::Descriptor m_socket;
    OpensslPtr<SSL> m_ssl;
    short m_events = POLLIN;
    Io m_connecting = Io::kAgain;  // kDone: connected
    bool m_answered = false;       // the peer's first byte was that of a TLS record
    unsigned int m_messages = 0;   // handshake messages received
    bool m_closeNotified = false;
    unsigned long m_tlsError = 0;
    std::string m_clearText;
    const char* m_why = "";
};

}  // namespace travex_ftp

#endif
