// The program `corpdir fetch` as a process, against real servers: exit statuses, files, messages.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "program_fixture.h"
#include "silent_address.h"

namespace integration
{
namespace
{

using support::Command;
using support::CommandResult;
using support::FtpServer;
using support::FtpServerOptions;
using support::PatternBytes;
using support::Process;
using support::ProftpdServer;
using support::PureFtpdServer;
using support::PyFtpServer;
using support::ReadFile;
using support::RunCommand;
using support::Sha256;
using support::TemporaryDirectory;
using support::TestCertificates;
using support::Tls;
using support::VsftpdServer;
using support::WaitUntil;
using support::WriteFile;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

TEST_F(Program, FetchesOverFtps)
{
    Serve();
    const CommandResult result = Fetched();
    EXPECT_THAT(result.output, Not(HasSubstr(m_options.password)));
}

TEST_F(Program, FetchesOverPlainFtp)
{
    m_options.tls = Tls::kNone;
    Serve();
    Fetched();
}

TEST_F(Program, FetchesOverIpv6)
{
    m_options.host = "::1";
    Serve();
    Fetched();
}

template <typename Kind>
std::unique_ptr<FtpServer> Make(const FtpServerOptions& options)
{
    return std::make_unique<Kind>(options);
}

struct Server
{
    const char* name;
    std::unique_ptr<FtpServer> (*make)(const FtpServerOptions& options);
    const char* minTls;
    const char* maxTls;
    const char* ciphers;  // up to TLS 1.2; empty: the server's default
    bool elliptic;        // the certificate has an ECDSA key
    const char* agreed;   // TLS version and cipher suite, as `check` shows them
    Status service;       // with the suites of the service alone
};

void PrintTo(const Server& server, std::ostream* stream)
{
    *stream << server.name;
}

class ProgramServer : public Program, public ::testing::WithParamInterface<Server>
{
};

TEST_P(ProgramServer, IsReachedByDefault)
{
    m_options.min_tls = GetParam().minTls;
    m_options.max_tls = GetParam().maxTls;
    m_options.ciphers = GetParam().ciphers;
    m_options.certificate =
        GetParam().elliptic ? m_certificates.GoodElliptic() : m_certificates.Good();
    Use(GetParam().make(m_options));
    Fetched();
    EXPECT_EQ(Fetched({"--if-changed"}).output, "unchanged: edition 17\n");
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 1U);
    const CommandResult check = RunCommand(Line("check"));
    EXPECT_EQ(check.status, kFetched);
    EXPECT_THAT(check.output, HasSubstr(GetParam().agreed));
    Fetched({"--ciphers=modern"});
    EXPECT_EQ(Run({"--ciphers=service"}).status, GetParam().service);
}

constexpr const char* kTls13 = "  TLSv1.3, TLS_AES_256_GCM_SHA384\n";
constexpr const char* kEcdhe = "  TLSv1.2, TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384\n";
// The default of Python 3.10 and later for servers (ssl.create_default_context).
constexpr const char* kPythonSuites =
    "@SECLEVEL=2:ECDH+AESGCM:ECDH+CHACHA20:ECDH+AES:DHE+AES:!aNULL:!eNULL:!aDSS:!SHA1:!AESCCM";

// They follow current defaults, which exclude the service's suites.
const Server kModernServers[] = {
    {"Vsftpd", Make<VsftpdServer>, "1.2", "1.3", "ECDHE+AESGCM", false, kTls13, kNoServer},
    {"PythonDefault", Make<PyFtpServer>, "1.2", "1.3", kPythonSuites, false, kTls13, kNoServer},
    {"EcdheOnly", Make<PyFtpServer>, "1.2", "1.2", "ECDHE+AESGCM", false, kEcdhe, kNoServer},
    {"Tls13Only", Make<PyFtpServer>, "1.3", "1.3", "", false, kTls13, kNoServer},
    {"EcdsaCertificate", Make<PyFtpServer>, "1.2", "1.3", "", true, kTls13, kNoServer},
};
const Server kClassicServers[] = {
    {"Vsftpd", Make<VsftpdServer>, "1.2", "1.3", "", false, kTls13, kFetched},
    {"Proftpd", Make<ProftpdServer>, "1.2", "1.3", "", false, kTls13, kFetched},
    {"PureFtpd", Make<PureFtpdServer>, "1.2", "1.3", "", false, kTls13, kFetched},
    {"Pyftpdlib", Make<PyFtpServer>, "1.2", "1.3", "", false, kTls13, kFetched},
};

std::string NameOfServer(const ::testing::TestParamInfo<Server>& server)
{
    return server.param.name;
}

INSTANTIATE_TEST_SUITE_P(Modern, ProgramServer, ::testing::ValuesIn(kModernServers), NameOfServer);
INSTANTIATE_TEST_SUITE_P(Classic, ProgramServer, ::testing::ValuesIn(kClassicServers),
                         NameOfServer);

TEST_F(Program, ReachesAServerWithOldSuitesByDefault)
{
    m_options.max_tls = "1.2";
    m_options.ciphers = "AES256-SHA";
    Serve();
    Fetched();
    Fetched({"--ciphers=service"});
    EXPECT_EQ(Run({"--ciphers=modern"}).status, kNoServer);
}

struct Suite
{
    const char* id;
    const char* name;
};

void PrintTo(const Suite& suite, std::ostream* stream)
{
    *stream << suite.name;
}

class ProgramSuite : public Program, public ::testing::WithParamInterface<Suite>
{
};

TEST_P(ProgramSuite, FetchesWithSessionReuseDemanded)
{
    m_options.require_session_reuse = true;
    ServeWithVsftpd();
    Fetched({std::string("--ciphers=") + GetParam().id});
    EXPECT_THAT(m_server->Log(),
                HasSubstr("SSL cipher: " + std::string(GetParam().name) + ", reused"));
}

INSTANTIATE_TEST_SUITE_P(Vsftpd, ProgramSuite,
                         ::testing::Values(Suite{"0x03000035", "AES256-SHA"},
                                           Suite{"0x0300003C", "AES128-SHA256"},
                                           Suite{"0x0300003D", "AES256-SHA256"}),
                         [](const auto& test) { return std::string(test.param.id); });

TEST_F(Program, FetchesFromVsftpdOverPlainFtp)
{
    m_options.tls = Tls::kNone;
    ServeWithVsftpd();
    Fetched();
}

TEST_F(Program, NamesTheDeadServerAndMovesOn)
{
    Serve();
    const CommandResult result = Run({"--servers=127.0.0.2;127.0.0.1"});
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, HasSubstr("127.0.0.2"));
    ExpectBothFiles();
}

