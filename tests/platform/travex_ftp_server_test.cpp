// Transfers from real servers: plain, explicit and implicit, IPv4 and IPv6, reuse of sessions and
// connections, certificates, and the log.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "captured_log.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::Certificates;
using ftp_test::LayerTest;
using ftp_test::ParametersOf;
using support::FtpServerOptions;
using support::PyFtpServer;
using support::Tls;
using support::VsftpdServer;
using testing::HasSubstr;
using testing::StartsWith;

FtpServerOptions Options(Tls tls, const std::string& host = "127.0.0.1")
{
    FtpServerOptions options;
    options.host = host;
    options.tls = tls;
    if (tls != Tls::kNone)
    {
        options.certificate = Certificates().Good();
    }
    return options;
}

class RealServer : public LayerTest
{
protected:
    // Trusts the test authority; `more` is appended to pcFtpCtrlInfo.
    void UseVerified(const support::FtpServer& server, const std::string& more = "")
    {
        m_trust = "ca=" + Certificates().Authority() + more +
                  (server.Options().tls == Tls::kImplicit ? ";tls=implicit" : "");
        auto record = ParametersOf(server, m_directory.Path());
        record.pcFtpCtrlInfo = m_trust.c_str();
        record.ulCertVerify = 1;
        Use(record);
    }

    void UseWith(const support::FtpServer& server)
    {
        if (server.Options().tls == Tls::kNone)
        {
            Use(ParametersOf(server, m_directory.Path()));
        }
        else
        {
            UseVerified(server);
        }
    }

    // Fetches both files and compares them.
    void FetchBoth(support::FtpServer& server)
    {
        const std::string big = support::PatternBytes(65536, 7);
        server.AddFile("version.txt", "edition 17\n");
        server.AddFile("directory.dat", big);
        ASSERT_EQ("0 12", Fetch("version.txt", "v"));
        ASSERT_EQ("0 12", Fetch("directory.dat", "d"));
        EXPECT_EQ("edition 17\n", Content("v"));
        EXPECT_TRUE(big == Content("d"));
    }

    std::string m_trust;
};

using ServerKind = std::tuple<Tls, const char*>;

class EveryKind : public RealServer, public testing::WithParamInterface<ServerKind>
{
};

// Both files share one login, and every data channel resumes the session of its control channel,
// here with TLS 1.3.
TEST_P(EveryKind, PyFtpServesBothFilesOnOneLogin)
{
    const auto [tls, host] = GetParam();
    PyFtpServer server(Options(tls, host));
    captured_log::Clear();
    UseWith(server);
    FetchBoth(server);
    EXPECT_EQ(1u, server.CountCommands("PASS"));
    EXPECT_EQ(0u, server.CountCommands("CWD"));
    EXPECT_EQ(
        tls == Tls::kNone ? 0u : 2u,
        captured_log::CountWith("data channel TLSv1.3 TLS_AES_256_GCM_SHA384, session resumed"));
}

TEST_P(EveryKind, VsftpdWithSessionReuseDemanded)
{
    const auto [tls, host] = GetParam();
    VsftpdServer server(Options(tls, host));
    UseWith(server);
    FetchBoth(server);
    EXPECT_EQ(1u, server.CountCommands("PASS"));
}

TEST_P(EveryKind, EmptyFileAndOneByte)
{
    const auto [tls, host] = GetParam();
    PyFtpServer server(Options(tls, host));
    server.AddFile("empty", "");
    server.AddFile("one", "1");
    Use(ParametersOf(server, m_directory.Path()));
    EXPECT_EQ("0 12", Fetch("empty", "e"));
    EXPECT_EQ("0 12", Fetch("one", "o"));
    EXPECT_EQ("", Content("e"));
    EXPECT_EQ("1", Content("o"));
}

std::string KindName(const testing::TestParamInfo<ServerKind>& kind)
{
    static const char* const kNames[] = {"Plain", "Explicit", "Implicit"};
    const bool v6 = std::strchr(std::get<1>(kind.param), ':') != nullptr;
    return std::string(kNames[static_cast<int>(std::get<0>(kind.param))]) + (v6 ? "V6" : "V4");
}

