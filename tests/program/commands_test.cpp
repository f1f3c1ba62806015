// The commands besides `fetch`, and JSON output, against real servers.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "program_fixture.h"
#include "silent_address.h"

namespace integration
{
namespace
{

using nlohmann::json;
using std::chrono::seconds;
using support::Command;
using support::CommandResult;
using support::Process;
using support::ReadFile;
using support::RunCommand;
using support::TemporaryDirectory;
using support::Tls;
using support::WaitUntil;
using support::WriteFile;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// The line of an output that is a JSON object; other lines are messages.
json ObjectIn(const std::string& output)
{
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);)
    {
        if (line.rfind('{', 0) == 0)
        {
            return json::parse(line);
        }
    }
    ADD_FAILURE() << "no object in: " << output;
    return json::object();
}

class ProgramJson : public Program
{
};

TEST_F(ProgramJson, HasServersVersionAndFile)
{
    Serve();
    const CommandResult result = Run({"--servers=127.0.0.2;127.0.0.1", "--json"});
    EXPECT_EQ(result.status, kFetched) << result.output;
    const json object = ObjectIn(result.output);
    EXPECT_EQ(object["status"], 0);
    EXPECT_EQ(object["fetched"], true);
    EXPECT_EQ(object["error"], nullptr);
    EXPECT_EQ(object["version"], "edition 17");
    EXPECT_EQ(object["file"], m_output.Path() + "/directory.csv");
    EXPECT_EQ(object["bytes"], 200000);
    EXPECT_GT(object["seconds"], 0.0);
    ASSERT_EQ(object["servers"].size(), 2U);
    EXPECT_EQ(object["servers"][0]["address"], "127.0.0.2");
    EXPECT_EQ(object["servers"][0]["gave"], false);
    EXPECT_EQ(object["servers"][0]["code"], 16);
    EXPECT_EQ(object["servers"][0]["step"], 2);
    EXPECT_EQ(object["servers"][0]["reply"], 0);
    EXPECT_EQ(object["servers"][0]["file"], "version.txt");
    EXPECT_EQ(object["servers"][0]["reason"], "cannot connect: Connection refused");
    EXPECT_EQ(object["servers"][1]["gave"], true);
    EXPECT_EQ(object["servers"][1]["reason"], nullptr);
    EXPECT_THAT(result.output, Not(HasSubstr("version: ")));
}

TEST_F(ProgramJson, IsPrintedForAFailure)
{
    const CommandResult result = Run({"--json"});
    EXPECT_EQ(result.status, kNoServer);
    const json object = ObjectIn(result.output);
    EXPECT_EQ(object["status"], kNoServer);
    EXPECT_EQ(object["fetched"], false);
    EXPECT_EQ(object["error"], "the server failed");
    EXPECT_EQ(object["file"], nullptr);
    EXPECT_EQ(object["bytes"], nullptr);
}

TEST_F(ProgramJson, HasNamesWithoutAnAddress)
{
    const CommandResult result = Run({"--json", "--servers=no-such-host.invalid"});
    EXPECT_EQ(result.status, kNoServer);
    ASSERT_EQ(ObjectIn(result.output)["left_out"].size(), 1U) << result.output;
    EXPECT_THAT(ObjectIn(result.output)["left_out"][0].get<std::string>(),
                ::testing::StartsWith("no-such-host.invalid: "));
}

TEST_F(ProgramJson, HasTheServerOfABadVersion)
{
    Serve().AddFile("version.txt", "oops\n");
    const CommandResult result = Run({"--json"});
    EXPECT_EQ(result.status, kBadVersion);
    ASSERT_EQ(ObjectIn(result.output)["servers"].size(), 1U) << result.output;
    EXPECT_EQ(ObjectIn(result.output)["servers"][0]["address"], "127.0.0.1");
    EXPECT_EQ(ObjectIn(result.output)["servers"][0]["gave"], false);
}

TEST_F(ProgramJson, IsPrintedForABadArgument)
{
    const CommandResult result = Run({"--json", "--ciphers=NO-SUCH-SUITE"});
    EXPECT_EQ(result.status, kBadArguments);
    EXPECT_EQ(ObjectIn(result.output)["status"], kBadArguments);
    EXPECT_THAT(ObjectIn(result.output)["error"].get<std::string>(), HasSubstr("NO-SUCH-SUITE"));
}

class ProgramLimits : public Program
{
};

TEST_F(ProgramLimits, AFileBeyondTheLimitIsRefused)
{
    Serve();
    WriteFile(m_output.File("directory.csv"), kOlder);
    const CommandResult result = Run({"--max-size=199999"});
    EXPECT_EQ(result.status, kNoServer);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("the file is larger than 199999 bytes"),
                      HasSubstr("hint: raise --max-size if the file should be this large")));
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), kOlder);
    EXPECT_EQ(Run({"--max-size=200kb"}).status, kFetched);
    ExpectBothFiles();
}

// The option overrides the operator's variable, in both directions.
TEST_F(ProgramLimits, AnOptionOverridesTheEnvironment)
{
    Serve();
    Command command = Fetch();
    command.environment.emplace_back("CORPDIR_FTP_FILE_BYTES", "1000");
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_THAT(result.output, HasSubstr("the file is larger than 1000 bytes"));
    command = Fetch({"--max-size=200kb"});
    command.environment.emplace_back("CORPDIR_FTP_FILE_BYTES", "1000");
    EXPECT_EQ(RunCommand(command).status, kFetched);
    command = Fetch({"--max-size=500"});
    command.environment.emplace_back("CORPDIR_FTP_FILE_BYTES", "1000000");
    EXPECT_EQ(RunCommand(command).status, kNoServer);
}