// The service does not retry a directory file.
TEST_F(Program, AsksTheNextServerForADirectoryThatFailed)
{
    m_options.certificate = m_certificates.WithNames("IP:127.0.0.1,IP:127.0.0.2");
    Serve();
    FtpServerOptions options = m_options;
    options.host = "127.0.0.2";
    options.port = m_port;
    PyFtpServer without_directory(options);
    without_directory.AddFile("version.txt", kVersion);
    const CommandResult result = Run({"--servers=127.0.0.2;127.0.0.1"});
    EXPECT_EQ(result.status, kFetched) << result.output;
    EXPECT_THAT(result.output, HasSubstr("127.0.0.2"));
    EXPECT_EQ(without_directory.CountCommands("RETR version.txt"), 1u);
    ExpectBothFiles();
}

TEST_F(Program, TakesThePasswordFromAFile)
{
    Serve();
    TemporaryDirectory secrets;
    WriteFile(secrets.File("password"), m_options.password + "\n");
    Command command = Fetch({"--password-file=" + secrets.File("password")});
    command.environment = Environment("not-the-password");
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, kFetched) << result.output;
}

TEST_F(Program, TakesThePasswordFromStandardInput)
{
    Serve();
    Command command = Fetch({"--password-file=-"});
    command.environment = Environment("not-the-password");
    const CommandResult result = RunCommand(command, m_options.password + "\n");
    EXPECT_EQ(result.status, kFetched) << result.output;
}

TEST_F(Program, ReadsNoPasswordFromItsArguments)
{
    Serve();
    const CommandResult result = Run({"--password=" + m_options.password});
    EXPECT_EQ(result.status, kBadArguments) << result.output;
    EXPECT_THAT(m_server->Commands(), ElementsAre());
}

TEST_F(Program, SaysNothingWhenQuiet)
{
    Serve();
    const CommandResult result = RunCommand(Fetch({"--quiet"}));
    EXPECT_EQ(result.status, kFetched);
    EXPECT_EQ(result.output, "");
}

