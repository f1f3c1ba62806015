// The limits of the options, and their messages.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <stdexcept>

#include "cli/options.h"
#include "parts_support.h"
#include "suites.h"
#include "ui/cipher_table.h"

namespace corpdir_tool
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ToolOptions : public testing::Test
{
protected:
    ToolOptions()
    {
        m_options.servers = "192.0.2.1;dir.example";
        m_options.user = "phone";
        m_options.versionFile = "/pub/version.txt";
        m_options.directoryFile = "/pub/directory.csv";
        m_options.outputDir = m_directory.Path();
    }

    Plan MadePlan() const
    {
        return MakePlan(m_options, SomeCiphers);
    }

    std::string Message() const
    {
        return ExitErrorOf([this] { MadePlan(); }).message;
    }

    // The refusal of MakePlan when this option has this value.
    Thrown With(std::string Options::*member, const std::string& value) const
    {
        Options options = m_options;
        options.*member = value;
        return ExitErrorOf([&options] { MakePlan(options, SomeCiphers); });
    }

    int Status() const
    {
        return ExitErrorOf([this] { MadePlan(); }).status;
    }

    TemporaryDirectory m_directory;
    Options m_options;
};

TEST_F(ToolOptions, DefaultsAreFtpsWithVerificationOfWhatIsListed)
{
    const Plan plan = MadePlan();
    EXPECT_FALSE(plan.plain);
    EXPECT_TRUE(plan.verify);
    EXPECT_EQ(plan.trust, "ca=system");
    EXPECT_THAT(plan.verifyNames, IsEmpty());
    EXPECT_EQ(plan.port, 0U);
    EXPECT_EQ(plan.family, AF_UNSPEC);
    EXPECT_EQ(plan.timeoutSeconds, 120U);
    EXPECT_EQ(plan.suites, client::SuitesOf(client::SuiteSet::kCompatible));
    EXPECT_FALSE(plan.UsedLogLevel().has_value());
}

TEST_F(ToolOptions, LocalNamesComeFromTheServer)
{
    const Plan plan = MadePlan();
    EXPECT_EQ(plan.VersionPath(), m_directory.Path() + "/version.txt");
    EXPECT_EQ(plan.DirectoryPath(), m_directory.Path() + "/directory.csv");
}

TEST_F(ToolOptions, LocalNamesMayBeGiven)
{
    m_options.versionName = "v";
    m_options.directoryName = "d";
    m_options.outputDir += "/";
    EXPECT_EQ(MadePlan().VersionPath(), m_directory.Path() + "/v");
    EXPECT_EQ(MadePlan().DirectoryPath(), m_directory.Path() + "/d");
}

TEST_F(ToolOptions, LocalNamesArePlainNames)
{
    for (const char* name : {"a/b", "/a", ".", ".."})
    {
        m_options.versionName = name;
        EXPECT_EQ(
            Message(),
            "--version-name '" + m_options.versionName +
                "' must be a file name without a directory; --output-dir gives the directory");
    }
    m_options.versionName = "v";
    m_options.directoryName = "a/b";
    EXPECT_THAT(Message(), HasSubstr("--directory-name 'a/b'"));
}

TEST_F(ToolOptions, ARemoteDirectoryGivesNoLocalName)
{
    for (const char* name : {"/pub/", "/", "pub/.", "pub/.."})
    {
        m_options.versionFile = name;
        EXPECT_EQ(Message(),
                  "--version-file '" + m_options.versionFile + "' does not end in a file name");
    }
}

TEST_F(ToolOptions, TheTwoFilesDiffer)
{
    m_options.directoryFile = "/other/version.txt";
    EXPECT_THAT(Message(), HasSubstr("both files would be stored as 'version.txt'"));
    m_options.directoryFile = m_options.versionFile;
    EXPECT_THAT(Message(), HasSubstr("are the same file '/pub/version.txt'"));
    EXPECT_EQ(Status(), kExitArguments);
}

