#include "os/child_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace corpdir_tool
{

namespace
{

// Time for a command to end after SIGTERM when the program ends.
constexpr std::chrono::milliseconds kStopPatience{300};

// The program's environment with the variables added. An inherited variable of the same name is
// left out: shells differ in which of two they use.
std::vector<std::string> EnvironmentWith(const Variables& variables)
{
    std::vector<std::string> all;
    for (char** inherited = environ; *inherited != nullptr; ++inherited)
    {
        const std::string text = *inherited;
        const std::string name = text.substr(0, text.find('='));
        if (std::none_of(variables.begin(), variables.end(),
                         [&name](const auto& variable) { return variable.first == name; }))
        {
            all.push_back(text);
        }
    }
    for (const auto& [name, value] : variables)
    {
        std::string text = name;
        text += '=';
        text += value;
        all.push_back(std::move(text));
    }
    return all;
}

std::vector<char*> PointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Settings of posix_spawn; frees them.
struct SpawnSettings
{
    explicit SpawnSettings(int output)
    {
        sigset_t none;
        sigset_t ordinary;
        (void)sigemptyset(&none);
        (void)sigfillset(&ordinary);
        (void)posix_spawnattr_init(&attributes);
        (void)posix_spawn_file_actions_init(&files);
        // The program blocks signals and ignores SIGPIPE; the command must inherit neither.
        (void)posix_spawnattr_setsigmask(&attributes, &none);
        (void)posix_spawnattr_setsigdefault(&attributes, &ordinary);
        (void)posix_spawnattr_setpgroup(&attributes, 0);
        (void)posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        (void)posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        (void)posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
        (void)posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
        // Libraries may have opened descriptors without the close-on-exec flag.
        (void)posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    }
    ~SpawnSettings()
    {
        (void)posix_spawn_file_actions_destroy(&files);
        (void)posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;
};

// As a shell reports it: 128 plus the signal's number for a command that a signal ended.
int StatusOf(const siginfo_t& end)
{
    return end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
}

// Readable when the process has ended; none, and errno set, on failure.
base::Descriptor EndOf(pid_t process)
{
    // By number: the C library's header of Debian 12 does not work in C++.
    return base::Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
}

}  // namespace

ChildCommand::ChildCommand(int output, std::function<void(int status)> onEnd,
                           std::chrono::milliseconds patience)
    : m_output(output), m_onEnd(std::move(onEnd)), m_patience(patience)
{
}

ChildCommand::~ChildCommand()
{
    if (!Running())
    {
        return;
    }
    Signal(SIGTERM);
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        (void)m_changed.wait_for(lock, kStopPatience, [this] { return m_over; });
    }
    Signal(SIGKILL);
    m_thread.join();
}

void ChildCommand::Kill() noexcept
{
    Signal(SIGKILL);
}

int ChildCommand::Start(const std::string& command, const Variables& variables, Limit limit)
{
    std::vector<std::string> arguments = {"sh", "-c", command};
    std::vector<std::string> environment = EnvironmentWith(variables);
    const SpawnSettings settings(m_output);
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", &settings.files, &settings.attributes,
                                  PointersTo(arguments).data(), PointersTo(environment).data());
    if (error != 0)
    {
        return error;
    }
    base::Descriptor childEnd;
    if (limit)
    {
        childEnd = EndOf(child);
    }
    if (limit && !childEnd.IsOpen())
    {
        const int cause = errno;
        (void)kill(-child, SIGKILL);
        (void)waitpid(child, nullptr, 0);
        return cause;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_child = child;
        m_over = false;
    }
    m_limit = limit;
    m_childEnd = std::move(childEnd);
    m_timedOut = false;
    m_thread = std::thread(&ChildCommand::Wait, this);
    return 0;
}

void ChildCommand::Ended()
{
    m_thread.join();
}

void ChildCommand::Wait() noexcept
{
    if (m_limit && !EndsWithin(*m_limit))
    {
        m_timedOut = true;
        Signal(SIGTERM);
        (void)EndsWithin(m_patience);
        Signal(SIGKILL);  // a shell may have ended before a command that it started
    }
    siginfo_t end = {};
    // WNOWAIT: it stays unreaped until no thread can signal its group any more.
    while (waitid(P_PID, static_cast<id_t>(m_child), &end, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR)
    {
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_over = true;
        (void)waitpid(m_child, nullptr, 0);
    }
    m_changed.notify_all();
    m_onEnd(StatusOf(end));
}

bool ChildCommand::EndsWithin(std::chrono::milliseconds time) const
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + time;
    pollfd ended = {m_childEnd.Number(), POLLIN, 0};
    int ready = 0;
    do
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        ready = poll(&ended, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// To the process group. Until m_over is set the command is not reaped, so the group id is still its
// own.
void ChildCommand::Signal(int signalNumber) noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_child > 0 && !m_over)
    {
        (void)kill(-m_child, signalNumber);
    }
}

}  // namespace corpdir_tool
