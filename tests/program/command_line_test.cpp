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

Parsed Parse(const std::vector<std::string>& words)
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
    parsed.status =
        RunCommandLine(static_cast<int>(arguments.size()), arguments.data(),
                       {Keep, Keep, Keep, Keep}, [] { return std::string("the versions"); });
    parsed.output = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    parsed.options = g_options;
    return parsed;
}

Parsed ParseFull(const std::string& command, const std::vector<std::string>& more)
{
    std::vector<std::string> words = {command,
                                      "--servers=192.0.2.1",
                                      "--user=phone",
                                      "--version-file=v",
                                      "--directory-file=d",
                                      "--output-dir=o"};
    words.insert(words.end(), more.begin(), more.end());
    return Parse(words);
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

}  // namespace
}  // namespace corpdir_tool
