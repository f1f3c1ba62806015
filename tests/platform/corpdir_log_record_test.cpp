// The form of a record.
#include "corpdir_log_fixture.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <random>
#include <regex>
#include <thread>

namespace
{
using log_test::Info;
using log_test::Open;
using log_test::Write;
using testing::ElementsAre;

class LogRecord : public log_test::LogTest
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(Open(Info(Directory())), 0U);
    }
    // The text of a record as the log writes it.
    std::string Written(const std::string& text)
    {
        Write(0, "%s", text.c_str());
        const std::vector<std::string> texts = ClosedTexts();
        EXPECT_EQ(Open(Info(Directory())), 0U);
        return texts.empty() ? "nothing" : texts.back();
    }
};

TEST_F(LogRecord, HasTimeLevelProcessThreadModuleFunctionPlaceAndText)
{
    g_LogOne->WriteLog("ZepCorpDirectory", "CorpDirInit", "src/unit.cpp", 4294967295U, 1,
                       "ftp init fail, ret:%u of %s ", 7U, "two words");
    CorpDir_CloseLog();
    const std::string text = support::ReadFile(File());
    EXPECT_TRUE(std::regex_match(
        text, std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"
                         "[+-][0-9]{2}:[0-9]{2} notice " +
                         std::to_string(getpid()) + "/" + std::to_string(gettid()) +
                         " ZepCorpDirectory CorpDirInit unit\\.cpp:4294967295 "
                         "ftp init fail, ret:7 of two words \n")))
        << text;
}

TEST_F(LogRecord, CarriesTheWordOfItsLevel)
{
    Write(0, "a");
    Write(1, "b");
    Write(2, "c");
    CorpDir_CloseLog();
    std::vector<std::string> words;
    for (const std::string& line : log_test::SplitLines(support::ReadFile(File())))
    {
        const std::string rest = log_test::AfterColumns(line, 1);
        words.push_back(rest.substr(0, rest.find(' ')));
    }
    EXPECT_THAT(words, ElementsAre("error", "notice", "info"));
}

TEST_F(LogRecord, CarriesTheNumberOfItsThread)
{
    pid_t number = 0;
    std::thread(
        [&]
        {
            number = gettid();
            Write(0, "from a thread");
        })
        .join();
    CorpDir_CloseLog();
    const std::string rest = log_test::AfterColumns(support::ReadFile(File()), 2);
    EXPECT_NE(number, getpid());
    EXPECT_EQ(rest, std::to_string(getpid()) + "/" + std::to_string(number) +
                        " mod func file.cpp:7 from a thread\n");
}

TEST_F(LogRecord, NamesItsFileWithoutFolders)
{
    for (const char* const file :
         {"unit.cpp", "src/unit.cpp", "/a/b\n/c d/unit.cpp", "./unit.cpp", "/unit.cpp", "a/"})
    {
        g_LogOne->WriteLog("m", "f", file, 1, 0, "text");
    }
    EXPECT_THAT(ClosedTexts(3),
                ElementsAre("m f unit.cpp:1 text", "m f unit.cpp:1 text", "m f unit.cpp:1 text",
                            "m f unit.cpp:1 text", "m f unit.cpp:1 text", "m f -:1 text"));
}

// In a child, so that the zone of this process stays as it is.
TEST_F(LogRecord, TimeIsThatOfTheCallInTheLocalZone)
{
    CorpDir_CloseLog();
    log_test::Child child(
        [this]
        {
            setenv("TZ", "XYZ-05:30", 1);  // east of Greenwich
            tzset();
            (void)Open(Info(Directory()));
            Write(0, "%ld", static_cast<long>(time(nullptr)));
        });
    ASSERT_EQ(child.Wait(), 0);
    const std::string line = support::ReadFile(File());
    const long written = std::stol(log_test::AfterColumns(line, 6));
    EXPECT_EQ(line.substr(23, 6), "+05:30");
    std::tm parts = {};
    ASSERT_NE(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr);
    const long shown = timegm(&parts) - (5 * 60 + 30) * 60;
    EXPECT_GE(shown, written - 1);
    EXPECT_LE(shown, written + 1);
}

