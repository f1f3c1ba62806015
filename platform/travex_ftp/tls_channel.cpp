#include "tls_channel.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "log.h"
#include "worker.h"

namespace travex_ftp
{
namespace
{
// Where a context keeps its channel: info callbacks have no argument of their own.
int contextSlot()
{
    static const int slot = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return slot;
}

struct Freed
{
    void operator()(X509_STORE_CTX* context) const
    {
        X509_STORE_CTX_free(context);
    }
    void operator()(BIO* bio) const
    {
        BIO_free_all(bio);
    }
};

// A list need not exist for every authority of the chain; where there is one, it counts.
int tolerateMissingList(int ok, X509_STORE_CTX* context)
{
    return ok == 1 || X509_STORE_CTX_get_error(context) == X509_V_ERR_UNABLE_TO_GET_CRL ? 1 : 0;
}

const char* channelName(TlsChannel::Kind kind)
{
    return kind == TlsChannel::Kind::Control ? "" : "data channel: ";
}

// As RFC 4514 writes it, UTF-8 left as it is and control characters escaped.
std::string subjectOf(X509* certificate)
{
    const std::unique_ptr<BIO, Freed> text(BIO_new(BIO_s_mem()));
    const unsigned long form = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    char* bytes = nullptr;
    if (!text || X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, form) < 0)
    {
        return {};
    }
    const long length = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<size_t>(length)};
}

void refuse(Failure& failure, TlsChannel::Kind kind, const char* reason)
{
    (void)fail(failure, TRAVEX_FTP_ERR_CERT, "%s%s", channelName(kind), reason);
}

}  // namespace

TlsChannel::TlsChannel(const Settings& settings, Kind kind, TlsListener& listener)
    : settings_(settings), kind_(kind), listener_(listener)
{
}

void TlsChannel::forget()
{
    shaking_ = established_ = closed_ = turnedAway_ = resumed_ = false;
    version_ = suite_ = "";
    subject_.clear();
    validUntil_ = 0;
    failure_.ulRet = TRAVEX_FTP_OK;
}

bool TlsChannel::configure(SSL_CTX* context)
{
    forget();
    if (!settings_.tls.suites.apply(context) ||
        SSL_CTX_set_ex_data(context, contextSlot(), this) != 1)
    {
        return fail(failure_, TRAVEX_FTP_ERR_TLS, "the cipher suites cannot be set");
    }
    // libcurl's own verification is switched off; this replaces it, on the data channel too, and
    // without SSL_VERIFY_PEER its verdict would be ignored.
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, onCertificate, this);
    SSL_CTX_set_info_callback(context, onState);
    SSL_CTX_set_msg_callback(context, onMessage);
    SSL_CTX_set_msg_callback_arg(context, this);
    // libcurl would write our keys to the file that the environment's SSLKEYLOGFILE names.
    SSL_CTX_set_keylog_callback(context, nullptr);
    (void)SSL_CTX_clear_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    (void)SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    return true;
}

int TlsChannel::onCertificate(X509_STORE_CTX* presented, void* channel)
{
    bool accepted = false;
    try
    {
        accepted = static_cast<TlsChannel*>(channel)->accept(presented);
    }
    catch (...)  // for lack of memory: no exception may cross OpenSSL, and nothing is accepted
    {
        (void)failSystem(static_cast<TlsChannel*>(channel)->failure_, "certificate check");
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

// Not reached when a session is resumed: resumed sessions come from a handshake of the same
// connection, which was checked.
bool TlsChannel::accept(X509_STORE_CTX* presented)
{
    X509* const certificate = X509_STORE_CTX_get0_cert(presented);
    keepFacts(certificate);
    if (settings_.tls.verify && (!checkChain(presented) || !checkIdentity(certificate)))
    {
        return false;
    }
    return kind_ == Kind::Data || askClient(certificate);
}

// Whatever comes of the certificate, it may have to be shown.
void TlsChannel::keepFacts(X509* certificate)
{
    subject_ = subjectOf(certificate);
    std::tm until{};
    if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &until) == 1)
    {
        validUntil_ = timegm(&until);
    }
}

void TlsChannel::describe(tagTRAVEX_FTP_S_COURSE& course) const
{
    (void)snprintf(course.acTlsVersion, sizeof course.acTlsVersion, "%s", version_);
    (void)snprintf(course.acTlsSuite, sizeof course.acTlsSuite, "%s", suite_);
    (void)snprintf(course.acSubject, sizeof course.acSubject, "%s", subject_.c_str());
    course.llCertificateUntil = validUntil_;
}

