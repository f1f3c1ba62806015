// A control connection, and the libcurl handle that owns it.
#ifndef TRAVEX_FTP_CONNECTION_H
#define TRAVEX_FTP_CONNECTION_H

#include <curl/curl.h>

#include <memory>

#include "curl_options.h"
#include "sockets.h"
#include "tls_channel.h"
#include "transfer.h"

namespace travex_ftp
{
// One libcurl easy handle for the life of one control connection. The handle keeps the TLS sessions
// of its channels to itself, so that a data channel resumes the session of its own control channel,
// as servers demand, and none of another connection. Transfers take turns on it.
//
// libcurl keeps the connection in the pool of the multi handle, and calls back here when it closes
// a socket: the object must live until alive() is false or the multi handle is gone. Transfer
// thread only.
class Connection final : private TlsListener
{
public:
    Connection(std::shared_ptr<const Settings> settings, const Limits& limits, Sockets& sockets,
               unsigned int number);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Null: idle or leaving.
    Transfer* transfer() const
    {
        return transfer_.get();
    }

    // The control connection is open, and the server has said something on it or begun with TLS.
    bool alive() const
    {
        return controlSocket_ != CURL_SOCKET_BAD;
    }

    // In the multi handle: with a transfer or leaving.
    bool busy() const
    {
        return multi_ != nullptr;
    }

    // Open, and free for a transfer.
    bool idle() const
    {
        return alive() && !busy() && !leaving_;
    }

    // Has reached the server, and is in use or free for it.
    bool open() const;

    // The server has not turned it away: a command was sent, now or in an earlier transfer.
    bool welcome() const;

    // The server has greeted it, now or in an earlier transfer, and its handshake is behind it if
    // that is a blocking call.
    bool proven() const
    {
        return proven_;
    }

    // Since the transfer began on it, or the last one did.
    Clock::duration age() const
    {
        return Clock::now() - started_;
    }

    // When a transfer that still has no greeting need not wait for it if another connection can be
    // had; time_point::max() once there is one, and without a transfer.
    Clock::time_point patience() const;

    // Made with settings that serve these; and idle too.
    bool matches(const Settings& settings) const;
    bool serves(const Settings& settings) const;

    // Starts a transfer. When that fails the transfer has the reason, and end() is due.
    bool start(CURLM* multi, std::unique_ptr<Transfer> transfer);

    // Ends an idle control connection with a QUIT that nobody waits for.
    void leave(CURLM* multi);

    // Takes the handle out of the multi handle. In the middle of a transfer this closes the
    // connection at once; afterwards, with the result of libcurl, the transfer has its verdict.
    std::unique_ptr<Transfer> end();
    std::unique_ptr<Transfer> end(CURLcode result);

    // Makes every pending and later read or write on the connected sockets fail at once.
    void shutDown();

    // When expire() is due, of the transfer, of a farewell, or of an idle connection.
    Clock::time_point deadline() const;

    // A limit of the transfer or of the farewell has been reached: true when end() is due.
    bool expire(Clock::time_point now);

    // When to call libcurl again if nothing happens.
    Clock::time_point wakeAt(Clock::time_point now);

    // The control socket where libcurl does not watch it and we want to be woken by it, else
    // CURL_SOCKET_BAD.
    curl_socket_t watched(Clock::time_point now) const;

    // The watched socket was readable.
    void woken(Clock::time_point now);

    Clock::time_point idleSince() const
    {
        return idleSince_;
    }

private:
    // What libcurl calls; the last argument of each is the connection.
    static curl_socket_t onOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static int onCloseSocket(void* self, curl_socket_t socket);
    static int onReady(void* self, char*, char*, int, int);
    static size_t onReply(char* line, size_t size, size_t count, void* self);
    static size_t onData(char* data, size_t size, size_t count, void* self);
    static int onDebug(CURL*, curl_infotype type, char* data, size_t size, void* self);
    static CURLcode onTlsContext(CURL*, void* context, void* self);

    void handshakeStarted() override;
    void handshakeDone() override;
    bool cancelled() const override
    {
        return transfer_ != nullptr && transfer_->cancelled();
    }

    // libcurl makes the handshake after AUTH in one call.
    bool blocksToConnect() const
    {
        return settings_->tls.encrypted && !settings_->tls.implicit;
    }
    bool prepare();
    bool installCallbacks();
    bool add(CURLM* multi);
    void socketConnected();
    void limitConnecting(milliseconds limit);
    void goOn();
    bool owesDataSocket() const;
    bool dataAllowed();
    void describe(tagTRAVEX_FTP_S_COURSE& course) const;
    bool judge(CURLcode result);
    bool checkDataChannel();

    const std::shared_ptr<const Settings> settings_;
    const Limits& limits_;
    Sockets& sockets_;
    const unsigned int number_;
    std::unique_ptr<CURL, CurlFreed> easy_;
    FileRequest request_;
    char detail_[CURL_ERROR_SIZE] = "";  // libcurl's words for an error

    CURLM* multi_ = nullptr;  // while the handle is in it
    std::unique_ptr<Transfer> transfer_;
    bool leaving_ = false;
    bool loggedIn_ = false;  // in this transfer: what is opened from here on is a data channel
    bool used_ = false;      // a transfer got that far
    bool proven_ = false;
    int socketError_ = 0;  // in this transfer: why no socket could be made
    Clock::time_point started_;
    Clock::time_point idleSince_;

    // A socket that libcurl connects may be closed, and its number another one's, without a word;
    // the two others are closed by onCloseSocket() alone.
    curl_socket_t connecting_ = CURL_SOCKET_BAD;
    curl_socket_t controlSocket_ = CURL_SOCKET_BAD;
    curl_socket_t dataSocket_ = CURL_SOCKET_BAD;
    TlsChannel control_;
    TlsChannel data_;

    unsigned int passes_ = 0;  // made since the last command, because libcurl owed a data socket
    uint64_t heardAtWake_ = 0;
    Clock::time_point mutedUntil_;
};

}  // namespace travex_ftp

#endif