TEST_F(ProgramLimits, AConnectionTimesOut)
{
    const support::SilentAddress silent;
    m_port = static_cast<int>(silent.Port());
    const CommandResult result = Run({"--connect-timeout=1"});
    EXPECT_EQ(result.status, kNoServer);
    EXPECT_EQ(result.output,
              "127.0.0.1: connection timed out after 1 s; trying again\n"
              "127.0.0.1: connection timed out after 1 s\n"
              "corpdir: the server failed\n"
              "hint: a firewall may drop packets to port " +
                  std::to_string(m_port) +
                  ", or the server is down; raise --connect-timeout if the network is slow\n");
}

class ProgramCiphers : public Program
{
protected:
    json Table() const
    {
        const CommandResult result =
            RunCommand({{CORPDIR_TEST_PROGRAM, "ciphers", "--json"}, Environment(""), ""});
        EXPECT_EQ(result.status, 0);
        return json::parse(result.output);
    }
};

TEST_F(ProgramCiphers, AreThoseThatTheSystemAllows)
{
    std::vector<std::string> defaults;
    std::vector<std::string> names;
    for (const json& suite : Table())
    {
        names.push_back(suite["standard_name"]);
        if (suite["default"].get<bool>())
        {
            defaults.push_back(suite["identifier"]);
        }
    }
    EXPECT_THAT(defaults, ::testing::UnorderedElementsAre(
                              "0x03001302", "0x03001303", "0x03001301", "0x0300C02C", "0x0300C030",
                              "0x0300CCA9", "0x0300CCA8", "0x0300C02B", "0x0300C02F", "0x03000035",
                              "0x0300003C", "0x0300003D"));
    EXPECT_THAT(names, Contains("TLS_AES_256_GCM_SHA384"));
    EXPECT_THAT(names, Contains("TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256"));
    EXPECT_THAT(names, Not(Contains(HasSubstr("NULL"))));
    EXPECT_THAT(names, Not(Contains(HasSubstr("anon"))));
}

// Each listed suite is accepted by each of its names: nothing listens, so the connection fails.
TEST_F(ProgramCiphers, EachIsTakenUnderEachName)
{
    for (const json& suite : Table())
    {
        const std::string all = suite["identifier"].get<std::string>() + "," +
                                suite["standard_name"].get<std::string>() + "," +
                                suite["openssl_name"].get<std::string>();
        const CommandResult result = Run({"--ciphers=" + all});
        EXPECT_EQ(result.status, kNoServer) << all << ": " << result.output;
    }
}

// Without --ciphers `fetch` and `check` offer the suites that `ciphers` marks, and no other.
TEST_F(ProgramCiphers, TheDefaultIsWhatIsOffered)
{
    m_options.max_tls = "1.2";
    const auto expectWith = [this](const std::string& serverCiphers, int status)
    {
        m_options.ciphers = serverCiphers + ":@SECLEVEL=1";
        Serve();
        EXPECT_EQ(Run().status, status) << serverCiphers;
        EXPECT_EQ(RunCommand(Line("check")).status, status) << serverCiphers;
    };
    std::string others = "ALL";
    for (const json& suite : Table())
    {
        if (suite["default"].get<bool>())
        {
            const std::string name = suite["openssl_name"];
            others += ":!" + name;
            if (suite["since"] == "TLSv1.3")
            {
                continue;  // ProgramServer reaches a server that has nothing else
            }
            const bool elliptic = name.find("ECDSA") != std::string::npos;
            m_options.certificate =
                elliptic ? m_certificates.GoodElliptic() : m_certificates.Good();
            expectWith(name, kFetched);
        }
    }
    expectWith(others, kNoServer);
    EXPECT_EQ(Run({"--ciphers=AES128-SHA"}).status, kFetched);
}

class ProgramSettings : public Program
{
protected:
    // Writes a settings file with the options of a command line, and other lines.
    CommandResult RunWith(const std::string& top, const std::string& sections = "")
    {
        std::string text = "# settings\n";
        const Command line = Fetch({"--config=" + m_files.File("corpdir.conf")});
        for (std::size_t i = 2; i < line.arguments.size(); ++i)
        {
            const std::string option = line.arguments[i].substr(2);
            const std::size_t equals = option.find('=');
            if (option.substr(0, equals) == "config")
            {
                continue;
            }
            text += option.substr(0, equals) + " = \"" + option.substr(equals + 1) + "\"\n";
        }
        WriteFile(m_files.File("corpdir.conf"), text + top + "\n" + sections + "\n");
        return RunCommand(
            {{CORPDIR_TEST_PROGRAM, "fetch", "--config", m_files.File("corpdir.conf")},
             Environment(m_options.password),
             ""});
    }

    TemporaryDirectory m_files;
};

TEST_F(ProgramSettings, AreReadFromAFile)
{
    Serve();
    const CommandResult result = RunWith("max-size = \"1mb\"");
    EXPECT_EQ(result.status, kFetched) << result.output;
    ExpectBothFiles();
}

TEST_F(ProgramSettings, TheSectionOfTheCommandOverridesTheTop)
{
    Serve();
    EXPECT_EQ(RunWith("max-size = \"1kb\"", "[fetch]\nmax-size = \"1mb\"").status, kFetched);
    EXPECT_EQ(RunWith("max-size = \"1mb\"", "[fetch]\nmax-size = \"1kb\"").status, kNoServer);
    EXPECT_EQ(RunWith("max-size = \"1mb\"", "[watch]\nmax-size = \"1kb\"").status, kFetched);
}

TEST_F(ProgramSettings, TheCommandLineOverridesTheFile)
{
    Serve();
    (void)RunWith("max-size = \"1kb\"");
    const CommandResult result =
        RunCommand({{CORPDIR_TEST_PROGRAM, "--config", m_files.File("corpdir.conf"), "fetch",
                     "--max-size", "1mb"},
                    Environment(m_options.password),
                    ""});
    EXPECT_EQ(result.status, kFetched) << result.output;
}

