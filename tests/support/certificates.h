// Throw-away certificates, for tests, made with the openssl program.
#ifndef CORPDIR_TESTS_CERTIFICATES_H
#define CORPDIR_TESTS_CERTIFICATES_H

#include <string>

#include "files.h"

namespace support
{

// PEM files of a server; the certificate's intermediates follow it in its file.
struct ServerCertificate
{
    std::string certificate_file;
    std::string key_file;
};

// A trusted certification authority, another one, and server certificates, each made on request.
// Servers have RSA keys unless it says otherwise, since the older suites need them. Not
// thread-safe.
class TestCertificates
{
public:
    // Names of the good ones. directory.test is the name of a server.
    static constexpr const char* kNames = "IP:127.0.0.1,IP:::1,DNS:directory.test";

    TestCertificates();

    const std::string& Authority() const;       // PEM of the trusted one
    const std::string& OtherAuthority() const;  // PEM of the other one

    ServerCertificate Good() const;
    ServerCertificate GoodElliptic() const;                       // with an ECDSA key
    ServerCertificate WithNames(const std::string& names) const;  // subjectAltName of OpenSSL
    ServerCertificate WrongName() const;  // for another address and another name
    ServerCertificate Expired() const;
    ServerCertificate NotYetValid() const;
    ServerCertificate EndingIn(int days) const;
    ServerCertificate FromOtherAuthority() const;
    ServerCertificate SelfSigned() const;
    ServerCertificate ViaIntermediate() const;
    ServerCertificate ViaExpiredIntermediate() const;
    ServerCertificate ViaIntermediateNotYetValid() const;

private:
    struct Validity
    {
        const char* from;
        const char* until;
    };

    static const Validity kValidNow;
    static const Validity kExpired;
    static const Validity kNotYetValid;

    std::string NewFile(const std::string& suffix) const;
    std::string MakeRootAuthority(const std::string& name) const;
    void Sign(const std::string& authority, const std::string& subject, const std::string& key,
              const std::string& certificate, const std::string& extensions,
              Validity validity) const;
    ServerCertificate ViaIntermediate(Validity validity) const;
    ServerCertificate Leaf(const std::string& authority, const std::string& names,
                           Validity validity) const;
    ServerCertificate Leaf(const std::string& authority, const std::string& names,
                           Validity validity, const std::string& key) const;

    TemporaryDirectory m_directory;
    mutable int m_files = 0;
    std::string m_key;  // of all servers; made by the build, since making an RSA key is slow
    std::string m_authority;
    std::string m_other_authority;
};

}  // namespace support

#endif
