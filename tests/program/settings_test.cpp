// The settings file: mistakes are reported with their line.
#include <gmock/gmock.h>

#include <sstream>

#include "cli/settings_file.h"
#include "cli/suggestion.h"
#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

std::vector<Setting> Read(const std::string& text)
{
    std::istringstream input(text);
    return ReadSettings(input);
}

// "section.name=value" for each.
std::vector<std::string> Settings(const std::string& text)
{
    std::vector<std::string> all;
    for (const Setting& setting : Read(text))
    {
        all.push_back(setting.section + "." + setting.name + "=" + setting.value);
    }
    return all;
}

std::string Value(const std::string& text)
{
    return Read("name = " + text).at(0).value;
}

std::string Problem(const std::string& text)
{
    const Thrown thrown = ExitErrorOf([&text] { Read(text); });
    EXPECT_EQ(thrown.status, kExitArguments);
    return thrown.message;
}

TEST(ToolSettings, AreTomlInSections)
{
    EXPECT_THAT(Settings("# about\n\na = 1\r\n  b=2\n[watch] # for one\na = 3\n\n[ check ]\na=4"),
                testing::ElementsAre(".a=1", ".b=2", "watch.a=3", "check.a=4"));
    EXPECT_THAT(Settings(""), testing::IsEmpty());
    EXPECT_THAT(Settings("\xef\xbb\xbf"
                         "a = 1"),
                testing::ElementsAre(".a=1"));
    EXPECT_EQ(Read("\n\na = 1").at(0).line, 3U);
}

TEST(ToolSettings, AreInTheOrderOfTheLines)
{
    EXPECT_THAT(Settings("[watch]\nb = 1\na = 2\n[check]\nc = 3"),
                testing::ElementsAre("watch.b=1", "watch.a=2", "check.c=3"));
}

TEST(ToolSettings, ValuesAreTextsWholeNumbersAndTruthValues)
{
    EXPECT_EQ(Value(R"("dir1.example;dir2.example")"), "dir1.example;dir2.example");
    EXPECT_EQ(Value(R"("/etc/a#b = c" # remark)"), "/etc/a#b = c");
    EXPECT_EQ(Value(R"('echo "$CORPDIR_FILE"')"), R"(echo "$CORPDIR_FILE")");
    EXPECT_EQ(Value(R"("a\tb")"), "a\tb");
    EXPECT_EQ(Value(R"("")"), "");
    EXPECT_EQ(Value("120"), "120");
    EXPECT_EQ(Value("true"), "true");
    EXPECT_EQ(Value("false"), "false");
    for (const char* const other : {"1.5", "[1, 2]", "1979-05-27", "{a = 1}"})
    {
        const std::string text = std::string("[watch]\nname = ") + other;
        EXPECT_EQ(Problem(text), "line 2: 'name' must be a string, an integer, true or false");
    }
}

TEST(ToolSettings, AnArrayIsReportedWithItsListAsAString)
{
    EXPECT_EQ(Problem("\nservers = ['dir1.example', \"dir2.example\"]"),
              "line 2: 'servers' must be a string, an integer, true or false; write servers = "
              "\"dir1.example;dir2.example\"");
    EXPECT_THAT(Problem("verify-name = ['a', 'b']"),
                testing::EndsWith("; write verify-name = \"a,b\""));
    for (const char* const other : {"ca = ['a', 'b']", "servers = [1, 2]", "servers = ['a', 1]",
                                    "servers = []", "servers = 1.5"})
    {
        EXPECT_THAT(Problem(other), testing::EndsWith("true or false")) << other;
    }
}

TEST(ToolSettings, ATextWithoutQuotesIsToldWithThem)
{
    EXPECT_THAT(
        Problem("a = 1\nservers = dir1.example;dir2.example  # two"),
        testing::AllOf(testing::StartsWith("line 2: "),
                       testing::EndsWith("; write servers = \"dir1.example;dir2.example\"")));
    EXPECT_THAT(Problem("max-size=100mb\nca = x"),
                testing::EndsWith("; write max-size = \"100mb\""));
}

TEST(ToolSettings, OtherMistakesAreToldWithTheirLine)
{
    for (const char* const text : {"a = 1\nb = \"x", "a = 1\nb = \"x\" y", "a = 1\nb",
                                   "a = 1\n[watch", "b = 1\nb = 2", "a = 1\nb = x\"y"})
    {
        EXPECT_THAT(Problem(text), testing::AllOf(testing::StartsWith("line 2: "),
                                                  testing::Not(testing::HasSubstr("; write"))))
            << text;
    }
}

TEST(ToolSettings, AFileThatIsNoneIsNotPrinted)
{
    const std::string problem = Problem("\x01" + std::string(1000, 'x'));
    EXPECT_THAT(problem, testing::StartsWith("line 1: "));
    EXPECT_LT(problem.size(), 200U);
}

TEST(ToolSuggestion, IsTheClosestWord)
{
    const std::vector<std::string> words = {"servers", "user", "output-dir", "version-file"};
    EXPECT_EQ(Suggestion("server", words), "; did you mean 'servers'?");
    EXPECT_EQ(Suggestion("outputdir", words), "; did you mean 'output-dir'?");
    EXPECT_EQ(Suggestion("sue", words), "");
    EXPECT_EQ(Suggestion("uses", words), "; did you mean 'user'?");
    EXPECT_EQ(Suggestion("", words), "");
    EXPECT_EQ(Suggestion("version", words), "; did you mean 'version-file'?");
    EXPECT_EQ(Suggestion("output", {"outputs", "output-dir"}), "; did you mean 'outputs'?");
    EXPECT_EQ(Suggestion("vers", words), "") << "no whole part of a word";
    EXPECT_EQ(Suggestion("servers", {}), "");
}

}  // namespace
}  // namespace corpdir_tool