struct Text
{
    const char* option;
    std::string Options::*member;
    std::size_t limit;
};

const Text kTexts[] = {
    {"--user", &Options::user, 127},
    {"--version-file", &Options::versionFile, 255},
    {"--directory-file", &Options::directoryFile, 255},
    {"--version-name", &Options::versionName, 255},
};

TEST_F(ToolOptions, TextsFitTheirFields)
{
    for (const Text& text : kTexts)
    {
        // Its last component is a local name, which has a smaller limit.
        const char* const last = text.member == &Options::directoryFile ? "/f" : "xx";
        EXPECT_EQ(With(text.member, std::string(text.limit - 2, 'x') + last).status, -1)
            << text.option;
        const Thrown thrown = With(text.member, std::string(text.limit + 1, 'x'));
        EXPECT_EQ(thrown.status, kExitArguments);
        EXPECT_EQ(thrown.message, std::string(text.option) + " is " +
                                      std::to_string(text.limit + 1) + " bytes long; at most " +
                                      std::to_string(text.limit) + " are allowed");
    }
}

TEST_F(ToolOptions, TextsHaveNoControlBytes)
{
    for (const Text& text : kTexts)
    {
        for (const char byte : {'\x01', '\n', '\r', '\x1f', '\x7f'})
        {
            const Thrown thrown = With(text.member, std::string("a") + byte + "b");
            EXPECT_EQ(thrown.status, kExitArguments);
            EXPECT_THAT(thrown.message,
                        HasSubstr(std::string(text.option) + " contains a control byte"));
        }
    }
}

TEST_F(ToolOptions, RequiredTextsAreNotEmpty)
{
    const std::pair<const char*, std::string Options::*> texts[] = {
        {"--user", &Options::user},
        {"--version-file", &Options::versionFile},
        {"--directory-file", &Options::directoryFile},
        {"--output-dir", &Options::outputDir},
        {"--servers", &Options::servers},
    };
    for (const auto& [option, member] : texts)
    {
        const Thrown thrown = With(member, "");
        EXPECT_EQ(thrown.status, kExitArguments);
        EXPECT_EQ(thrown.message, std::string(option) + " is empty");
    }
}

TEST_F(ToolOptions, TheOutputDirectoryIsMeasuredWithItsSlash)
{
    std::string path = m_directory.Path() + "/";
    path += std::string(126 - path.size(), 'd');
    std::filesystem::create_directory(path);
    m_options.outputDir = path;
    EXPECT_EQ(MadePlan().outputDir.size(), 127U);
    m_options.outputDir += "/";
    EXPECT_EQ(MadePlan().outputDir.size(), 127U);
    m_options.outputDir = path + "d";
    EXPECT_EQ(Message(),
              "--output-dir with its trailing '/' is 128 bytes long; at most 127 are allowed");
    EXPECT_EQ(Status(), kExitArguments);
}

TEST_F(ToolOptions, PathsHaveNoEmptyParts)
{
    std::filesystem::create_directories(m_directory.Path() + "/a/b");
    m_options.outputDir = "/." + m_directory.Path() + "//a/././b///";
    EXPECT_EQ(MadePlan().DirectoryPath(), m_directory.Path() + "/a/b/directory.csv");
    m_options.outputDir = m_directory.Path() + "/a/.";
    EXPECT_EQ(MadePlan().DirectoryPath(), m_directory.Path() + "/a/directory.csv");
    m_options.outputDir = m_directory.Path() + "/a/../a";
    EXPECT_EQ(MadePlan().DirectoryPath(), m_directory.Path() + "/a/../a/directory.csv");
}