TEST_F(ProgramSettings, OptionsOfOtherCommandsAreIgnored)
{
    Serve();
    EXPECT_EQ(RunWith("exec = \"exit 1\"\nretry = 5").status, kFetched);
}

TEST_F(ProgramSettings, AMisspeltOptionIsRefused)
{
    const std::pair<const char*, const char*> cases[] = {
        {"verify-nmae = \"dir.example\"",
         "no command has an option 'verify-nmae'; did you mean 'verify-name'?\n"},
        {"password = \"x\"",
         "no command has an option 'password'; did you mean 'password-file'?\n"},
        {"config = \"x\"", "no command has an option 'config'\n"},
        {"[fetch]\nexec = \"true\"", "section [fetch] has no option 'exec'\n"},
        {"[no-such]\nuser = \"x\"", "there is no section [no-such]\n"}};
    for (const auto& [lines, problem] : cases)
    {
        const CommandResult result = RunWith("", lines);
        EXPECT_EQ(result.status, kBadArguments) << lines;
        EXPECT_THAT(result.output, AllOf(HasSubstr("corpdir.conf, line "), HasSubstr(problem)));
    }
}

// An empty value may come from a template, and must not switch the verification off.
TEST_F(ProgramSettings, AFlagIsTrueOrFalse)
{
    Serve();
    for (const char* value : {"\"\"", "\"yes\"", "1", "'TRUE'"})
    {
        const CommandResult result = RunWith(std::string("no-verify = ") + value);
        EXPECT_EQ(result.status, kBadArguments) << value;
        EXPECT_THAT(result.output, HasSubstr("no-verify must be true or false, not '")) << value;
    }
    EXPECT_EQ(RunWith("no-verify = false\nquiet = true").output, "");
    EXPECT_EQ(RunWith("no-verify = true").status, kBadArguments) << "--ca contradicts it";
}

TEST_F(ProgramSettings, AMissingFileIsRefused)
{
    const CommandResult result = RunCommand(
        {{CORPDIR_TEST_PROGRAM, "--config", m_files.File("none"), "fetch"}, Environment(""), ""});
    EXPECT_EQ(result.status, kBadArguments);
    EXPECT_THAT(result.output, HasSubstr(m_files.File("none")));
}

class ProgramCheck : public Program
{
protected:
    CommandResult Check(const std::vector<std::string>& more = {}) const
    {
        return RunCommand(Line("check", more));
    }

    // At most one transfer of the directory file was started, and nothing was written.
    void ExpectNoDownload() const
    {
        EXPECT_LE(m_server->CountCommands("RETR directory.csv"), 1U);
        EXPECT_THAT(support::FilesIn(m_output.Path()), IsEmpty());
    }
};

TEST_F(ProgramCheck, ShowsEachStep)
{
    ServeWithVsftpd();
    const CommandResult result = Check();
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(
        result.output,
        ::testing::MatchesRegex(
            "127\\.0\\.0\\.1, port [0-9]+\n"
            "  connect +[0-9.]+ ms  ok\n"
            "  TLS +[0-9.]+ ms  TLSv1\\.3, TLS_AES_256_GCM_SHA384\n"
            "  certificate +CN=server, valid until 20[0-9-]+ \\([0-9]+ days left\\)\n"
            "  names +127\\.0\\.0\\.1, ::1, directory\\.test\n"
            "  login +[0-9.]+ ms  ok as ftp\n"
            "  version file +[0-9.]+ ms  'edition 17', 11 bytes; the data channel resumed the "
            "TLS session\n"
            "  directory file +exists, 200000 bytes\n"));
    ExpectNoDownload();
}

TEST_F(ProgramCheck, IsReadByPrograms)
{
    Serve();
    const CommandResult result = Check({"--servers=127.0.0.2;127.0.0.1", "--json"});
    EXPECT_EQ(result.status, kFetched) << result.output;
    const json object = ObjectIn(result.output);
    EXPECT_EQ(object["status"], 0);
    EXPECT_EQ(object["port"], m_port);
    ASSERT_EQ(object["servers"].size(), 2U);
    EXPECT_EQ(object["servers"][0]["works"], false);
    EXPECT_EQ(object["servers"][0]["reason"], "cannot connect: Connection refused");
    const json& server = object["servers"][1];
    EXPECT_EQ(server["works"], true);
    EXPECT_EQ(server["tls_version"], "TLSv1.3");
    EXPECT_EQ(server["certificate_subject"], "CN=server");
    EXPECT_EQ(server["certificate_names"], json({"127.0.0.1", "::1", "directory.test"}));
    EXPECT_EQ(server["warnings"], json::array());
    EXPECT_EQ(object["servers"][0]["certificate_names"], nullptr);
    EXPECT_EQ(server["session_resumed"], true);
    EXPECT_EQ(server["version"], "edition 17");
    EXPECT_EQ(server["directory_bytes"], 200000);
    EXPECT_LT(0.0, server["seconds"]["connected"]);
    EXPECT_LT(server["seconds"]["connected"], server["seconds"]["secured"]);
    EXPECT_LT(server["seconds"]["secured"], server["seconds"]["logged_in"]);
    EXPECT_LT(server["seconds"]["logged_in"], server["seconds"]["opened"]);
    EXPECT_LT(server["seconds"]["opened"], server["seconds"]["ended"]);
    ExpectNoDownload();
}

// The whole file would take ten seconds.
TEST_F(ProgramCheck, DoesNotDownloadTheDirectoryFile)
{
    m_options.bytes_per_second = 20000;
    Serve();
    const auto begun = std::chrono::steady_clock::now();
    const CommandResult result = Check();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, seconds(6));
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, HasSubstr("exists, 200000 bytes"));
    ExpectNoDownload();
}

