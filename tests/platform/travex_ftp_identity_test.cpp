// Certificate identity: the certificate must carry the name or address by which the server is
// listed.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netdb.h>

#include <cstring>
#include <future>
#include <map>

#include "osak.h"
#include "travex_ftp_fixture.h"

namespace
{
// Addresses of host names; the linker wraps the system's getaddrinfo.
std::map<std::string, std::vector<std::string>> g_hosts;
}  // namespace

extern "C"
{
    int __real_getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result);

    // Returns all addresses of a name in g_hosts.
    int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result)
    {
        const auto host = g_hosts.find(node == nullptr ? "" : node);
        if (host == g_hosts.end())
        {
            return __real_getaddrinfo(node, service, hints, result);
        }
        addrinfo** end = result;
        for (const std::string& text : host->second)
        {
            if (const int error = __real_getaddrinfo(text.c_str(), service, hints, end))
            {
                return error;
            }
            while (*end != nullptr)
            {
                end = &(*end)->ai_next;
            }
        }
        return 0;
    }
}

namespace
{
using ftp_test::Certificates;
using ftp_test::FaultyServer;
using ftp_test::LayerTest;
using ftp_test::Parameters;
using testing::Each;
using testing::ElementsAre;

class Identity : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        g_hosts = {{"directory.test", {"127.0.0.1"}}, {"other.test", {"127.0.0.1"}}};
        // Forgets the conversions of earlier tests on this thread.
        auto record = Parameters("127.0.0.1", 1, m_directory.Path());
        Use(record);
    }

    // Starts a server whose certificate has these subjectAltName entries, in OpenSSL's syntax.
    void Serve(const std::string& names, const std::vector<std::string>& more = {},
               const char* fault = "none")
    {
        const support::ServerCertificate certificate = Certificates().WithNames(names);
        std::vector<std::string> options = {"--tls",  "explicit",
                                            "--cert", certificate.certificate_file,
                                            "--key",  certificate.key_file};
        options.insert(options.end(), more.begin(), more.end());
        m_server = std::make_unique<FaultyServer>(fault, options);
    }

    void UseServer(const std::string& trust = "", const std::string& host = "127.0.0.1")
    {
        const std::string text = "ca=" + Certificates().Authority() + trust;
        auto record = Parameters(host, m_server->Port(), m_directory.Path());
        record.ulServerType = record.ulCertVerify = 1;
        record.pcFtpCtrlInfo = text.c_str();
        Use(record);
    }

    // The outcome of a download with a verified certificate.
    std::string FetchWith(const std::string& trust = "", const std::string& host = "127.0.0.1")
    {
        UseServer(trust, host);
        const size_t before = m_server->Count("COMMAND USER");
        const std::string outcome = Fetch("f", "f");
        if (outcome != "0 12")
        {
            EXPECT_EQ(before, m_server->Count("COMMAND USER"))
                << "a rejected server gets no password";
        }
        return outcome;
    }

    static unsigned int Name(const std::string& address, const char* name)
    {
        unsigned char bytes[16] = {};
        const unsigned int type = address.find(':') == std::string::npos ? 0 : 1;
        EXPECT_EQ(1, inet_pton(type == 1 ? AF_INET6 : AF_INET, address.c_str(), bytes));
        return TRAVEX_FTP_SetServerName(type, bytes, name);
    }

    static void ConvertName(const char* name)
    {
        addrinfo* found = nullptr;
        ASSERT_EQ(0, OSAK_GetAddrInfo(name, nullptr, nullptr, &found));
        OSAK_FreeAddrInfo(found);
    }

    static void ConvertText(const char* address)
    {
        unsigned char bytes[16];
        ASSERT_EQ(1, OSAK_Inet_Pton(std::strchr(address, ':') == nullptr ? AF_INET : AF_INET6,
                                    address, bytes));
    }

    static std::string NotFor(const std::string& names)
    {
        return "3 18/TLS/0/1 certificate is not valid for host " + names;
    }

    std::unique_ptr<FaultyServer> m_server;
};

