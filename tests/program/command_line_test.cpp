// The command line, as far as the parser checks it. The commands only keep their options.
#include "cli/command_line.h"

#include <gmock/gmock.h>

#include "cli/duration.h"
#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

using testing::HasSubstr;

std::optional<Options> g_options;  // of the command that ran

int Keep(const Options& options)
{
    g_options = options;
    return 0;
}

struct Parsed
{
    int status = 0;
    std::string output;  // standard output and standard error
    std::optional<Options> options;
};

Parsed Parse(const std::vector<std::string>& words, const std::string& defaultSettings = "")
{
    std::vector<std::string> texts = {"corpdir"};
    texts.insert(texts.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (std::string& text : texts)
    {
        arguments.push_back(text.data());
    }
    g_options.reset();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Parsed parsed;
    try
    {
        parsed.status = RunCommandLine(
            static_cast<int>(arguments.size()), arguments.data(), {Keep, Keep, Keep, Keep, Keep},
            [] { return std::string("the versions"); }, defaultSettings);
    }
    catch (const ExitError& error)  // as main() does
    {
        parsed.status = error.Status();
        (void)std::fprintf(stderr, "corpdir: %s\n", error.what());
    }
    parsed.output = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    parsed.options = g_options;
    return parsed;
}

Parsed ParseFull(const std::string& command, const std::vector<std::string>& more,
                 const std::string& defaultSettings = "")
{
    std::vector<std::string> words = {command,
                                      "--servers=192.0.2.1",
                                      "--user=phone",
                                      "--version-file=v",
                                      "--directory-file=d",
                                      "--output-dir=o"};
    words.insert(words.end(), more.begin(), more.end());
    return Parse(words, defaultSettings);
}

TEST(ToolDuration, HasAUnitOrIsInSeconds)
{
    const std::pair<const char*, unsigned int> cases[] = {
        {"0", 0},     {"90", 90},    {"90s", 90}, {"5m", 300},
        {"2h", 7200}, {"1d", 86400}, {"007s", 7}, {"3155760000", 3155760000}};
    for (const auto& [text, seconds] : cases)
    {
        EXPECT_EQ(SecondsOf(text), seconds) << text;
    }
    for (const char* text : {"", "s", "-1", "+1", "1.5h", "1 s", " 1", "1S", "1ms", "5min", "1h30m",
                             "3155760001", "36526d", "99999999999", "18446744073709551617"})
    {
        EXPECT_EQ(SecondsOf(text), std::nullopt) << text;
    }
}

TEST(ToolDuration, IsShownWithItsLargestUnit)
{
    EXPECT_EQ(DurationText(604800), "7d");
    EXPECT_EQ(DurationText(5400), "90m");
    EXPECT_EQ(DurationText(61), "61s");
    EXPECT_EQ(DurationText(0), "0s");
}

TEST(ToolCommandLine, EachTimeIsADuration)
{
    struct Case
    {
        const char* command;
        const char* option;
        unsigned int Options::*member;
        unsigned int most;
    };
    const Case cases[] = {{"fetch", "--timeout", &Options::timeoutSeconds, 604800},
                          {"check", "--timeout", &Options::timeoutSeconds, 604800},
                          {"fetch", "--max-time", &Options::maxTimeSeconds, 604800},
                          {"check", "--max-time", &Options::maxTimeSeconds, 604800},
                          {"watch", "--connect-timeout", &Options::connectTimeout, 3600},
                          {"watch", "--retry", &Options::retrySeconds, 600},
                          {"watch", "--splay", &Options::splaySeconds, 86400},
                          {"watch", "--exec-timeout", &Options::execTimeoutSeconds, 86400}};
    for (const Case& one : cases)
    {
        const auto with = [&one](const std::string& value)
        { return ParseFull(one.command, {one.option + ("=" + value)}); };
        EXPECT_EQ((*with("5m").options).*one.member, 300U) << one.option;
        EXPECT_EQ((*with("7").options).*one.member, 7U) << one.option;
        EXPECT_EQ((*with(std::to_string(one.most)).options).*one.member, one.most) << one.option;
        for (const std::string& value : {std::string("0"), std::to_string(one.most + 1)})
        {
            const Parsed refused = with(value);
            EXPECT_EQ(refused.status, kExitArguments) << one.option;
            EXPECT_THAT(refused.output,
                        HasSubstr(one.option + (": '" + value) + "' is not between 1s and " +
                                  DurationText(one.most)));
        }
        EXPECT_THAT(
            with("5x").output,
            HasSubstr(one.option +
                      std::string(": '5x' is not a duration such as 90, 90s, 5m, 2h or 1d")));
    }
}

TEST(ToolCommandLine, DefaultsOfTimesAreThoseOfTheHelp)
{
    const Options options = *ParseFull("fetch", {}).options;
    EXPECT_EQ(options.timeoutSeconds, 120U);
    EXPECT_EQ(options.retrySeconds, 60U);
    EXPECT_EQ(options.maxTimeSeconds, 0U);
    EXPECT_FALSE(options.ifChanged);
    EXPECT_THAT(Parse({"fetch", "--help"}).output, HasSubstr("without progress (2m)"));
    EXPECT_THAT(Parse({"watch", "--help"}).output, HasSubstr("(1m)"));
}

TEST(ToolCommandLine, OptionsAreThoseOfTheirCommand)
{
    EXPECT_TRUE(ParseFull("fetch", {"--if-changed"}).options->ifChanged);
    EXPECT_EQ(ParseFull("watch", {"--on-failure=true"}).options->onFailure, "true");
    const Options log = *ParseFull("check", {"--log-size=1mib", "--log-files=7"}).options;
    EXPECT_EQ(log.logSize, 1048576U);
    EXPECT_EQ(log.logFiles, 7U);
    for (const char* option : {"--if-changed", "--max-time=1"})
    {
        EXPECT_EQ(ParseFull("watch", {option}).status, kExitArguments) << option;
    }
    for (const char* option :
         {"--splay=1", "--on-failure=true", "--exec-timeout=1", "--log-size=999",
          "--log-size=4000000001", "--log-files=0", "--log-files=1001"})
    {
        EXPECT_EQ(ParseFull("fetch", {option}).status, kExitArguments) << option;
    }
}

TEST(ToolCommandLine, AllMissingOptionsAreNamed)
{
    const Parsed parsed = Parse({"fetch", "--user=phone"});
    EXPECT_EQ(parsed.status, kExitArguments);
    EXPECT_EQ(parsed.output,
              "corpdir: --servers, --version-file, --directory-file and --output-dir are required, "
              "on the command line or in a settings file\n"
              "Try 'corpdir fetch --help'.\n");
    EXPECT_THAT(
        Parse({"fetch", "--servers=a", "--user=b", "--version-file=c", "--output-dir=d"}).output,
        HasSubstr("corpdir: --directory-file is required, on"));
    EXPECT_THAT(Parse({"fetch", "--server=a"}).output, HasSubstr("did you mean '--servers'?"));
    EXPECT_THAT(Parse({}).output, HasSubstr("Try 'corpdir --help'"));
}

TEST(ToolCommandLine, AnUnknownCommandIsReportedBeforeItsOptions)
{
    EXPECT_EQ(Parse({"fech", "--port", "1"}).output,
              "corpdir: unknown command 'fech'; did you mean 'fetch'?\nTry 'corpdir --help'.\n");
    EXPECT_THAT(Parse({"fech"}).output, HasSubstr("unknown command 'fech'"));
    EXPECT_THAT(Parse({"--prot", "fech"}).output, HasSubstr("unknown option '--prot'"));
    EXPECT_THAT(Parse({"fetch", "more", "--prot=1"}).output, HasSubstr("unknown option '--prot'"));
}

TEST(ToolCommandLine, AnOptionThatIsRepeatedIsNamed)
{
    EXPECT_EQ(ParseFull("fetch", {"--ca=a", "--ca=b"}).output,
              "corpdir: --ca is given twice\nTry 'corpdir fetch --help'.\n");
    EXPECT_THAT(ParseFull("fetch", {"--config=a", "--config=b"}).output,
                HasSubstr("corpdir: --config is given twice\n"));
    EXPECT_THAT(ParseFull("fetch", {"--port=1", "--port=2", "--port=3"}).output,
                HasSubstr("corpdir: --port is given 3 times\n"));
    const Parsed list = ParseFull("fetch", {"--verify-name=a", "--verify-name=b"});
    EXPECT_EQ(list.output, "");
    EXPECT_EQ(list.options->verifyNames.size(), 2U);
}

TEST(ToolCommandLine, CheckNeedsNoOutputDirectory)
{
    const std::vector<std::string> words = {"check", "--servers=192.0.2.1", "--user=phone",
                                            "--version-file=v", "--directory-file=d"};
    EXPECT_EQ(Parse(words).status, 0) << Parse(words).output;
    std::vector<std::string> empty = words;
    empty.emplace_back("--output-dir=");
    EXPECT_EQ(Parse(empty).status, kExitArguments) << "it may come from an unset variable";
}

TEST(ToolCommandLine, TheVersionHasAShortOption)
{
    for (const char* option : {"-V", "--version"})
    {
        const Parsed parsed = Parse({option});
        EXPECT_EQ(parsed.status, 0);
        EXPECT_EQ(parsed.output, "the versions\n");
    }
}

// A settings file with all that `fetch` needs, and what a test adds.
class ToolSettingsFile : public testing::Test
{
protected:
    void Write(const std::string& more)
    {
        m_path = m_directory.Write("corpdir.conf",
                                   "servers = '192.0.2.1'\nuser = 'phone'\nversion-file = 'v'\n"
                                   "directory-file = 'd'\noutput-dir = 'o'\n" +
                                       more);
    }

    const TemporaryDirectory m_directory;
    std::string m_path = m_directory.Path() + "/corpdir.conf";
};

TEST_F(ToolSettingsFile, TheDefaultOneIsReadWhenItExists)
{
    EXPECT_THAT(Parse({"fetch"}, m_path).output, HasSubstr("--servers, --user"));
    Write("port = 77\n[watch]\nport = 78");
    const Parsed fetch = Parse({"fetch"}, m_path);
    EXPECT_EQ(fetch.output, "");
    EXPECT_EQ(fetch.options->port, 77U);
    EXPECT_EQ(Parse({"watch"}, m_path).options->port, 78U);
    EXPECT_EQ(Parse({"fetch", "--port=79"}, m_path).options->port, 79U);
}

TEST_F(ToolSettingsFile, AnotherOneOrNoneReplacesTheDefaultOne)
{
    Write("port = 77");
    const std::string other = m_directory.Write("other.conf", "port = 80\n");
    for (const auto& words : {std::vector<std::string>{"--config=" + other, "fetch"},
                              {"fetch", "--config", other},
                              {"--no-config", "fetch"},
                              {"fetch", "--no-config"}})
    {
        EXPECT_THAT(Parse(words, m_path).output, HasSubstr("--servers, --user")) << words[0];
    }
    EXPECT_EQ(ParseFull("fetch", {"--config=" + other}, m_path).options->port, 80U);
    EXPECT_EQ(ParseFull("fetch", {"--no-config"}, m_path).options->port, 0U);
    const Parsed both = ParseFull("fetch", {"--no-config", "--config=" + other}, m_path);
    EXPECT_EQ(both.status, kExitArguments);
    EXPECT_EQ(both.output, "corpdir: --config and --no-config exclude each other\n");
}

TEST_F(ToolSettingsFile, AMistakeInTheDefaultOneIsReportedWithItsPath)
{
    Write("prot = 1");
    const Parsed parsed = Parse({"fetch"}, m_path);
    EXPECT_EQ(parsed.status, kExitArguments);
    EXPECT_EQ(
        parsed.output,
        "corpdir: " + m_path + ", line 6: no command has an option 'prot'; did you mean 'port'?\n");
    EXPECT_THAT(Parse({"--config", m_path, "fetch"}).output,
                HasSubstr("corpdir: --config " + m_path + ", line 6: "));
}

TEST_F(ToolSettingsFile, HelpVersionAndCiphersWorkInSpiteOfAMistake)
{
    Write("prot = 1");
    const Parsed version = Parse({"-V"}, m_path);
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "the versions\n");
    for (const auto& words : {std::vector<std::string>{"--help"},
                              {"fetch", "--help"},
                              {"status", "-h"},
                              {"--config=" + m_path, "fetch", "--help"}})
    {
        const Parsed help = Parse(words, m_path);
        EXPECT_EQ(help.status, 0) << words[0];
        EXPECT_THAT(help.output, HasSubstr("--help")) << words[0];
    }
    const Parsed ciphers = Parse({"ciphers"}, m_path);
    EXPECT_EQ(ciphers.status, 0);
    EXPECT_TRUE(ciphers.options.has_value());
    EXPECT_EQ(
        ciphers.output,
        "corpdir: " + m_path + ", line 6: no command has an option 'prot'; did you mean 'port'?\n");
}

