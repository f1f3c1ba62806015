// Parts of the FTP layer that need no server: parsers, and the outcome of a transfer.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "certificates.h"
#include "files.h"
#include "travex_ftp/cipher_suites.h"
#include "travex_ftp/failure.h"
#include "travex_ftp/identity.h"
#include "travex_ftp/limits.h"
#include "travex_ftp/openssl_ptr.h"
#include "travex_ftp/replies.h"
#include "travex_ftp/retrieve.h"
#include "travex_ftp/task.h"
#include "travex_ftp/trust.h"

namespace
{
using travex_ftp::DataEnd;
using travex_ftp::Evidence;
using travex_ftp::Failure;
using travex_ftp::Limits;
using travex_ftp::Reply;
using travex_ftp::ReplyReader;
using travex_ftp::Secret;
using travex_ftp::TrustSettings;

constexpr uint64_t kUnknown = TRAVEX_FTP_SIZE_UNKNOWN;

// Feeds bytes to a ReplyReader.
class Listener
{
public:
    explicit Listener(const char* password = "throw-away-17")
        : m_password(password), m_reader(m_password)
    {
        m_reader.Restart(m_limits);
    }

    // The complete replies in `bytes`, received in chunks of a size, each as "220 ready"; the last
    // entry names the limit that was exceeded, if any.
    std::vector<std::string> Hear(const std::string& bytes, size_t chunk = 1000, bool login = false)
    {
        std::vector<std::string> replies;
        size_t at = 0;
        for (;;)
        {
            Reply reply;
            switch (m_reader.Next(reply, login))
            {
                case ReplyReader::Result::kReply:
                    replies.push_back(std::to_string(reply.code) + " " + reply.text);
                    continue;
                case ReplyReader::Result::kTooManyBytes:
                    replies.emplace_back("too many bytes");
                    return replies;
                case ReplyReader::Result::kTooManyLines:
                    replies.emplace_back("too many lines");
                    return replies;
                case ReplyReader::Result::kIncomplete:
                    break;
            }
            if (at == bytes.size())
            {
                return replies;
            }
            at += Arrive(bytes, at, chunk);
        }
    }

    void Restart(uint64_t lines, uint64_t bytes)
    {
        m_limits.replyLines = lines;
        m_limits.replyBytes = bytes;
        m_reader.Restart(m_limits);
    }

    bool Pending() const
    {
        return m_reader.Pending();
    }

private:
    size_t Arrive(const std::string& bytes, size_t at, size_t chunk)
    {
        size_t size = 0;
        char* const room = m_reader.FreeSpace(size);
        const size_t length = std::min({size, chunk, bytes.size() - at});
        memcpy(room, bytes.data() + at, length);
        m_reader.Arrived(length);
        return length;
    }