// With the anchors of the trust text alone; whatever store the context has is not consulted.
bool TlsChannel::checkChain(X509_STORE_CTX* presented)
{
    const std::unique_ptr<X509_STORE_CTX, Freed> check(X509_STORE_CTX_new());
    if (!check ||
        X509_STORE_CTX_init(check.get(), settings_.tls.anchors.store.get(),
                            X509_STORE_CTX_get0_cert(presented),
                            X509_STORE_CTX_get0_untrusted(presented)) != 1 ||
        X509_STORE_CTX_set_default(check.get(), "ssl_server") != 1)
    {
        return failSystem(failure_, "certificate check");
    }
    const void* const ssl =
        X509_STORE_CTX_get_ex_data(presented, SSL_get_ex_data_X509_STORE_CTX_idx());
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_CTX_get0_param(check.get()),
                                     SSL_get_security_level(static_cast<const SSL*>(ssl)));
    X509_STORE_CTX_set_verify_cb(check.get(), tolerateMissingList);
    if (X509_verify_cert(check.get()) == 1)
    {
        return true;
    }
    // The alert that the server gets follows from this error.
    const int error = X509_STORE_CTX_get_error(check.get());
    X509_STORE_CTX_set_error(presented, error);
    refuse(failure_, kind_, X509_verify_cert_error_string(error));
    return false;
}

// The address comes first: it needs no configuration. The text of a name that is tried is the
// client's, so it may stand in the reason.
bool TlsChannel::checkIdentity(X509* certificate)
{
    const Address& server = settings_.server;
    if (X509_check_ip(certificate, server.bytes, server.length, 0) == 1)
    {
        return true;
    }
    std::string tried = server.literal;
    for (const std::string& name : settings_.tls.trust.names)
    {
        if (X509_check_host(certificate, name.data(), name.size(),
                            X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr) == 1)
        {
            return true;
        }
        tried.append(" nor for ").append(name);
    }
    refuse(failure_, kind_, ("certificate is not for " + tried).c_str());
    return false;
}

bool TlsChannel::askClient(X509* certificate)
{
    if (settings_.tls.veto == nullptr)
    {
        return true;
    }
    if (listener_.cancelled())
    {
        refuse(failure_, kind_, "certificate of a closed handle's server");
        return false;
    }
    char subject[512] = "";
    (void)X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof subject);
    std::string server = settings_.server.literal;
    const int vetoed = settings_.tls.veto(server.data(), subject);
    // The process may have begun to end meanwhile, and OpenSSL with it.
    Worker::parkAtExit();
    if (vetoed != 0)
    {
        refuse(failure_, kind_, "certificate was vetoed by the client");
    }
    return vetoed == 0;
}

void TlsChannel::onState(const SSL* ssl, int where, int)
{
    auto* const channel =
        static_cast<TlsChannel*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), contextSlot()));
    if (channel->established_)
    {
        return;  // messages after the handshake, as a TLS 1.3 ticket
    }
    if (where == SSL_CB_HANDSHAKE_START)
    {
        channel->shaking_ = true;
        channel->listener_.handshakeStarted();
    }
    else if (where == SSL_CB_HANDSHAKE_DONE)
    {
        channel->done(ssl);
    }
}

// Whatever the callbacks found is known now: an unaccepted certificate does not get here.
void TlsChannel::done(const SSL* ssl)
{
    shaking_ = false;
    established_ = true;
    resumed_ = SSL_session_reused(ssl) == 1;
    version_ = SSL_get_version(ssl);
    const char* const standard = SSL_CIPHER_standard_name(SSL_get_current_cipher(ssl));
    suite_ = standard != nullptr ? standard : SSL_get_cipher_name(ssl);
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: %s channel %s %s%s", settings_.serverText.c_str(),
                   kind_ == Kind::Control ? "control" : "data", SSL_get_version(ssl),
                   SSL_get_cipher_name(ssl), resumed_ ? ", session resumed" : "");
    listener_.handshakeDone();
}

// Sees alerts in clear, those of TLS 1.3 as well, and the first bytes of each record, or of what
// stands in the place of one.
void TlsChannel::onMessage(int sent, int, int type, const void* data, size_t length, SSL*,
                           void* channel)
{
    if (sent == 0 && type == SSL3_RT_HEADER && length >= 4 && memcmp(data, "421 ", 4) == 0)
    {
        static_cast<TlsChannel*>(channel)->turnedAway_ = true;
    }
    const auto* const alert = static_cast<const unsigned char*>(data);
    if (sent == 0 && type == SSL3_RT_ALERT && length == 2 && alert[1] == SSL_AD_CLOSE_NOTIFY)
    {
        static_cast<TlsChannel*>(channel)->closed_ = true;
    }
}

}  // namespace travex_ftp
