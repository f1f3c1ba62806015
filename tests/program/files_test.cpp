// The sources of the password, and the report.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "commands/client_settings.h"
#include "os/output_files.h"
#include "os/password.h"
#include "parts_support.h"
#include "text.h"
#include "travex_ftp.h"
#include "ui/report.h"

namespace corpdir_tool
{
namespace
{

using testing::HasSubstr;

TEST(ToolOutputFiles, OnlyOurOwnTemporaryFilesAreRemoved)
{
    const TemporaryDirectory directory;
    const std::string ours = directory.Write(".travex_ftp-0123456789abcdef.part", "half");
    const std::string anothers = directory.Write(".travex_ftp-fedcba9876543210.part", "half");
    const std::string users = directory.Write("directory.csv.part", "whole");
    const int temporary = open(ours.c_str(), O_WRONLY | O_CLOEXEC);
    const int file = open(users.c_str(), O_WRONLY | O_CLOEXEC);
    RemoveTemporaryFiles();
    EXPECT_FALSE(std::filesystem::exists(ours));
    EXPECT_TRUE(std::filesystem::exists(anothers));
    EXPECT_TRUE(std::filesystem::exists(users));
    (void)close(temporary);
    (void)close(file);
}

std::string PasswordFrom(const std::string& text)
{
    const TemporaryDirectory directory;
    Secret password;
    ReadPassword(directory.Write("password", text), password);
    return std::string(password.View());
}

TEST(ToolPassword, OneNewlineIsRemoved)
{
    EXPECT_EQ(PasswordFrom("secret"), "secret");
    EXPECT_EQ(PasswordFrom("secret\n"), "secret");
    EXPECT_EQ(PasswordFrom("secret\r\n"), "secret");
    EXPECT_EQ(PasswordFrom(" secret \n"), " secret ");
}

TEST(ToolPassword, OtherControlBytesAreRefused)
{
    for (const char* text : {"secret\n\n", "sec\nret", "secret\r", "sec\tret", "secret\x7f"})
    {
        const Thrown thrown = ExitErrorOf([text] { PasswordFrom(text); });
        EXPECT_EQ(thrown.status, kExitArguments);
        EXPECT_THAT(thrown.message, HasSubstr("contains a control byte"));
    }
    EXPECT_THAT(ExitErrorOf([] { PasswordFrom(std::string("a\0b", 3)); }).message,
                HasSubstr("contains a control byte"));
}

TEST(ToolPassword, ItIsNotEmpty)
{
    EXPECT_THAT(ExitErrorOf([] { PasswordFrom(""); }).message, HasSubstr("is empty"));
    EXPECT_THAT(ExitErrorOf([] { PasswordFrom("\n"); }).message, HasSubstr("is empty"));
    EXPECT_EQ(ExitErrorOf([] { PasswordFrom("\r\n"); }).status, kExitArguments);
}

TEST(ToolPassword, ItHasAtMost127Bytes)
{
    const std::string longest(127, 'p');
    EXPECT_EQ(PasswordFrom(longest + "\n"), longest);
    EXPECT_THAT(ExitErrorOf([&longest] { PasswordFrom(longest + "p"); }).message,
                HasSubstr("is 128 bytes long; at most 127 are allowed"));
    EXPECT_THAT(ExitErrorOf([] { PasswordFrom(std::string(5000, 'p')); }).message,
                HasSubstr("is over 4096 bytes long; at most 127 are allowed"));
}

TEST(ToolPassword, TheMessageNeverHoldsIt)
{
    const Thrown thrown = ExitErrorOf([] { PasswordFrom("hunter2\n\n"); });
    EXPECT_THAT(thrown.message, testing::Not(HasSubstr("hunter2")));
}

TEST(ToolPassword, AFileThatCannotBeReadIsNamed)
{
    Secret password;
    const Thrown thrown = ExitErrorOf([&password] { ReadPassword("/nonexistent/p", password); });
    EXPECT_EQ(thrown.status, kExitArguments);
    EXPECT_EQ(thrown.message,
              "cannot read the password from '/nonexistent/p': No such file or directory");
    EXPECT_THAT(ExitErrorOf([&password] { ReadPassword("/tmp", password); }).message,
                HasSubstr("Is a directory"));
}

TEST(ToolPassword, TheVariableIsTakenAndRemoved)
{
    ASSERT_EQ(setenv(kPasswordVariable, "from the variable", 1), 0);
    const char* const bytes = getenv(kPasswordVariable);
    Secret password;
    ReadPassword("", password);
    EXPECT_EQ(password.View(), "from the variable");
    EXPECT_EQ(getenv(kPasswordVariable), nullptr);
    EXPECT_EQ(*bytes, '\0') << "the variable's bytes are still readable in /proc";
}

TEST(ToolPassword, AVariableMustFit)
{
    ASSERT_EQ(setenv(kPasswordVariable, std::string(5000, 'p').c_str(), 1), 0);
    Secret password;
    EXPECT_THAT(ExitErrorOf([&password] { ReadPassword("", password); }).message,
                HasSubstr("CORPDIR_PASSWORD is 5000 bytes long; at most 127 are allowed"));
    ASSERT_EQ(setenv(kPasswordVariable, "", 1), 0);
    password.Wipe();
    EXPECT_EQ(ExitErrorOf([&password] { ReadPassword("", password); }).message,
              "the password from CORPDIR_PASSWORD is empty; unset it, or give --password-file");
}

TEST(ToolPassword, TheFileGoesBeforeTheVariable)
{
    ASSERT_EQ(setenv(kPasswordVariable, "variable", 1), 0);
    EXPECT_EQ(PasswordFrom("file"), "file");
    ASSERT_EQ(unsetenv(kPasswordVariable), 0);
}

// Standard input replaced by a file for the lifetime.
class StandardInput
{
public:
    explicit StandardInput(const std::string& path) : m_saved(dup(STDIN_FILENO))
    {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        (void)dup2(file, STDIN_FILENO);
        (void)close(file);
    }
    ~StandardInput()
    {
        (void)dup2(m_saved, STDIN_FILENO);
        (void)close(m_saved);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

private:
    int m_saved;
};

TEST(ToolPassword, ADashIsStandardInput)
{
    const TemporaryDirectory directory;
    const StandardInput input(directory.Write("input", "from a pipe\n"));
    Secret password;
    ReadPassword("-", password);
    EXPECT_EQ(password.View(), "from a pipe");
    password.Wipe();
    EXPECT_EQ(ExitErrorOf([&password] { ReadPassword("-", password); }).message,
              "the password from standard input is empty");
}

std::string Given(PasswordSource& source, bool again)
{
    Secret password;
    source.Get(password, again);
    return std::string(password.View());
}

TEST(ToolPassword, AFileIsReadAgain)
{
    const TemporaryDirectory directory;
    const std::string path = directory.Write("password", "old\n");
    PasswordSource source(path);
    directory.Write("password", "new\n");
    EXPECT_EQ(Given(source, false), "old");
    EXPECT_EQ(Given(source, true), "new");
    directory.Write("password", "newer\n");
    PasswordSource reloaded(path, source);
    EXPECT_EQ(Given(reloaded, false), "newer");
    directory.Write("password", "");
    EXPECT_EQ(Given(reloaded, true), "newer") << "it may be replaced at this moment";
    EXPECT_EQ(ExitErrorOf([&] { PasswordSource(path, source); }).status, kExitArguments);
    PasswordSource kept("-", reloaded);
    EXPECT_EQ(Given(kept, true), "newer");
}

// Waiting for a writer would last forever.
TEST(ToolPassword, AFifoIsReadOnce)
{
    const TemporaryDirectory directory;
    const std::string path = directory.Path() + "/fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer(
        [&path]
        {
            const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
            EXPECT_EQ(write(file, "secret\n", 7), 7);
            (void)close(file);
        });
    PasswordSource source(path);
    writer.join();
    EXPECT_EQ(Given(source, true), "secret");
    PasswordSource reloaded(path, source);
    EXPECT_EQ(Given(reloaded, true), "secret");
}

TEST(ToolSecret, WipesWhatItHeld)
{
    Secret secret;
    ASSERT_TRUE(secret.Append('a'));
    const char* const bytes = secret.View().data();
    secret.Wipe();
    EXPECT_EQ(*bytes, '\0');
    EXPECT_TRUE(secret.View().empty());
}

TEST(ToolText, ControlBytesAreMadeVisible)
{
    EXPECT_EQ(Printable("a\tb\x1b[2J\x7f"), "a\\x09b\\x1b[2J\\x7f");
    EXPECT_EQ(Printable("\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80");
}

TEST(ToolText, WhatSteersATerminalInOtherBytesIsMadeVisible)
{
    EXPECT_EQ(Printable("a\xc2\x9b"
                        "31m"),
              "a\\xc2\\x9b31m")
        << "CSI in one character";
    EXPECT_EQ(Printable("\xe2\x80\xae"
                        "csv"),
              "\\xe2\\x80\\xaecsv")
        << "right to left";
    EXPECT_EQ(Printable("\x9b"
                        "31m\xff"),
              "\\x9b31m\\xff")
        << "not UTF-8";
    EXPECT_EQ(Printable("\xc0\xaf"), "\\xc0\\xaf") << "longer than needed";
    EXPECT_EQ(Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "a surrogate";
    EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond Unicode";
    EXPECT_EQ(Printable("\xe2\x82"), "\\xe2\\x82") << "cut off";
}

class ToolReport : public testing::Test
{
protected:
    Report Make(bool quiet, bool progress)
    {
        return Report({quiet, progress}, m_terminal);
    }

    TextStream m_messages;
    Terminal m_terminal{m_messages.Get(), 0, false};
};

TEST_F(ToolReport, TheResultHasTwoLines)
{
    PrintResult("1.2.3\r", "out/directory.csv", 48, m_messages.Get());
    EXPECT_EQ(m_messages.Text(), "version: 1.2.3\\x0d\ndirectory: out/directory.csv (48 bytes)\n");
}

TEST_F(ToolReport, MessagesHaveOneLineEach)
{
    Report report = Make(false, false);
    report.ServerFailed("192.0.2.1 (dir.example)", "refused\n\x1b[2J", "trying next server");
    report.ServerFailed("192.0.2.2", "refused", "");
    report.Error("no server left");
    report.Hint("see to it");
    EXPECT_EQ(m_messages.Text(),
              "192.0.2.1 (dir.example): refused\\x0a\\x1b[2J; trying next server\n"
              "192.0.2.2: refused\n"
              "corpdir: no server left\n"
              "hint: see to it\n");
}

TEST_F(ToolReport, QuietKeepsErrorsOnly)
{
    m_terminal = Terminal(m_messages.Get(), 80, false);
    Report report = Make(true, true);
    report.Progress("directory", 1, 2);
    report.Hint("see to it");
    report.ServerFailed("192.0.2.2", "refused", "");
    EXPECT_EQ(m_messages.Text(), "192.0.2.2: refused\n");
}

TEST_F(ToolReport, ColoursMarkWhatIsBadAndNeverWhatTheServerSays)
{
    m_terminal = Terminal(m_messages.Get(), 80, true);
    Report report = Make(false, false);
    report.ServerFailed("192.0.2.2", "\033[32mfine", "");
    report.Error("no server left");
    EXPECT_EQ(m_messages.Text(),
              "\033[33m192.0.2.2:\033[0m \\x1b[32mfine\n"
              "\033[31mcorpdir:\033[0m no server left\n");
}

TEST_F(ToolReport, AMessageTakesThePlaceOfTheProgress)
{
    m_terminal = Terminal(m_messages.Get(), 40, false);
    {
        Report report = Make(false, true);
        report.Progress("file", 50, 200);
        report.Error("stopped");
        report.Progress("file", 200, 200);
    }
    EXPECT_EQ(m_messages.Text(),
              "\r\033[K\033[Jfile [======>                    ]  25%"
              "\r\033[K\033[Jcorpdir: stopped\n"
              "\r\033[K\033[Jfile [===========================] 100%"
              "\r\033[K\033[J");
}

TEST(ToolAmount, StaysWithinItsBounds)
{
    EXPECT_EQ(Amount(0, 0), "0 of 0 bytes (100%)");
    EXPECT_EQ(Amount(300, 200), "300 of 200 bytes (100%)");
    EXPECT_EQ(Amount(1ULL << 62, 1ULL << 63),
              "4611686018427387904 of 9223372036854775808 bytes (50%)");
}

}  // namespace
}  // namespace corpdir_tool
