// The password prompt on a pseudo terminal: no echo during the prompt, echo after it.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "exit_error.h"
#include "os/password.h"

namespace corpdir_tool
{
namespace
{

constexpr int kLimitMs = 20000;
constexpr int kAsTyped = 7;  // exit statuses of the child

// A child process that prompts on a pseudo terminal, and the other side of the terminal.
class Prompting
{
public:
    Prompting()
    {
        m_child = forkpty(&m_terminal, nullptr, nullptr, nullptr);
        if (m_child == 0)
        {
            Prompt();
        }
    }
    ~Prompting()
    {
        if (m_child > 0)
        {
            (void)kill(m_child, SIGKILL);
            (void)waitpid(m_child, nullptr, 0);
        }
        (void)close(m_terminal);
    }
    Prompting(const Prompting&) = delete;
    Prompting& operator=(const Prompting&) = delete;

    // Reads the output until it has the text.
    bool WaitFor(const std::string& text)
    {
        while (m_screen.find(text) == std::string::npos)
        {
            pollfd wait = {m_terminal, POLLIN, 0};
            char piece[256];
            const ssize_t got =
                poll(&wait, 1, kLimitMs) == 1 ? read(m_terminal, piece, sizeof piece) : 0;
            if (got <= 0)
            {
                return false;
            }
            m_screen.append(piece, static_cast<std::size_t>(got));
        }
        return true;
    }

    void Type(const std::string& keys) const
    {
        EXPECT_EQ(write(m_terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    bool Echoes() const
    {
        termios mode = {};
        EXPECT_EQ(tcgetattr(m_terminal, &mode), 0);
        return (mode.c_lflag & ECHO) != 0;
    }

    // The status of waitpid.
    int End()
    {
        int status = -1;
        EXPECT_EQ(waitpid(m_child, &status, 0), m_child);
        m_child = -1;
        return status;
    }

    const std::string& Screen() const
    {
        return m_screen;
    }

private:
    [[noreturn]] static void Prompt()
    {
        int status = 0;
        try
        {
            Secret password;
            (void)unsetenv(kPasswordVariable);
            ReadPassword("", password);
            status = password.View() == "se cret" ? kAsTyped : 0;
        }
        catch (const ExitError& error)
        {
            status = error.Status();
        }
        _exit(status);
    }

    int m_terminal = -1;
    pid_t m_child = -1;
    std::string m_screen;
};

TEST(ToolPrompt, TakesALineWithoutShowingIt)
{
    Prompting prompting;
    ASSERT_TRUE(prompting.WaitFor("Password: "));
    EXPECT_FALSE(prompting.Echoes());
    prompting.Type("se cret\n");
    EXPECT_TRUE(prompting.WaitFor("\n"));
    const int status = prompting.End();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), kAsTyped);
    EXPECT_EQ(prompting.Screen(), "Password: \r\n");
    EXPECT_TRUE(prompting.Echoes());
}

TEST(ToolPrompt, AnInterruptGivesTheEchoBack)
{
    Prompting prompting;
    ASSERT_TRUE(prompting.WaitFor("Password: "));
    prompting.Type("se\x03");
    const int status = prompting.End();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGINT);
    EXPECT_TRUE(prompting.Echoes());
}

TEST(ToolPrompt, AnEmptyLineIsRefused)
{
    Prompting prompting;
    ASSERT_TRUE(prompting.WaitFor("Password: "));
    prompting.Type("\n");
    const int status = prompting.End();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), kExitArguments);
}

// The prompt uses the terminal, not standard input; a new session has no terminal.
TEST(ToolPrompt, WithoutATerminalTheSourcesAreNamed)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
        std::string message;
        try
        {
            Secret password;
            (void)setsid();
            (void)unsetenv(kPasswordVariable);
            ReadPassword("", password);
        }
        catch (const ExitError& error)
        {
            message = error.what();
        }
        _exit(message ==
                      "no password: give --password-file, set CORPDIR_PASSWORD, or start the "
                      "program on a terminal"
                  ? kAsTyped
                  : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), kAsTyped);
}

}  // namespace
}  // namespace corpdir_tool