// Addresses are compared with IP entries, names with DNS entries, ignoring case, with a wildcard in
// the left-most label only. The subject, here "CN=server", is not used.
TEST_F(Identity, TheCertificateMustCarryTheListedNameOrAddress)
{
    const struct
    {
        const char* certificate;
        const char* added;     // by TRAVEX_FTP_SetServerName; null: nothing
        const char* trust;     // appended to pcFtpCtrlInfo
        const char* expected;  // what the certificate does not carry; null: it is accepted
    } kCases[] = {
        {"IP:127.0.0.1", nullptr, "", nullptr},
        {"DNS:directory.test,IP:127.0.0.2", nullptr, "", "127.0.0.1"},
        {"DNS:127.0.0.1", nullptr, "", "127.0.0.1"},
        {"DNS:directory.test", "directory.test", "", nullptr},
        {"DNS:directory.test", "other.test", "", "other.test"},
        {"IP:127.0.0.1", "directory.test", "", "directory.test"},
        {"DNS:directory.test", "127.0.0.1", "", "127.0.0.1"},
        {"email:somebody@directory.test", "server", "", "server"},
        {"DNS:Directory.Test", "dIRECTORY.test", "", nullptr},
        {"DNS:*.directory.test", nullptr, ";name=a.directory.test", nullptr},
        {"DNS:*.directory.test", nullptr, ";name=b.a.directory.test", "b.a.directory.test"},
        {"DNS:*.directory.test", nullptr, ";name=directory.test", "directory.test"},
        {"DNS:a.*.test", nullptr, ";name=a.directory.test", "a.directory.test"},
    };
    for (const auto& each : kCases)
    {
        SCOPED_TRACE(std::string(each.certificate) + " " + (each.added ? each.added : "") +
                     each.trust);
        Serve(each.certificate);
        EXPECT_EQ(0u, TRAVEX_FTP_SetServerName(0, nullptr, nullptr));
        if (each.added != nullptr)
        {
            EXPECT_EQ(0u, Name("127.0.0.1", each.added));
        }
        EXPECT_EQ(each.expected == nullptr ? "0 12" : NotFor(each.expected), FetchWith(each.trust));
    }
}

TEST_F(Identity, SeveralMayBeAdded)
{
    EXPECT_EQ(0u, Name("127.0.0.1", "one.test"));
    EXPECT_EQ(0u, Name("127.0.0.1", "two.test"));
    Serve("DNS:two.test");
    EXPECT_EQ("0 12", FetchWith());
    Serve("DNS:three.test,IP:127.0.0.1");
    EXPECT_EQ(NotFor("one.test or two.test"), FetchWith());
    EXPECT_EQ(0u, Name("127.0.0.1", "127.0.0.1"));
    EXPECT_EQ("0 12", FetchWith());
}

// The name applies to each of its addresses.
TEST_F(Identity, ANameWithTwoAddresses)
{
    g_hosts["two.test"] = {"127.0.0.1", "127.0.0.2"};
    for (const char* address : {"127.0.0.1", "127.0.0.2"})
    {
        Serve("DNS:two.test", {"--host", address});
        ConvertName("two.test");
        EXPECT_EQ("0 12", FetchWith("", address));
        Serve(std::string("IP:") + address, {"--host", address});
        ConvertName("two.test");
        EXPECT_EQ(NotFor("two.test"), FetchWith("", address));
    }
}

TEST_F(Identity, GivenNamesOverrideAllOthers)
{
    EXPECT_EQ(0u, Name("127.0.0.1", "listed.test"));
    ConvertText("127.0.0.1");
    Serve("IP:127.0.0.1,DNS:listed.test");
    EXPECT_EQ(NotFor("directory.test"), FetchWith(";name=directory.test"));
    Serve("DNS:second.test");
    EXPECT_EQ("0 12", FetchWith(";name=first.test,second.test"));
    EXPECT_EQ(NotFor("first.test or third.test"), FetchWith(";name=first.test,third.test"));
}

TEST_F(Identity, AddedNamesOverrideConversions)
{
    Serve("IP:127.0.0.1");
    EXPECT_EQ(0u, Name("127.0.0.1", "directory.test"));
    ConvertText("127.0.0.1");
    EXPECT_EQ(NotFor("directory.test"), FetchWith());
}

TEST_F(Identity, AddedNamesAreRemoved)
{
    const auto afterwards = [this]
    {
        Serve("DNS:directory.test");
        const std::string outcome = FetchWith();
        EXPECT_EQ(0u, Name("127.0.0.1", "directory.test"));
        return outcome;
    };
    EXPECT_EQ(0u, Name("127.0.0.1", "directory.test"));
    EXPECT_EQ(0u, Name("127.0.0.2", nullptr));
    EXPECT_EQ("0 12", afterwards());
    EXPECT_EQ(0u, Name("127.0.0.1", nullptr));
    EXPECT_EQ(NotFor("127.0.0.1"), afterwards());
    EXPECT_EQ(0u, TRAVEX_FTP_SetServerName(0, nullptr, nullptr));
    EXPECT_EQ(NotFor("127.0.0.1"), afterwards());
    EXPECT_EQ(0u, TRAVEX_FTP_UnInit());
    SetUp();
    EXPECT_EQ(NotFor("127.0.0.1"), afterwards());
}