TEST_F(Program, WritesALogThatOnlyItsOwnerCanRead)
{
    Serve();
    TemporaryDirectory logs;
    const CommandResult result = Run({"--log-dir=" + logs.Path()});
    EXPECT_EQ(result.status, kFetched) << result.output;
    const std::string log = logs.File("corpdir.log");
    EXPECT_THAT(ReadFile(log), AllOf(HasSubstr("edition 17"), Not(HasSubstr(m_options.password))));
    EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0600));
}

class ProgramLog : public Program
{
protected:
    void RunLogged(const std::string& command, std::vector<std::string> more = {}) const
    {
        more.push_back("--log-dir=" + m_logs.Path());
        (void)RunCommand(Line(command, more));
    }

    // "level text" of the program's own records, without those that begin a run.
    std::vector<std::string> Records() const
    {
        std::vector<std::string> records;
        std::istringstream log(ReadFile(m_logs.File("corpdir.log")));
        for (std::string line; std::getline(log, line);)
        {
            std::istringstream words(line);
            std::string time;
            std::string level;
            std::string number;
            std::string component;
            std::string function;
            std::string place;
            std::string text;
            words >> time >> level >> number >> component >> function >> place;
            std::getline(words, text);
            if (component == "corpdir" && function != "RunLog")
            {
                records.push_back(level + text);
            }
        }
        return records;
    }

    TemporaryDirectory m_logs;
};

// All of them, so that the run can be repeated; but a command may have a secret in it.
TEST_F(ProgramLog, BeginsWithTheOptionsOfTheRun)
{
    const std::string settings = m_logs.File("settings.conf");
    WriteFile(settings, "max-time = \"5m\"\nexec = 'wall --token s3cret'\nquiet = true\n");
    std::vector<testing::Matcher<std::string>> begins;
    for (const std::string command : {"fetch", "watch", "check"})
    {
        RunLogged(command, {"--config=" + settings, "--output-dir=/no ne", "--no-verify=no"});
        begins.push_back(testing::ContainsRegex("Begin of corpdir " + command +
                                                ", version [^ ]+, settings file " + settings +
                                                ": --no-config --servers 127.0.0.1 --port "));
    }
    const std::string log = ReadFile(m_logs.File("corpdir.log"));
    EXPECT_THAT(log, testing::AllOfArray(begins));
    EXPECT_THAT(log, Not(HasSubstr("--no-verify")));
    EXPECT_THAT(log, AllOf(HasSubstr(" --output-dir '/no ne' --max-time 300 --quiet\n"),
                           Not(HasSubstr("--exec")), Not(HasSubstr("s3cret"))));
}

TEST_F(ProgramLog, HasRunsThatAreRefusedBeforeTheyBegin)
{
    std::vector<std::string> ends;
    for (const std::string command : {"fetch", "watch", "check"})
    {
        RunLogged(command, {"--output-dir=/none"});
        RunLogged(command, {"--password-file=/none"});
        ends.push_back("error End of corpdir " + command +
                       " with status 6: --output-dir '/none/': No such file or directory; create "
                       "it first");
        ends.push_back("error End of corpdir " + command +
                       " with status 2: cannot read the password from '/none': No such file or "
                       "directory");
    }
    EXPECT_THAT(Records(), testing::ElementsAreArray(ends));
}

// check cancels the transfer of the directory file on purpose.
TEST_F(ProgramLog, HasNoErrorOfASuccessfulCheck)
{
    Serve();
    RunLogged("check");
    EXPECT_THAT(
        ReadFile(m_logs.File("corpdir.log")),
        AllOf(HasSubstr("directory.csv cancelled at its first byte"), Not(HasSubstr(" error "))));
}

