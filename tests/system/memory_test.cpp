// The password, the key and the IV in the process's memory: none of them is left after a stop. The
// test keeps them in changed form only, and searches for parts of them, since a freed block loses
// its first bytes to the allocator's bookkeeping and keeps the others.
#include <string.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service_client.h"
#include "service_secrets.h"

namespace integration
{
namespace
{

using support::PlacesInMemory;
using support::ReadFile;
using support::Scrambled;
using support::TestCertificates;
using support::Tls;
using support::WaitUntil;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// Reversed, so that this process never holds the password itself. The test searches for its end.
constexpr const char* kReversedEnd = "-gnihtyna-rof-doog-ton-drowssap";

std::string ReversedPassword(Tls tls)
{
    return kReversedEnd + std::string(40, '.') + (tls == Tls::kNone ? "nialp" : "desolcne");
}

// Reads its password from a file that another process wrote.
class SecretServer : public support::FtpServer
{
public:
    SecretServer(const support::FtpServerOptions& options, const std::string& reversed_password)
        : FtpServer(options)
    {
        const std::string file = Workplace("password");
        const std::string write =
            "open('" + file + "', 'w').write('" + reversed_password + "'[::-1])";
        if (support::RunCommand({{"/usr/bin/python3", "-c", write}, {}, ""}).status != 0)
        {
            throw std::runtime_error("no password file");
        }
        Launch({{"/usr/bin/python3", CORPDIR_FTP_SERVER, "--root=" + Root(),
                 "--user=" + options.user, "--password-file=" + file,
                 std::string("--tls=") + (options.tls == Tls::kNone ? "none" : "explicit"),
                 "--cert=" + options.certificate.certificate_file,
                 "--key=" + options.certificate.key_file},
                {{"PYTHONDONTWRITEBYTECODE", "1"}},
                ""});
        int port = 0;
        if (!WaitUntil([&]
                       { return sscanf(Output().c_str(), "READY %d", &port) == 1 || Ended(); }) ||
            port == 0)
        {
            throw std::runtime_error("the server does not start: " + Output());
        }
        SetPort(port);
    }

    std::string Version() const override
    {
        return "pyftpdlib";
    }

private:
    std::string CommandOfLine(const std::string& line) const override
    {
        return line;
    }
};

std::string Hex(const Scrambled& secret, const char* digits)
{
    std::string text;
    for (std::size_t i = 0; i < secret.Size(); ++i)
    {
        const auto byte = static_cast<unsigned char>(secret.Byte(i));
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string Raw(const Scrambled& secret)
{
    std::string text;
    for (std::size_t i = 0; i < secret.Size(); ++i)
    {
        text += secret.Byte(i);
    }
    return text;
}

class Memory : public ::testing::TestWithParam<Tls>
{
protected:
    Memory()
        : m_reversed(ReversedPassword(GetParam())), m_password(Scrambled::Reversed(kReversedEnd))
    {
        support::FtpServerOptions options;
        options.tls = GetParam();
        options.certificate = m_certificates.Good();
        options.password = "not this one";
        m_server = std::make_unique<SecretServer>(options, m_reversed);
        m_server->AddFile("version.txt", "edition 17\n");
        m_server->AddFile("directory.csv", "number,name\n1,Ada\n");
    }

    void Fetch()
    {
        ASSERT_THAT(PlacesInMemory(m_password), IsEmpty()) << "the test itself holds it";
        ASSERT_EQ(m_client.Start(), 0u);
        const auto fill = [this](tag_CORPDIR_DOWNLOADINFO& record)
        {
            const auto end =
                std::reverse_copy(m_reversed.begin(), m_reversed.end(), record.szPassword);
            *end = '\0';
        };
        ASSERT_EQ(m_client.AskWith(RequestTo(*m_server, &m_certificates), fill), 0u);
        ASSERT_TRUE(m_client.WaitForResults(1));
        ASSERT_THAT(m_client.Results(), Each(kFetched));
    }

    void ExpectNoneInMemory(const Secrets& secrets) const
    {
        EXPECT_THAT(PlacesInMemory(m_password), IsEmpty()) << "password";
        for (const Scrambled& part : secrets)
        {
            EXPECT_THAT(PlacesInMemory(part), IsEmpty()) << "of key or IV: " << part.Size();
        }
    }

    // The search finds the service's members.
    static void ExpectAllInMemory(const Secrets& secrets)
    {
        for (const Scrambled& part : secrets)
        {
            EXPECT_THAT(PlacesInMemory(part), Not(IsEmpty()));
        }
    }

    std::string m_reversed;
    Scrambled m_password;
    TestCertificates m_certificates;
    std::unique_ptr<SecretServer> m_server;
    Client m_client;
};

TEST_P(Memory, WhileAConnectionIsKeptThePasswordIsNowhere)
{
    ASSERT_NO_FATAL_FAILURE(Fetch());
    EXPECT_THAT(m_server->Log(), Not(HasSubstr("DISCONNECT"))) << "it is kept";
    EXPECT_THAT(PlacesInMemory(m_password), IsEmpty());
    std::string copy(m_reversed.rbegin(), m_reversed.rend());
    EXPECT_THAT(PlacesInMemory(m_password), Not(IsEmpty())) << "the search finds what is there";
    explicit_bzero(copy.data(), copy.size());
}

TEST_P(Memory, NoSecretOutlivesAStop)
{
    ASSERT_NO_FATAL_FAILURE(Fetch());
    const Secrets secrets = SealingSecrets();
    ExpectAllInMemory(secrets);
    m_client.Stop();
    ExpectNoneInMemory(secrets);
}

TEST_P(Memory, NoSecretOutlivesAStopWithinTheCallback)
{
    Secrets secrets;
    std::atomic<bool> stopped{false};
    m_client.OnResult(
        [&]
        {
            secrets = SealingSecrets();
            ExpectAllInMemory(secrets);
            m_client.Stop();
            stopped = true;
        });
    ASSERT_NO_FATAL_FAILURE(Fetch());
    ASSERT_TRUE(WaitUntil([&] { return stopped.load(); }));
    // The library's threads end, and wipe their copies, after the callback.
    EXPECT_TRUE(WaitUntil([&] { return PlacesInMemory(m_password).empty(); }));
    ExpectNoneInMemory(secrets);
    m_client.OnResult(nullptr);
}

TEST_P(Memory, NoSecretIsLogged)
{
    ASSERT_NO_FATAL_FAILURE(Fetch());
    Secrets secrets = SealingSecrets();
    m_client.Stop();
    secrets.push_back(m_password);
    const std::string log = m_client.Log();
    EXPECT_THAT(log, HasSubstr("before setftpinfo, username : ftp"));  // the lowest level is on
    for (const Scrambled& secret : secrets)
    {
        EXPECT_EQ(log.find(Raw(secret)), std::string::npos);
        EXPECT_EQ(log.find(Hex(secret, "0123456789abcdef")), std::string::npos);
        EXPECT_EQ(log.find(Hex(secret, "0123456789ABCDEF")), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Service, Memory, ::testing::Values(Tls::kNone, Tls::kExplicit), NameOfTls);

}  // namespace
}  // namespace integration
