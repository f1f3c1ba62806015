// The settings file, line by line: whatever may be a mistake is told with its line.
#include <gmock/gmock.h>

#include <sstream>

#include "corpdir_tool_support.h"
#include "hints.h"
#include "settings_file.h"

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
    const Thrown thrown = FailureOf([&text] { Read(text); });
    EXPECT_EQ(thrown.status, EXIT_ARGUMENTS);
    return thrown.message;
}

TEST(ToolSettings, AreLinesInSections)
{
    EXPECT_THAT(Settings("# about\n\na = 1\r\n  b=2\n[watch] # for one\na = 3\n\n[ check ]\na=4"),
                testing::ElementsAre(".a=1", ".b=2", "watch.a=3", "check.a=4"));
    EXPECT_THAT(Settings(""), testing::IsEmpty());
    EXPECT_EQ(Read("\n\na = 1").at(0).line, 3U);
}

TEST(ToolSettings, AQuotedValueIsTakenAsItStands)
{
    EXPECT_EQ(Value(R"("dir1.example;dir2.example")"), "dir1.example;dir2.example");
    EXPECT_EQ(Value(R"("/etc/a#b = c" # remark)"), "/etc/a#b = c");
    EXPECT_EQ(Value(R"('echo "$CORPDIR_FILE"')"), R"(echo "$CORPDIR_FILE")");
    EXPECT_EQ(Value(R"("it's")"), "it's");
    EXPECT_EQ(Value(R"("")"), "");
    EXPECT_EQ(Value(R"("  blanks  ")"), "  blanks  ");
    EXPECT_EQ(Value(R"("a\n")"), R"(a\n)");
}

TEST(ToolSettings, AnOpenValueEndsAtARemark)
{
    EXPECT_EQ(Value("dir1.example; dir2.example  # two"), "dir1.example; dir2.example");
    EXPECT_EQ(Value("/etc/a#b"), "/etc/a#b");
    EXPECT_EQ(Value("# nothing"), "");
    EXPECT_EQ(Value("a=b"), "a=b");
}

TEST(ToolSettings, MistakesAreToldWithTheirLine)
{
    EXPECT_EQ(Problem("a = 1\nb = \"x"), "line 2: the quote \" is not closed");
    EXPECT_EQ(Problem("a = \"x\" y"), "line 1: 'y' stands behind the closing quote");
    EXPECT_EQ(Problem("a = x\"y"),
              "line 1: a value with quotes in it has to stand in the other kind of quotes");
    EXPECT_EQ(Problem("a"), "line 1: 'a' is not of the form 'option = value'");
    EXPECT_EQ(Problem("[watch"), "line 1: '[watch' is not a section such as [watch]");
    EXPECT_EQ(Problem("[watch] x"), "line 1: '[watch] x' is not a section such as [watch]");
    EXPECT_EQ(Problem("a = 1\n[fetch]\na = 2\na = 3"),
              "line 4: 'a' stands on line 3 already; several values are separated by ','");
}

TEST(ToolSettings, AFileThatIsNoneIsNotPrintedWhole)
{
    EXPECT_EQ(Problem("\x01" + std::string(1000, 'x')),
              "line 1: '\\x01" + std::string(39, 'x') + "...' is not of the form 'option = value'");
}

TEST(ToolSuggestion, IsTheWordThatIsMostAlike)
{
    const std::vector<std::string> words = {"servers", "user", "output-dir", "version-file"};
    EXPECT_EQ(Suggestion("server", words), "; did you mean 'servers'?");
    EXPECT_EQ(Suggestion("outputdir", words), "; did you mean 'output-dir'?");
    EXPECT_EQ(Suggestion("sue", words), "");
    EXPECT_EQ(Suggestion("uses", words), "; did you mean 'user'?");
    EXPECT_EQ(Suggestion("", words), "");
    EXPECT_EQ(Suggestion("servers", {}), "");
}

}  // namespace
}  // namespace corpdir_tool