    Limits m_limits;
    const Secret m_password;
    ReplyReader m_reader;
};

using Texts = std::vector<std::string>;

TEST(RepliesTest, ReplyOfSeveralLinesEndsWithItsOwnCode)
{
    const std::string bytes =
        "220-hello\r\n421 is not the end\r\n 220 nor this\r\n220-nor this\r\n220 ready \r\n"
        "331 next\r\n";
    for (size_t chunk = 1; chunk <= bytes.size(); ++chunk)
    {
        EXPECT_EQ((Texts{"220 ready", "331 next"}), Listener().Hear(bytes, chunk)) << chunk;
    }
    EXPECT_EQ(Texts{}, Listener().Hear("220-hello\r\n421 no\r\n"));
}

TEST(RepliesTest, LinesMayEndWithLineFeedAlone)
{
    EXPECT_EQ((Texts{"220 ready", "331 next"}),
              Listener().Hear("220-hello\n220 ready\n331 next\n"));
}

TEST(RepliesTest, TextIsThatOfTheLastLineOrElseTheFirst)
{
    EXPECT_EQ(Texts{"213 100"}, Listener().Hear("213-Size\r\n213 100\r\n"));
    EXPECT_EQ(Texts{"550 gone"}, Listener().Hear("550-gone\r\n550 \r\n"));
    EXPECT_EQ(Texts{"550 "}, Listener().Hear("550\r\n"));
    EXPECT_EQ(Texts{"550 " + std::string(255, 'x')},
              Listener().Hear("550 " + std::string(3000, 'x') + "\r\n"));
}

TEST(RepliesTest, OtherLinesAreIgnored)
{
    EXPECT_EQ(Texts{"220 ready"}, Listener().Hear("hello\r\n\r\n22 x\r\n2200 x\r\n220 ready\r\n"));
    EXPECT_EQ(Texts{"550 a?b"}, Listener().Hear(std::string("550 a\0b\r\n", 9)));
}

TEST(RepliesTest, PendingMeansAnIncompleteReply)
{
    Listener listener;
    EXPECT_FALSE(listener.Pending());
    (void)listener.Hear("220 ready\r\n");
    EXPECT_FALSE(listener.Pending());
    (void)listener.Hear("2");
    EXPECT_TRUE(listener.Pending());
    EXPECT_EQ(Texts{"226 done"}, listener.Hear("26 done\r\n"));
    EXPECT_FALSE(listener.Pending());
    (void)listener.Hear("226-done\r\n");
    EXPECT_TRUE(listener.Pending());
}

TEST(RepliesTest, LinesAndBytesAreBounded)
{
    Listener listener;
    listener.Restart(3, 1000);
    EXPECT_EQ(Texts{"220 c"}, listener.Hear("220-a\r\n220-b\r\n220 c\r\n"));
    listener.Restart(3, 1000);
    EXPECT_EQ(Texts{"220 f"}, listener.Hear("220-d\r\n220-e\r\n220 f\r\n"));
    EXPECT_EQ(Texts{"too many lines"}, listener.Hear("220 g\r\n"));
    for (const size_t chunk : {1u, 7u, 1000u})
    {
        Listener other;
        other.Restart(1000, 20);
        EXPECT_EQ(Texts{"too many bytes"}, other.Hear(std::string(21, 'x'), chunk)) << chunk;
    }
}

// The text of a reply; `login`: to USER or PASS.
std::string Masked(const char* password, const std::string& text, bool login = false)
{
    const Texts heard = Listener(password).Hear("530 " + text + "\r\n", 1000, login);
    return heard.size() == 1 ? heard[0].substr(4) : "";
}

TEST(RepliesTest, PasswordIsMaskedInTheWholeLine)
{
    EXPECT_EQ("it was ******, ******", Masked("secret", "it was secret, secret"));
    const std::string before(252, 'x');
    EXPECT_EQ(before + "***", Masked("secret", before + "secret"));
    EXPECT_EQ("it was **********", Masked("p\xe4ssw\xf6rter", "it was p\xe4ssw\xf6rter"));
    EXPECT_EQ("it was *****",
              Masked("tail ", "it was tail "));  // trailing blanks are trimmed later
    EXPECT_EQ("*******", Masked("aaaaa", "aaaaaaa"));
}

TEST(RepliesTest, PasswordIsMaskedInBothEncodings)
{
    EXPECT_EQ("it was **********.", Masked("p\xc3\xa4ssw\xc3\xb6rter", "it was p\xe4ssw\xf6rter."));
    EXPECT_EQ("it was ************.",
              Masked("p\xe4ssw\xf6rter", "it was p\xc3\xa4ssw\xc3\xb6rter."));
    EXPECT_EQ("it was ************.",
              Masked("p\xc3\xa4ssw\xc3\xb6rter", "it was p\xc3\xa4ssw\xc3\xb6rter."));
}

TEST(RepliesTest, PasswordThatTheServerCutIsMasked)
{
    const std::string masked = Masked("secret-password", "it was secret-pass... or so");
    EXPECT_EQ(std::string::npos, masked.find("secret-p")) << masked;
    EXPECT_NE(std::string::npos, masked.find(" or so")) << masked;
}

TEST(RepliesTest, TailOfAPasswordThatTheServerCutIsMasked)
{
    EXPECT_EQ("it was ...********, or so", Masked("secret-password", "it was ...password, or so"));
    EXPECT_EQ("a word", Masked("secret-password", "a word"));
    EXPECT_EQ("secre t-p", Masked("secret-password", "secre t-p"));
}

TEST(RepliesTest, PasswordIsMaskedInLettersOfBothCases)
{
    EXPECT_EQ("it was ******, ******", Masked("Secret", "it was SECRET, secret"));
    EXPECT_EQ("it was ...********", Masked("secret-password", "it was ...PASSWORD"));
    EXPECT_EQ("it was *****{", Masked("secre[", "it was secre{"));
}

TEST(RepliesTest, RepliesToALoginWithAShortPasswordHaveNoText)
{
    EXPECT_EQ("(text withheld)", Masked("abc", "not abc", true));
    EXPECT_EQ("not abc", Masked("abc", "not abc", false));
}

TEST(SizesTest, InA213AreOneNumberInRange)
{
    using travex_ftp::SizeIn213;
    EXPECT_EQ(0u, SizeIn213("0"));
    EXPECT_EQ(100000u, SizeIn213("100000"));
    EXPECT_EQ(9223372036854775807u, SizeIn213("9223372036854775807"));
    for (const char* text :
         {"", "-1", "+1", "1 byte", "19 bytes", "0x10", "1.5", "about", "9223372036854775808",
          "18446744073709551615", "18446744073709551616", "99999999999999999999999"})
    {
        EXPECT_EQ(kUnknown, SizeIn213(text)) << text;
    }
}

TEST(SizesTest, InA150AreInParentheses)
{
    using travex_ftp::SizeIn150;
    EXPECT_EQ(65536u, SizeIn150("Opening BINARY mode data connection for a(2).b (65536 bytes)."));
    EXPECT_EQ(5u, SizeIn150("(5 bytes)"));
    EXPECT_EQ(100u, SizeIn150("Opening a(5 bytes) (100 bytes).")) << "the name has one too";
    for (const char* text : {"64.0 kbytes to download", "(64 kbytes)", "(", "(12", "", "(0 bytes)",
                             "(9223372036854775808 bytes)", "12 bytes"})
    {
        EXPECT_EQ(kUnknown, SizeIn150(text)) << text;
    }
}

TEST(PassiveTest, RepliesOfEitherFormatAreAccepted)
{
    const auto port = [](unsigned int code, const char* text)
    {
        Reply reply;
        reply.code = code;
        strcpy(reply.text, text);
        return travex_ftp::PortOfReply(reply);
    };
    for (const char* text :
         {"Extended (|||50000|)", "(!!!50000!)", "(||50000|)", "|||50000|", "Entering (|||50000|).",
          "Passive (192,0,2,1,195,80)", "192,0,2,1,195,80", "Passive 192,0,2,1,195,80.",
          "=192,0,2,1,195,80", "Entering passive mode (0,0,0,0,195,80)."})
    {
        EXPECT_EQ(50000u, port(229, text)) << text;
        EXPECT_EQ(50000u, port(227, text)) << text;
    }
    for (const char* text : {"", "bla", "(|||banana|)", "(|||0|)", "(|||70000|)", "(|||50000)",
                             "(|||-5|)", "(1,2,3,4,5)", "(1,2,3,4,0,0)", "(1,2,3,4,300,1)",
                             "(1,2,3,4,1,256)", "(|||99999999999999999999|)"})
    {
        EXPECT_EQ(0u, port(229, text)) << text;
        EXPECT_EQ(0u, port(227, text)) << text;
    }
}

// The outcome of a transfer: "good", or code, step, reply and reason.
class DecideTest : public testing::Test
{
protected:
    DecideTest()
    {
        m_evidence.announced = m_evidence.received = 100;
        m_evidence.data = DataEnd::kClosedCleanly;
        m_evidence.stall = std::chrono::milliseconds(900);
        m_evidence.confirm = std::chrono::milliseconds(700);
        Say(226, "done");
    }

