// Every limit of the program's options, with the message that names it.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include "corpdir_tool_support.h"
#include "options.h"

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

    FetchPlan Plan() const
    {
        return MakePlan(m_options);
    }

    std::string Message() const
    {
        return FailureOf([this] { Plan(); }).message;
    }

    int Status() const
    {
        return FailureOf([this] { Plan(); }).status;
    }

    TemporaryDirectory m_directory;
    FetchOptions m_options;
};

TEST_F(ToolOptions, DefaultsAreFtpsWithVerificationOfTheHostNames)
{
    const FetchPlan plan = Plan();
    EXPECT_FALSE(plan.plain);
    EXPECT_TRUE(plan.verify);
    EXPECT_EQ(plan.trust, "ca=system;name=dir.example");
    EXPECT_EQ(plan.port, 0U);
    EXPECT_EQ(plan.family, AF_UNSPEC);
    EXPECT_EQ(plan.timeout.count(), 120);
    EXPECT_THAT(plan.ciphers, IsEmpty());
    EXPECT_FALSE(plan.logLevel.has_value());
}

TEST_F(ToolOptions, LocalNamesComeFromTheServer)
{
    const FetchPlan plan = Plan();
    EXPECT_EQ(plan.VersionPath(), m_directory.Path() + "/version.txt");
    EXPECT_EQ(plan.DirectoryPath(), m_directory.Path() + "/directory.csv");
}

TEST_F(ToolOptions, LocalNamesMayBeGiven)
{
    m_options.versionName = "v";
    m_options.directoryName = "d";
    m_options.outputDir += "/";
    EXPECT_EQ(Plan().VersionPath(), m_directory.Path() + "/v");
    EXPECT_EQ(Plan().DirectoryPath(), m_directory.Path() + "/d");
}

TEST_F(ToolOptions, LocalNamesArePlainNames)
{
    for (const char* name : {"a/b", "/a", ".", ".."})
    {
        m_options.versionName = name;
        EXPECT_EQ(Message(), "--version-name '" + m_options.versionName +
                                 "' is not a plain file name; the directory is --output-dir");
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
        EXPECT_EQ(Message(), "--version-file '" + m_options.versionFile +
                                 "' does not end in the name of a file");
    }
}

TEST_F(ToolOptions, TheTwoFilesDiffer)
{
    m_options.directoryFile = "/other/version.txt";
    EXPECT_THAT(Message(), HasSubstr("both files would be stored as 'version.txt'"));
    m_options.directoryFile = m_options.versionFile;
    EXPECT_THAT(Message(), HasSubstr("are the same file '/pub/version.txt'"));
    EXPECT_EQ(Status(), EXIT_ARGUMENTS);
}

struct Limit
{
    const char* option;
    std::string FetchOptions::*member;
    std::size_t limit;
};

TEST_F(ToolOptions, TextsFitTheirFields)
{
    const Limit limits[] = {
        {"--user", &FetchOptions::user, 127},
        {"--version-file", &FetchOptions::versionFile, 255},
        {"--directory-file", &FetchOptions::directoryFile, 255},
        {"--version-name", &FetchOptions::versionName, 255},
        {"--directory-name", &FetchOptions::directoryName, 255},
    };
    for (const Limit& limit : limits)
    {
        FetchOptions options = m_options;
        options.*limit.member = std::string(limit.limit, 'x');
        EXPECT_EQ(FailureOf([&options] { MakePlan(options); }).status, -1) << limit.option;
        options.*limit.member += 'x';
        const Thrown thrown = FailureOf([&options] { MakePlan(options); });
        EXPECT_EQ(thrown.status, EXIT_ARGUMENTS);
        EXPECT_EQ(thrown.message, std::string(limit.option) + " is " +
                                      std::to_string(limit.limit + 1) + " bytes long; at most " +
                                      std::to_string(limit.limit) + " are allowed");
    }
}

TEST_F(ToolOptions, TextsHaveNoControlBytes)
{
    const Limit texts[] = {
        {"--user", &FetchOptions::user, 0},
        {"--version-file", &FetchOptions::versionFile, 0},
        {"--directory-file", &FetchOptions::directoryFile, 0},
        {"--version-name", &FetchOptions::versionName, 0},
        {"--directory-name", &FetchOptions::directoryName, 0},
    };
    for (const Limit& text : texts)
    {
        for (const char byte : {'\x01', '\n', '\r', '\x1f', '\x7f'})
        {
            FetchOptions options = m_options;
            options.*text.member = std::string("a") + byte + "b";
            const Thrown thrown = FailureOf([&options] { MakePlan(options); });
            EXPECT_EQ(thrown.status, EXIT_ARGUMENTS);
            EXPECT_THAT(thrown.message,
                        HasSubstr(std::string(text.option) + " contains a control byte"));
        }
    }
}