TEST_F(ToolOptions, TheAbsolutePathIsThatOfTheTimeOfTheChecks)
{
    EXPECT_EQ(MadePlan().AbsoluteDirectoryPath(), m_directory.Path() + "/directory.csv");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_directory.Path());
    m_options.outputDir = ".";
    const Plan here = MadePlan();
    std::filesystem::create_directory("sub");
    m_options.outputDir = "sub";
    const Plan below = MadePlan();
    std::filesystem::current_path(before);
    EXPECT_EQ(here.AbsoluteDirectoryPath(), m_directory.Path() + "/directory.csv");
    EXPECT_EQ(below.DirectoryPath(), "sub/directory.csv");
    EXPECT_EQ(below.AbsoluteDirectoryPath(), m_directory.Path() + "/sub/directory.csv");
}

TEST_F(ToolOptions, TheOutputDirectoryMayBeOptional)
{
    m_options.outputDir = "";
    EXPECT_EQ(MakePlan(m_options, SomeCiphers, Output::kOptional).outputDir, "");
    m_options.outputDir = m_directory.Path() + "/none";
    EXPECT_EQ(ExitErrorOf([this] { MakePlan(m_options, SomeCiphers, Output::kOptional); }).status,
              kExitLocalFile);
}

TEST_F(ToolOptions, TheNameOfTheStateFileFits)
{
    m_options.directoryName = std::string(241, 'd');
    EXPECT_EQ(MadePlan().directoryName, m_options.directoryName);
    m_options.directoryName += 'd';
    EXPECT_EQ(Message(),
              "the local name of the directory file is 242 bytes long; at most 241 are allowed: "
              "give a shorter --directory-name");
    m_options.directoryName = "";
    m_options.directoryFile = "/pub/" + std::string(242, 'd');
    EXPECT_THAT(Message(), HasSubstr("242 bytes long"));
    EXPECT_EQ(Status(), kExitArguments);
}

TEST_F(ToolOptions, TheOutputDirectoryMustExist)
{
    m_options.outputDir = m_directory.Path() + "/none";
    EXPECT_EQ(Status(), kExitLocalFile);
    EXPECT_EQ(Message(), "--output-dir '" + m_directory.Path() +
                             "/none/': No such file or directory; create it first");
}

TEST_F(ToolOptions, TheOutputDirectoryMustBeADirectory)
{
    m_options.outputDir = m_directory.Write("file", "");
    EXPECT_EQ(Status(), kExitLocalFile);
}

TEST_F(ToolOptions, TheTargetsMustNotBeDirectories)
{
    std::filesystem::create_directory(m_directory.Path() + "/directory.csv");
    EXPECT_EQ(Status(), kExitLocalFile);
    EXPECT_THAT(Message(), HasSubstr("/directory.csv' is a directory"));
}

TEST_F(ToolOptions, TheLogDirectoryMustExist)
{
    m_options.logDir = m_directory.Path() + "/none";
    EXPECT_EQ(Status(), kExitLocalFile);
    EXPECT_THAT(Message(), HasSubstr("--log-dir '"));
    m_options.logDir = std::string(256, 'l');
    EXPECT_EQ(Status(), kExitArguments);
    EXPECT_EQ(Message(), "--log-dir is 256 bytes long; at most 255 are allowed");
}

TEST_F(ToolOptions, ALogDirectoryAloneGetsEverything)
{
    m_options.logDir = m_directory.Path();
    EXPECT_EQ(MadePlan().UsedLogLevel(), 2U);
    m_options.logLevel = 0;
    EXPECT_EQ(MadePlan().UsedLogLevel(), 0U);
}

TEST_F(ToolOptions, VerifyNamesAreKeptBesideTheTrustText)
{
    m_options.verifyNames = {"a.example", "b.example."};
    EXPECT_EQ(MadePlan().trust, "ca=system");
    EXPECT_THAT(MadePlan().verifyNames, ElementsAre("a.example", "b.example."));
    m_options.verifyNames = {"a;tls=implicit"};
    EXPECT_EQ(Message(), "--verify-name 'a;tls=implicit' is not a DNS name");
}