// The check succeeds when one server works and another one hangs.
TEST_F(ProgramCheck, AServerThatWorksCountsAfterATimeout)
{
    Serve();
    const int silent = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(m_port));
    ASSERT_EQ(inet_pton(AF_INET, "127.0.0.2", &address.sin_addr), 1);
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent, 5), 0);
    const CommandResult result = Check({"--servers=127.0.0.1;127.0.0.2", "--timeout=2", "--json"});
    (void)close(silent);
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_EQ(ObjectIn(result.output)["servers"][0]["works"], true);
    EXPECT_EQ(ObjectIn(result.output)["status"], 0);
    EXPECT_THAT(result.output, HasSubstr("corpdir: timed out while checking 127.0.0.2: no progress "
                                         "for 2 s (--timeout)\n"));
}

// The version file takes more than four seconds, and bytes arrive all the time.
TEST_F(ProgramCheck, ProgressDelaysTheTimeout)
{
    m_options.bytes_per_second = 15;
    m_options.tls = Tls::kNone;
    Serve().AddFile("version.txt", kVersion + std::string(60, '\n'));
    const auto begun = std::chrono::steady_clock::now();
    const CommandResult result = Check({"--timeout=2", "--max-time=1m"});
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_GT(std::chrono::steady_clock::now() - begun, seconds(3));
}

TEST_F(ProgramCheck, TheWholeTimeIsLimited)
{
    m_options.bytes_per_second = 15;
    m_options.tls = Tls::kNone;
    Serve().AddFile("version.txt", kVersion + std::string(600, '\n'));
    const CommandResult result = Check({"--max-time=2s"});
    EXPECT_EQ(result.status, kNoOutcome) << result.output;
    EXPECT_THAT(result.output, HasSubstr("corpdir: timed out while checking 127.0.0.1: not done "
                                         "within 2 s (--max-time)\n"));
}

TEST_F(ProgramCheck, NeedsNoOutputDirectory)
{
    Serve();
    const CommandResult result = Check({"--output-dir=" + kLeftOut});
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, HasSubstr("exists, 200000 bytes"));
}

TEST_F(ProgramCheck, ChecksPlainFtp)
{
    m_options.tls = Tls::kNone;
    Serve();
    const CommandResult result = Check();
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, AllOf(HasSubstr("'edition 17', 11 bytes\n"), Not(HasSubstr("TLS"))));
    ExpectNoDownload();
}

TEST_F(ProgramCheck, ShowsACertificateThatIsNotAccepted)
{
    m_options.certificate = m_certificates.Expired();
    Serve();
    const CommandResult result = Check();
    EXPECT_EQ(result.status, kNoServer);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("certificate                failed: "), HasSubstr("expired"),
                      HasSubstr("CN=server, valid until"), HasSubstr("(expired)"),
                      HasSubstr("names                      127.0.0.1, ::1, directory.test\n"),
                      HasSubstr("hint: renew the certificate")));
}

TEST_F(ProgramCheck, ShowsAWrongPassword)
{
    Serve();
    Command command = Line("check");
    command.environment = Environment("not-the-password");
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, kNoServer);
    EXPECT_THAT(result.output, AllOf(HasSubstr("login                      failed: "),
                                     HasSubstr("hint: check --user")));
}

TEST_F(ProgramCheck, ShowsAMissingDirectoryFile)
{
    Serve();
    const CommandResult result = Check({"--directory-file=none.csv"});
    EXPECT_EQ(result.status, kNoServer);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("'edition 17'"), HasSubstr("directory file             failed: ")));
}

TEST_F(ProgramCheck, ShowsADirectoryFileBeyondTheLimit)
{
    Serve();
    const CommandResult result = Check({"--max-size=100kb"});
    EXPECT_EQ(result.status, kNoServer);
    EXPECT_THAT(result.output,
                HasSubstr("failed: the file has 200000 bytes, --max-size allows 100000"));
    ExpectNoDownload();
}

TEST_F(ProgramCheck, ShowsAnInvalidVersionFile)
{
    Serve().AddFile("version.txt", "oops\n");
    const CommandResult result = Check();
    EXPECT_EQ(result.status, kBadVersion);
    EXPECT_THAT(result.output, HasSubstr("failed: its first line 'oops' is shorter than 5 bytes"));
    ExpectNoDownload();
}

TEST_F(ProgramCheck, GoesOnAfterAnInvalidVersionFile)
{
    m_options.tls = Tls::kNone;
    Serve();
    support::FtpServerOptions options = m_options;
    options.host = "127.0.0.2";
    options.port = m_port;
    support::PyFtpServer invalid(options);
    invalid.AddFile("version.txt", "oops\n");
    const std::string both = "--servers=127.0.0.2;127.0.0.1";
    const CommandResult works = Check({both});
    EXPECT_EQ(works.status, kFetched) << works.output;
    EXPECT_THAT(works.output, AllOf(HasSubstr("'oops' is shorter"), HasSubstr("'edition 17'")));
    m_server->Stop();
    const CommandResult fails = Check({both});
    EXPECT_EQ(fails.status, kBadVersion) << fails.output;
    EXPECT_THAT(
        fails.output,
        HasSubstr(
            "corpdir: all 2 servers failed\n"
            "hint: 127.0.0.2: the version file must be ASCII or UTF-8 text with 5 to 30 bytes "
            "in its first line\n"));
}