// A field of the log's settings has 255 bytes: the name must not be cut to that of another folder.
TEST_F(ProgramLog, IsNotWrittenToAnotherFolderWhenTheNameIsTooLong)
{
    std::string folder = m_logs.Path() + "/";
    folder += std::string(255 - folder.size(), 'l');
    std::filesystem::create_directory(folder);
    const CommandResult result = RunCommand(Fetch({"--log-dir=" + folder + "more"}));
    EXPECT_EQ(result.status, kBadArguments);
    EXPECT_THAT(result.output, HasSubstr("--log-dir is 259 bytes long; at most 255 are allowed"));
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(ProgramLog, HasTheOutcomeOfEachRun)
{
    Serve();
    for (const char* const command : {"fetch", "check"})
    {
        for (const char* const file : {"directory.csv", "none.csv"})
        {
            RunLogged(command, {"--directory-file=" + std::string(file)});
        }
    }
    EXPECT_THAT(
        Records(),
        ElementsAre("notice End of corpdir fetch with status 0: fetched version edition 17 from "
                    "127.0.0.1, 200000 bytes",
                    StartsWith("notice Hint: check --directory-file;"),
                    StartsWith("error End of corpdir fetch with status 3: the server failed; "
                               "127.0.0.1: none.csv: RETR refused: 550 "),
                    "notice End of corpdir check with status 0: version and directory file can be "
                    "fetched; each transfer of the directory file was cancelled at its first byte",
                    StartsWith("notice Hint: check --directory-file;"),
                    StartsWith("error End of corpdir check with status 3: the server failed; "
                               "127.0.0.1: none.csv: RETR refused: 550 ")));
}

TEST_F(ProgramLog, NamesTheServerOfTheHint)
{
    Serve();
    m_server->AddFile("version.txt", "x\n");
    for (const char* const command : {"fetch", "check"})
    {
        RunLogged(command, {"--servers=127.0.0.1;127.0.0.2", "--quiet"});
    }
    const std::string invalid =
        "error The version file version.txt from server 127.0.0.1 is not "
        "valid: ";
    const auto end = [](const std::string& command)
    {
        return StartsWith("error End of corpdir " + command +
                          " with status 4: all 2 servers failed; 127.0.0.1: "
                          "the version file is not valid: its first line 'x' is");
    };
    EXPECT_THAT(Records(),
                ElementsAre(StartsWith("notice Hint: "), end("fetch"), StartsWith(invalid),
                            StartsWith("notice Hint: "), end("check")));
}

TEST_F(ProgramLog, NamesWhatStoppedTheOnlyServer)
{
    const support::SilentAddress silent;
    m_port = static_cast<int>(silent.Port());
    RunLogged("fetch", {"--timeout=1"});
    EXPECT_THAT(Records(),
                ElementsAre(StartsWith("notice Hint: "),
                            StartsWith("error End of corpdir fetch with status 5: 127.0.0.1: timed "
                                       "out while fetching version file 'version.txt' ")));
}

TEST_F(ProgramLog, HasNamesWithoutAnAddress)
{
    RunLogged("check", {"--servers=none.invalid"});
    EXPECT_THAT(
        Records(),
        ElementsAre(StartsWith("error No address for server none.invalid: "),
                    StartsWith("error End of corpdir check with status 3: no name in --servers")));
}

// With a result that cannot be written, the status is that of the process.
TEST_F(ProgramLog, EndsOnceWithTheStatusOfTheProcess)
{
    Serve();
    for (const char* const name : {"fetch", "check"})
    {
        for (const std::string json : {"--json=false", "--json"})
        {
            Command command = Line(name, {"--log-dir=" + m_logs.Path(), json});
            std::vector<std::string> arguments = {"/bin/sh", "-c", "exec \"$@\" >/dev/full", "sh"};
            arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
            command.arguments = arguments;
            const CommandResult result = RunCommand(command);
            EXPECT_EQ(result.status, kLocalFile);
            EXPECT_EQ(result.output, "corpdir: the result cannot be written to standard output\n");
        }
    }
    const std::string unwritten = " with status 6: the result cannot be written to standard output";
    EXPECT_THAT(Records(), ElementsAre("error End of corpdir fetch" + unwritten,
                                       "error End of corpdir fetch" + unwritten,
                                       "error End of corpdir check" + unwritten,
                                       "error End of corpdir check" + unwritten));
}

// The directory disappears after it was checked.
TEST_F(ProgramLog, HasTheEndOfARunThatCannotBeStarted)
{
    Serve();
    for (const bool json : {false, true})
    {
        TemporaryDirectory output;
        const std::string folder = output.File("folder");
        const std::string fifo = output.File("password");
        std::filesystem::create_directory(folder);
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        std::vector<std::string> more = {"--log-dir=" + m_logs.Path(), "--output-dir=" + folder,
                                         "--password-file=" + fifo};
        if (json)
        {
            more.push_back("--json");
        }
        Command command = Fetch(more);
        command.output_file = output.File("said");
        Process process(command);
        const int writer = open(fifo.c_str(), O_WRONLY);  // waits for the program
        std::filesystem::remove(folder);
        EXPECT_EQ(write(writer, "secret\n", 7), 7);
        (void)close(writer);
        EXPECT_EQ(process.Wait(std::chrono::seconds(20)), kLocalFile);
        const std::string said = ReadFile(output.File("said"));
        EXPECT_THAT(said, HasSubstr("corpdir: "));
        EXPECT_EQ(said.find("{\"status\":6") != std::string::npos, json);
    }
    EXPECT_THAT(Records(), ElementsAre(StartsWith("error End of corpdir fetch with status 6: "),
                                       StartsWith("error End of corpdir fetch with status 6: ")));
}

TEST_F(Program, RotatesTheLogAsItIsAsked)
{
    Serve();
    TemporaryDirectory logs;
    Fetched({"--log-dir=" + logs.Path(), "--log-size=2kb", "--log-files=2"});
    EXPECT_THAT(support::FilesIn(logs.Path()),
                ElementsAre(".corpdir.lock", "corpdir.1.log", "corpdir.2.log", "corpdir.log"));
    for (const std::string& name : support::FilesIn(logs.Path()))
    {
        EXPECT_LE(std::filesystem::file_size(logs.File(name)), 4000U) << name;
    }
}

struct Refused
{
    const char* name;
    std::vector<std::string> options;
    std::vector<std::string> message;  // parts that it must have
};

void PrintTo(const Refused& refused, std::ostream* stream)
{
    *stream << refused.name;
}

// Invalid arguments are reported before anything starts: nothing listens on the port of these
// tests.
class ProgramArguments : public Program, public ::testing::WithParamInterface<Refused>
{
};

TEST_P(ProgramArguments, AreRefusedWithAReason)
{
    const CommandResult result = Run(GetParam().options);
    EXPECT_EQ(result.status, kBadArguments) << result.output;
    for (const std::string& part : GetParam().message)
    {
        EXPECT_THAT(result.output, HasSubstr(part));
    }
    EXPECT_THAT(support::FilesIn(m_output.Path()), ElementsAre());
}

std::string Long(const std::string& option, std::size_t length)
{
    return option + "=" + std::string(length, 'x');
}

INSTANTIATE_TEST_SUITE_P(
    Refused, ProgramArguments,
    ::testing::Values(
        Refused{"NoServers", {"--servers=" + kLeftOut}, {"--servers is required"}},
        Refused{"NoServersAndNoUser",
                {"--servers=" + kLeftOut, "--user=" + kLeftOut},
                {"--servers and --user are required"}},
        Refused{"EmptyServer", {"--servers=127.0.0.1;;127.0.0.3"}, {"--servers"}},
        Refused{"EmptyLastServer", {"--servers=127.0.0.1;"}, {"--servers"}},
        Refused{"User", {Long("--user", 128)}, {"--user", "127", "128"}},
        Refused{"VersionFile", {Long("--version-file", 256)}, {"--version-file", "255", "256"}},
        Refused{
            "DirectoryFile", {Long("--directory-file", 256)}, {"--directory-file", "255", "256"}},
        Refused{"VersionName", {Long("--version-name", 256)}, {"--version-name", "255", "256"}},
        Refused{
            "DirectoryName", {Long("--directory-name", 242)}, {"--directory-name", "241", "242"}},
        Refused{"OutputDirectory", {Long("--output-dir", 127)}, {"--output-dir", "127", "128"}},
        Refused{"Port", {"--port=65536"}, {"--port"}},
        Refused{"Timeout",
                {"--timeout=never"},
                {"--timeout: 'never' is not a duration such as 90, 90s, 5m, 2h or 1d"}},
        Refused{"LogLevel", {"--log-level=3"}, {"--log-level"}},
        Refused{"LocalAddress", {"--local-ip=localhost"}, {"--local-ip"}},
        Refused{"Cipher", {"--ciphers=0x0300FFFF"}, {}},
        Refused{"NewlineInAName", {"--version-file=version.txt\nDELE x"}, {"--version-file"}},
        Refused{"UnknownOption", {"--directory"}, {"--directory"}}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(Program, RefusesAPasswordThatIsTooLong)
{
    Command command = Fetch();
    command.environment = Environment(std::string(128, 'x'));
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, kBadArguments) << result.output;
    EXPECT_THAT(result.output, AllOf(HasSubstr("127"), HasSubstr("128")));
}

// Failures that leave the existing files untouched.
class ProgramFailure : public Program
{
protected:
    ProgramFailure()
    {
        WriteFile(m_output.File("directory.csv"), kOlder);
    }

    // The version file never comes without its directory file.
    void ExpectOlderDirectory() const
    {
        EXPECT_EQ(ReadFile(m_output.File("directory.csv")), kOlder);
        for (const std::string& name : support::FilesIn(m_output.Path()))
        {
            EXPECT_THAT(name, AnyOf("directory.csv", kState));
        }
    }
};

TEST_F(ProgramFailure, NoServerAnswers)
{
    const CommandResult result = Run({"--servers=127.0.0.2;127.0.0.3"});
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_THAT(result.output, AllOf(HasSubstr("127.0.0.2"), HasSubstr("127.0.0.3")));
    ExpectOlderDirectory();
}

TEST_F(ProgramFailure, NameThatDoesNotResolve)
{
    const CommandResult result = Run({"--servers=directory.invalid"});
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_THAT(result.output, HasSubstr("directory.invalid"));
    ExpectOlderDirectory();
}

TEST_F(ProgramFailure, WrongPassword)
{
    Serve();
    Command command = Fetch();
    command.environment = Environment("not-the-password");
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_THAT(result.output, AllOf(HasSubstr("127.0.0.1"), Not(HasSubstr("not-the-password"))));
    ExpectOlderDirectory();
}

TEST_F(ProgramFailure, AuthorityThatIsNotTrusted)
{
    Serve();
    const CommandResult result = Run({"--ca=" + m_certificates.OtherAuthority()});
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_EQ(m_server->CountCommands("PASS"), 0u);
    ExpectOlderDirectory();
}

TEST_F(ProgramFailure, NameThatTheCertificateDoesNotCarry)
{
    m_options.certificate = m_certificates.WithNames("DNS:directory.test");
    Serve();
    CommandResult result = Run({"--verify-name=elsewhere.test"});
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_EQ(m_server->CountCommands("PASS"), 0u);
    ExpectOlderDirectory();
    result = Run({"--verify-name=directory.test"});
    EXPECT_EQ(result.status, kFetched) << result.output;
}

TEST_F(ProgramFailure, AnotherTlsVersionIsWanted)
{
    m_options.max_tls = "1.2";
    Serve();
    CommandResult result = Run({"--ciphers=TLS_AES_256_GCM_SHA384"});
    EXPECT_EQ(result.status, kNoServer) << result.output;
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("127.0.0.1: TLS handshake failed: no TLS version in common\n"),
                      HasSubstr("hint: the server requires TLS 1.2, which the suites of --ciphers "
                                "exclude: ")));
    result = Run({"--ciphers=TLS_AES_256_GCM_SHA384,TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384"});
    EXPECT_EQ(result.status, kFetched) << result.output;
}

