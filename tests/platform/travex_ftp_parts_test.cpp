// Parts of the FTP layer that need no server: what is read from replies and texts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "certificates.h"
#include "files.h"
#include "travex_ftp/curl_options.h"
#include "travex_ftp/failure.h"
#include "travex_ftp/replies.h"
#include "travex_ftp/trust.h"
#include "travex_ftp_fixture.h"

namespace
{
using ftp_test::Environment;
using travex_ftp::Failure;
using travex_ftp::Limits;
using travex_ftp::Replies;
using travex_ftp::TrustText;

class RepliesTest : public testing::Test
{
protected:
    Replies::Line Hear(const std::string& line)
    {
        return m_replies.lineHeard(line.data(), line.size(), m_limits);
    }

    void Send(const std::string& line)
    {
        m_replies.commandSent(line.data(), line.size());
    }

    Limits m_limits;
    Replies m_replies;
};

TEST_F(RepliesTest, ReplyOfSeveralLinesEndsWithItsOwnCode)
{
    Hear("220-hello\r\n");
    Hear("421 is not the end\r\n");
    EXPECT_EQ(0u, m_replies.code());
    Hear(" 220 nor this\r\n");
    Hear("220-nor this\r\n");
    Hear("220 ready \r\n");
    EXPECT_EQ(220u, m_replies.code());
    EXPECT_STREQ("ready", m_replies.text());
}

TEST_F(RepliesTest, VerbIsKeptAndNothingBehindIt)
{
    Send("PASS secret\r\n");
    EXPECT_STREQ("PASS", m_replies.verb());
    EXPECT_FALSE(m_replies.answered());
    Hear("230 in\r\n");
    EXPECT_TRUE(m_replies.answered());
}

TEST_F(RepliesTest, SizesOf213)
{
    const auto size = [this](const std::string& text)
    {
        m_replies = Replies();
        Send("SIZE f\r\n");
        const Replies::Line verdict = Hear("213 " + text + "\r\n");
        return std::make_pair(verdict, m_replies.sizeAnswered());
    };
    using Line = Replies::Line;
    EXPECT_EQ(std::make_pair(Line::Fine, uint64_t{0}), size("0"));
    EXPECT_EQ(std::make_pair(Line::Fine, uint64_t{18446744073709551614u}),
              size("18446744073709551614"));
    EXPECT_EQ(std::make_pair(Line::Fine, uint64_t{18446744073709551614u}),
              size("99999999999999999999999"));
    for (const char* text : {"", "-1", "+1", "1 byte", "0x10", "1.5"})
    {
        EXPECT_EQ(Line::BadSize, size(text).first) << text;
    }
}

TEST_F(RepliesTest, SizesOf150)
{
    const auto size = [this](const std::string& text)
    {
        m_replies = Replies();
        Send("RETR f\r\n");
        Hear("150 " + text + "\r\n");
        return m_replies.sizeOpened();
    };
    EXPECT_EQ(65536u, size("Opening BINARY mode data connection for a(2).b (65536 bytes)."));
    EXPECT_EQ(0u, size("(0 bytes)"));
    for (const char* text : {"64.0 kbytes to download", "(64 kbytes)", "(", "(12", "(12 byte)", ""})
    {
        EXPECT_EQ(UINT64_MAX, size(text)) << text;
    }
}

TEST_F(RepliesTest, LinesAndBytesAreCapped)
{
    m_limits.replyLines = 3;
    m_limits.replyBytes = 20;
    EXPECT_EQ(Replies::Line::TooMuch, Hear(std::string(21, 'x')));
    m_replies = Replies();
    for (int i = 0; i != 3; ++i)
    {
        EXPECT_EQ(Replies::Line::Fine, Hear("x\n"));
    }
    EXPECT_EQ(Replies::Line::TooMuch, Hear("x\n"));
}

TEST_F(RepliesTest, StepIsTheGreetingBeforeTheFirstCommand)
{
    EXPECT_STREQ("the greeting", m_replies.step());
    Send("USER ftp\r\n");
    EXPECT_STREQ("USER", m_replies.step());
}

TEST_F(RepliesTest, RefusalIsTheLastWord)
{
    EXPECT_FALSE(m_replies.refused());
    Hear("421 too many\r\n");
    EXPECT_TRUE(m_replies.refused());
    Send("SIZE f\r\n");
    EXPECT_TRUE(m_replies.refused()) << "it may have come before the command was sent";
    Hear("550 no\r\n");
    EXPECT_TRUE(m_replies.refused());
    Send("RETR f\r\n");
    EXPECT_FALSE(m_replies.refused());
    Hear("150 opening\r\n");
    EXPECT_FALSE(m_replies.refused());
    Hear("426 broken off\r\n");
    EXPECT_TRUE(m_replies.refused());
}

TEST_F(RepliesTest, PasswordIsMaskedInTheWholeLine)
{
    const auto text = [this](const char* secret, const std::string& line)
    {
        const travex_ftp::Secret password(secret);
        m_replies = Replies(&password);
        Send("PASS x\r\n");
        Hear(line + "\r\n");
        return std::string(m_replies.text());
    };
    EXPECT_EQ("it was ******, ******", text("secret", "530 it was secret, secret"));
    const std::string before(252, 'x');
    EXPECT_EQ(before + "***", text("secret", "530 " + before + "secret"));
    EXPECT_EQ("it was **********", text("p\xe4ssw\xf6rter", "530 it was p\xe4ssw\xf6rter"));
    EXPECT_EQ("it was ****", text("tail ", "530 it was tail "));  // its end would be trimmed
    EXPECT_EQ("*******", text("aaaaa", "530 aaaaaaa"));
    EXPECT_EQ("it was secre", text("secret", "530 it was secre"));
}

TEST_F(RepliesTest, AnswersToALoginWithAShortPasswordHaveNoText)
{
    const travex_ftp::Secret password("abc");
    m_replies = Replies(&password);
    Hear("220 abc ready\r\n");
    EXPECT_STREQ("abc ready", m_replies.text());
    for (const char* command : {"USER u\r\n", "PASS abc\r\n"})
    {
        Send(command);
        Hear("530 not abc\r\n");
        EXPECT_EQ(530u, m_replies.code());
        EXPECT_STREQ("(text withheld)", m_replies.text());
    }
    Send("RETR abc\r\n");
    Hear("550 no abc\r\n");
    EXPECT_STREQ("no abc", m_replies.text());
}

TEST(LimitsTest, EnormousOnesAreBounded)
{
    const Environment connect("CORPDIR_FTP_CONNECT_MS", "4294967296");
    const Environment response("CORPDIR_FTP_RESPONSE_MS", "4611686018427387904");
    const Environment connections("CORPDIR_FTP_CONNECTIONS", "4611686018427387904");
    const Limits limits = Limits::fromEnvironment();
    EXPECT_EQ(std::chrono::hours(24 * 20), limits.connect);
    EXPECT_EQ(std::chrono::hours(24 * 20), limits.response);
    EXPECT_EQ(4096u, limits.connections);
    const std::unique_ptr<CURL, travex_ftp::CurlFreed> easy(curl_easy_init());
    EXPECT_EQ(CURLE_OK,
              travex_ftp::setReplyLimit(easy.get(), limits.response + std::chrono::seconds(1)));
}

std::string Printable(std::string text)
{
    travex_ftp::makePrintable(text.data());
    return text;
}

TEST(FailureTest, TextsBecomePrintable)
{
    EXPECT_EQ("plain", Printable("plain"));
    EXPECT_EQ("?[2J?", Printable("\x1b[2J\x7f"));
    EXPECT_EQ(
        "Gr\xc3\xbc\xc3\x9f"
        "e \xe2\x82\xac \xf0\x9f\x93\x81",
        Printable("Gr\xc3\xbc\xc3\x9f"
                  "e \xe2\x82\xac \xf0\x9f\x93\x81"));
    EXPECT_EQ("??", Printable("\xc2\x9b"));                        // CSI of eight bits
    EXPECT_EQ("? ??", Printable("\xff \xc3\xc3"));                 // no UTF-8
    EXPECT_EQ("??? ???", Printable("\xe0\x80\xaf \xed\xa0\x80"));  // overlong, a surrogate
    EXPECT_EQ("x??", Printable("x\xe2\x82"));                      // cut off
}

TEST(FailureTest, FirstCauseStandsAndNothingOverflows)
{
    Failure failure{};
    EXPECT_FALSE(travex_ftp::fail(failure, 7, "%s", std::string(2000, 'x').c_str()));
    EXPECT_FALSE(travex_ftp::fail(failure, 8, "later"));
    EXPECT_EQ(7u, failure.ulRet);
    EXPECT_EQ(sizeof failure.acReason - 1, strlen(failure.acReason));
    travex_ftp::prefix(failure, "server");
    EXPECT_EQ(0, strncmp(failure.acReason, "server: xxx", 11));
    EXPECT_EQ(sizeof failure.acReason - 1, strlen(failure.acReason));
}

TEST(FailureTest, SecretsAreMasked)
{
    const auto masked = [](std::string text, const char* secret)
    {
        travex_ftp::mask(text.data(), secret);
        return text;
    };
    EXPECT_EQ("it was ****** ******", masked("it was secret secret", "secret"));
    EXPECT_EQ("****", masked("****", "****"));
    EXPECT_EQ("530 abc", masked("530 abc", "abc"));  // too short to be told from chance
}

std::string Parsed(const std::string& text)
{
    Failure failure{};
    TrustText trust;
    if (!travex_ftp::parseTrustText(text.c_str(), trust, failure))
    {
        return failure.acReason;
    }
    std::string result = trust.authorities + (trust.implicit ? " implicit" : "");
    for (const std::string& name : trust.names)
    {
        result += " " + name;
    }
    return result;
}

TEST(TrustTextTest, PathsAndPairs)
{
    EXPECT_EQ("/etc/ca.pem", Parsed("/etc/ca.pem"));
    EXPECT_EQ("/etc/a=b.pem", Parsed("/etc/a=b.pem"));
    EXPECT_EQ("system", Parsed("system"));
    EXPECT_EQ("/etc/ca.pem implicit a.test b.test",
              Parsed("ca=/etc/ca.pem;name=a.test,b.test;tls=implicit"));
    EXPECT_EQ("system a.test", Parsed("name=a.test;"));
    EXPECT_EQ("system implicit", Parsed("tls=implicit"));
    EXPECT_EQ("trust text: \"ca=\" is not understood", Parsed("ca="));
    EXPECT_EQ("trust text: \"CA=/x\" is not understood", Parsed("CA=/x"));
    EXPECT_EQ("trust text: \"x\" is not understood", Parsed("ca=/x;x"));
}

// What a directory of authorities gives: how many certificates are believed, or the reason.
class TrustFiles : public testing::Test
{
protected:
    TrustFiles()
    {
        Write("ca.pem", support::ReadFile(m_certificates.Authority()));
    }

