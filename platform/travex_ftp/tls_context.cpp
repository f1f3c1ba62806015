#include "tls_context.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "log.h"
#include "worker.h"

namespace travex_ftp
{
namespace
{
// A revocation list is not required of every authority in the chain.
int TolerateMissingList(int ok, X509_STORE_CTX* context)
{
    return ok == 1 || X509_STORE_CTX_get_error(context) == X509_V_ERR_UNABLE_TO_GET_CRL ? 1 : 0;
}

// The subject as in RFC 4514, in UTF-8, with control characters escaped.
std::string SubjectOf(X509* certificate)
{
    const OpensslPtr<BIO> text(BIO_new(BIO_s_mem()));
    const unsigned long form = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    char* bytes = nullptr;
    if (!text || X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, form) < 0)
    {
        return {};
    }
    const long length = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<size_t>(length)};
}

bool IsDatesError(int error)
{
    return error == X509_V_ERR_CERT_HAS_EXPIRED || error == X509_V_ERR_CERT_NOT_YET_VALID;
}

// The server name indication: the first listed name, null if there are addresses only.
const char* SniName(const Identity& identity)
{
    const auto name = std::find_if_not(identity.begin(), identity.end(), IsAddress);
    return name != identity.end() ? name->c_str() : nullptr;
}

// The detail of a handshake failure that a user can fix.
unsigned int DetailOf(unsigned long error)
{
    switch (ERR_GET_LIB(error) == ERR_LIB_SSL ? ERR_GET_REASON(error) : 0)
    {
        case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
        case SSL_R_UNSUPPORTED_PROTOCOL:
            return TRAVEX_FTP_DETAIL_TLS_VERSION;
        case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
        case SSL_R_TLSV1_ALERT_INSUFFICIENT_SECURITY:
            return TRAVEX_FTP_DETAIL_TLS_SUITES;
        default:
            return TRAVEX_FTP_DETAIL_NONE;
    }
}

}  // namespace

TlsContext::TlsContext(const Settings& settings, std::function<bool()> closed)
    : m_settings(settings), m_closed(std::move(closed)), m_context(SSL_CTX_new(TLS_client_method()))
{
    m_usable = m_context != nullptr && Configure();
}

bool TlsContext::Configure()
{
    SSL_CTX* const context = m_context.get();
    // Without SSL_VERIFY_PEER OpenSSL ignores the result of the callback.
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, OnCertificate, this);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    (void)SSL_CTX_clear_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    (void)SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    return m_settings.tls.suites.Apply(context);
}

OpensslPtr<SSL> TlsContext::MakeControl()
{
    m_data = false;
    OpensslPtr<SSL> ssl(m_usable ? SSL_new(m_context.get()) : nullptr);
    const char* const name = SniName(m_settings.tls.identity);
    if (ssl && name != nullptr && SSL_set_tlsext_host_name(ssl.get(), name) != 1)
    {
        ssl.reset();
    }
    return ssl;
}

OpensslPtr<SSL> TlsContext::MakeData(SSL* control)
{
    OpensslPtr<SSL> ssl = MakeControl();
    m_data = true;
    const OpensslPtr<SSL_SESSION> session(SSL_get1_session(control));
    if (ssl && session && SSL_SESSION_is_resumable(session.get()) == 1)
    {
        (void)SSL_set_session(ssl.get(), session.get());
    }
    // Sends the key share of the group that the server chose on the control channel: another one
    // may cost a HelloRetryRequest, a round trip.
    int group = static_cast<int>(SSL_get_negotiated_group(control));
    if (ssl && SSL_version(control) == TLS1_3_VERSION)
    {
        (void)SSL_set1_groups(ssl.get(), &group, 1);  // on failure: the default groups
    }
    return ssl;
}

void TlsContext::Established(const SSL* ssl, bool data, Timings& timings)
{
    const bool resumed = SSL_session_reused(ssl) == 1;
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: %s channel %s %s%s", m_settings.serverText.c_str(),
                   data ? "data" : "control", SSL_get_version(ssl), SSL_get_cipher_name(ssl),
                   resumed ? ", session resumed" : "");
    if (data)
    {
        timings.ulDataResumed = resumed ? 1 : 0;
        return;
    }
    m_version = SSL_get_version(ssl);
    const char* const standard = SSL_CIPHER_standard_name(SSL_get_current_cipher(ssl));
    m_suite = standard != nullptr ? standard : SSL_get_cipher_name(ssl);
}

void TlsContext::Explain(unsigned long error, const char* why, bool data, Failure& failure) const
{
    if (Failed(m_certificate))
    {
        failure.ulDetail = Failed(failure) ? failure.ulDetail : m_certificate.ulDetail;
        (void)Fail(failure, m_certificate.ulRet, "%s%s", data ? "data channel: " : "",
                   m_certificate.acReason);
        return;
    }
    const unsigned int detail = DetailOf(error);
    failure.ulDetail = Failed(failure) ? failure.ulDetail : detail;
    (void)Fail(failure, TRAVEX_FTP_ERR_TLS, "%sTLS handshake failed: %s",
               data ? "data channel: " : "",
               detail == TRAVEX_FTP_DETAIL_TLS_VERSION  ? "no TLS version in common"
               : detail == TRAVEX_FTP_DETAIL_TLS_SUITES ? "no cipher suite in common"
                                                        : why);
}

