// One TCP connection, with TLS on it or without.
#ifndef TRAVEX_FTP_CHANNEL_H
#define TRAVEX_FTP_CHANNEL_H

#include <openssl/ssl.h>
#include <poll.h>

#include <memory>
#include <string>

#include "limits.h"
#include "settings.h"

namespace travex_ftp
{
// How an operation on a channel ended.
enum class Io
{
    kDone,
    kAgain,       // nothing can be read or written now
    kEnded,       // the peer has ended the channel: Channel::Why
    kFailed,      // it failed otherwise: Channel::Why
    kTimedOut,    // the deadline has passed
    kCancelled,   // the transfer was cancelled
    kOtherReady,  // something is to be seen on the other descriptor of the wait
};

// What bounds a wait: a point in time, and a descriptor that becomes readable when the transfer is
// cancelled. A wait ends too when there are events on `other`, if that is given.
struct Deadline
{
    Clock::time_point at;
    int cancel = -1;
    int other = -1;
    short otherEvents = POLLIN;

    // Waits until the events are there (-1: for no socket). kDone, kTimedOut, kCancelled,
    // kOtherReady.
    Io Wait(int socket, short events) const;
};

// Not thread-safe: the transfer thread's. No operation blocks beyond its deadline; those without
// one do not block. Writes raise no SIGPIPE that anyone gets: the thread has it blocked.
class Channel
{
public:
    Channel() = default;
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Begins to connect. kDone: it is under way, or done.
    Io Connect(const Address& server, unsigned int port, const Address& local);

    // The end of it: kAgain while it is under way.
    Io Connected();
    Io AwaitConnected(const Deadline& deadline);

    // Makes the TLS handshake. After kOtherReady it may be called again to go on.
    Io Handshake(std::unique_ptr<SSL, void (*)(SSL*)> ssl);
    Io GoOn(const Deadline& deadline);

    // Reads what is there. kEnded: CloseNotified tells how.
    Io Read(char* buffer, size_t size, size_t& length);

    // Waits until Read has something to say.
    Io AwaitReadable(const Deadline& deadline);

    // Acknowledges what was read at once: a server may hold back its next reply until then.
    void Acknowledge() const;

    // Writes all of it.
    Io Write(const char* data, size_t length, const Deadline& deadline);

    // Ends it in order, as far as that takes no time: close_notify, then the connection.
    void Close();

    int Socket() const
    {
        return m_socket;
    }
    SSL* Tls() const
    {
        return m_ssl.get();
    }

    // The peer has ended a TLS channel by its rules: nothing was cut off.
    bool CloseNotified() const
    {
        return m_closeNotified;
    }

    // Clear text that the peer sent in the place of a handshake, else empty.
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
    Io Judge(int result);
    bool BindLocal(const Address& local);
    bool AnswersInTls();
    static void OnMessage(int sent, int version, int type, const void* data, size_t length,
                          SSL* ssl, void* channel);

    int m_socket = -1;
    std::unique_ptr<SSL, void (*)(SSL*)> m_ssl{nullptr, SSL_free};
    short m_events = POLLIN;
    Io m_connecting = Io::kAgain;  // kDone: connected
    bool m_answered = false;       // what came first was TLS
    unsigned int m_messages = 0;   // of handshakes, received
    bool m_closeNotified = false;
    unsigned long m_tlsError = 0;
    std::string m_clearText;
    const char* m_why = "";
};

}  // namespace travex_ftp

#endif