TEST_F(ProgramFailure, VersionFileTooShort)
{
    Serve().AddFile("version.txt", "1.2\n");
    CommandResult result = Run();
    EXPECT_EQ(result.status, kBadVersion) << result.output;
    EXPECT_EQ(result.output,
              "127.0.0.1: the version file is not valid: its first line '1.2' is shorter than 5 "
              "bytes\n"
              "corpdir: the server failed\n"
              "hint: the version file must be ASCII or UTF-8 text with 5 to 30 bytes in its first "
              "line\n");
    ExpectOlderDirectory();
    result = Run({"--servers=127.0.0.1;127.0.0.2"});
    EXPECT_EQ(result.status, kBadVersion) << result.output;
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("is shorter than 5 bytes; trying next server\n127.0.0.2: "),
                      HasSubstr("corpdir: all 2 servers failed\n")));
    ExpectOlderDirectory();
}

TEST_F(Program, AsksTheNextServerForAVersionThatIsNotValid)
{
    m_options.certificate = m_certificates.WithNames("IP:127.0.0.1,IP:127.0.0.2");
    Serve();
    FtpServerOptions options = m_options;
    options.host = "127.0.0.2";
    options.port = m_port;
    PyFtpServer other(options);
    other.AddFile("version.txt", "");
    Fetched({"--servers=127.0.0.2;127.0.0.1"});
    EXPECT_EQ(other.CountCommands("RETR version.txt"), 1u);
}