TEST_F(ProgramCheck, WarnsOfAVersionThatIsNotWhatItSeems)
{
    const std::string mark = "\xef\xbb\xbf";
    const std::pair<std::string, const char*> cases[] = {
        {"0123456789012345678901234567890\n",
         "the version line has 31 bytes; only the first 30 are compared"},
        {"edition 17\r\n", "the version ends with a carriage return, which is compared too"},
        {mark + "edition 17\n",
         "the version begins with a UTF-8 byte-order mark, which is compared too"}};
    Serve();
    for (const auto& [text, warning] : cases)
    {
        m_server->AddFile("version.txt", text);
        const CommandResult result = Check();
        EXPECT_EQ(result.status, kFetched) << result.output;
        EXPECT_THAT(result.output,
                    HasSubstr(std::string("  warning                    ") + warning + "\n"));
        EXPECT_EQ(ObjectIn(Check({"--json"}).output)["servers"][0]["warnings"], json({warning}));
    }
    m_server->AddFile("version.txt", "012345678901234567890123456789\n");
    EXPECT_THAT(Check().output, Not(HasSubstr("warning")));
}

TEST_F(ProgramCheck, WarnsOfACertificateThatEndsSoon)
{
    m_options.certificate = m_certificates.EndingIn(29);
    Serve();
    EXPECT_THAT(Check().output, HasSubstr("warning                    the certificate expires "
                                          "within 29 days: renew it\n"));
    m_options.certificate = m_certificates.EndingIn(31);
    Serve();
    EXPECT_THAT(Check().output, Not(HasSubstr("warning")));
}

// The server's file is sparse.
TEST_F(ProgramCheck, WarnsOfTooLittleSpace)
{
    m_options.tls = Tls::kNone;
    Serve();
    const std::string sparse = m_server->Root() + "/directory.csv";
    const auto free = std::filesystem::space(m_output.Path()).available;
    std::filesystem::resize_file(sparse, free + (1U << 30));
    const CommandResult result = Check();
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, HasSubstr("  warning                    --output-dir has "));
    EXPECT_THAT(result.output, HasSubstr(" bytes free, the directory file has "));
    EXPECT_THAT(Check({"--output-dir=" + kLeftOut}).output, Not(HasSubstr("warning")));
}

TEST_F(ProgramCheck, ReportsNamesThatDoNotResolve)
{
    Serve();
    const CommandResult result = Check({"--servers=no-such-host.invalid;127.0.0.1"});
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, HasSubstr("no-such-host.invalid: "));
}

// The watch, with a service timer that runs a thousand times as fast.
class ProgramWatch : public Program
{
protected:
    ~ProgramWatch() override
    {
        if (m_process != nullptr)
        {
            m_process->Stop();
        }
    }

    void Watch(const std::vector<std::string>& more = {})
    {
        Start(Line("watch", more, CORPDIR_STAGED_PROGRAM));
    }

    void Start(Command command)
    {
        command.output_file = m_files.File("said");
        m_process = std::make_unique<Process>(command);
    }

    void Stop()
    {
        m_process->Signal(SIGTERM);
        EXPECT_EQ(m_process->Wait(seconds(10)), 0) << Said();
    }

    std::string Said() const
    {
        return ReadFile(m_files.File("said"));
    }

    std::size_t Count(const std::string& text) const
    {
        const std::string said = Said();
        std::size_t count = 0;
        for (std::size_t at = said.find(text); at != std::string::npos;
             at = said.find(text, at + 1))
        {
            ++count;
        }
        return count;
    }

    bool Await(const std::string& text, std::size_t times = 1) const
    {
        return WaitUntil([&] { return Count(text) >= times; }, seconds(30));
    }

    TemporaryDirectory m_files;
    std::unique_ptr<Process> m_process;
};

TEST_F(ProgramWatch, FetchesEachNewVersionAndNothingElse)
{
    Serve();
    const std::string given = m_files.File("given");
    Watch({"--exec=echo \"$CORPDIR_FILE $CORPDIR_VERSION\" >>" + given});
    // On a slow machine the next check begins before the directory file is there.
    ASSERT_TRUE(Await("downloaded ") && Await("unchanged: version 'edition 17'", 3)) << Said();
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 1U);
    const std::string newer = support::PatternBytes(50000, 2);
    m_server->AddFile("directory.csv", newer);
    m_server->AddFile("version.txt", "edition 18\n");
    ASSERT_TRUE(Await("downloaded ", 2) && Await("unchanged: version 'edition 18'", 2)) << Said();
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 2U);
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), newer);
    const std::string file = m_output.File("directory.csv");
    ASSERT_TRUE(Await("the command of --exec succeeded", 2)) << Said();
    EXPECT_EQ(ReadFile(given), file + " edition 17\n" + file + " edition 18\n");
    EXPECT_THAT(Said(), Not(HasSubstr(m_options.password)));
}

// The service alone would not retry, and the version would be missed.
TEST_F(ProgramWatch, RetriesADirectoryFileThatFailed)
{
    Serve();
    std::filesystem::remove(m_server->Root() + "/directory.csv");
    Watch({"--retry=1"});
    ASSERT_TRUE(Await("failed: directory.csv from 127.0.0.1: ")) << Said();
    m_server->AddFile("directory.csv", m_directory);
    ASSERT_TRUE(Await("downloaded ")) << Said();
    Stop();
    ExpectBothFiles();
    EXPECT_GE(Count("retrying in 1 s"), 1U);
}

TEST_F(ProgramWatch, OutlivesAnOutage)
{
    Serve();
    Watch();
    // On a slow machine the next check begins before the directory file is there.
    ASSERT_TRUE(Await("version 'edition 17', 200000 bytes")) << Said();
    ASSERT_TRUE(Await("unchanged", 1)) << Said();
    m_server->Stop();
    ASSERT_TRUE(Await("next check within 600 s", 2)) << Said();
    m_options.port = m_port;
    Serve().AddFile("version.txt", "edition 18\n");
    ASSERT_TRUE(Await("version 'edition 18', 200000 bytes")) << Said();
}