TEST_F(ToolOptions, TheAuthoritiesMustBeReadable)
{
    m_options.ca = m_directory.Write("ca.pem", "");
    EXPECT_EQ(MadePlan().trust, "ca=" + m_options.ca);
    m_options.ca = m_directory.Path() + "/none.pem";
    EXPECT_EQ(Message(), "--ca '" + m_options.ca + "' cannot be read: No such file or directory");
    EXPECT_EQ(Status(), kExitArguments);
}

TEST_F(ToolOptions, APathWithASemicolonIsRefused)
{
    m_options.ca = m_directory.Write("ca;name=evil.example", "");
    EXPECT_THAT(Message(), HasSubstr("contains a ';'"));
    EXPECT_EQ(Status(), kExitArguments);
}

TEST_F(ToolOptions, ThePathOfTheAuthoritiesFits)
{
    m_options.ca = std::string(253, 'c');
    EXPECT_EQ(Message(), "--ca is 253 bytes long; at most 252 are allowed");
    m_options.ca = m_directory.Path() + "/" + std::string(251 - m_directory.Path().size(), 'c');
    m_directory.Write(m_options.ca.substr(m_directory.Path().size() + 1), "");
    EXPECT_EQ(MadePlan().trust.size(), 255U);
}

TEST_F(ToolOptions, NamesHaveNoLimitTogether)
{
    m_options.servers = "192.0.2.1";
    for (int i = 100; i < 300; ++i)
    {
        m_options.servers += ";" + std::string(49, 'a') + std::to_string(i) + ".example";
        m_options.verifyNames.push_back(std::string(49, 'b') + std::to_string(i) + ".example");
    }
    EXPECT_EQ(m_options.verifyNames.front().size(), 60U);
    EXPECT_EQ(MadePlan().entries.size(), 201U);
    EXPECT_EQ(MadePlan().verifyNames.size(), 200U);
}

TEST_F(ToolOptions, WithoutVerificationTheTrustTextIsStillThere)
{
    m_options.noVerify = true;
    EXPECT_EQ(MadePlan().trust, "system");
    EXPECT_FALSE(MadePlan().verify);
    m_options.noVerify = false;
    m_options.plain = true;
    EXPECT_EQ(MadePlan().trust, "system");
    EXPECT_FALSE(MadePlan().verify);
    EXPECT_TRUE(MadePlan().plain);
}

TEST_F(ToolOptions, ProtectionThatWouldHaveNoEffectIsRefused)
{
    m_options.ca = "system";
    m_options.noVerify = true;
    EXPECT_THAT(Message(), HasSubstr("--no-verify checks no certificate"));
    m_options.ca.clear();
    m_options.verifyNames = {"a.example"};
    EXPECT_THAT(Message(), HasSubstr("--no-verify checks no certificate"));
    m_options.noVerify = false;
    m_options.plain = true;
    EXPECT_THAT(Message(), HasSubstr("--plain does not use TLS"));
    m_options.verifyNames.clear();
    m_options.ciphers = {"53"};
    EXPECT_THAT(Message(), HasSubstr("--plain does not use TLS"));
    EXPECT_EQ(Status(), kExitArguments);
}

TEST_F(ToolOptions, TheLocalAddressIsAnAddress)
{
    m_options.servers = "2001:db8::1;dir.example";
    m_options.localIp = "::1";
    EXPECT_EQ(MadePlan().family, AF_INET6);
    m_options.localIp = "localhost";
    EXPECT_EQ(Message(), "--local-ip 'localhost' is not an IPv4 or IPv6 address");
}

TEST_F(ToolOptions, TheLocalAddressIsOfTheServersFamily)
{
    m_options.localIp = "::1";
    EXPECT_THAT(Message(),
                HasSubstr("server 192.0.2.1 of --servers cannot be reached from --local-ip ::1"));
    m_options.localIp = "127.0.0.1";
    EXPECT_EQ(MadePlan().family, AF_INET);
}