TEST_F(LogRecord, EscapesWhatIsNotPlainText)
{
    struct Case
    {
        const char* text;
        const char* line;
    };
    const Case kCases[] = {
        {"plain ~ text", "plain ~ text"},
        {"", ""},
        {" blanks at the ends ", " blanks at the ends "},
        {"line\nfeed", "line\\nfeed"},
        {"carriage\rreturn", "carriage\\x0dreturn"},
        {"tab\t", "tab\\x09"},
        {"back\\slash", "back\\\\slash"},
        {"\\n", "\\\\n"},
        {"\x01\x1f\x7f", "\\x01\\x1f\\x7f"},
        {"\x1b[31mred", "\\x1b[31mred"},
        {"\nforged", "\\nforged"},
        {"gr\xC3\xBC\xC3\x9F", "gr\xC3\xBC\xC3\x9F"},                // two bytes each
        {"\xE2\x82\xAC \xEF\xBF\xBD", "\xE2\x82\xAC \xEF\xBF\xBD"},  // three
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},                    // four
        {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},                    // U+10FFFF
        {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},                // above it
        {"\xC0\x8A", "\\xc0\\x8a"},                                  // overlong line feed
        {"\xE0\x80\x8A", "\\xe0\\x80\\x8a"},                         // the same in three bytes
        {"\xF0\x80\x80\x8A", "\\xf0\\x80\\x80\\x8a"},                // and in four
        {"\xED\xA0\x80", "\\xed\\xa0\\x80"},                         // a surrogate
        {"\xED\x9F\xBF\xEE\x80\x80", "\xED\x9F\xBF\xEE\x80\x80"},    // its neighbours
        {"\x80", "\\x80"},                                           // a continuation alone
        {"\xC3", "\\xc3"},                                           // cut at the end
        {"\xE2\x82", "\\xe2\\x82"},                                  //
        {"\xD8\x9C", "\\xd8\\x9c"},                                  // U+061C
        {"\xE2\x80\x8B", "\\xe2\\x80\\x8b"},                         // U+200B
        {"\xE2\x80\x8F", "\\xe2\\x80\\x8f"},                         // U+200F
        {"\xE2\x81\xA0", "\\xe2\\x81\\xa0"},                         // U+2060
        {"\xEF\xBB\xBF", "\\xef\\xbb\\xbf"},                         // U+FEFF
        {"\xF3\xA0\x80\x80", "\\xf3\\xa0\\x80\\x80"},                // U+E0000
        {"\xF3\xA0\x81\xBF", "\\xf3\\xa0\\x81\\xbf"},                // U+E007F
        {"\xD8\x9B", "\xD8\x9B"},                                    // U+061B: a neighbour
        {"\xD8\x9D", "\xD8\x9D"},                                    // U+061D: a neighbour
        {"\xE2\x80\x8A", "\xE2\x80\x8A"},                            // U+200A: a neighbour
        {"\xE2\x80\x90", "\xE2\x80\x90"},                            // U+2010: a neighbour
        {"\xE2\x81\x9F", "\xE2\x81\x9F"},                            // U+205F: a neighbour
        {"\xE2\x81\xA5", "\xE2\x81\xA5"},                            // U+2065: a neighbour
        {"\xEF\xBB\xBE", "\xEF\xBB\xBE"},                            // U+FEFE: a neighbour
        {"\xF3\xA0\x82\x80", "\xF3\xA0\x82\x80"},                    // U+E0080: a neighbour
        {"\xF3\x9F\xBF\xBF", "\xF3\x9F\xBF\xBF"},                    // U+DFFFF: a neighbour
        {"\xF0\x9F\x98", "\\xf0\\x9f\\x98"},                         //
        {"\xC3x", "\\xc3x"},                                         // cut in the middle
        {"\xE2\x82x", "\\xe2\\x82x"},                                //
        {"\xC3\n", "\\xc3\\n"},                                      //
        {"\xFE\xFF", "\\xfe\\xff"},                                  //
        {"\xC2\x85next line", "\\xc2\\x85next line"},                // a C1 control
        {"\xC2\x9B"
         "31m",
         "\\xc2\\x9b31m"},         // an escape sequence in one
        {"\xC2\xA0", "\xC2\xA0"},  // behind the C1 controls
        {"a\xE2\x80\xA8"
         "b\xE2\x80\xA9",
         "a\\xe2\\x80\\xa8b\\xe2\\x80\\xa9"},       // separators
        {"\xE2\x80\xAEgpj", "\\xe2\\x80\\xaegpj"},  // right to left from here
        {"\xE2\x81\xA6\xE2\x81\xA9", "\\xe2\\x81\\xa6\\xe2\\x81\\xa9"},
        {"\xE2\x80\xA7\xE2\x80\xAF", "\xE2\x80\xA7\xE2\x80\xAF"},
    };
    for (const Case& c : kCases)
    {
        EXPECT_EQ(Written(c.text), c.line);
    }
}