    void Say(unsigned int code, const char* text)
    {
        m_evidence.last.code = code;
        strcpy(m_evidence.last.text, text);
    }

    std::string Outcome() const
    {
        Failure failure{};
        if (travex_ftp::Decide(m_evidence, failure))
        {
            EXPECT_EQ(0u, failure.ulRet);
            return "good";
        }
        return std::to_string(failure.ulRet) + "/" + std::to_string(failure.ulStep) + "/" +
               std::to_string(failure.ulReply) + " " + failure.acReason;
    }

    Evidence m_evidence;
};

TEST_F(DecideTest, BytesAndAPositiveReplyAreProof)
{
    for (const DataEnd end :
         {DataEnd::kClosedCleanly, DataEnd::kTruncated, DataEnd::kLost, DataEnd::kTimedOut})
    {
        m_evidence.data = end;
        for (const unsigned int code : {200u, 226u, 250u})
        {
            Say(code, "x");
            EXPECT_EQ("good", Outcome());
        }
    }
    m_evidence.announced = m_evidence.received = 0;
    EXPECT_EQ("good", Outcome());
}

TEST_F(DecideTest, WithoutASizeTheEndOfTheDataChannelIsNeeded)
{
    m_evidence.announced = kUnknown;
    EXPECT_EQ("good", Outcome());
    m_evidence.data = DataEnd::kTruncated;
    EXPECT_EQ("23/14/0 the data channel closed without close_notify: the file may be truncated",
              Outcome());
    m_evidence.data = DataEnd::kLost;
    m_evidence.dataWhy = "Connection reset by peer";
    EXPECT_EQ("23/14/0 data connection lost after 100 bytes: Connection reset by peer", Outcome());
    m_evidence.data = DataEnd::kTimedOut;
    EXPECT_EQ("22/14/0 timed out while receiving: 0 bytes in 0.9 s, 100 received", Outcome());
}

TEST_F(DecideTest, MoreOrFewerBytesThanAnnouncedAreAFailure)
{
    m_evidence.received = 50;
    EXPECT_EQ("23/14/0 incomplete: 50 of 100 bytes received", Outcome());
    m_evidence.data = DataEnd::kTruncated;
    EXPECT_EQ("23/14/0 incomplete: 50 of 100 bytes received", Outcome());
    m_evidence.data = DataEnd::kLost;
    m_evidence.dataWhy = "Connection reset by peer";
    EXPECT_EQ("23/14/0 data connection lost after 50 bytes: Connection reset by peer", Outcome());
    m_evidence.data = DataEnd::kTimedOut;
    m_evidence.periodBytes = 7;
    EXPECT_EQ("22/14/0 timed out while receiving: 7 bytes in 0.9 s, 50 of 100 received", Outcome());
    m_evidence.received = 101;
    for (const DataEnd end : {DataEnd::kClosedCleanly, DataEnd::kLost, DataEnd::kOpen})
    {
        m_evidence.data = end;
        EXPECT_EQ("23/14/0 too many bytes: 101 received, 100 announced", Outcome());
    }
}

TEST_F(DecideTest, ARefusalIsTheReason)
{
    m_evidence.received = 50;
    m_evidence.data = DataEnd::kLost;
    Say(451, "disk");
    EXPECT_EQ("23/14/451 the server aborted the transfer: 451 disk", Outcome());
    m_evidence.data = DataEnd::kOpen;
    EXPECT_EQ("23/14/451 the server aborted the transfer: 451 disk", Outcome());
    m_evidence.received = 100;
    Say(552, "quota");
    EXPECT_EQ("23/14/552 the server aborted the transfer: 552 quota", Outcome());
    Say(421, "bye");
    EXPECT_EQ("16/14/421 service not available: 421 bye", Outcome());
}

TEST_F(DecideTest, AMissingReplyIsReported)
{
    Say(0, "");
    EXPECT_EQ("22/15/0 no 226 within 0.7 s of the last byte", Outcome());
    m_evidence.controlLost = true;
    m_evidence.controlWhy = "closed by the server";
    EXPECT_EQ("23/15/0 connection lost before the 226: closed by the server", Outcome());
    m_evidence.data = DataEnd::kOpen;
    m_evidence.received = 50;
    EXPECT_EQ("23/14/0 connection lost during the transfer: closed by the server", Outcome());
}

TEST_F(DecideTest, AnotherReplyIsUnexpected)
{
    Say(331, "Password please.");
    EXPECT_EQ("21/15/331 unexpected reply to RETR: 331 Password please.", Outcome());
}

std::string Listed(const travex_ftp::Waiting& waiting)
{
    std::string text;
    for (const tagTRAVEX_FTP_STEP step : waiting)
    {
        text += std::to_string(step) + " ";
    }
    return text;
}

TEST(WaitingTest, StepsAndProgressKeepTheirOrder)
{
    travex_ftp::Waiting waiting;
    EXPECT_EQ("", Listed(waiting));
    for (const auto step : {TRAVEX_FTP_STEP_NONE, TRAVEX_FTP_STEP_CONNECT, TRAVEX_FTP_STEP_CONNECT,
                            TRAVEX_FTP_STEP_NONE, TRAVEX_FTP_STEP_NONE, TRAVEX_FTP_STEP_CONFIRM})
    {
        waiting.Add(step);
    }
    EXPECT_EQ("0 2 2 0 15 ", Listed(waiting));
    waiting.RemoveProgress();
    EXPECT_EQ("2 2 15 ", Listed(waiting));
}

TEST(WaitingTest, WhatDoesNotFitIsDropped)
{
    travex_ftp::Waiting waiting;
    for (int step = 0; step != 100; ++step)
    {
        waiting.Add(TRAVEX_FTP_STEP_CONNECT);
    }
    waiting.Add(TRAVEX_FTP_STEP_CONFIRM);
    EXPECT_EQ(64, waiting.end() - waiting.begin());
    EXPECT_EQ(TRAVEX_FTP_STEP_CONNECT, waiting.end()[-1]);
}

TEST(LimitsTest, AreBoundedAndReset)
{
    const Limits before = Limits::Current();
    tagTRAVEX_FTP_S_LIMITS set{};
    set.ulConnectMs = UINT_MAX;
    set.ulIdleMs = 5;
    set.ullFileBytes = UINT64_MAX;
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(&set));
    const Limits now = Limits::Current();
    EXPECT_EQ(std::chrono::hours(24 * 20), now.connect);
    EXPECT_EQ(std::chrono::milliseconds(5), now.idle);
    EXPECT_EQ(UINT64_MAX, now.fileBytes);
    EXPECT_EQ(before.response, now.response) << "not set";
    EXPECT_EQ(0u, TRAVEX_FTP_SetLimits(nullptr));
    EXPECT_EQ(before.connect, Limits::Current().connect);
    EXPECT_EQ(before.fileBytes, Limits::Current().fileBytes);
}

