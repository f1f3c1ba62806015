// TLS of a control connection and its data channels.
#ifndef TRAVEX_FTP_TLS_CONTEXT_H
#define TRAVEX_FTP_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <functional>
#include <string>

#include "failure.h"
#include "observer.h"
#include "openssl_ptr.h"
#include "settings.h"

namespace travex_ftp
{
// An OpenSSL context with the suites, versions and certificate checks of the settings. One for each
// control connection: sessions are never shared between control connections. The settings must
// outlive it. Transfer thread only.
class TlsContext
{
public:
    // `closed`: the client has closed the handle, and its verify callback is not called any more.
    TlsContext(const Settings& settings, std::function<bool()> closed);
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    // A TLS object for the handshake of a channel; null when OpenSSL fails. The data channel offers
    // the newest session of the control channel.
    OpensslPtr<SSL> MakeControl();
    OpensslPtr<SSL> MakeData(SSL* control);

    // A handshake is complete: logs it, and keeps version and suite of the control channel.
    void Established(const SSL* ssl, bool data, Timings& timings);

    // A handshake has failed: sets the failure, from the certificate check or from OpenSSL's error.
    void Explain(unsigned long error, const char* why, bool data, Failure& failure) const;

    // A certificate was rejected.
    bool Rejected() const
    {
        return Failed(m_certificate);
    }

    // Copies version, suite and certificate of the control channel, as far as known.
    void Describe(Timings& timings) const;

private:
    static int OnCertificate(X509_STORE_CTX* presented, void* context);

    bool Configure();
    bool Accept(X509_STORE_CTX* presented);
    void RecordCertificate(X509* certificate);
    bool CheckChain(X509_STORE_CTX* presented);
    bool CheckIdentity(X509* certificate);
    bool CallVerifyCallback(X509* certificate);

    const Settings& m_settings;
    const std::function<bool()> m_closed;
    const OpensslPtr<SSL_CTX> m_context;
    bool m_usable = false;
    bool m_data = false;         // the current handshake is a data channel's
    Failure m_certificate{};     // why it was rejected
    const char* m_version = "";  // OpenSSL's static text, like the suite
    const char* m_suite = "";
    std::string m_subject;
    std::string m_names;
    int64_t m_validUntil = 0;
};

}  // namespace travex_ftp

#endif
