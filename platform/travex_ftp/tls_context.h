// TLS of one control connection and of its data channels.
#ifndef TRAVEX_FTP_TLS_CONTEXT_H
#define TRAVEX_FTP_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <string>

#include "failure.h"
#include "settings.h"

namespace travex_ftp
{
// OpenSSL's context with the suites, versions and checks of the settings. Sessions stay within it,
// so that none crosses control connections. The settings must outlive it. Transfer thread only.
class TlsContext
{
public:
    using Ssl = std::unique_ptr<SSL, void (*)(SSL*)>;

    // `unwanted`: the client has closed the handle, and is not asked any more.
    TlsContext(const Settings& settings, std::function<bool()> unwanted);
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    // A channel to make a handshake on; null when OpenSSL cannot make one. The data channel offers
    // the newest session of the control channel.
    Ssl MakeControl();
    Ssl MakeData(SSL* control);

    // The handshake of a channel is done: logs it, and notes the facts of the control channel.
    void Established(const SSL* ssl, bool data, tagTRAVEX_FTP_S_TIMINGS& timings);

    // The handshake failed. Sets the failure: the certificate's, or what OpenSSL says.
    void Explain(unsigned long error, const char* why, bool data, Failure& failure) const;

    // A certificate was not accepted.
    bool Rejected() const
    {
        return Failed(m_certificate);
    }

    // Version, suite and certificate of the control channel, as far as they are known.
    void Describe(tagTRAVEX_FTP_S_TIMINGS& timings) const;

private:
    static int OnCertificate(X509_STORE_CTX* presented, void* context);

    bool Configure();
    bool Accept(X509_STORE_CTX* presented);
    void KeepFacts(X509* certificate);
    bool CheckChain(X509_STORE_CTX* presented);
    bool CheckIdentity(X509* certificate);
    bool AskClient(X509* certificate);

    const Settings& m_settings;
    const std::function<bool()> m_unwanted;
    const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> m_context;
    bool m_usable = false;
    bool m_data = false;         // the handshake under way is a data channel's
    Failure m_certificate{};     // why it was not accepted
    const char* m_version = "";  // these two are OpenSSL's, and stay
    const char* m_suite = "";
    std::string m_subject;
    int64_t m_validUntil = 0;
};

}  // namespace travex_ftp

#endif
