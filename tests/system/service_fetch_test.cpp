// The service fetches version and directory from real servers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service_client.h"

namespace integration
{
namespace
{

using support::FtpServer;
using support::FtpServerOptions;
using support::PatternBytes;
using support::PyFtpServer;
using support::Sha256;
using support::TestCertificates;
using support::Tls;
using support::VsftpdServer;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kVersion = "edition 17\n";

enum class Kind
{
    kPyftpdlib,
    kVsftpd
};

std::unique_ptr<FtpServer> MakeServer(Kind kind, const FtpServerOptions& options)
{
    if (kind == Kind::kVsftpd)
    {
        return std::make_unique<VsftpdServer>(options);
    }
    return std::make_unique<PyFtpServer>(options);
}

// Expects that the client has both files as the server has them, and nothing else.
void ExpectFetched(const Client& client, const std::string& directory)
{
    EXPECT_EQ(client.Version(), kVersion);
    EXPECT_EQ(Sha256(client.Directory()), Sha256(directory));
    EXPECT_THAT(client.OutputFiles(), ElementsAre("directory.csv", "version.txt"));
}

std::size_t CountOf(const std::string& part, const std::string& text)
{
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    {
        ++count;
    }
    return count;
}

class EveryPeer : public ::testing::TestWithParam<std::tuple<Kind, Tls, std::string>>
{
};

TEST_P(EveryPeer, GivesVersionAndDirectory)
{
    TestCertificates certificates;
    FtpServerOptions options;
    Kind kind;
    std::tie(kind, options.tls, options.host) = GetParam();
    options.certificate = certificates.Good();
    const auto server = MakeServer(kind, options);
    const std::string directory = PatternBytes(300000, 1);
    server->AddFile("version.txt", kVersion);
    server->AddFile("directory.csv", directory);

    Client client;
    client.ExpectResults(RequestTo(*server, &certificates), {kFetched});
    ExpectFetched(client, directory);
    EXPECT_EQ(server->CountCommands("RETR version.txt"), 1u);
    EXPECT_EQ(server->CountCommands("RETR directory.csv"), 1u);
    EXPECT_EQ(server->CountCommands("PROT P") > 0, options.tls != Tls::kNone);
    EXPECT_THAT(client.Log(), Not(HasSubstr(options.password)));
    EXPECT_THAT(client.Log(), HasSubstr("edition 17"));
}

std::string NameOf(const ::testing::TestParamInfo<EveryPeer::ParamType>& test)
{
    const auto& [kind, tls, host] = test.param;
    return std::string(kind == Kind::kVsftpd ? "Vsftpd" : "Pyftpdlib") +
           (tls == Tls::kNone       ? "Plain"
            : tls == Tls::kExplicit ? "Explicit"
                                    : "Implicit") +
           (host == "::1" ? "Ipv6" : "Ipv4");
}

INSTANTIATE_TEST_SUITE_P(Service, EveryPeer,
                         ::testing::Combine(::testing::Values(Kind::kPyftpdlib, Kind::kVsftpd),
                                            ::testing::Values(Tls::kNone, Tls::kExplicit,
                                                              Tls::kImplicit),
                                            ::testing::Values("127.0.0.1", "::1")),
                         NameOf);

struct Suite
{
    int id;
    const char* name;
};

void PrintTo(const Suite& suite, std::ostream* stream)
{
    *stream << suite.name;
}

// vsftpd takes a data connection only when it resumes the control connection's session.
class EverySuite : public ::testing::TestWithParam<Suite>
{
};

TEST_P(EverySuite, ResumesItsSessionOnTheDataChannel)
{
    TestCertificates certificates;
    FtpServerOptions options;
    options.tls = Tls::kExplicit;
    options.certificate = certificates.Good();
    // vsftpd has no setting for TLS 1.3 suites; the client's offer decides then.
    const bool tls13 = std::string(GetParam().name).rfind("TLS_", 0) == 0;
    options.ciphers = tls13 ? "" : GetParam().name;
    options.require_session_reuse = true;
    VsftpdServer server(options);
    const std::string directory = PatternBytes(300000, 2);
    server.AddFile("version.txt", kVersion);
    server.AddFile("directory.csv", directory);

    Client client;
    ASSERT_EQ(GetCorpDirInstance()->CorpDirSetFtpCipherListToDirImpl(&GetParam().id, 1), 0u);
    client.ExpectResults(RequestTo(server, &certificates), {kFetched});
    ExpectFetched(client, directory);
    const std::string suite = "SSL cipher: " + std::string(GetParam().name);
    EXPECT_EQ(CountOf(suite + ", reused", server.Log()), 2u);
    EXPECT_EQ(CountOf("SSL cipher: ", server.Log()), CountOf(suite + ", ", server.Log()));
}

INSTANTIATE_TEST_SUITE_P(Service, EverySuite,
                         ::testing::Values(Suite{0x03000035, "AES256-SHA"},
                                           Suite{0x0300003C, "AES128-SHA256"},
                                           Suite{0x0300003D, "AES256-SHA256"},
                                           Suite{0x03001302, "TLS_AES_256_GCM_SHA384"},
                                           Suite{0x0300C030, "ECDHE-RSA-AES256-GCM-SHA384"}),
                         [](const auto& test)
                         {
                             std::string name = test.param.name;
                             name.erase(std::remove_if(name.begin(), name.end(),
                                                       [](char c) { return !isalnum(c); }),
                                        name.end());
                             return name;
                         });

// A server with a new file for each test, explicit TLS.
class ServiceFetch : public ::testing::Test
{
protected:
    ServiceFetch()
    {
        FtpServerOptions options;
        options.tls = Tls::kExplicit;
        options.certificate = m_certificates.Good();
        m_server = std::make_unique<PyFtpServer>(options);
        m_server->AddFile("version.txt", kVersion);
        m_server->AddFile("directory.csv", m_directory);
    }