std::string Unescaped(const std::string& line)
{
    std::string text;
    for (std::size_t index = 0; index < line.size(); ++index)
    {
        if (line[index] != '\\')
        {
            text += line[index];
        }
        else if (line[++index] == 'x')
        {
            text += static_cast<char>(std::stoi(line.substr(index + 1, 2), nullptr, 16));
            index += 2;
        }
        else
        {
            text += line[index] == 'n' ? '\n' : line[index];
        }
    }
    return text;
}

TEST_F(LogRecord, EscapingLosesNothing)
{
    std::mt19937 random(1);  // NOLINT: the same texts in every run
    // Bytes on both sides of a decision, more often than others.
    const std::string edges =
        "\n\\nx0\x1f \x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc2\xe0\xe2\xed\xf0\xf4";
    std::vector<std::string> texts;
    for (int round = 0; round < 5000; ++round)
    {
        std::string text;
        for (auto length = random() % 40; length > 0; --length)
        {
            text += random() % 2 == 0 ? edges[random() % edges.size()]
                                      : static_cast<char>(1 + random() % 255);
        }
        Write(0, "%s", text.c_str());
        texts.push_back(text);
    }
    const std::vector<std::string> lines = ClosedTexts();
    ASSERT_EQ(lines.size(), texts.size());
    for (std::size_t index = 0; index < lines.size(); ++index)
    {
        EXPECT_EQ(Unescaped(lines[index]), texts[index]);
    }
}

TEST_F(LogRecord, EscapesTheOtherColumnsBlanksIncluded)
{
    g_LogOne->WriteLog("a module", "operator bool", "my f\n.cpp", 1, 0, "text");
    g_LogOne->WriteLog("gr\xC3\xBCn", "~x", "\xFF", 0, 0, "text");
    EXPECT_THAT(ClosedTexts(3), ElementsAre("a\\x20module operator\\x20bool my\\x20f\\n.cpp:1 text",
                                            "gr\xC3\xBCn ~x \\xff:0 text"));
}

TEST_F(LogRecord, EmptyAndNullColumnsKeepTheirPlace)
{
    g_LogOne->WriteLog(nullptr, nullptr, nullptr, 0, 0, "null");
    g_LogOne->WriteLog("", "", "", 0, 0, "empty");
    EXPECT_THAT(ClosedTexts(3), ElementsAre("- - -:0 null", "- - -:0 empty"));
}

TEST_F(LogRecord, IsWrittenWholeAtAnyLength)
{
    std::vector<std::size_t> lengths{0, 1, 65536, 1048576, 20971520};
    for (std::size_t length = 1015; length <= 1035; ++length)
    {
        lengths.push_back(length);  // around the end of the buffer on the stack
    }
    for (const std::size_t length : lengths)
    {
        const std::string text(length, 'x');
        EXPECT_TRUE(Written(text) == text) << length;
    }
}

TEST_F(LogRecord, IsWrittenWholeWhenEveryByteIsEscaped)
{
    std::string line;
    for (int count = 0; count < 100000; ++count)
    {
        line += "\\x01";
    }
    EXPECT_TRUE(Written(std::string(100000, '\x01')) == line);
}

TEST_F(LogRecord, TakesEveryKindOfArgument)
{
    Write(0, "%d %u %x %5.2f %c %% %lld %zu %p", -1, 4294967295U, 255U, 3.14159, 'c', -5000000000LL,
          std::size_t{7}, static_cast<void*>(nullptr));
    EXPECT_THAT(ClosedTexts(), ElementsAre("-1 4294967295 ff  3.14 c % -5000000000 7 (nil)"));
}

TEST_F(LogRecord, ATextThatCannotBeFormattedShowsItsFormat)
{
    const wchar_t invalid[] = {0x110000, 0};
    Write(0, "%ls", invalid);
    Write(0, nullptr);
    EXPECT_THAT(ClosedTexts(), ElementsAre("Cannot be formatted: %ls", "(null)"));
}

TEST_F(LogRecord, KeepsErrno)
{
    errno = ENOTTY;
    Write(0, "%s", std::string(100000, 'x').c_str());
    EXPECT_EQ(errno, ENOTTY);
    errno = ENOTTY;
    Write(0, "%m");
    EXPECT_EQ(ClosedTexts().back(), "Inappropriate ioctl for device");
}