TEST_F(ProgramWatch, PrintsEventsAsJson)
{
    Serve();
    Watch({"--json"});
    // On a slow machine the next check begins before the directory file is there.
    ASSERT_TRUE(Await("\"downloaded\"") && Await("\"unchanged\"")) << Said();
    Stop();
    std::istringstream text(Said());
    std::vector<std::string> events;
    for (std::string line; std::getline(text, line);)
    {
        events.push_back(json::parse(line)["event"]);
    }
    ASSERT_GE(events.size(), 6U);
    EXPECT_EQ(events[0], "checking");
    EXPECT_EQ(events[1], "new_version");
    EXPECT_THAT(events, Contains("downloaded").Times(1));
    EXPECT_THAT(events, Contains("unchanged"));
    EXPECT_EQ(events.back(), "stopped");
}

class ProgramWatchStops : public ProgramWatch, public ::testing::WithParamInterface<int>
{
};

TEST_P(ProgramWatchStops, WithinASecond)
{
    Serve();
    Watch({"--exec=sleep 60"});
    ASSERT_TRUE(Await("downloaded ") && Await("unchanged")) << Said();
    const auto begun = std::chrono::steady_clock::now();
    m_process->Signal(GetParam());
    EXPECT_EQ(m_process->Wait(seconds(10)), 0) << Said();
    const auto spent = std::chrono::steady_clock::now() - begun;
#ifdef CORPDIR_TESTS_SLOWED_DOWN
    EXPECT_LT(spent, seconds(5));
#else
    EXPECT_LT(spent, seconds(1));
#endif
    EXPECT_THAT(Said(), HasSubstr("stopped by SIG"));
    ExpectFiles({kState, "directory.csv", "version.txt"});
}

INSTANTIATE_TEST_SUITE_P(Signals, ProgramWatchStops, ::testing::Values(SIGTERM, SIGINT),
                         [](const auto& test)
                         { return std::string(test.param == SIGTERM ? "SIGTERM" : "SIGINT"); });

TEST_F(ProgramWatch, StopsInTheMiddleOfADownload)
{
    m_options.bytes_per_second = 20000;
    Serve();
    WriteFile(m_output.File("directory.csv"), kOlder);
    Watch();
    ASSERT_TRUE(Await("new version")) << Said();
    Stop();
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), kOlder);
    ExpectFiles({"directory.csv"});
}

TEST_F(ProgramWatch, ACommandInheritsNoPassword)
{
    Serve();
    WriteFile(m_files.File("password"), m_options.password);
    const std::string given = m_files.File("given");
    Watch({"--password-file=" + m_files.File("password"), "--connect-timeout=5", "--max-size=1mb",
           "--exec=(env; tr '\\0' '\\n' </proc/$PPID/environ; ls /proc/self/fd) >" + given});
    ASSERT_TRUE(Await("the command of --exec succeeded")) << Said();
    EXPECT_THAT(ReadFile(given),
                AllOf(HasSubstr("CORPDIR_VERSION=edition 17"), Not(HasSubstr(m_options.password)),
                      Not(HasSubstr("CORPDIR_FTP_"))))
        << "limits are set by function, not in the environment";
}

// The program without the faster timer: the next check would come after ten minutes.
class ProgramWatchRequest : public ProgramWatch
{
protected:
    void Watch(const std::vector<std::string>& more = {})
    {
        Start(Line("watch", more));
    }
};

TEST_F(ProgramWatchRequest, ChecksAtOnce)
{
    Serve();
    Watch();
    ASSERT_TRUE(Await("downloaded ")) << Said();
    m_process->Signal(SIGUSR1);
    ASSERT_TRUE(Await("unchanged")) << Said();
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 1U);
    m_server->AddFile("version.txt", "edition 18\n");
    m_process->Signal(SIGUSR1);
    ASSERT_TRUE(Await("version 'edition 18', 200000 bytes")) << Said();
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 2U);
}

// After a restart the service fetches the directory file in any case.
TEST_F(ProgramWatchRequest, AnEqualFileAfterARestartIsNoUpdate)
{
    Serve();
    Fetched();
    const std::string given = m_files.File("given");
    Watch({"--exec=echo run >>" + given});
    ASSERT_TRUE(Await("unchanged: version 'edition 17'")) << Said();
    EXPECT_EQ(Count("downloaded "), 0U);
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 2U);
    EXPECT_FALSE(support::FileExists(given));
}

TEST_F(ProgramWatchRequest, ChecksAtOnceInAPause)
{
    Watch({"--retry=600"});
    ASSERT_TRUE(Await("retrying in 600 s")) << Said();
    m_process->Signal(SIGUSR1);
    ASSERT_TRUE(Await("retrying in 600 s", 2)) << Said();
}

TEST_F(ProgramWatchRequest, TakesAChangedPassword)
{
    Serve();
    const std::string password = m_files.File("password");
    WriteFile(password, "not-the-password");
    Watch({"--retry=600", "--password-file=" + password});
    ASSERT_TRUE(Await("retrying in 600 s")) << Said();
    WriteFile(password, m_options.password);
    m_process->Signal(SIGHUP);
    ASSERT_TRUE(Await("downloaded ")) << Said();
    EXPECT_EQ(Count("settings reloaded"), 1U);
    Stop();
    ExpectBothFiles();
}

