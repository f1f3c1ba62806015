#include "cipher_suites.h"

#include <cstring>

#include "openssl_ptr.h"

namespace travex_ftp
{
namespace
{
// An identifier is 0x0300 followed by the suite's IANA number.
const SSL_CIPHER* FindSuite(SSL* ssl, int identifier)
{
    const unsigned int bits = static_cast<unsigned int>(identifier);
    if (bits >> 16 != 0x0300)
    {
        return nullptr;
    }
    const unsigned char number[2] = {static_cast<unsigned char>(bits >> 8),
                                     static_cast<unsigned char>(bits)};
    return SSL_CIPHER_find(ssl, number);
}

// Suites of TLS 1.3 work with no other version.
bool IsTls13(const SSL_CIPHER* suite)
{
    return strcmp(SSL_CIPHER_get_version(suite), "TLSv1.3") == 0;
}

// Encrypts and authenticates.
bool IsSafe(const SSL_CIPHER* suite)
{
    return SSL_CIPHER_get_cipher_nid(suite) != NID_undef &&
           SSL_CIPHER_get_auth_nid(suite) != NID_auth_null;
}

// Appends the suite's name to the list of its protocol version.
bool AddSuite(SSL* ssl, int identifier, CipherSuites& suites, Failure& failure)
{
    const unsigned int bits = static_cast<unsigned int>(identifier);
    const SSL_CIPHER* suite = FindSuite(ssl, identifier);
    if (suite == nullptr)
    {
        return Fail(failure, TRAVEX_FTP_ERR_CIPHER, "unknown cipher suite 0x%08X", bits);
    }
    if (!IsSafe(suite))
    {
        return Fail(failure, TRAVEX_FTP_ERR_CIPHER,
                    "cipher suite 0x%08X (%s) does not encrypt or does not authenticate", bits,
                    SSL_CIPHER_get_name(suite));
    }
    std::string& names = IsTls13(suite) ? suites.tls13 : suites.tls12;
    names.append(names.empty() ? "" : ":").append(SSL_CIPHER_get_name(suite));
    return true;
}

// Checks that the context offers every suite: OpenSSL drops those that its security level forbids.
bool AllOffered(SSL_CTX* context, const CipherSuites& suites, const int* identifiers,
                unsigned int count, Failure& failure)
{
    const OpensslPtr<SSL> ssl(suites.Apply(context) ? SSL_new(context) : nullptr);
    const OpensslPtr<STACK_OF(SSL_CIPHER)> offered(ssl ? SSL_get1_supported_ciphers(ssl.get())
                                                       : nullptr);
    for (unsigned int i = 0; i < count; ++i)
    {
        const SSL_CIPHER* suite = ssl ? FindSuite(ssl.get(), identifiers[i]) : nullptr;
        if (!offered || suite == nullptr || sk_SSL_CIPHER_find(offered.get(), suite) < 0)
        {
            return Fail(failure, TRAVEX_FTP_ERR_CIPHER,
                        "cipher suite 0x%08X is not allowed by this system's security level",
                        static_cast<unsigned int>(identifiers[i]));
        }
    }
    return true;
}

}  // namespace

bool CipherSuites::Apply(SSL_CTX* context) const
{
    const bool only13 = chosen && tls12.empty();
    const bool only12 = chosen && tls13.empty();
    if (SSL_CTX_set_min_proto_version(context, only13 ? TLS1_3_VERSION : TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(context, only12 ? TLS1_2_VERSION : 0) != 1)
    {
        return false;
    }
    if (!chosen)
    {
        return true;
    }
    // OpenSSL accepts an empty list of TLS 1.3 suites, but not of TLS 1.2 suites.
    return SSL_CTX_set_ciphersuites(context, tls13.c_str()) == 1 &&
           (only13 || SSL_CTX_set_cipher_list(context, tls12.c_str()) == 1);
}

// Enables all suites of the library, then lists those that its security level allows.
bool ListSuites(TRAVEX_FTP_CIPHER_CB callback, void* user)
{
    const OpensslPtr<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
    if (!context || SSL_CTX_set_cipher_list(context.get(), "ALL:COMPLEMENTOFALL") != 1 ||
        SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1)
    {
        return false;
    }
    const OpensslPtr<SSL> ssl(SSL_new(context.get()));
    const OpensslPtr<STACK_OF(SSL_CIPHER)> offered(ssl ? SSL_get1_supported_ciphers(ssl.get())
                                                       : nullptr);
    for (int i = 0; offered && i < sk_SSL_CIPHER_num(offered.get()); ++i)
    {
        const SSL_CIPHER* const suite = sk_SSL_CIPHER_value(offered.get(), i);
        if (IsSafe(suite))
        {
            const tagTRAVEX_FTP_S_CIPHER seen = {
                static_cast<int>(SSL_CIPHER_get_id(suite)), SSL_CIPHER_standard_name(suite),
                SSL_CIPHER_get_name(suite), SSL_CIPHER_get_version(suite)};
            callback(user, &seen);
        }
    }
    return offered != nullptr;
}

bool ChooseSuites(const int* identifiers, unsigned int count, CipherSuites& suites,
                  Failure& failure)
{
    if (count == 0)
    {
        return true;
    }
    const OpensslPtr<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
    const OpensslPtr<SSL> ssl(context ? SSL_new(context.get()) : nullptr);
    if (!ssl)
    {
        return FailSystem(failure, "cipher suites");
    }
    for (unsigned int i = 0; i < count; ++i)
    {
        if (!AddSuite(ssl.get(), identifiers[i], suites, failure))
        {
            return false;
        }
    }
    suites.chosen = true;
    return AllOffered(context.get(), suites, identifiers, count, failure);
}

}  // namespace travex_ftp