TEST_F(Program, ANewDirectoryFileKeepsTheModeOfTheOld)
{
    Serve();
    WriteFile(m_output.File("directory.csv"), kOlder);
    std::filesystem::permissions(m_output.File("directory.csv"), std::filesystem::perms(0640));
    Fetched();
    for (const std::string& name : {std::string("directory.csv"), kState})
    {
        EXPECT_EQ(std::filesystem::status(m_output.File(name)).permissions(),
                  std::filesystem::perms(0640))
            << name;
    }
}

TEST_F(Program, FetchesOnlyAChangeWhenAsked)
{
    Serve();
    Fetched({"--if-changed"});
    CommandResult result = Fetched({"--if-changed"});
    EXPECT_EQ(result.output, "unchanged: edition 17\n");
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 1u);
    result = Fetched({"--if-changed", "--json"});
    EXPECT_THAT(result.output, AllOf(HasSubstr("\"unchanged\":true"), HasSubstr("\"status\":0"),
                                     HasSubstr("\"fetched\":false")));
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 1u);
    WriteFile(m_output.File("directory.csv"), kOlder);
    Fetched({"--if-changed"});
    EXPECT_EQ(m_server->CountCommands("RETR directory.csv"), 2u);
}

TEST_F(ProgramFailure, NoProgressInTime)
{
    const support::SilentAddress silent;
    m_port = static_cast<int>(silent.Port());
    const CommandResult result = Run({"--timeout=2"});
    EXPECT_EQ(result.status, kNoOutcome) << result.output;
    EXPECT_THAT(
        result.output,
        HasSubstr("corpdir: timed out while fetching version file 'version.txt' from 127.0.0.1, "
                  "0 bytes: no progress for 2 s (--timeout)\n"));
    ExpectOlderDirectory();
}