TEST_F(ToolSettingsFile, AProblemOfASettingNamesTheFile)
{
    const auto problem = [this](const std::vector<std::string>& words)
    {
        const Parsed parsed = Parse(words, m_path);
        return ExitErrorOf([&] { (void)MakePlan(parsed.options.value(), SomeCiphers); }).message;
    };
    Write("local-ip = '192.0.2.9'\nport = 77\n[fetch]\nlocal-ip = '192.0.2.8'");
    EXPECT_EQ(problem({"fetch", "--servers=::1"}),
              "server ::1 of --servers cannot be reached from --local-ip 192.0.2.8: one is IPv4, "
              "the other IPv6 (" +
                  m_path + " has local-ip)");
    Write("plain = true\nca = '/ca.pem'");
    EXPECT_EQ(problem({"fetch"}),
              "--plain does not use TLS; remove --ca, --verify-name and --ciphers (" + m_path +
                  " has plain)");
    const std::string same =
        "both files would be stored as 'b' (--version-name, --directory-name); give one of them "
        "another name";
    Write("version-name = 'b'");
    EXPECT_EQ(problem({"fetch", "--directory-name=b"}),
              same + " (" + m_path + " has version-name)");
    EXPECT_EQ(problem({"fetch", "--version-name=b", "--directory-name=b"}), same);
    Write("port = 77");
    EXPECT_THAT(problem({"fetch", "--servers=a.example:1"}),
                testing::EndsWith("give the port with --port"));
}

