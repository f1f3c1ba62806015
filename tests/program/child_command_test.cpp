// Commands with a time limit: who is ended, when, and how it is reported.
#include "os/child_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <future>

#include "parts_support.h"

namespace corpdir_tool
{
namespace
{

using std::chrono::milliseconds;

constexpr milliseconds kShort{50};
constexpr milliseconds kLong{3600000};

struct Ended
{
    int status = -1;
    bool timedOut = false;
};

class ToolChildCommand : public ::testing::Test
{
protected:
    // Runs the command to its end. It finds the folder in FOLDER.
    Ended Run(ChildCommand& command, const std::string& text, ChildCommand::Limit limit)
    {
        m_status = {};
        EXPECT_EQ(command.Start(text, {{"FOLDER", m_folder.Path()}}, limit), 0);
        const int status = m_status.get_future().get();
        command.Ended();
        return {status, command.TimedOut()};
    }
    Ended Run(const std::string& text, ChildCommand::Limit limit, milliseconds patience = kLong)
    {
        const auto command = Make(patience);
        return Run(*command, text, limit);
    }

    std::unique_ptr<ChildCommand> Make(milliseconds patience = kLong)
    {
        return std::make_unique<ChildCommand>(
            m_null.Number(), [this](int status) { m_status.set_value(status); }, patience);
    }

    // Whether the process whose number the command wrote there ends.
    bool Ends(const std::string& name) const
    {
        pid_t process = 0;
        std::ifstream(m_folder.Path() + "/" + name) >> process;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (process > 0 && IsRunning(process))
        {
            if (std::chrono::steady_clock::now() > deadline)
            {
                (void)kill(process, SIGKILL);
                return false;
            }
            std::this_thread::sleep_for(milliseconds(10));
        }
        return process > 0;
    }

    const TemporaryDirectory m_folder;
    const base::Descriptor m_null{open("/dev/null", O_WRONLY | O_CLOEXEC)};

private:
    // A zombie, which the container's first process may leave, does not run.
    static bool IsRunning(pid_t process)
    {
        std::string text;
        std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), text);
        return !text.empty() && text.find(") Z ") == std::string::npos;
    }

    std::promise<int> m_status;
};

TEST_F(ToolChildCommand, WithinItsLimitItEndsByItself)
{
    for (const ChildCommand::Limit limit : {ChildCommand::Limit(kLong), ChildCommand::Limit()})
    {
        const Ended end = Run("exit 7", limit);
        EXPECT_EQ(end.status, 7);
        EXPECT_FALSE(end.timedOut);
    }
}

TEST_F(ToolChildCommand, AtItsLimitItGetsSigterm)
{
    const Ended end = Run("exec sleep 3600", kShort);
    EXPECT_EQ(end.status, 128 + SIGTERM);
    EXPECT_TRUE(end.timedOut);
}

TEST_F(ToolChildCommand, ItMayCleanUpAfterSigterm)
{
    const Ended end = Run("trap 'exit 9' TERM; while :; do sleep 0.01; done", kShort);
    EXPECT_EQ(end.status, 9);
    EXPECT_TRUE(end.timedOut);
}

TEST_F(ToolChildCommand, OneThatIgnoresSigtermIsKilled)
{
    const Ended end = Run("trap '' TERM; sleep 3600", kShort, kShort);
    EXPECT_EQ(end.status, 128 + SIGKILL);
    EXPECT_TRUE(end.timedOut);
}

// The shell ends at SIGTERM; the command that it waits for does not.
TEST_F(ToolChildCommand, ItsGroupEndsWithIt)
{
    EXPECT_TRUE(
        Run("(trap '' TERM; exec sleep 3600) & echo $! >$FOLDER/child; wait", milliseconds(500))
            .timedOut);
    EXPECT_TRUE(Ends("child"));
}

TEST_F(ToolChildCommand, TheNextRunHasItsOwnLimit)
{
    const auto command = Make();
    EXPECT_TRUE(Run(*command, "exec sleep 3600", milliseconds(500)).timedOut);
    const Ended end = Run(*command, "exit 3", kLong);
    EXPECT_EQ(end.status, 3);
    EXPECT_FALSE(end.timedOut);
}

TEST_F(ToolChildCommand, TheEndOfTheProgramEndsIt)
{
    {
        const auto command = Make();
        ASSERT_EQ(
            command->Start(
                "trap '' TERM; echo $$ >$FOLDER/new; mv $FOLDER/new $FOLDER/child; sleep 3600",
                {{"FOLDER", m_folder.Path()}}),
            0);
        while (access((m_folder.Path() + "/child").c_str(), F_OK) != 0)
        {
            std::this_thread::sleep_for(milliseconds(5));
        }
    }
    EXPECT_TRUE(Ends("child"));
}

}  // namespace
}  // namespace corpdir_tool