// Names apply from the next SetCtrlParam on.
TEST_F(Identity, IsSettledWhenTheParametersAreSet)
{
    Serve("IP:127.0.0.1");
    UseServer();
    EXPECT_EQ(0u, Name("127.0.0.1", "directory.test"));
    EXPECT_EQ("0 12", Fetch("f", "f"));
    UseServer();
    EXPECT_EQ(NotFor("directory.test"), Fetch("f", "f"));
}

TEST_F(Identity, AnAddressMappedIntoIpv6IsIpv4)
{
    Serve("IP:127.0.0.1");
    EXPECT_EQ("0 12", FetchWith("", "::ffff:127.0.0.1"));
    EXPECT_EQ(0u, Name("::ffff:127.0.0.1", "directory.test"));
    EXPECT_EQ(NotFor("directory.test"), FetchWith());
    EXPECT_EQ(0u, Name("127.0.0.1", nullptr));
    EXPECT_EQ(0u, Name("127.0.0.1", "::ffff:127.0.0.1"));
    Serve("IP:127.0.0.1");
    EXPECT_EQ("0 12", FetchWith());
}

TEST_F(Identity, Ipv6Addresses)
{
    Serve("IP:::1", {"--host", "::1"});
    EXPECT_EQ("0 12", FetchWith("", "::1"));
    EXPECT_EQ(0u, Name("::1", "0:0:0:0:0:0:0:1"));
    EXPECT_EQ("0 12", FetchWith("", "::1"));
    Serve("IP:127.0.0.1", {"--host", "::1"});
    EXPECT_THAT(FetchWith("", "::1"),
                testing::StartsWith("3 18/TLS/0/1 certificate is not valid for host "));
}

TEST_F(Identity, TextsAreRefused)
{
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, Name("fe80::1", "fe80::1%eth0"));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, Name("127.0.0.1", ""));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, Name("127.0.0.1", "a\nb"));
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, Name("127.0.0.1", std::string(254, 'a').c_str()));
    EXPECT_EQ(0u, Name("127.0.0.1", std::string(253, 'a').c_str()));
    const unsigned char address[16] = {127, 0, 0, 1};
    EXPECT_EQ(TRAVEX_FTP_ERR_PARAM, TRAVEX_FTP_SetServerName(2, address, "a.test"));
    ASSERT_EQ(0u, TRAVEX_FTP_UnInit());
    EXPECT_EQ(TRAVEX_FTP_ERR_NOT_INIT, TRAVEX_FTP_SetServerName(0, address, "a.test"));
}

// The limit bounds memory. A refused name changes nothing.
TEST_F(Identity, AFullTableDropsNothing)
{
    unsigned char address[16] = {10};
    for (unsigned int i = 0; i != 65536; ++i)
    {
        memcpy(address + 1, &i, 3);
        ASSERT_EQ(0u, TRAVEX_FTP_SetServerName(0, address, "a.test")) << i;
    }
    EXPECT_NE(0u, Name("127.0.0.1", "directory.test"));
    memcpy(address + 1, "\0\0\0", 3);
    EXPECT_EQ(0u, TRAVEX_FTP_SetServerName(0, address, nullptr));
    EXPECT_EQ(0u, Name("127.0.0.1", "directory.test"));
    EXPECT_NE(0u, Name("127.0.0.2", "directory.test"));
    Serve("DNS:directory.test");
    EXPECT_EQ("0 12", FetchWith());
}

TEST_F(Identity, ATrailingDotIsRemoved)
{
    Serve("DNS:directory.test");
    EXPECT_EQ(0u, Name("127.0.0.1", "directory.test."));
    EXPECT_EQ("0 12", FetchWith());
    EXPECT_THAT(m_server->Lines("SNI "), Each(testing::EndsWith(" directory.test")));
    EXPECT_EQ("0 12", FetchWith(";name=directory.test."));
}

// The service converts the listed text on the thread that sets the parameters.
TEST_F(Identity, ANameThatWasResolvedIsExpected)
{
    Serve("DNS:directory.test");
    ConvertName("directory.test");
    EXPECT_EQ("0 12", FetchWith());
    Serve("IP:127.0.0.1");
    ConvertName("directory.test");
    EXPECT_EQ(NotFor("directory.test"), FetchWith());
}

TEST_F(Identity, AnAddressThatWasConvertedIsExpected)
{
    Serve("IP:127.0.0.1");
    ConvertText("127.0.0.1");
    EXPECT_EQ("0 12", FetchWith());
    Serve("DNS:directory.test");
    ConvertText("127.0.0.1");
    EXPECT_EQ(NotFor("127.0.0.1"), FetchWith());
    ConvertName("127.0.0.1");
    EXPECT_EQ(NotFor("127.0.0.1"), FetchWith());
}

