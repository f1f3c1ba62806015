// TLS on one channel: set up, checked and watched by us, behind libcurl's back as it were.
#ifndef TRAVEX_FTP_TLS_CHANNEL_H
#define TRAVEX_FTP_TLS_CHANNEL_H

#include <openssl/ssl.h>

#include <string>

#include "failure.h"
#include "settings.h"

namespace travex_ftp
{
// Told of the handshakes of a channel, on the transfer thread.
class TlsListener
{
public:
    virtual void handshakeStarted() = 0;
    virtual void handshakeDone() = 0;

    // The client has lost interest: it is not to be asked any more.
    virtual bool cancelled() const = 0;

protected:
    ~TlsListener() = default;
};

// The control channel or, one after the other, the data channels of a connection. libcurl makes the
// TLS context and asks for its set-up; from then on OpenSSL calls back here. The object must
// outlive the context. Transfer thread only.
class TlsChannel
{
public:
    enum class Kind
    {
        Control,
        Data,
    };

    TlsChannel(const Settings& settings, Kind kind, TlsListener& listener);
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    // Sets up a new context: suites, versions, verification. Forgets the facts of the one before.
    bool configure(SSL_CTX* context);

    // No context was set up since.
    void forget();

    // The handshake is done, and everything was checked that had to be.
    bool established() const
    {
        return established_;
    }

    // The peer has ended the channel with a close_notify; without one the end may be an attacker's.
    bool closed() const
    {
        return closed_;
    }

    // The handshake has begun and is not done.
    bool shaking() const
    {
        return shaking_;
    }

    // The peer began its handshake with a 421 in clear: it gives up before it speaks TLS.
    bool turnedAway() const
    {
        return turnedAway_;
    }

    // The handshake resumed an earlier session.
    bool resumed() const
    {
        return resumed_;
    }

    // Fills in version, suite and certificate, as far as they are known.
    void describe(tagTRAVEX_FTP_S_COURSE& course) const;

    // Why the certificate was not accepted.
    const Failure& failure() const
    {
        return failure_;
    }

private:
    static int onCertificate(X509_STORE_CTX* presented, void* channel);
    static void onState(const SSL* ssl, int where, int result);
    static void onMessage(int sent, int version, int type, const void* data, size_t length,
                          SSL* ssl, void* channel);

    bool accept(X509_STORE_CTX* presented);
    void keepFacts(X509* certificate);
    bool checkChain(X509_STORE_CTX* presented);
    bool checkIdentity(X509* certificate);
    bool askClient(X509* certificate);
    void done(const SSL* ssl);

    const Settings& settings_;
    const Kind kind_;
    TlsListener& listener_;
    bool shaking_ = false;
    bool established_ = false;
    bool closed_ = false;
    bool turnedAway_ = false;
    bool resumed_ = false;
    const char* version_ = "";  // these two are OpenSSL's, and stay
    const char* suite_ = "";
    std::string subject_;
    int64_t validUntil_ = 0;
    Failure failure_{};
};

}  // namespace travex_ftp

#endif