TEST_F(ToolSettingsFile, ADefaultOneThatCannotBeReadIsReported)
{
    // A loop cannot be opened, by root either.
    std::filesystem::create_symlink("corpdir.conf", m_path);
    const Parsed parsed = ParseFull("fetch", {}, m_path);
    EXPECT_EQ(parsed.status, 0);
    EXPECT_EQ(parsed.output,
              "corpdir: " + m_path + " is not used: Too many levels of symbolic links\n");
    EXPECT_EQ(ParseFull("fetch", {"--quiet"}, m_path).output, "");
    EXPECT_EQ(ParseFull("fetch", {"--no-config"}, m_path).output, "");
}

TEST_F(ToolSettingsFile, ADefaultOneThatIsADirectoryIsReportedBeforeMissingOptions)
{
    const Parsed parsed = Parse({"fetch"}, m_directory.Path());
    EXPECT_EQ(parsed.status, kExitArguments);
    EXPECT_THAT(parsed.output,
                testing::StartsWith("corpdir: " + m_directory.Path() +
                                    " is not used: Is a directory\ncorpdir: --servers, --user"));
}

TEST_F(ToolSettingsFile, OneThatCannotBeReadIsReportedWithTheReason)
{
    const std::string loop = m_directory.Path() + "/loop.conf";
    std::filesystem::create_symlink("loop.conf", loop);
    const std::pair<std::string, const char*> cases[] = {
        {m_path, "No such file or directory"},
        {m_directory.Path(), "Is a directory"},
        {loop, "Too many levels of symbolic links"}};
    for (const auto& [path, reason] : cases)
    {
        const Parsed parsed = ParseFull("fetch", {"--config=" + path});
        EXPECT_EQ(parsed.status, kExitArguments);
        EXPECT_EQ(parsed.output,
                  "corpdir: --config '" + path + "' cannot be read: " + reason + "\n");
    }
    EXPECT_EQ(ParseFull("fetch", {"--config="}).status, kExitArguments)
        << "it may come from an unset variable";
}

