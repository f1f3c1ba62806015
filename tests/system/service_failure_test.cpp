// Failures of real servers: the client's results, and the files on disk.
#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service_client.h"

namespace integration
{
namespace
{

using support::FtpServerOptions;
using support::PatternBytes;
using support::PyFtpServer;
using support::ServerCertificate;
using support::TestCertificates;
using support::Tls;
using support::WaitUntil;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kVersion = "edition 17\n";
const std::string kOlder = "the directory that was there before\n";

class ServiceFailure : public ::testing::Test
{
protected:
    ServiceFailure()
    {
        m_options.tls = Tls::kExplicit;
        m_client.PutDirectory(kOlder);
    }

    // The server of the test, with both files.
    PyFtpServer& Serve(const std::string& directory = PatternBytes(50000, 1))
    {
        if (m_options.tls != Tls::kNone && m_options.certificate.certificate_file.empty())
        {
            m_options.certificate = m_certificates.Good();
        }
        m_server = std::make_unique<PyFtpServer>(m_options);
        m_server->AddFile("version.txt", kVersion);
        m_server->AddFile("directory.csv", directory);
        return *m_server;
    }

    Request ToServer() const
    {
        return RequestTo(*m_server, &m_certificates);
    }

    // A list of one server is asked twice before the service gives up.
    void ExpectTwoFailures(const Request& request)
    {
        m_client.ExpectResults(request, {kFailed, kFailed});
        EXPECT_EQ(m_client.Directory(), kOlder);
        EXPECT_THAT(m_client.OutputFiles(), ElementsAre("directory.csv"));
    }

    TestCertificates m_certificates;
    FtpServerOptions m_options;
    std::unique_ptr<PyFtpServer> m_server;
    Client m_client;
};

TEST_F(ServiceFailure, WrongPassword)
{
    Serve();
    Request request = ToServer();
    request.password = "not-the-password";
    ExpectTwoFailures(request);
    EXPECT_EQ(m_server->CountCommands("RETR version.txt"), 0u);
    EXPECT_THAT(m_client.Log(), Not(HasSubstr("not-the-password")));
}

TEST_F(ServiceFailure, NothingListens)
{
    Serve();
    Request request = ToServer();
    m_server->Stop();
    ExpectTwoFailures(request);
}

TEST_F(ServiceFailure, AServerWithoutTlsNeverSeesThePassword)
{
    m_options.tls = Tls::kNone;
    Serve();
    Request request = ToServer();
    request.plain = false;
    ExpectTwoFailures(request);
    EXPECT_EQ(m_server->CountCommands("PASS"), 0u);
    EXPECT_THAT(m_server->Commands(), Not(Contains("USER ftp")));
}

TEST_F(ServiceFailure, ASuiteThatTheServerDoesNotKnow)
{
    m_options.max_tls = "1.2";
    m_options.ciphers = "ECDHE-RSA-AES256-GCM-SHA384";
    Serve();
    ExpectTwoFailures(ToServer());
    EXPECT_EQ(m_server->CountCommands("PASS"), 0u);
}

TEST_F(ServiceFailure, AVersionTooShortIsNotFollowed)
{
    Serve().AddFile("version.txt", "1.2\n");
    ASSERT_EQ(m_client.Start(), 0u);
    ASSERT_EQ(m_client.Ask(ToServer()), 0u);
    ASSERT_TRUE(WaitUntil(
        [this] { return m_client.Log().find("version is Invalid!") != std::string::npos; }));
    m_client.Stop();
    EXPECT_THAT(m_client.Results(), ElementsAre());
    EXPECT_EQ(m_client.Directory(), kOlder);
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 0u);
}

TEST_F(ServiceFailure, AMissingVersionFile)
{
    Serve();
    Request request = ToServer();
    request.version_file = "no-such-file.txt";
    ExpectTwoFailures(request);
}

// After the 550 pyftpdlib may send another reply for the unused data connection: the FTP layer must
// close a connection with an unsolicited reply.
TEST_F(ServiceFailure, AMissingDirectoryFileIsReportedOnce)
{
    Serve();
    Request request = ToServer();
    request.directory_file = "no-such-file.csv";
    m_client.ExpectResults(request, {kFailed});
    EXPECT_EQ(m_client.Directory(), kOlder);
    EXPECT_THAT(m_client.OutputFiles(), ElementsAre("directory.csv", "version.txt"));
}

// A directory that takes a minute at the server's rate.
class ServiceTransfer : public ServiceFailure
{
protected:
    ServiceTransfer()
    {
        m_options.bytes_per_second = 100000;
        Serve(PatternBytes(6000000, 2));
    }

    void StartTransfer()
    {
        ASSERT_EQ(m_client.Start(), 0u);
        ASSERT_EQ(m_client.Ask(ToServer()), 0u);
        ASSERT_TRUE(WaitUntil([this] { return m_client.TransferIsUnderWay(); }));
    }

    void ExpectOlderDirectory() const
    {
        EXPECT_EQ(m_client.Directory(), kOlder);
        EXPECT_THAT(m_client.OutputFiles(), ElementsAre("directory.csv", "version.txt"));
    }
};

TEST_F(ServiceTransfer, AStopInTheMiddleLeavesNoTemporaryFile)
{
    StartTransfer();
    const auto before = std::chrono::steady_clock::now();
    m_client.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    EXPECT_THAT(m_client.Results(), ElementsAre());
    ExpectOlderDirectory();
}

TEST_F(ServiceTransfer, AServerThatDiesInTheMiddleLeavesTheOlderDirectory)
{
    StartTransfer();
    m_server->Stop();
    ASSERT_TRUE(m_client.WaitForResults(1));
    m_client.Stop();
    EXPECT_THAT(m_client.Results(), ElementsAre(kFailed));
    ExpectOlderDirectory();
}

TEST_F(ServiceFailure, ABadCertificateIsRefusedBeforeThePasswordIsSent)
{
    m_options.certificate = m_certificates.FromOtherAuthority();
    Serve();
    ExpectTwoFailures(ToServer());
    EXPECT_EQ(m_server->CountCommands("PASS"), 0u);
}

struct BadCertificate
{
    const char* name;
    ServerCertificate (TestCertificates::*make)() const;
};

void PrintTo(const BadCertificate& certificate, std::ostream* stream)
{
    *stream << certificate.name;
}

class ServiceCertificate : public ServiceFailure,
                           public ::testing::WithParamInterface<BadCertificate>
{
protected:
    ServiceCertificate()
    {
        m_options.certificate = (m_certificates.*GetParam().make)();
        Serve();
    }
};

TEST_P(ServiceCertificate, IsTakenWithoutVerification)
{
    Request request = ToServer();
    request.verify = false;
    m_client.ExpectResults(request, {kFetched});
}

INSTANTIATE_TEST_SUITE_P(
    Service, ServiceCertificate,
    ::testing::Values(BadCertificate{"Expired", &TestCertificates::Expired},
                      BadCertificate{"NotYetValid", &TestCertificates::NotYetValid},
                      BadCertificate{"WrongName", &TestCertificates::WrongName},
                      BadCertificate{"OtherAuthority", &TestCertificates::FromOtherAuthority},
                      BadCertificate{"SelfSigned", &TestCertificates::SelfSigned}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace integration