INSTANTIATE_TEST_SUITE_P(All, EveryKind,
                         testing::Combine(testing::Values(Tls::kNone, Tls::kExplicit,
                                                          Tls::kImplicit),
                                          testing::Values("127.0.0.1", "::1")),
                         KindName);

// A transfer waits for no timer.
TEST_F(RealServer, TwoFilesOverFtpsAreQuick)
{
    VsftpdServer server(Options(Tls::kExplicit));
    server.AddFile("version.txt", "edition 17\n");
    server.AddFile("directory.dat", support::PatternBytes(65536, 7));
    UseVerified(server);
    constexpr std::chrono::milliseconds kWithoutTimer(150);
    auto best = std::chrono::steady_clock::duration::max();
    for (int round = 0; round != 50 && best >= kWithoutTimer; ++round)  // the machine may be busy
    {
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ("0 12", Fetch("version.txt", "v"));
        ASSERT_EQ("0 12", Fetch("directory.dat", "d"));
        best = std::min(best, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_LT(best, kWithoutTimer);
}

TEST_F(RealServer, DefaultSuitesAreOfferedAndNothingElse)
{
    for (const int suite : {0x03000035, 0x0300003C, 0x0300003D})
    {
        PyFtpServer server(Options(Tls::kExplicit));
        server.AddFile("f", "f");
        auto record = ParametersOf(server, m_directory.Path());
        record.piCipherList = &suite;
        record.ulCipherNum = 1;
        Use(record);
        captured_log::Clear();
        ASSERT_EQ("0 12", Fetch("f", "f"));
        const char* const name = suite == 0x03000035   ? "AES256-SHA"
                                 : suite == 0x0300003C ? "AES128-SHA256"
                                                       : "AES256-SHA256";
        EXPECT_EQ(1u, captured_log::CountWith("control channel TLSv1.2 " + std::string(name)));
        EXPECT_EQ(1u, captured_log::CountWith("data channel TLSv1.2 " + std::string(name) +
                                              ", session resumed"));
    }
}

TEST_F(RealServer, OnlyTls13SuitesMeanNothingOlder)
{
    FtpServerOptions options = Options(Tls::kExplicit);
    options.max_tls = "1.2";
    PyFtpServer server(options);
    server.AddFile("f", "f");
    const int suite = 0x03001301;
    auto record = ParametersOf(server, m_directory.Path());
    record.piCipherList = &suite;
    record.ulCipherNum = 1;
    Use(record);
    EXPECT_EQ("3 17/TLS/0/3 TLS handshake failed: no TLS version in common", Fetch("f", "f"));
}

// Runs a test above in another process: a library may read the variable only once.
TEST_F(RealServer, KeysAreWrittenToNoFile)
{
    const std::string keys = m_directory.File("keys");
    const auto result = support::RunCommand(
        {{program_invocation_name, "--gtest_filter=All/EveryKind.PyFtpServes*/ExplicitV4"},
         {{"SSLKEYLOGFILE", keys}},
         ""});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("1 test from 1 test suite ran"));
    EXPECT_TRUE(!support::FileExists(keys) || support::ReadFile(keys).empty());
}

TEST_F(RealServer, RefusalsIncludeTheReply)
{
    PyFtpServer server(Options(Tls::kNone));
    auto record = ParametersOf(server, m_directory.Path());
    Use(record);
    EXPECT_EQ("3 20/RETRIEVE/550 RETR refused: 550 No such file or directory.",
              Fetch("missing", "m"));
    strcpy(record.acPassword, "not-this-one");
    Use(record);
    EXPECT_EQ("3 19/LOGIN/530 login refused: 530 Authentication failed.", Fetch("missing", "m"));
    EXPECT_EQ(0u, captured_log::CountWith("not-this-one"));
    server.Stop();
    strcpy(record.acPassword, "another-one");
    Use(record);
    EXPECT_EQ("3 16/CONNECT/0 cannot connect: Connection refused", Fetch("missing", "m"));
}

// "/x" is absolute, "x" relative to the login directory; no character is special.
TEST_F(RealServer, PathsAreSentByteForByte)
{
    PyFtpServer server(Options(Tls::kNone));
    Use(ParametersOf(server, m_directory.Path()));
    for (const std::string name :
         {"a;type=a", "a b%2e", "#x?y", "\xc3\xa4", "*", "[1-3]", "-l", "\"quoted\"", "a\\b", "~"})
    {
        server.AddFile(name, "content of " + name);
        EXPECT_EQ("0 12", Fetch("/" + name, "f")) << name;
        EXPECT_EQ("content of " + name, Content("f"));
        EXPECT_EQ("0 12", Fetch(name, "f")) << name;
        EXPECT_EQ(1u, server.CountCommands("RETR /" + name)) << name;
        EXPECT_EQ(1u, server.CountCommands("RETR " + name)) << name;
    }
    EXPECT_THAT(Fetch("../../etc/hostname", "f"), StartsWith("3 20/RETRIEVE/550 "));
}

class ManyTransfers : public RealServer, public testing::WithParamInterface<Tls>
{
};

// More than the limit of descriptors, if each had one.
TEST_P(ManyTransfers, AThousandFollowOneAnotherOnOneConnection)
{
    constexpr size_t kTransfers = 1000;
    PyFtpServer server(Options(GetParam()));
    for (size_t i = 0; i != kTransfers; ++i)
    {
        server.AddFile("f" + std::to_string(i), "bytes of " + std::to_string(i));
    }
    UseWith(server);
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    std::vector<unsigned int> tasks;
    for (size_t i = 0; i != kTransfers; ++i)
    {
        const std::string name = "f" + std::to_string(i);
        tasks.push_back(Start(name, name));
    }
    for (const unsigned int task : tasks)
    {
        ASSERT_EQ("0 12", ftp_test::OutcomeOf(task));
    }
    EXPECT_EQ(kTransfers, support::FilesIn(m_directory.Path()).size());
    for (size_t i = 0; i != kTransfers; ++i)
    {
        ASSERT_EQ("bytes of " + std::to_string(i), Content("f" + std::to_string(i)));
    }
    EXPECT_EQ(1u, server.CountCommands("PASS"));
    rlimit after{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &after));
    EXPECT_EQ(before.rlim_cur, after.rlim_cur);

    size_t place = 0;
    for (const std::string& command : server.Commands())
    {
        size_t number = 0;
        if (sscanf(command.c_str(), "RETR f%zu", &number) == 1)
        {
            EXPECT_EQ(place, number);
            ++place;
        }
    }
    EXPECT_EQ(kTransfers, place);
}