TEST_F(ToolOptions, CipherSuitesAreNumbersOrNames)
{
    m_options.ciphers = {"0x03000035", "0x003C",     "61",
                         "0X1302",     "AES256-SHA", "tls_rsa_with_aes_128_cbc_sha256"};
    EXPECT_THAT(MadePlan().suites, ElementsAre(0x03000035, 0x0300003C, 0x0300003D, 0x03001302,
                                               0x03000035, 0x0300003C));
}

TEST_F(ToolOptions, CipherSuitesAreASetByItsWord)
{
    const std::pair<const char*, client::SuiteSet> sets[] = {
        {"compatible", client::SuiteSet::kCompatible},
        {"modern", client::SuiteSet::kModern},
        {"SERVICE", client::SuiteSet::kService}};
    for (const auto& [word, set] : sets)
    {
        m_options.ciphers = {word};
        EXPECT_EQ(MadePlan().suites, client::SuitesOf(set)) << word;
    }
    m_options.ciphers = {"53", "modern"};
    EXPECT_EQ(Message(),
              "--ciphers: 'modern' is a set of suites and cannot be combined with other values");
    EXPECT_EQ(Status(), kExitArguments);
}

int IdentifierOf(const std::string& text)
{
    return FindCipher(text, SomeCiphers);
}

TEST(ToolCiphers, ANumberThatIsNoIdentifierIsRefused)
{
    for (const char* text : {"65536", "0x02000035", "0x103000035", "9999999999"})
    {
        const Thrown thrown = ExitErrorOf([text] { IdentifierOf(text); });
        EXPECT_EQ(thrown.status, kExitArguments) << text;
        EXPECT_EQ(thrown.message,
                  "--ciphers: '" + std::string(text) +
                      "' is not a cipher suite identifier such as 0x03000035, 0x0035 or 53");
    }
    EXPECT_EQ(IdentifierOf("65535"), 0x0300ffff);
    EXPECT_EQ(IdentifierOf("50331701"), 0x03000035);
}

TEST(ToolCiphers, WhatIsNeitherNumberNorNameIsRefused)
{
    for (const char* text : {"", "0x", "x", "AES256", "-1", "+1", " 1", "1 ", "0x0x35",
                             "99999999999999999999999", "\n"})
    {
        const Thrown thrown = ExitErrorOf([text] { IdentifierOf(text); });
        EXPECT_EQ(thrown.status, kExitArguments) << text;
        EXPECT_THAT(thrown.message, HasSubstr("'corpdir ciphers' lists them")) << text;
    }
}

TEST(ToolCiphers, ANumberNeedsNoTable)
{
    EXPECT_EQ(FindCipher("53", []() -> CipherTable { throw std::logic_error("asked"); }),
              0x03000035);
}

TEST(ToolCiphers, AreListedWithAllTheirNames)
{
    TextStream output;
    PrintCiphers(SomeCiphers(), output.Get());
    EXPECT_EQ(output.Text(),
              "IDENTIFIER  SINCE    DEFAULT  STANDARD NAME                                  "
              "OPENSSL NAME\n"
              "0x03001302  TLSv1.3  yes      TLS_AES_256_GCM_SHA384                         "
              "TLS_AES_256_GCM_SHA384\n"
              "0x0300003C  TLSv1.2  yes      TLS_RSA_WITH_AES_128_CBC_SHA256                "
              "AES128-SHA256\n"
              "0x03000035  SSLv3    yes      TLS_RSA_WITH_AES_256_CBC_SHA                   "
              "AES256-SHA\n");
}

TEST(ToolCiphers, AreListedAsJson)
{
    TextStream output;
    PrintCiphersAsJson({SomeCiphers().back()}, output.Get());
    EXPECT_EQ(output.Text(),
              R"([{"identifier":"0x03000035","standard_name":"TLS_RSA_WITH_AES_256_CBC_SHA",)"
              R"("openssl_name":"AES256-SHA","since":"SSLv3","default":true}])"
              "\n");
}

}  // namespace
}  // namespace corpdir_tool
