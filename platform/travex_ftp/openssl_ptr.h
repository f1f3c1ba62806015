// Owners of OpenSSL's objects.
#ifndef TRAVEX_FTP_OPENSSL_PTR_H
#define TRAVEX_FTP_OPENSSL_PTR_H

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <memory>

namespace travex_ftp
{
struct OpensslFree
{
    void operator()(SSL_CTX* context) const
    {
        SSL_CTX_free(context);
    }
    void operator()(SSL* ssl) const
    {
        SSL_free(ssl);
    }
    void operator()(SSL_SESSION* session) const
    {
        SSL_SESSION_free(session);
    }
    void operator()(STACK_OF(SSL_CIPHER) * ciphers) const
    {
        sk_SSL_CIPHER_free(ciphers);
    }
    void operator()(STACK_OF(X509_INFO) * infos) const
    {
        sk_X509_INFO_pop_free(infos, X509_INFO_free);
    }
    void operator()(X509_STORE_CTX* context) const
    {
        X509_STORE_CTX_free(context);
    }
    void operator()(EVP_MD_CTX* context) const
    {
        EVP_MD_CTX_free(context);
    }
    void operator()(GENERAL_NAMES* names) const
    {
        GENERAL_NAMES_free(names);
    }
    void operator()(BIO* bio) const
    {
        BIO_free_all(bio);
    }
};

template <typename Object>
using OpensslPtr = std::unique_ptr<Object, OpensslFree>;

}  // namespace travex_ftp

#endif