// The defaults documented in travex_ftp.h.
TEST(LimitsTest, DefaultsAreThoseOfTheHeader)
{
    using std::chrono::seconds;
    const Limits limits;
    EXPECT_EQ(uint64_t{16} << 30, limits.fileBytes);
    EXPECT_EQ(65536u, limits.replyBytes);
    EXPECT_EQ(1000u, limits.replyLines);
    EXPECT_EQ(1024u, limits.stallBytes);
    EXPECT_EQ(seconds(10), limits.connect);
    EXPECT_EQ(seconds(10), limits.handshake);
    EXPECT_EQ(seconds(20), limits.response);
    EXPECT_EQ(seconds(30), limits.stall);
    EXPECT_EQ(seconds(60), limits.confirm);
    EXPECT_EQ(std::chrono::hours(6), limits.transfer);
    EXPECT_EQ(seconds(15), limits.idle);
    EXPECT_EQ(std::chrono::milliseconds(100), limits.observe);
}

// The effect of a list of suites: names for TLS 1.2 and 1.3, oldest and newest version, or the
// refusal.
std::string Chosen(const std::vector<int>& identifiers)
{
    travex_ftp::CipherSuites suites;
    Failure failure{};
    if (!travex_ftp::ChooseSuites(identifiers.data(), static_cast<unsigned int>(identifiers.size()),
                                  suites, failure))
    {
        return std::to_string(failure.ulRet) + " " + failure.acReason;
    }
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    EXPECT_TRUE(suites.Apply(context.get()));
    const long oldest = SSL_CTX_get_min_proto_version(context.get());
    const long newest = SSL_CTX_get_max_proto_version(context.get());
    return suites.tls12 + " " + suites.tls13 + (oldest == TLS1_2_VERSION ? " 1.2" : " 1.3") +
           (newest == TLS1_2_VERSION ? " to 1.2"
            : newest == 0            ? ""
                                     : " to ?");
}