INSTANTIATE_TEST_SUITE_P(All, ManyTransfers, testing::Values(Tls::kNone, Tls::kExplicit),
                         [](const auto& kind)
                         { return kind.param == Tls::kNone ? "Plain" : "Explicit"; });

// Different settings never share a login or a TLS session.
TEST_F(RealServer, DifferentSecurityNeverSharesAConnection)
{
    PyFtpServer server(Options(Tls::kExplicit));
    server.AddFile("f", "f");
    captured_log::Clear();
    auto record = ParametersOf(server, m_directory.Path());
    Use(record);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    UseVerified(server);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    UseVerified(server, ";name=directory.test");
    ASSERT_EQ("0 12", Fetch("f", "f"));
    const int suite = 0x03001302;
    record.piCipherList = &suite;
    record.ulCipherNum = 1;
    Use(record);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    record.pfnFtpsVerify = [](void*, void*) { return 0; };
    Use(record);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(5u, server.CountCommands("PASS"));
    EXPECT_EQ(5u, captured_log::CountWith("control channel TLSv1.3"));
    for (const std::string& text : captured_log::Texts(2))
    {
        EXPECT_FALSE(text.find("control channel") != std::string::npos &&
                     text.find("resumed") != std::string::npos);
    }
    Use(record);  // equal settings, set again
    ASSERT_EQ("0 12", Fetch("f", "f"));
    EXPECT_EQ(5u, server.CountCommands("PASS"));
    strcpy(record.acPassword, "wrong");
    Use(record);
    EXPECT_THAT(Fetch("f", "f"), StartsWith("3 19/LOGIN/530 login refused: 530 "));
}