TEST_F(ToolSettingsFile, AnUnknownSectionIsReportedWithASuggestion)
{
    Write("[fech]\nport = 1");
    EXPECT_EQ(
        Parse({"fetch"}, m_path).output,
        "corpdir: " + m_path + ", line 7: there is no section [fech]; did you mean '[fetch]'?\n");
}

TEST_F(ToolSettingsFile, AValueThatIsRefusedIsReportedWithItsLine)
{
    Write("port = 70000");
    const Parsed parsed = Parse({"fetch"}, m_path);
    EXPECT_EQ(parsed.status, kExitArguments);
    EXPECT_THAT(parsed.output,
                testing::StartsWith("corpdir: " + m_path + ", line 6: --port: Value 70000 "));
    EXPECT_EQ(Parse({"fetch", "--port=1"}, m_path).options->port, 1U);
}

TEST_F(ToolSettingsFile, ASettingGivesWayToTheCommandLine)
{
    struct Case
    {
        const char* settings;
        std::vector<std::string> line;
        const char* name;      // of the setting that gives way
        const char* opposite;  // the option that rules it out
    };
    const Case cases[] = {{"ca = '/ca.pem'", {"--plain"}, "ca", "--plain"},
                          {"ca = 'system'", {"--plain"}, "ca", "--plain"},
                          {"verify-name = 'a.example'", {"--plain"}, "verify-name", "--plain"},
                          {"ciphers = 'modern'", {"--plain"}, "ciphers", "--plain"},
                          {"plain = true", {"--ca=/ca.pem"}, "plain", "--ca"},
                          {"plain = true", {"--ciphers=modern"}, "plain", "--ciphers"},
                          {"ca = '/ca.pem'", {"--no-verify"}, "ca", "--no-verify"},
                          {"no-verify = true", {"--verify-name=a"}, "no-verify", "--verify-name"}};
    for (const Case& one : cases)
    {
        Write(one.settings);
        const std::string notice = std::string("corpdir: the setting '") + one.name + "' of " +
                                   m_path + " is not used, because the command line has " +
                                   one.opposite + "\n";
        std::vector<std::string> words = {"fetch"};
        words.insert(words.end(), one.line.begin(), one.line.end());
        for (const bool byDefault : {true, false})
        {
            const Parsed parsed = byDefault ? Parse(words, m_path)
                                            : [&]
            {
                std::vector<std::string> configured = words;
                configured.push_back("--config=" + m_path);
                return Parse(configured);
            }();
            EXPECT_EQ(parsed.status, 0);
            EXPECT_EQ(parsed.output, notice);
            ASSERT_TRUE(parsed.options.has_value());
            const bool plainGiven = one.line[0] == "--plain";
            EXPECT_EQ(parsed.options->plain, plainGiven);
            EXPECT_EQ(parsed.options->noVerify, one.line[0] == "--no-verify");
            EXPECT_EQ(parsed.options->ca, one.line[0] == "--ca=/ca.pem" ? "/ca.pem" : "");
        }
    }
}