TEST(SuitesTest, VersionsFollowFromTheList)
{
    EXPECT_EQ("AES256-SHA:AES128-SHA256:AES256-SHA256  1.2 to 1.2",
              Chosen({0x03000035, 0x0300003C, 0x0300003D}));
    EXPECT_EQ(" TLS_AES_128_GCM_SHA256 1.3", Chosen({0x03001301}));
    EXPECT_EQ("AES256-SHA TLS_AES_256_GCM_SHA384 1.2", Chosen({0x03001302, 0x03000035}));
    EXPECT_EQ("  1.2", Chosen({}));
    EXPECT_EQ("5 unknown cipher suite 0x0300FFFE", Chosen({0x03000035, 0x0300FFFE}));
}

TEST(IdentityTest, ListedTextsAreNormalized)
{
    const auto form = [](const char* listed)
    {
        std::string normalized;
        const bool taken = travex_ftp::NormalizeServerName(listed, normalized);
        return taken ? (travex_ftp::IsAddress(normalized) ? "address " : "name ") + normalized
                     : std::string("refused");
    };
    EXPECT_EQ("name dir.example", form("dir.example"));
    EXPECT_EQ("name dir.example", form("dir.example."));
    EXPECT_EQ("name host", form("host"));
    EXPECT_EQ("address 192.0.2.1", form("192.0.2.1"));
    EXPECT_EQ("address 192.0.2.1", form("::ffff:192.0.2.1"));
    EXPECT_EQ("address 2001:db8::1", form("2001:0DB8:0:0::1"));
    for (const char* listed :
         {"", ".", "fe80::1%eth0", "1.2.3.4.5", "::1::", "a\nb", "a b", ".example"})
    {
        EXPECT_EQ("refused", form(listed)) << listed;
    }
    EXPECT_EQ("refused", form(std::string(254, 'a').c_str()));
}

