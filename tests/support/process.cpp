#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <stdexcept>

#include "files.h"

namespace support
{
namespace
{

constexpr int kNoSuchProgram = 127;

std::vector<std::string> MergedEnvironment(const Command& command)
{
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry)
    {
        const std::string text(*entry);
        const auto equals = text.find('=');
        merged[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : command.environment)
    {
        merged[name] = value;
    }
    std::vector<std::string> texts;
    texts.reserve(merged.size());
    for (const auto& [name, value] : merged)
    {
        texts.push_back(name + "=" + value);
    }
    return texts;
}

std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Runs between fork and exec in a process that may have had threads: system calls only.
[[noreturn]] void RunChild(int input, int output, char* const* arguments, char* const* environment)
{
    (void)setpgid(0, 0);
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    if (dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
        dup2(output, STDERR_FILENO) >= 0)
    {
        execvpe(arguments[0], arguments, environment);
    }
    _exit(kNoSuchProgram);
}

int OpenOutput(const std::string& path)
{
    const char* name = path.empty() ? "/dev/null" : path.c_str();
    const int file = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0)
    {
        throw std::runtime_error("cannot write " + path);
    }
    return file;
}

}  // namespace

Process::Process(const Command& command)
{
    std::vector<std::string> arguments = command.arguments;
    std::vector<std::string> environment = MergedEnvironment(command);
    const std::vector<char*> argument_pointers = Pointers(arguments);
    const std::vector<char*> environment_pointers = Pointers(environment);
    const int output = OpenOutput(command.output_file);
    // A socket, not a pipe: writing to a child that is gone must not raise SIGPIPE here.
    int input[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0)
    {
        close(output);
        throw std::runtime_error("no socket pair");
    }
    m_id = fork();
    if (m_id == 0)
    {
        RunChild(input[0], output, argument_pointers.data(), environment_pointers.data());
    }
    close(input[0]);
    close(output);
    m_input = input[1];
    if (m_id < 0)
    {
        CloseInput();
        throw std::runtime_error("no process for " + arguments[0]);
    }
    // Both sides set it: whichever runs first, Stop finds the group.
    (void)setpgid(m_id, m_id);
}

Process::~Process()
{
    Stop();
}

pid_t Process::Id() const
{
    return m_id;
}

bool Process::Write(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size())
    {
        const ssize_t count = send(m_input, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (count <= 0)
        {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

void Process::CloseInput()
{
    if (m_input >= 0)
    {
        close(m_input);
        m_input = -1;
    }
}

void Process::Signal(int number)
{
    if (!Poll())
    {
        (void)kill(m_id, number);
    }
}

std::optional<int> Process::Poll()
{
    int status = 0;
    if (!m_status && waitpid(m_id, &status, WNOHANG) == m_id)
    {
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_status;
}

std::optional<int> Process::Wait(std::chrono::milliseconds limit)
{
    (void)WaitUntil([this] { return Poll().has_value(); }, limit);
    return m_status;
}

void Process::Stop()
{
    CloseInput();
    // The whole group, while its leader is not yet reaped and its number therefore still ours: a
    // server's sessions would outlive it.
    if (!Poll())
    {
        (void)kill(-m_id, SIGTERM);
    }
    if (!Wait(std::chrono::seconds(5)))
    {
        (void)kill(-m_id, SIGKILL);
        (void)Wait(std::chrono::seconds(5));
    }
}

CommandResult RunCommand(const Command& command, const std::string& input,
                         std::chrono::milliseconds limit)
{
    TemporaryDirectory directory;
    Command with_output = command;
    with_output.output_file = directory.File("output");
    Process process(with_output);
    (void)process.Write(input);  // a command may end without reading it
    process.CloseInput();
    const std::optional<int> status = process.Wait(limit);
    process.Stop();
    return {status.value_or(-1), ReadFile(with_output.output_file)};
}

}  // namespace support
