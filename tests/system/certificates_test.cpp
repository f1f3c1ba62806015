// The tests' certificates have the properties in their names, so that a test that uses one fails
// for the intended reason. Verified by the openssl program, not by this project's code.
#include "certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "process.h"

namespace integration
{
namespace
{

using support::RunCommand;
using support::ServerCertificate;
using support::TestCertificates;
using ::testing::HasSubstr;

class Certificates : public ::testing::Test
{
protected:
    // The result of openssl for the certificate of a server at 127.0.0.1.
    std::string Verdict(const ServerCertificate& server) const
    {
        const std::string& file = server.certificate_file;
        return RunCommand(
                   {{"openssl", "verify", "-CAfile", m_certificates.Authority(), "-untrusted", file,
                     "-purpose", "sslserver", "-verify_ip", "127.0.0.1", file},
                    {},
                    ""})
            .output;
    }

    TestCertificates m_certificates;
};

TEST_F(Certificates, GoodOnesVerify)
{
    EXPECT_THAT(Verdict(m_certificates.Good()), HasSubstr(": OK"));
    EXPECT_THAT(Verdict(m_certificates.ViaIntermediate()), HasSubstr(": OK"));
    EXPECT_THAT(Verdict(m_certificates.WithNames("IP:127.0.0.1")), HasSubstr(": OK"));
}

TEST_F(Certificates, BadOnesFailForTheReasonInTheirName)
{
    EXPECT_THAT(Verdict(m_certificates.Expired()), HasSubstr("certificate has expired"));
    EXPECT_THAT(Verdict(m_certificates.NotYetValid()), HasSubstr("certificate is not yet valid"));
    EXPECT_THAT(Verdict(m_certificates.WrongName()), HasSubstr("IP address mismatch"));
    EXPECT_THAT(Verdict(m_certificates.WithNames("DNS:directory.test")),
                HasSubstr("IP address mismatch"));
    EXPECT_THAT(Verdict(m_certificates.FromOtherAuthority()),
                HasSubstr("unable to get local issuer certificate"));
    EXPECT_THAT(Verdict(m_certificates.SelfSigned()), HasSubstr("self-signed certificate"));
}

}  // namespace
}  // namespace integration