TEST(IdentityTest, NamesAreJoinedByOr)
{
    EXPECT_EQ("192.0.2.1", travex_ftp::JoinNames({"192.0.2.1"}));
    EXPECT_EQ("a.example or b.example", travex_ftp::JoinNames({"a.example", "b.example"}));
}

std::string Printable(std::string text)
{
    travex_ftp::MakePrintable(text.data());
    return text;
}

// A certificate with these names only, each of a kind of GENERAL_NAME.
class NamedCertificate
{
public:
    void Add(int kind, const std::string& bytes)
    {
        ASN1_STRING* const text =
            ASN1_STRING_type_new(kind == GEN_IPADD ? V_ASN1_OCTET_STRING : V_ASN1_IA5STRING);
        ASN1_STRING_set(text, bytes.data(), static_cast<int>(bytes.size()));
        GENERAL_NAME* const name = GENERAL_NAME_new();
        GENERAL_NAME_set0_value(name, kind, text);
        sk_GENERAL_NAME_push(m_names.get(), name);
    }

    std::string Names(size_t limit = 511)
    {
        const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
        EXPECT_EQ(1, X509_add1_ext_i2d(certificate.get(), NID_subject_alt_name, m_names.get(), 0,
                                       X509V3_ADD_REPLACE));
        return travex_ftp::NamesOf(certificate.get(), limit);
    }

private:
    const travex_ftp::OpensslPtr<GENERAL_NAMES> m_names{GENERAL_NAMES_new()};
};

