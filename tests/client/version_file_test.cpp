#include "version_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "files.h"

namespace client
{
namespace
{

struct Case
{
    std::string bytes;
    const char* version;  // null: not valid
    const char* warning;  // its beginning
};

TEST(VersionFile, IsReadByTheRuleOfTheService)
{
    const std::string thirty(30, 'v');
    const Case cases[] = {
        {"1.2.3", "1.2.3", ""},
        {"1.2.3\nmore", "1.2.3", ""},
        {"1.23\n", nullptr, ""},
        {"", nullptr, ""},
        {"\n1.2.3", nullptr, ""},
        {thirty + "\n", thirty.c_str(), ""},
        {thirty + "w\n", thirty.c_str(), "the version line has 31 bytes"},
        {"1.2.3\r\n", "1.2.3\r", "the version ends with a carriage return"},
        {" 1.2 \n", " 1.2 ", ""},
        {"\xEF\xBB\xBF"
         "12\n",
         "\xEF\xBB\xBF"
         "12",
         "the version begins with a UTF-8"},
        {"1.2\r.3\n", "1.2\r.3", "the version contains a carriage return"},
        {std::string("1.2.3\0a\n", 8), "1.2.3", "the version line has 7 bytes; only the first 5"},
        {std::string("1.2\0.3\n", 7), nullptr, ""},
    };
    for (const Case& one : cases)
    {
        SCOPED_TRACE(one.bytes);
        const VersionFile file = ParseVersion(one.bytes);
        EXPECT_EQ(one.bytes, file.bytes);
        EXPECT_EQ(one.version != nullptr, file.version.has_value());
        EXPECT_EQ(one.version != nullptr ? one.version : "", file.version.value_or(""));
        EXPECT_EQ(file.version.has_value(), file.problem.empty());
        EXPECT_EQ(one.warning, file.warning.substr(0, std::string(one.warning).size()));
        EXPECT_EQ(*one.warning == '\0', file.warning.empty());
    }
}

TEST(VersionFile, SaysAllThatIsUnusual)
{
    EXPECT_EQ(
        "the version begins with a UTF-8 byte-order mark, which is compared too; "
        "the version line has 33 bytes; only the first 30 are compared",
        ParseVersion("\xEF\xBB\xBF" + std::string(30, 'v') + "\n").warning);
}

TEST(VersionFile, NamesTheEncodingOfUtf16)
{
    for (const std::string& bytes : {std::string("\xFF\xFE"
                                                 "1\0.\0",
                                                 6),
                                     std::string("\xFE\xFF\0"
                                                 "1\0.",
                                                 6),
                                     std::string("1\0.\0", 4),
                                     std::string("\0"
                                                 "1\0.",
                                                 4)})
    {
        EXPECT_EQ("it is UTF-16 text; store it as ASCII or UTF-8", ParseVersion(bytes).problem);
    }
}

TEST(VersionFile, SaysWhatIsMissing)
{
    EXPECT_EQ("it is empty", ParseVersion("").problem);
    EXPECT_EQ("its first line is empty", ParseVersion("\n1.2.3").problem);
    EXPECT_EQ("its first line '1.23' is shorter than 5 bytes", ParseVersion("1.23\n").problem);
}

TEST(VersionFile, FileThatCannotBeReadIsNotValid)
{
    const support::TemporaryDirectory folder;
    EXPECT_EQ("cannot be opened: No such file or directory",
              ReadVersionFile(folder.File("none")).problem);
    EXPECT_EQ(ENOENT, ReadVersionFile(folder.File("none")).error);
    EXPECT_EQ("cannot be read: Is a directory", ReadVersionFile(folder.Path()).problem);
    EXPECT_EQ(EISDIR, ReadVersionFile(folder.Path()).error);
    support::WriteFile(folder.File("large"), std::string((1U << 20U) + 1, 'v'));
    EXPECT_EQ("it is larger than 1 MiB", ReadVersionFile(folder.File("large")).problem);
    EXPECT_EQ(0, ReadVersionFile(folder.File("large")).error);
    support::WriteFile(folder.File("most"), std::string(1U << 20U, 'v'));
    EXPECT_TRUE(ReadVersionFile(folder.File("most")).version.has_value());
}

}  // namespace
}  // namespace client