// The whole download takes longer than the timeout.
TEST_F(Program, ProgressExtendsTheTimeout)
{
    m_options.bytes_per_second = 50000;
    Serve();
    const auto begun = std::chrono::steady_clock::now();
    Fetched({"--timeout=2"});
    EXPECT_GT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
}

TEST_F(ProgramFailure, OutputDirectoryThatIsNotThere)
{
    Serve();
    const CommandResult result = Run({"--output-dir=" + m_output.File("missing")});
    EXPECT_EQ(result.status, kLocalFile) << result.output;
    ExpectOlderDirectory();
}

TEST_F(ProgramFailure, OutputDirectoryThatTakesNoFile)
{
    Serve();
    const CommandResult result = Run({"--output-dir=/proc"});
    EXPECT_EQ(result.status, kLocalFile) << result.output;
}

TEST_F(ProgramFailure, TargetThatIsADirectory)
{
    Serve();
    TemporaryDirectory output;
    std::filesystem::create_directory(output.File("directory.csv"));
    const CommandResult result = Run({"--output-dir=" + output.Path()});
    EXPECT_EQ(result.status, kLocalFile) << result.output;
}

class ProgramSignal : public ProgramFailure, public ::testing::WithParamInterface<int>
{
};

TEST_P(ProgramSignal, StopsCleanlyInTheMiddle)
{
    m_options.bytes_per_second = 100000;
    m_directory = PatternBytes(20000000, 2);
    Serve();
    TemporaryDirectory messages;
    Command command = Fetch();
    command.output_file = messages.File("output");
    Process program(command);
    const auto downloading = [this]
    {
        const std::vector<std::string> names = support::FilesIn(m_output.Path());
        const auto has = [&names](const char* text)
        {
            return std::any_of(names.begin(), names.end(),
                               [text](const std::string& name)
                               { return name.find(text) != std::string::npos; });
        };
        return has(".version") && has(".part");
    };
    ASSERT_TRUE(WaitUntil(downloading)) << ReadFile(command.output_file);
    program.Signal(GetParam());
    const auto status = program.Wait(std::chrono::seconds(5));
    ASSERT_TRUE(status.has_value()) << "still running";
    EXPECT_EQ(*status, 128 + GetParam()) << ReadFile(command.output_file);
    ExpectFiles({"directory.csv"});
    EXPECT_EQ(ReadFile(m_output.File("directory.csv")), kOlder);
}

INSTANTIATE_TEST_SUITE_P(Signals, ProgramSignal, ::testing::Values(SIGINT, SIGTERM),
                         [](const auto& test)
                         { return std::string(test.param == SIGINT ? "Interrupt" : "Terminate"); });

}  // namespace
}  // namespace integration