TEST_F(ToolOptions, RequiredTextsAreNotEmpty)
{
    const Limit texts[] = {
        {"--user", &FetchOptions::user, 0},
        {"--version-file", &FetchOptions::versionFile, 0},
        {"--directory-file", &FetchOptions::directoryFile, 0},
        {"--output-dir", &FetchOptions::outputDir, 0},
        {"--servers", &FetchOptions::servers, 0},
        {"--ca", &FetchOptions::ca, 0},
    };
    for (const Limit& text : texts)
    {
        FetchOptions options = m_options;
        (options.*text.member).clear();
        const Thrown thrown = FailureOf([&options] { MakePlan(options); });
        EXPECT_EQ(thrown.status, EXIT_ARGUMENTS);
        EXPECT_EQ(thrown.message, std::string(text.option) + " is empty");
    }
}

TEST_F(ToolOptions, TheOutputDirectoryIsMeasuredWithItsSlash)
{
    std::string path = m_directory.Path() + "/";
    path += std::string(126 - path.size(), 'd');
    std::filesystem::create_directory(path);
    m_options.outputDir = path;
    EXPECT_EQ(Plan().outputDir.size(), 127U);
    m_options.outputDir += "/";
    EXPECT_EQ(Plan().outputDir.size(), 127U);
    m_options.outputDir = path + "d";
    EXPECT_EQ(Message(),
              "--output-dir with its closing '/' is 128 bytes long; at most 127 are allowed");
    EXPECT_EQ(Status(), EXIT_ARGUMENTS);
}

TEST_F(ToolOptions, TheOutputDirectoryMustExist)
{
    m_options.outputDir = m_directory.Path() + "/none";
    EXPECT_EQ(Status(), EXIT_LOCAL_FILE);
    EXPECT_EQ(Message(),
              "--output-dir '" + m_directory.Path() + "/none/': No such file or directory");
}

TEST_F(ToolOptions, TheOutputDirectoryMustBeADirectory)
{
    m_options.outputDir = m_directory.Write("file", "");
    EXPECT_EQ(Status(), EXIT_LOCAL_FILE);
}

TEST_F(ToolOptions, TheTargetsMustNotBeDirectories)
{
    std::filesystem::create_directory(m_directory.Path() + "/directory.csv");
    EXPECT_EQ(Status(), EXIT_LOCAL_FILE);
    EXPECT_THAT(Message(), HasSubstr("/directory.csv' is a directory"));
}

TEST_F(ToolOptions, TheLogDirectoryMustExist)
{
    m_options.logDir = m_directory.Path() + "/none";
    EXPECT_EQ(Status(), EXIT_LOCAL_FILE);
    EXPECT_THAT(Message(), HasSubstr("--log-dir '"));
    m_options.logDir = std::string(256, 'l');
    EXPECT_EQ(Status(), EXIT_ARGUMENTS);
    EXPECT_EQ(Message(), "--log-dir is 256 bytes long; at most 255 are allowed");
}

TEST_F(ToolOptions, ALogDirectoryAloneGetsEverything)
{
    m_options.logDir = m_directory.Path();
    EXPECT_EQ(Plan().logLevel.value(), 2U);
    m_options.logLevel = 0;
    EXPECT_EQ(Plan().logLevel.value(), 0U);
}

TEST_F(ToolOptions, VerifyNamesReplaceTheHostNames)
{
    m_options.verifyNames = {"a.example", "b.example.", "a.example"};
    EXPECT_EQ(Plan().trust, "ca=system;name=a.example,b.example");
    m_options.verifyNames = {"a;tls=implicit"};
    EXPECT_EQ(Message(), "--verify-name 'a;tls=implicit' is not a DNS name");
}

TEST_F(ToolOptions, AddressesAloneNeedNoName)
{
    m_options.servers = "192.0.2.1;2001:db8::1";
    EXPECT_EQ(Plan().trust, "ca=system");
}