TEST(CertificateNamesTest, AreItsDnsNamesAndAddressesInItsOrder)
{
    NamedCertificate certificate;
    certificate.Add(GEN_EMAIL, "root@dir.example");
    certificate.Add(GEN_DNS, "dir.example");
    certificate.Add(GEN_IPADD, std::string("\xC0\0\x02\x01", 4));
    certificate.Add(GEN_URI, "ftp://dir.example/");
    certificate.Add(GEN_IPADD, "\x20\x01\x0D\xB8" + std::string(11, '\0') + "\x01");
    certificate.Add(GEN_IPADD, "\x0A\x01");
    certificate.Add(GEN_DNS, "*.dir.example");
    EXPECT_EQ("dir.example, 192.0.2.1, 2001:db8::1, *.dir.example", certificate.Names());
    const std::unique_ptr<X509, decltype(&X509_free)> bare(X509_new(), X509_free);
    EXPECT_EQ("", travex_ftp::NamesOf(bare.get(), 511));
}

TEST(CertificateNamesTest, AreEscaped)
{
    NamedCertificate certificate;
    certificate.Add(GEN_DNS, std::string("a\0b\n\x1B[m", 7));
    certificate.Add(GEN_DNS, "c, d");
    certificate.Add(GEN_DNS, "e\\2C\x7F\xC3\xA4");
    EXPECT_EQ("a\\00b\\0A\\1B[m, c\\2C\\20d, e\\5C2C\\7F\\C3\\A4", certificate.Names());
}

TEST(CertificateNamesTest, AreCutAfterAWholeName)
{
    NamedCertificate certificate;
    certificate.Add(GEN_DNS, "one.example");
    certificate.Add(GEN_DNS, "two.example");
    certificate.Add(GEN_DNS, "x");
    EXPECT_EQ("one.example, two.example, x", certificate.Names(27));
    EXPECT_EQ("one.example, ...", certificate.Names(26));
    EXPECT_EQ("one.example, ...", certificate.Names(16));
    EXPECT_EQ("", certificate.Names(15));
    EXPECT_EQ("", certificate.Names(4));
    certificate.Add(GEN_DNS, "three.example");
    EXPECT_EQ("one.example, two.example, ...", certificate.Names(31));
    EXPECT_EQ("one.example, two.example, x, ...", certificate.Names(32));
}

// An error that stays would look like one of the handshake.
TEST(CertificateNamesTest, AreEmptyAndLeaveNoErrorWhenTheyAreMalformed)
{
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> value(
        ASN1_OCTET_STRING_new(), ASN1_OCTET_STRING_free);
    const unsigned char noSequence[] = {0x04, 0x01, 0xFF};
    ASSERT_EQ(1, ASN1_OCTET_STRING_set(value.get(), noSequence, sizeof noSequence));
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        X509_EXTENSION_create_by_NID(nullptr, NID_subject_alt_name, 0, value.get()),
        X509_EXTENSION_free);
    ASSERT_EQ(1, X509_add_ext(certificate.get(), extension.get(), -1));
    EXPECT_EQ("", travex_ftp::NamesOf(certificate.get(), 511));
    EXPECT_EQ(0u, ERR_peek_error());
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

TEST(FailureTest, TheFirstCauseStaysAndNothingOverflows)
{
    Failure failure{};
    travex_ftp::SetStep(failure, TRAVEX_FTP_STEP_TYPE);
    Reply reply;
    reply.code = 500;
    EXPECT_FALSE(travex_ftp::Fail(failure, 7, "%s", std::string(2000, 'x').c_str()));
    EXPECT_FALSE(travex_ftp::Fail(failure, 8, "later"));
    EXPECT_FALSE(travex_ftp::FailByReply(failure, 9, "later", reply));
    travex_ftp::SetStep(failure, TRAVEX_FTP_STEP_RETRIEVE);
    EXPECT_EQ(7u, failure.ulRet);
    EXPECT_EQ(TRAVEX_FTP_STEP_TYPE, failure.ulStep);
    EXPECT_EQ(0u, failure.ulReply);
    EXPECT_EQ(sizeof failure.acReason - 1, strlen(failure.acReason));
}

TEST(FailureTest, AReplyIsItsCause)
{
    Failure failure{};
    Reply reply;
    reply.code = 550;
    strcpy(reply.text, "gone");
    EXPECT_FALSE(travex_ftp::FailByReply(failure, TRAVEX_FTP_ERR_FILE, "RETR refused", reply));
    EXPECT_EQ(550u, failure.ulReply);
    EXPECT_STREQ("RETR refused: 550 gone", failure.acReason);
}