TEST_F(Identity, TheFirstConversionThatGaveTheAddressCounts)
{
    Serve("DNS:directory.test");
    ConvertText("127.0.0.9");
    ConvertName("directory.test");
    ConvertName("other.test");
    ConvertText("127.0.0.1");
    EXPECT_EQ("0 12", FetchWith());
    Serve("IP:127.0.0.1");
    ConvertText("127.0.0.1");
    ConvertName("directory.test");
    EXPECT_EQ("0 12", FetchWith());
}

TEST_F(Identity, AConversionCountsForOneSettingOfParameters)
{
    Serve("IP:127.0.0.1");
    ConvertName("directory.test");
    UseServer();
    EXPECT_EQ("0 12", FetchWith());
}

TEST_F(Identity, AConversionOfAnotherThreadDoesNotCount)
{
    Serve("IP:127.0.0.1");
    std::async(std::launch::async, [] { ConvertName("directory.test"); }).get();
    EXPECT_EQ("0 12", FetchWith());
}

TEST_F(Identity, WithoutVerificationAnyCertificateIsAccepted)
{
    Serve("DNS:elsewhere.test");
    EXPECT_EQ(0u, Name("127.0.0.1", "directory.test"));
    auto record = Parameters("127.0.0.1", m_server->Port(), m_directory.Path());
    record.ulServerType = 1;
    Use(record);
    EXPECT_EQ("0 12", Fetch("f", "f"));
}

TEST_F(Identity, TheServerNameIndicationIsTheFirstName)
{
    Serve("DNS:two.test");
    EXPECT_EQ(0u, Name("127.0.0.1", "one.test"));
    EXPECT_EQ(0u, Name("127.0.0.1", "two.test"));
    EXPECT_EQ("0 12", FetchWith());
    EXPECT_THAT(m_server->Lines("SNI "), ElementsAre("control one.test", "data one.test"));
}

TEST_F(Identity, AnAddressIsNotSentAsServerNameIndication)
{
    Serve("IP:127.0.0.1");
    EXPECT_EQ("0 12", FetchWith());
    EXPECT_EQ(0u, Name("127.0.0.1", "127.0.0.1"));
    EXPECT_EQ("0 12", FetchWith());
    EXPECT_THAT(m_server->Lines("SNI "), Each(testing::EndsWith(" -")));
}

// The data channel may lead to another host than the control channel.
TEST_F(Identity, ADataChannelIsCheckedToo)
{
    const std::string stranger = Certificates().WithNames("IP:127.0.0.2").certificate_file;
    Serve("IP:127.0.0.1", {"--data-cert", stranger});
    UseServer();
    EXPECT_EQ("3 18/DATA_TLS/0/1 data channel: certificate is not valid for host 127.0.0.1",
              Fetch("f", "f"));
    const std::string untrusted = Certificates().FromOtherAuthority().certificate_file;
    Serve("IP:127.0.0.1", {"--data-cert", untrusted});
    UseServer();
    EXPECT_EQ("3 18/DATA_TLS/0 data channel: unable to get local issuer certificate",
              Fetch("f", "f"));
}

// The reason is the certificate, not the server's reply to our alert.
TEST_F(Identity, ARefusedDataChannelIsTheCertificatesFailure)
{
    const std::string stranger = Certificates().WithNames("IP:127.0.0.2").certificate_file;
    for (const char* version : {"1.2", "1.3"})
    {
        Serve("IP:127.0.0.1", {"--data-cert", stranger, "--tls-max", version},
              "report_data_handshake");
        UseServer();
        EXPECT_EQ("3 18/DATA_TLS/0/1 data channel: certificate is not valid for host 127.0.0.1",
                  Fetch("f", "f"));
    }
}

// A connection verified for one identity is not reused for another.
TEST_F(Identity, AConnectionIsReusedForItsIdentityOnly)
{
    Serve("DNS:one.test,DNS:two.test");
    EXPECT_EQ("0 12", FetchWith(";name=one.test"));
    EXPECT_EQ("0 12", FetchWith(";name=one.test"));
    EXPECT_EQ(1u, m_server->Count("CONNECT"));
    EXPECT_EQ("0 12", FetchWith(";name=two.test"));
    EXPECT_EQ(2u, m_server->Count("CONNECT"));
    EXPECT_EQ(0u, Name("127.0.0.1", "one.test"));
    EXPECT_EQ("0 12", FetchWith());
    EXPECT_EQ(3u, m_server->Count("CONNECT"));
    EXPECT_EQ(0u, Name("127.0.0.1", "two.test"));
    EXPECT_EQ("0 12", FetchWith());
    EXPECT_EQ(4u, m_server->Count("CONNECT"));
}

}  // namespace