    Request ToServer() const
    {
        return RequestTo(*m_server, &m_certificates);
    }

    TestCertificates m_certificates;
    std::unique_ptr<PyFtpServer> m_server;
    std::string m_directory = PatternBytes(50000, 3);
    Client m_client;
};

TEST_F(ServiceFetch, OffersTheThreeDefaultSuitesAlone)
{
    m_client.ExpectResults(ToServer(), {kFetched});
    ExpectFetched(m_client, m_directory);
    EXPECT_THAT(m_server->Log(), AnyOf(HasSubstr("TLS control TLSv1.2 AES256-SHA\n"),
                                       HasSubstr("TLS control TLSv1.2 AES128-SHA256\n"),
                                       HasSubstr("TLS control TLSv1.2 AES256-SHA256\n")));
    EXPECT_THAT(m_server->Log(), Not(HasSubstr("TLSv1.3")));
}

TEST_F(ServiceFetch, NewRequestFetchesAnUnchangedVersionAgain)
{
    ASSERT_EQ(m_client.Start(), 0u);
    ASSERT_EQ(m_client.Ask(ToServer()), 0u);
    ASSERT_TRUE(m_client.WaitForResults(1));
    const std::string newer = PatternBytes(40000, 4);
    m_server->AddFile("directory.csv", newer);
    ASSERT_EQ(m_client.Ask(ToServer()), 0u);
    ASSERT_TRUE(m_client.WaitForResults(2));
    m_client.Stop();

    EXPECT_THAT(m_client.Results(), ElementsAre(kFetched, kFetched));
    ExpectFetched(m_client, newer);
    EXPECT_EQ(m_server->CountCommands("RETR version.txt"), 2u);
}

TEST_F(ServiceFetch, MovesOnFromADeadServer)
{
    Request request = ToServer();
    request.servers = "127.0.0.2;127.0.0.3;127.0.0.1";
    m_client.ExpectResults(request, {kFailed, kFailed, kFetched});
    ExpectFetched(m_client, m_directory);
}

TEST_F(ServiceFetch, FetchesAnEmptyDirectory)
{
    m_server->AddFile("directory.csv", "");
    m_client.ExpectResults(ToServer(), {kFetched});
    ExpectFetched(m_client, "");
}

TEST_F(ServiceFetch, AcceptsANameOfTheTrustText)
{
    FtpServerOptions options = m_server->Options();
    options.certificate = m_certificates.WithNames("DNS:directory.test");
    PyFtpServer named(options);
    named.AddFile("version.txt", kVersion);
    named.AddFile("directory.csv", m_directory);
    Request request = RequestTo(named, &m_certificates);
    request.trust += ";name=other.test,directory.test";
    m_client.ExpectResults(request, {kFetched});
}

}  // namespace
}  // namespace integration