class CertificateTest : public RealServer
{
protected:
    std::string FetchFrom(const support::ServerCertificate& certificate,
                          const std::string& more = "")
    {
        FtpServerOptions options = Options(Tls::kExplicit);
        options.certificate = certificate;
        PyFtpServer server(options);
        server.AddFile("f", "f");
        UseVerified(server, more);
        const std::string outcome = Fetch("f", "f");
        // The password is not sent after a rejected certificate.
        EXPECT_EQ(outcome == "0 12" ? 1u : 0u, server.CountCommands("PASS"));
        return outcome;
    }
};

TEST_F(CertificateTest, EachRejectionHasItsReason)
{
    const auto& all = Certificates();
    EXPECT_EQ("0 12", FetchFrom(all.Good()));
    EXPECT_EQ("0 12", FetchFrom(all.ViaIntermediate()));
    EXPECT_EQ("3 18/TLS/0/2 certificate has expired", FetchFrom(all.Expired()));
    EXPECT_EQ("3 18/TLS/0/2 certificate is not yet valid", FetchFrom(all.NotYetValid()));
    EXPECT_EQ("3 18/TLS/0 the authority's certificate: certificate has expired",
              FetchFrom(all.ViaExpiredIntermediate()));
    EXPECT_EQ("3 18/TLS/0/2 certificate is not yet valid",
              FetchFrom(all.ViaIntermediateNotYetValid()));
    EXPECT_EQ("3 18/TLS/0/1 certificate is not valid for host 127.0.0.1",
              FetchFrom(all.WrongName()));
    EXPECT_EQ("3 18/TLS/0 self-signed certificate", FetchFrom(all.SelfSigned()));
    EXPECT_EQ("3 18/TLS/0 unable to get local issuer certificate",
              FetchFrom(all.FromOtherAuthority()));
}

TEST_F(CertificateTest, DirectoryOfAuthoritiesNeedsNoHashedNames)
{
    support::TemporaryDirectory authorities;
    support::WriteFile(authorities.File("readme.txt"), "no certificate");
    support::WriteFile(authorities.File("our.pem"), support::ReadFile(Certificates().Authority()));
    PyFtpServer server(Options(Tls::kExplicit));
    server.AddFile("f", "f");
    auto record = ParametersOf(server, m_directory.Path());
    record.ulCertVerify = 1;
    record.pcFtpCtrlInfo = authorities.Path().c_str();
    Use(record);
    EXPECT_EQ("0 12", Fetch("f", "f"));
    support::WriteFile(authorities.File("our.pem"),
                       support::ReadFile(Certificates().OtherAuthority()));
    Use(record);  // same path, other content: another connection
    EXPECT_EQ("3 18/TLS/0 unable to get local issuer certificate", Fetch("f", "f"));
    record.pcFtpCtrlInfo = "system";
    Use(record);
    EXPECT_EQ("3 18/TLS/0 unable to get local issuer certificate", Fetch("f", "f"));
}