TEST_F(ProgramWatchRequest, ChangesItsLog)
{
    Serve();
    const TemporaryDirectory before;
    const TemporaryDirectory after;
    const std::string settings = m_files.File("corpdir.conf");
    WriteFile(settings, "log-dir = \"" + before.Path() + "\"\n");
    Watch({"--config=" + settings});
    ASSERT_TRUE(Await("downloaded ")) << Said();
    WriteFile(settings, "log-dir = \"" + after.Path() + "\"\nlog-level = 1\n");
    m_process->Signal(SIGHUP);
    ASSERT_TRUE(Await("unchanged")) << Said();
    Stop();
    EXPECT_THAT(ReadFile(before.File("corpdir.log")),
                AllOf(HasSubstr("Begin of corpdir watch"), HasSubstr("Event: downloaded "),
                      Not(HasSubstr("Event: unchanged")), Not(HasSubstr("End of"))));
    EXPECT_THAT(ReadFile(after.File("corpdir.log")),
                AllOf(HasSubstr("--servers 127.0.0.1 --port "),
                      HasSubstr("Event: settings reloaded"), HasSubstr("Event: unchanged"),
                      HasSubstr("End of corpdir watch with status 0: stopped by SIGTERM"),
                      Not(HasSubstr(" info "))));
}

TEST_F(ProgramWatchRequest, LogsItsFailures)
{
    const TemporaryDirectory logs;
    Watch({"--retry=600", "--log-dir=" + logs.Path(), "--log-level=0"});
    ASSERT_TRUE(Await("retrying in 600 s")) << Said();
    Stop();
    EXPECT_THAT(ReadFile(logs.File("corpdir.log")),
                AllOf(HasSubstr("Event: failed: version.txt from 127.0.0.1: cannot connect"),
                      HasSubstr("Event: all servers failed")));
}

TEST_F(ProgramWatchRequest, KeepsThePasswordOfAFifo)
{
    Serve();
    const std::string password = m_files.File("password");
    ASSERT_EQ(mkfifo(password.c_str(), 0600), 0);
    Watch({"--password-file=" + password});
    WriteFile(password, m_options.password);
    ASSERT_TRUE(Await("downloaded ")) << Said();
    m_process->Signal(SIGHUP);
    ASSERT_TRUE(Await("unchanged: version 'edition 17'")) << Said();
    EXPECT_EQ(Count("settings reloaded"), 1U);
    Stop();
}

TEST_F(ProgramWatchRequest, TakesAChangedSettingsFile)
{
    Serve();
    const std::string settings = m_files.File("corpdir.conf");
    WriteFile(settings, "servers = \"127.0.0.2\"\n");
    Watch({"--retry=600", "--servers=" + kLeftOut, "--config=" + settings});
    ASSERT_TRUE(Await("retrying in 600 s")) << Said();
    WriteFile(settings, "servers = \"127.0.0.1\"\n");
    m_process->Signal(SIGHUP);
    ASSERT_TRUE(Await("downloaded ")) << Said();
    EXPECT_EQ(Count("settings reloaded"), 1U);

    WriteFile(settings, "servers = \"127.0.0.1;\"\n");
    m_process->Signal(SIGHUP);
    ASSERT_TRUE(Await("settings not reloaded: --servers: entry 2 of '127.0.0.1;' is empty"))
        << Said();
    WriteFile(settings, "serverz = 1\n");
    m_process->Signal(SIGHUP);
    ASSERT_TRUE(Await("settings not reloaded: --config " + settings +
                      ", line 1: no command has an option 'serverz'"))
        << Said();
    m_process->Signal(SIGUSR1);
    ASSERT_TRUE(Await("unchanged: version 'edition 17' at 127.0.0.1")) << Said();
    Stop();
}

// With standard output closed, the program must not write to another descriptor.
TEST_F(ProgramWatch, WithoutAStandardOutputItEnds)
{
    Serve();
    std::string line;
    for (const std::string& argument : Line("watch").arguments)
    {
        line += "'" + argument + "' ";
    }
    Command command = Line("watch");
    command.arguments = {"/bin/sh", "-c", "exec " + line + ">&-"};
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, kLocalFile) << result.output;
    EXPECT_THAT(result.output, HasSubstr("the events cannot be written to standard output"));
}

TEST_F(ProgramWatch, ABadArgumentEndsIt)
{
    Watch({"--ciphers=0x0001"});
    EXPECT_EQ(m_process->Wait(seconds(30)), kBadArguments) << Said();
}

// The state file is written here as docs/program.md describes it.
class ProgramStatus : public Program
{
protected:
    ProgramStatus()
    {
        WriteFile(m_output.File("d.csv"), "directory\n");
        m_state = {{"format", 1},
                   {"version", "edition 17"},
                   {"size", 10},
                   {"sha256", std::string(64, 'a')},
                   {"server", "192.0.2.1 (dir.example)"},
                   {"fetched", "2026-01-01T10:00:00Z"},
                   {"confirmed", "2026-01-02T10:00:00Z"},
                   {"checked", "2026-01-03T10:00:00Z"},
                   {"outcome", "failed"},
                   {"reason", "login refused"},
                   {"failures", 3}};
    }

    void Keep() const
    {
        WriteFile(m_output.File(".d.csv.corpdir.json"), m_state.dump());
    }

    static std::string Utc(std::time_t time)
    {
        char text[32] = "";
        (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&time));
        return text;
    }

    CommandResult Status(const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> arguments = {"--directory-name=" + m_name};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return StatusWith(arguments);
    }

    CommandResult StatusWith(const std::vector<std::string>& more) const
    {
        std::vector<std::string> arguments = {CORPDIR_TEST_PROGRAM, "status", "--no-config",
                                              "--output-dir=" + m_output.Path()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunCommand({arguments, Environment(""), ""});
    }

    json m_state;
    std::string m_name = "d.csv";
};

TEST_F(ProgramStatus, ShowsWhatIsKnown)
{
    Keep();
    const CommandResult result = Status();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "version:   edition 17\nfile:      " + m_output.Path() +
                                 "/d.csv (10 bytes)\n"
                                 "server:    192.0.2.1 (dir.example)\n"
                                 "fetched:   2026-01-01T10:00:00Z\n"
                                 "confirmed: 2026-01-02T10:00:00Z\n"
                                 "checked:   2026-01-03T10:00:00Z\n"
                                 "outcome:   failed\n"
                                 "reason:    login refused\n"
                                 "failures:  3\n");
    m_state["reason"] = nullptr;
    Keep();
    EXPECT_THAT(Status().output, HasSubstr("outcome:   failed\nfailures:  3\n"));
    EXPECT_EQ(ObjectIn(Status({"--json"}).output)["reason"], nullptr);
}