TEST_F(ToolOptions, TheAuthoritiesMustBeReadable)
{
    m_options.ca = m_directory.Write("ca.pem", "");
    EXPECT_EQ(Plan().trust, "ca=" + m_options.ca + ";name=dir.example");
    m_options.ca = m_directory.Path() + "/none.pem";
    EXPECT_EQ(Message(), "--ca '" + m_options.ca + "' cannot be read: No such file or directory");
    EXPECT_EQ(Status(), EXIT_ARGUMENTS);
}

TEST_F(ToolOptions, APathWithASemicolonIsRefused)
{
    m_options.ca = m_directory.Write("ca;name=evil.example", "");
    EXPECT_THAT(Message(), HasSubstr("contains a ';'"));
    EXPECT_EQ(Status(), EXIT_ARGUMENTS);
}

TEST_F(ToolOptions, TheTrustTextFits)
{
    // "ca=system" and ";name=" take 15 bytes.
    const std::string name = std::string(59, 'a') + ".";
    const std::string fits = name + name + name + std::string(60, 'b');
    m_options.verifyNames = {fits};
    EXPECT_EQ(Plan().trust.size(), 255U);
    m_options.verifyNames = {fits + "b"};
    EXPECT_EQ(Message(),
              "the trust text made of --ca and --verify-name is 256 bytes long; at most 255 are "
              "allowed");
    m_options.servers = fits + "b";
    m_options.verifyNames.clear();
    EXPECT_THAT(Message(), HasSubstr("--ca and the host names of --servers is 256 bytes long"));
}

TEST_F(ToolOptions, WithoutVerificationTheTrustTextIsStillThere)
{
    m_options.noVerify = true;
    EXPECT_EQ(Plan().trust, "system");
    EXPECT_FALSE(Plan().verify);
    m_options.noVerify = false;
    m_options.plain = true;
    EXPECT_EQ(Plan().trust, "system");
    EXPECT_FALSE(Plan().verify);
    EXPECT_TRUE(Plan().plain);
}

TEST_F(ToolOptions, ProtectionThatWouldHaveNoEffectIsRefused)
{
    m_options.verifyNames = {"a.example"};
    m_options.noVerify = true;
    EXPECT_THAT(Message(), HasSubstr("--no-verify checks no certificate"));
    m_options.noVerify = false;
    m_options.plain = true;
    EXPECT_THAT(Message(), HasSubstr("--plain has no TLS"));
    m_options.verifyNames.clear();
    m_options.ciphers = {"53"};
    EXPECT_THAT(Message(), HasSubstr("--plain has no TLS"));
    EXPECT_EQ(Status(), EXIT_ARGUMENTS);
}

TEST_F(ToolOptions, TheLocalAddressIsAnAddress)
{
    m_options.servers = "2001:db8::1;dir.example";
    m_options.localIp = "::1";
    EXPECT_EQ(Plan().family, AF_INET6);
    m_options.localIp = "localhost";
    EXPECT_EQ(Message(), "--local-ip 'localhost' is not an IPv4 or IPv6 address");
}

TEST_F(ToolOptions, TheLocalAddressIsOfTheServersFamily)
{
    m_options.localIp = "::1";
    EXPECT_THAT(Message(), HasSubstr("server 192.0.2.1 cannot be reached from --local-ip ::1"));
    m_options.localIp = "127.0.0.1";
    EXPECT_EQ(Plan().family, AF_INET);
}

TEST_F(ToolOptions, CipherSuitesTakeThreeForms)
{
    m_options.ciphers = {"0x03000035", "0x003C", "61", "0X1302"};
    EXPECT_THAT(Plan().ciphers, ElementsAre(0x03000035, 0x0300003C, 0x0300003D, 0x03001302));
}

TEST_F(ToolOptions, WhatIsNoCipherSuiteIsRefused)
{
    for (const char* text : {"", "0x", "x", "AES256-SHA", "-1", "+1", " 1", "1 ", "0x0x35", "65536",
                             "0x02000035", "0x103000035", "99999999999999999999999"})
    {
        const Thrown thrown = FailureOf([text] { ParseCipher(text); });
        EXPECT_EQ(thrown.status, EXIT_ARGUMENTS) << text;
        EXPECT_THAT(thrown.message, HasSubstr("is not a cipher suite identifier")) << text;
    }
    EXPECT_EQ(ParseCipher("65535"), 0x0300ffff);
    EXPECT_EQ(ParseCipher("50331701"), 0x03000035);
}

}  // namespace
}  // namespace corpdir_tool