// What has no effect does not conflict, and what is in one source is not decided here.
TEST_F(ToolSettingsFile, NothingElseGivesWay)
{
    Write("ca = 'system'\nverify-name = 'a.example'");
    for (const char* const off : {"--plain=false", "--plain=no"})
    {
        const Parsed harmless = Parse({"fetch", off}, m_path);
        EXPECT_EQ(harmless.output, "");
        EXPECT_EQ(harmless.options->verifyNames.size(), 1U);
    }
    Write("ca = '/ca.pem'\nplain = true");
    const Parsed both = Parse({"fetch"}, m_path);
    EXPECT_EQ(both.output, "");
    EXPECT_TRUE(both.options->plain);
    EXPECT_EQ(both.options->ca, "/ca.pem");
    const Parsed line = Parse({"fetch", "--plain", "--ca=/other.pem"}, m_path);
    EXPECT_EQ(line.output, "");
    EXPECT_TRUE(line.options->plain);
    EXPECT_EQ(line.options->ca, "/other.pem");
}

TEST_F(ToolSettingsFile, AFlagThatIsFalseInASectionOverridesTheTop)
{
    Write("no-verify = true\n[fetch]\nno-verify = false");
    EXPECT_FALSE(Parse({"fetch"}, m_path).options->noVerify);
    EXPECT_TRUE(Parse({"watch"}, m_path).options->noVerify);
    EXPECT_FALSE(Parse({"watch", "--no-verify=false"}, m_path).options->noVerify);
}

}  // namespace
}  // namespace corpdir_tool