// A revoked certificate, made with the openssl program.
class RevocationTest : public RealServer
{
protected:
    void OpenSsl(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "openssl");
        const support::CommandResult result = support::RunCommand({arguments, {}, ""});
        ASSERT_EQ(0, result.status) << result.output;
    }

    std::string In(const char* name) const
    {
        return m_workplace.File(name);
    }

    void MakeAuthorityAndServer()
    {
        support::WriteFile(
            In("ca.cnf"),
            "[ca]\ndefault_ca=own\n[own]\ndatabase=" + In("index") + "\nserial=" + In("serial") +
                "\ncrlnumber=" + In("number") + "\nnew_certs_dir=" + m_workplace.Path() +
                "\ndefault_md=sha256\ndefault_days=9\ndefault_crl_days=9\n"
                "policy=any\nprivate_key=" +
                In("ca.key") + "\ncertificate=" + In("ca.pem") + "\n[any]\ncommonName=supplied\n");
        support::WriteFile(In("index"), "");
        support::WriteFile(In("serial"), "01\n");
        support::WriteFile(In("number"), "01\n");
        support::WriteFile(In("names"), "subjectAltName=IP:127.0.0.1\n");
        OpenSsl({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", In("ca.key"), "-out",
                 In("ca.pem"), "-subj", "/CN=own"});
        OpenSsl({"req", "-newkey", "rsa:2048", "-nodes", "-keyout", In("key"), "-out", In("csr"),
                 "-subj", "/CN=server"});
        OpenSsl({"ca", "-batch", "-config", In("ca.cnf"), "-in", In("csr"), "-out", In("cert"),
                 "-extfile", In("names"), "-notext"});
    }

    const support::TemporaryDirectory m_workplace;
    const support::TemporaryDirectory m_authorities;
};

TEST_F(RevocationTest, ListsNextToTheAuthoritiesAreUsed)
{
    ASSERT_NO_FATAL_FAILURE(MakeAuthorityAndServer());
    FtpServerOptions options = Options(Tls::kExplicit);
    options.certificate = {In("cert"), In("key")};
    PyFtpServer server(options);
    server.AddFile("f", "f");
    support::WriteFile(m_authorities.File("ca.pem"), support::ReadFile(In("ca.pem")));
    auto record = ParametersOf(server, m_directory.Path());
    record.ulCertVerify = 1;
    record.pcFtpCtrlInfo = m_authorities.Path().c_str();
    OpenSsl({"ca", "-config", In("ca.cnf"), "-gencrl", "-out", m_authorities.File("crl.pem")});
    Use(record);
    EXPECT_EQ("0 12", Fetch("f", "f"));
    OpenSsl({"ca", "-config", In("ca.cnf"), "-revoke", In("cert")});
    OpenSsl({"ca", "-config", In("ca.cnf"), "-gencrl", "-out", m_authorities.File("crl.pem")});
    Use(record);
    EXPECT_EQ("3 18/TLS/0 certificate revoked", Fetch("f", "f"));
    // Other authorities need no list.
    support::WriteFile(m_authorities.File("other.pem"),
                       support::ReadFile(Certificates().Authority()));
    PyFtpServer other(Options(Tls::kExplicit));
    other.AddFile("f", "f");
    record = ParametersOf(other, m_directory.Path());
    record.ulCertVerify = 1;
    record.pcFtpCtrlInfo = m_authorities.Path().c_str();
    Use(record);
    EXPECT_EQ("0 12", Fetch("f", "f"));
}

std::vector<std::string> g_asked;
int g_answer = 0;

TEST_F(CertificateTest, ClientIsAskedOncePerControlConnection)
{
    PyFtpServer server(Options(Tls::kExplicit));
    server.AddFile("f", "f");
    auto record = ParametersOf(server, m_directory.Path());
    record.pfnFtpsVerify = [](void* address, void* subject)
    {
        g_asked.push_back(std::string(static_cast<const char*>(address)) + " " +
                          static_cast<const char*>(subject));
        return g_answer;
    };
    g_asked.clear();
    g_answer = 0;
    Use(record);
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ("0 12", Fetch("f", "f"));
    ASSERT_EQ(1u, g_asked.size());
    EXPECT_THAT(g_asked[0], StartsWith("127.0.0.1 /"));
    g_answer = 1;
    record.ulCertVerify = 1;
    record.pcFtpCtrlInfo = Certificates().Authority().c_str();
    Use(record);
    EXPECT_EQ("3 18/TLS/0 certificate rejected by the client's verify callback", Fetch("f", "f"));
    EXPECT_EQ(2u, g_asked.size());
    // After a failed check the client is not asked.
    record.pcFtpCtrlInfo = Certificates().OtherAuthority().c_str();
    g_answer = 0;
    Use(record);
    EXPECT_THAT(Fetch("f", "f"), StartsWith("3 18/TLS/0 "));
    EXPECT_EQ(2u, g_asked.size());
}

}  // namespace