std::string Parsed(const std::string& text)
{
    Failure failure{};
    TrustSettings trust;
    if (!travex_ftp::ParseTrustSettings(text.c_str(), trust, failure))
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

TEST(TrustSettingsTest, PathsAndPairs)
{
    EXPECT_EQ("/etc/ca.pem", Parsed("/etc/ca.pem"));
    EXPECT_EQ("/etc/a=b.pem", Parsed("/etc/a=b.pem"));
    EXPECT_EQ("system", Parsed("system"));
    EXPECT_EQ("/etc/ca.pem implicit a.test b.test",
              Parsed("ca=/etc/ca.pem;name=a.test,b.test;tls=implicit"));
    EXPECT_EQ("system a.test", Parsed("name=a.test;"));
    EXPECT_EQ("system implicit", Parsed("tls=implicit"));
    EXPECT_EQ("trusted certificates: invalid entry \"ca=\"", Parsed("ca="));
    EXPECT_EQ("trusted certificates: invalid entry \"CA=/x\"", Parsed("CA=/x"));
    EXPECT_EQ("trusted certificates: invalid entry \"x\"", Parsed("ca=/x;x"));
}

// A directory of authorities: the number of loaded certificates, or the reason.
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
        travex_ftp::TrustAnchors anchors;
        if (!travex_ftp::LoadTrustAnchors(m_directory.Path(), anchors, failure))
        {
            return std::to_string(failure.ulRet) + " " + failure.acReason;
        }
        return std::to_string(sk_X509_OBJECT_num(X509_STORE_get0_objects(anchors.store.get())));
    }

    std::string Refusal(const std::string& name, const std::string& reason) const
    {
        return "6 trusted certificates: " + m_directory.File(name) + ": " + reason;
    }

    const support::TestCertificates m_certificates;
    const support::TemporaryDirectory m_directory;
};

TEST_F(TrustFiles, FilesWithoutCertificatesAreIgnored)
{
    Write("empty", "");
    Write("readme", "no certificate");
    Write("twice.pem", support::ReadFile(m_certificates.Authority()));
    ASSERT_EQ(0, symlink("nowhere", m_directory.File("dangling").c_str()));
    EXPECT_EQ("1", Load());
    Write("other.pem", support::ReadFile(m_certificates.OtherAuthority()));
    EXPECT_EQ("2", Load());
}

TEST_F(TrustFiles, MalformedOnesAreRefused)
{
    const std::string pem = support::ReadFile(m_certificates.OtherAuthority());
    for (const std::string& text :
         {std::string("-----BEGIN X509 CRL-----\nnonsense\n-----END X509 CRL-----\n"),
          std::string("-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n"),
          std::string("-----BEGIN X509 CRL-----\n"), pem.substr(0, pem.size() / 2),
          pem + "-----BEGIN X509 CRL-----\nAAAA\n"})
    {
        Write("z.pem", text);
        EXPECT_EQ(Refusal("z.pem", "malformed PEM block"), Load()) << text;
    }
}

TEST_F(TrustFiles, TooLargeOnesAreRefused)
{
    Write("crl.pem", "");
    ASSERT_EQ(0, truncate(m_directory.File("crl.pem").c_str(), 16777216));
    EXPECT_EQ("1", Load());
    ASSERT_EQ(0, truncate(m_directory.File("crl.pem").c_str(), 16777217));
    EXPECT_EQ(Refusal("crl.pem", "file too large"), Load());
}

// The first page of /proc/self/mem cannot be read.
TEST_F(TrustFiles, UnreadableOnesAreRefused)
{
    ASSERT_EQ(0, symlink("/proc/self/mem", m_directory.File("crl.pem").c_str()));
    EXPECT_EQ(Refusal("crl.pem", "read error"), Load());
}

// The link may have been that of a revocation list.
TEST_F(TrustFiles, LinksThatCannotBeFollowedAreRefused)
{
    ASSERT_EQ(0, symlink("crl.pem", m_directory.File("crl.pem").c_str()));
    EXPECT_EQ(Refusal("crl.pem", "Too many levels of symbolic links"), Load());
}

}  // namespace