    void Write(const std::string& name, const std::string& text)
    {
        support::WriteFile(m_directory.File(name), text);
    }

    std::string Load() const
    {
        Failure failure{};
        travex_ftp::Anchors anchors;
        if (!travex_ftp::loadAnchors(m_directory.Path(), anchors, failure))
        {
            return std::to_string(failure.ulRet) + " " + failure.acReason;
        }
        return std::to_string(sk_X509_OBJECT_num(X509_STORE_get0_objects(anchors.store.get())));
    }

    std::string Refusal(const std::string& name, const std::string& reason) const
    {
        return "6 trust text: " + m_directory.File(name) + ": " + reason;
    }

    const support::TestCertificates m_certificates;
    const support::TemporaryDirectory m_directory;
};

TEST_F(TrustFiles, OthersAreNoHarm)
{
    Write("empty", "");
    Write("readme", "no certificate");
    Write("twice.pem", support::ReadFile(m_certificates.Authority()));
    ASSERT_EQ(0, symlink("nowhere", m_directory.File("dangling").c_str()));
    EXPECT_EQ("1", Load());
    Write("other.pem", support::ReadFile(m_certificates.OtherAuthority()));
    EXPECT_EQ("2", Load());
}

TEST_F(TrustFiles, BrokenOnesAreRefused)
{
    const std::string pem = support::ReadFile(m_certificates.OtherAuthority());
    for (const std::string& text :
         {std::string("-----BEGIN X509 CRL-----\nnonsense\n-----END X509 CRL-----\n"),
          std::string("-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n"),
          std::string("-----BEGIN X509 CRL-----\n"), pem.substr(0, pem.size() / 2),
          pem + "-----BEGIN X509 CRL-----\nAAAA\n"})
    {
        Write("z.pem", text);
        EXPECT_EQ(Refusal("z.pem", "it holds a broken PEM block"), Load()) << text;
    }
}

TEST_F(TrustFiles, TooLargeOnesAreRefused)
{
    Write("crl.pem", "");
    ASSERT_EQ(0, truncate(m_directory.File("crl.pem").c_str(), 16777216));
    EXPECT_EQ("1", Load());
    ASSERT_EQ(0, truncate(m_directory.File("crl.pem").c_str(), 16777217));
    EXPECT_EQ(Refusal("crl.pem", "it is too large"), Load());
}

// The memory of a process is a file whose first page cannot be read.
TEST_F(TrustFiles, UnreadableOnesAreRefused)
{
    ASSERT_EQ(0, symlink("/proc/self/mem", m_directory.File("crl.pem").c_str()));
    EXPECT_EQ(Refusal("crl.pem", "it cannot be read"), Load());
}

// A name that leads in a circle may have been that of a revocation list.
TEST_F(TrustFiles, NamesThatCannotBeFollowedAreRefused)
{
    ASSERT_EQ(0, symlink("crl.pem", m_directory.File("crl.pem").c_str()));
    EXPECT_EQ(Refusal("crl.pem", "Too many levels of symbolic links"), Load());
}

}  // namespace