TEST_F(ProgramStatus, IsReadByPrograms)
{
    Keep();
    json expected = m_state;
    expected.erase("format");
    EXPECT_EQ(ObjectIn(Status({"--json"}).output), expected);
}

TEST_F(ProgramStatus, WithoutAStateItIsUnknown)
{
    const std::string state = m_output.File(".d.csv.corpdir.json");
    CommandResult result = Status();
    EXPECT_EQ(result.status, kNoState);
    EXPECT_EQ(result.output, "corpdir: nothing is known about '" + m_output.File("d.csv") + "': '" +
                                 state + "' is missing or empty; run 'corpdir fetch'\n");
    const json object = ObjectIn(Status({"--json"}).output);
    EXPECT_EQ(object["version"], nullptr);
    EXPECT_EQ(object["size"], nullptr);
    std::filesystem::create_symlink(".d.csv.corpdir.json", state);  // root cannot open it either
    result = Status();
    EXPECT_EQ(result.status, kNoState);
    EXPECT_THAT(result.output, HasSubstr("cannot be used: Too many levels of symbolic links\n"));
    std::filesystem::remove(state);
    WriteFile(state, "{\"format\": 2}");
    result = Status();
    EXPECT_EQ(result.status, kNoState);
    EXPECT_THAT(result.output,
                HasSubstr("'" + state + "' cannot be used: format 2 is not supported; run"));
    m_state["version"] = nullptr;
    Keep();
    result = Status({"--json"});
    EXPECT_EQ(result.status, kNoState);
    EXPECT_THAT(result.output, HasSubstr("no check has fetched it yet"));
    EXPECT_EQ(ObjectIn(result.output)["failures"], 3);
    EXPECT_THAT(Status().output, AllOf(Not(HasSubstr("version:")),
                                       HasSubstr("outcome:   failed\nreason:    login refused\n")));
}

TEST_F(ProgramStatus, TheFileMustBeThereAsItWasFetched)
{
    Keep();
    WriteFile(m_output.File("d.csv"), "director\n");
    CommandResult result = Status();
    EXPECT_EQ(result.status, kNoState);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("version:   edition 17\n"),
                      HasSubstr("corpdir: '" + m_output.File("d.csv") +
                                "' has 9 bytes, but the file that was fetched has 10; run")));
    std::filesystem::remove(m_output.File("d.csv"));
    result = Status();
    EXPECT_EQ(result.status, kNoState);
    EXPECT_THAT(result.output, HasSubstr("/d.csv': No such file or directory; run"));
    std::filesystem::create_directory(m_output.File("d.csv"));
    EXPECT_THAT(Status().output, HasSubstr("/d.csv' is not a regular file; run"));
}

TEST_F(ProgramStatus, TheLastConfirmationMayBeTooOld)
{
    const std::time_t now = std::time(nullptr);
    m_state["confirmed"] = Utc(now - 3600);
    Keep();
    EXPECT_EQ(Status({"--max-age=2h"}).status, 0);
    const CommandResult result = Status({"--max-age=1h"});
    EXPECT_EQ(result.status, kStale);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("version:   edition 17\n"),
                      HasSubstr("corpdir: the last check that fetched the file or found it "
                                "unchanged was 36"),
                      HasSubstr(" s ago, --max-age is 3600 s: the last check failed, see")));
    m_state["outcome"] = "unchanged";
    Keep();
    EXPECT_THAT(Status({"--max-age=1h"}).output, HasSubstr(" s: check that 'corpdir watch' or "));
    m_state["confirmed"] = Utc(now + 36000);
    Keep();
    EXPECT_EQ(Status({"--max-age=1m"}).status, 0) << "a time in the future counts as now";
    m_state["confirmed"] = nullptr;
    Keep();
    EXPECT_EQ(Status().status, 0);
    EXPECT_EQ(Status({"--max-age=366d"}).status, kStale);
}

TEST_F(ProgramStatus, TheNameIsThatOfTheDirectoryFileAsForFetch)
{
    Keep();
    EXPECT_EQ(StatusWith({"--directory-file=/dir/d.csv"}).output, Status().output);
    EXPECT_EQ(StatusWith({"--directory-file=other", "--directory-name=d.csv"}).status, 0);
    const CommandResult other = StatusWith({"--directory-file=/dir/other"});
    EXPECT_EQ(other.status, kNoState);
    EXPECT_THAT(other.output, HasSubstr(m_output.File("other") + "'"));
    EXPECT_THAT(StatusWith({"--directory-file=/dir/"}).output,
                HasSubstr("--directory-file '/dir/' does not end in a file name"));
}

TEST_F(ProgramStatus, NamesAreChecked)
{
    for (const std::string& name : {std::string(), std::string("a/b"), std::string(242, 'x')})
    {
        m_name = name;
        EXPECT_EQ(Status().status, kBadArguments) << name;
        EXPECT_THAT(Status().output, HasSubstr("--directory-name"));
    }
    EXPECT_EQ(StatusWith({}).output, "corpdir: --directory-file or --directory-name is required\n");
}

TEST(ProgramVersion, NamesTheLibraries)
{
    const CommandResult result = RunCommand({{CORPDIR_TEST_PROGRAM, "--version"}, {}, ""});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, ::testing::MatchesRegex("corpdir [0-9.]+, built [A-Za-z0-9 :]+ UTC\n"
                                                       "OpenSSL 3[^\n]*\n"));
}

}  // namespace
}  // namespace integration