TEST_F(LogRecord, IsWrittenUpToTheLevelOfTheLog)
{
    for (unsigned int opened = 0; opened <= 4; ++opened)
    {
        ASSERT_EQ(Open(Info(Directory(), opened)), 0U);
        for (const unsigned int level : {0U, 1U, 2U, 3U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU})
        {
            Write(level, "opened %u, record %u", opened, level);
        }
    }
    EXPECT_THAT(ClosedTexts(),
                ElementsAre("opened 0, record 0",                                              //
                            "opened 1, record 0", "opened 1, record 1",                        //
                            "opened 2, record 0", "opened 2, record 1", "opened 2, record 2",  //
                            "opened 3, record 0", "opened 3, record 1", "opened 3, record 2",
                            "opened 4, record 0", "opened 4, record 1", "opened 4, record 2"));
}

TEST_F(LogRecord, IsNotWrittenInAnotherLogMode)
{
    Write(0, "before");
    g_LogMode = 1;
    Write(0, "silenced");
    g_LogMode = 0;
    Write(0, "after");
    EXPECT_THAT(ClosedTexts(), ElementsAre("before", "after"));
}

std::vector<std::string> g_printed;

void Print(const char* text)
{
    g_printed.emplace_back(text);
}

TEST_F(LogRecord, TraceLogsEntryAndExit)
{
    {
        const FunctionTrace trace(&g_LogOne, "module", "Traced", "t.cpp", 12, nullptr, g_LogMode,
                                  "module2");
        Write(2, "within");
    }
    {
        const FunctionTrace trace(&g_LogOne, "module", "Other", "t.cpp", 13, nullptr, 0, nullptr);
    }
    EXPECT_THAT(ClosedTexts(3),
                ElementsAre("module2 Traced t.cpp:12 Enter", "mod func file.cpp:7 within",
                            "module2 Traced t.cpp:12 Leave", "module Other t.cpp:13 Enter",
                            "module Other t.cpp:13 Leave"));
}

TEST_F(LogRecord, TraceHasLevelTwo)
{
    ASSERT_EQ(Open(Info(Directory(), 1)), 0U);
    {
        const FunctionTrace trace(&g_LogOne, "m", "f", "t.cpp", 1, nullptr, 0, "m");
    }
    EXPECT_THAT(ClosedTexts(3), ElementsAre());
}

TEST_F(LogRecord, TracePrintsWhenAsked)
{
    g_printed.clear();
    {
        const FunctionTrace trace(&g_LogOne, "m", "f", "t.cpp", 1, Print, 0, "m");
    }
    EXPECT_THAT(g_printed, ElementsAre("Enter", "Leave"));
    EXPECT_EQ(ClosedTexts(3).size(), 2U);
}

TEST_F(LogRecord, TraceIsSilencedByItsLogMode)
{
    g_printed.clear();
    {
        const FunctionTrace trace(&g_LogOne, "m", "f", "t.cpp", 1, Print, 1, "m");
    }
    EXPECT_THAT(g_printed, ElementsAre());
    EXPECT_THAT(ClosedTexts(3), ElementsAre());
}

TEST_F(LogRecord, TraceReadsThePointerAtEachEnd)
{
    CCorpDirLog* log = nullptr;
    {
        const FunctionTrace trace(&log, "m", "Start", "t.cpp", 1, nullptr, 0, "m");
        log = g_LogOne;  // the log was opened in between
    }
    {
        const FunctionTrace trace(&log, "m", "Stop", "t.cpp", 2, nullptr, 0, "m");
        log = nullptr;
    }
    {
        const FunctionTrace trace(nullptr, "m", "None", "t.cpp", 3, nullptr, 0, "m");
    }
    EXPECT_THAT(ClosedTexts(3), ElementsAre("m Start t.cpp:1 Leave", "m Stop t.cpp:2 Enter"));
}

TEST_F(LogRecord, TraceAcrossTheClosingWritesItsEntryOnly)
{
    {
        const FunctionTrace trace(&g_LogOne, "m", "f", "t.cpp", 1, nullptr, 0, "m");
        CorpDir_CloseLog();
    }
    EXPECT_THAT(ClosedTexts(3), ElementsAre("m f t.cpp:1 Enter"));
}

}  // namespace