void TlsContext::Describe(Timings& timings) const
{
    (void)snprintf(timings.acTlsVersion, sizeof timings.acTlsVersion, "%s", m_version);
    (void)snprintf(timings.acTlsSuite, sizeof timings.acTlsSuite, "%s", m_suite);
    (void)snprintf(timings.acSubject, sizeof timings.acSubject, "%s", m_subject.c_str());
    (void)snprintf(timings.acNames, sizeof timings.acNames, "%s", m_names.c_str());
    timings.llCertificateUntil = m_validUntil;
}

int TlsContext::OnCertificate(X509_STORE_CTX* presented, void* context)
{
    auto* const self = static_cast<TlsContext*>(context);
    bool accepted = false;
    try
    {
        accepted = self->Accept(presented);
    }
    catch (...)  // out of memory: rejected, since no exception may pass through OpenSSL
    {
        (void)FailSystem(self->m_certificate, "certificate check");
    }
    if (accepted)
    {
        X509_STORE_CTX_set_error(presented, X509_V_OK);
    }
    else if (X509_STORE_CTX_get_error(presented) == X509_V_OK)
    {
        X509_STORE_CTX_set_error(presented, X509_V_ERR_APPLICATION_VERIFICATION);
    }
    return accepted ? 1 : 0;
}

// Not called when a session is resumed: the certificate was checked in the handshake on the control
// channel that the session comes from.
bool TlsContext::Accept(X509_STORE_CTX* presented)
{
    X509* const certificate = X509_STORE_CTX_get0_cert(presented);
    if (!m_data)
    {
        RecordCertificate(certificate);
    }
    if (m_settings.tls.verify && !CheckChain(presented))
    {
        return false;
    }
    if (m_settings.tls.verify && !CheckIdentity(certificate))
    {
        X509_STORE_CTX_set_error(presented, X509_V_ERR_HOSTNAME_MISMATCH);
        return false;
    }
    return m_data || CallVerifyCallback(certificate);
}

// Stored even if the certificate is rejected: programs show it.
void TlsContext::RecordCertificate(X509* certificate)
{
    m_subject = SubjectOf(certificate);
    m_names = NamesOf(certificate, sizeof Timings::acNames - 1);
    std::tm until{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &until) == 1)
    {
        m_validUntil = timegm(&until);
    }
}

// Verifies with the configured trust anchors only; the context's own store is not used.
bool TlsContext::CheckChain(X509_STORE_CTX* presented)
{
    const OpensslPtr<X509_STORE_CTX> check(X509_STORE_CTX_new());
    if (!check ||
        X509_STORE_CTX_init(check.get(), m_settings.tls.anchors.store.get(),
                            X509_STORE_CTX_get0_cert(presented),
                            X509_STORE_CTX_get0_untrusted(presented)) != 1 ||
        X509_STORE_CTX_set_default(check.get(), "ssl_server") != 1)
    {
        return FailSystem(m_certificate, "certificate check");
    }
    const void* const ssl =
        X509_STORE_CTX_get_ex_data(presented, SSL_get_ex_data_X509_STORE_CTX_idx());
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(check.get()),
                                     SSL_get_security_level(static_cast<const SSL*>(ssl)));
    X509_STORE_CTX_set_verify_cb(check.get(), TolerateMissingList);
    if (X509_verify_cert(check.get()) == 1)
    {
        return true;
    }
    // OpenSSL derives the alert from this error.
    const int error = X509_STORE_CTX_get_error(check.get());
    X509_STORE_CTX_set_error(presented, error);
    // One that is not yet valid speaks for a wrong clock here.
    const bool authority =
        error == X509_V_ERR_CERT_HAS_EXPIRED && X509_STORE_CTX_get_error_depth(check.get()) != 0;
    m_certificate.ulDetail =
        IsDatesError(error) && !authority ? TRAVEX_FTP_DETAIL_CERT_DATES : TRAVEX_FTP_DETAIL_NONE;
    return Fail(m_certificate, TRAVEX_FTP_ERR_CERT, "%s%s",
                authority ? "the authority's certificate: " : "",
                X509_verify_cert_error_string(error));
}

bool TlsContext::CheckIdentity(X509* certificate)
{
    const Identity& identity = m_settings.tls.identity;
    if (CertificateIsFor(certificate, identity))
    {
        return true;
    }
    m_certificate.ulDetail = TRAVEX_FTP_DETAIL_CERT_NAME;
    return Fail(m_certificate, TRAVEX_FTP_ERR_CERT, "certificate is not valid for host %s",
                JoinNames(identity).c_str());
}

bool TlsContext::CallVerifyCallback(X509* certificate)
{
    if (m_settings.tls.verifyCallback == nullptr || m_closed())
    {
        return m_settings.tls.verifyCallback == nullptr;
    }
    char subject[512] = "";
    (void)X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof subject);
    std::string server = m_settings.server.literal;
    const int vetoed = m_settings.tls.verifyCallback(server.data(), subject);
    // The process may be ending by now, and OpenSSL with it.
    Worker::ParkAtExit();
    return vetoed == 0 || Fail(m_certificate, TRAVEX_FTP_ERR_CERT,
                               "certificate rejected by the client's verify callback");
}

}  // namespace travex_ftp
