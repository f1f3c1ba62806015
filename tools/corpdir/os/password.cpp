#include "os/password.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/descriptor.h"
#include "base/printable.h"
#include "exit_error.h"
#include "text.h"

namespace corpdir_tool
{

const char* const kPasswordVariable = "CORPDIR_PASSWORD";

namespace
{

const char kTerminal[] = "/dev/tty";

// For the signal handler, which restores the terminal's echo.
int g_terminal = -1;
termios g_savedMode;

[[noreturn]] void Refuse(const std::string& source, const std::string& problem)
{
    throw ExitError(kExitArguments, "the password from " + source + " " + problem);
}

[[noreturn]] void RefuseLength(const std::string& source, const std::string& bytes)
{
    Refuse(source, "is " + bytes + " bytes long; at most " + std::to_string(kMaxPasswordLength) +
                       " are allowed");
}

[[noreturn]] void RefuseUnreadable(const std::string& source)
{
    throw ExitError(kExitArguments,
                    "cannot read the password from " + source + ": " + SystemMessage(errno));
}

// Reads one byte at a time, so that no other buffer holds a part of the password.
// Stops at the end of the file, and with onlyOneLine after a newline.
void ReadDescriptor(int descriptor, bool onlyOneLine, const std::string& source, Secret& password)
{
    for (;;)
    {
        char byte = '\0';
        const ssize_t got = read(descriptor, &byte, 1);
        if (got < 0 && errno == EINTR)
        {
            continue;
        }
        if (got < 0)
        {
            RefuseUnreadable(source);
        }
        if (got == 0)
        {
            return;
        }
        if (!password.Append(byte))
        {
            RefuseLength(source, "over " + std::to_string(Secret::kCapacity));
        }
        if (onlyOneLine && byte == '\n')
        {
            return;
        }
    }
}

// LF or CR LF.
void RemoveNewline(Secret& password)
{
    if (!password.View().empty() && password.View().back() == '\n')
    {
        password.RemoveLast();
        if (!password.View().empty() && password.View().back() == '\r')
        {
            password.RemoveLast();
        }
    }
}

void CheckPassword(const Secret& password, const std::string& source)
{
    const std::string_view text = password.View();
    if (text.empty())
    {
        const char* const advice =
            source == kPasswordVariable ? "; unset it, or give --password-file" : "";
        Refuse(source, std::string("is empty") + advice);
    }
    if (text.size() > kMaxPasswordLength)
    {
        RefuseLength(source, std::to_string(text.size()));
    }
    if (std::any_of(text.begin(), text.end(), base::IsControlByte))
    {
        Refuse(source, "contains a control byte, such as a newline");
    }
}

std::string NameOf(const std::string& passwordFile)
{
    return passwordFile == "-" ? "standard input" : "'" + Printable(passwordFile) + "'";
}

void ReadFile(const std::string& path, const std::string& source, Secret& password)
{
    if (path == "-")
    {
        ReadDescriptor(STDIN_FILENO, false, source, password);
        return;
    }
    const base::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.Number() < 0)
    {
        RefuseUnreadable(source);
    }
    ReadDescriptor(file.Number(), false, source, password);
}

// Overwrites the value, which would stay readable in /proc.
void ForgetVariable(char* value)
{
    explicit_bzero(value, strlen(value));
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet
    (void)unsetenv(kPasswordVariable);  // cannot fail for a name that is valid
}

void TakeVariable(char* value, const std::string& source, Secret& password)
{
    const std::size_t length = strlen(value);
    bool fits = true;
    for (std::size_t index = 0; index < length && fits; ++index)
    {
        fits = password.Append(value[index]);
    }
    ForgetVariable(value);
    if (!fits)
    {
        RefuseLength(source, std::to_string(length));
    }
}

// tcsetattr is async-signal-safe. The handler was reset to the default action, so raising the
// signal again ends the program as without a prompt.
void RestoreEchoAndRaise(int signalNumber)
{
    (void)tcsetattr(g_terminal, TCSAFLUSH, &g_savedMode);
    (void)raise(signalNumber);
}

// Switches the echo of a terminal off; on again at the end, also when a signal ends the program.
class SilentTerminal
{
public:
    explicit SilentTerminal(int descriptor)
    {
        g_terminal = descriptor;
        if (tcgetattr(descriptor, &g_savedMode) != 0)
        {
            throw ExitError(kExitArguments,
                            "cannot prompt for the password: " + SystemMessage(errno));
        }
        struct sigaction action = {};
        action.sa_handler = RestoreEchoAndRaise;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        for (std::size_t index = 0; index < kSignals.size(); ++index)
        {
            TakeOver(kSignals[index], action, m_savedActions[index]);
        }
        termios silent = g_savedMode;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        (void)tcsetattr(descriptor, TCSAFLUSH, &silent);
    }
    ~SilentTerminal()
    {
        (void)tcsetattr(g_terminal, TCSAFLUSH, &g_savedMode);
        for (std::size_t index = 0; index < kSignals.size(); ++index)
        {
            (void)sigaction(kSignals[index], &m_savedActions[index], nullptr);
        }
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

private:
    // A signal that was ignored at the start stays ignored.
    static void TakeOver(int signalNumber, const struct sigaction& action, struct sigaction& saved)
    {
        (void)sigaction(signalNumber, nullptr, &saved);
        if (saved.sa_handler != SIG_IGN)
        {
            (void)sigaction(signalNumber, &action, nullptr);
        }
    }

    static constexpr std::array<int, 4> kSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    std::array<struct sigaction, kSignals.size()> m_savedActions{};
};

void Prompt(const std::string& source, Secret& password)
{
    const base::Descriptor terminal(open(kTerminal, O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (terminal.Number() < 0)
    {
        throw ExitError(kExitArguments, std::string("no password: give --password-file, set ") +
                                            kPasswordVariable +
                                            ", or start the program on a terminal");
    }
    const SilentTerminal silent(terminal.Number());
    (void)!write(terminal.Number(), "Password: ", 10);  // the prompt is not essential
    ReadDescriptor(terminal.Number(), true, source, password);
    (void)!write(terminal.Number(), "\n", 1);
}

}  // namespace

bool ReadPasswordAgain(const std::string& passwordFile, Secret& password)
{
    const std::string source = NameOf(passwordFile);
    // Opening a FIFO without O_NONBLOCK would wait for a writer.
    const base::Descriptor file(
        open(passwordFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Number(), &status) != 0)
    {
        RefuseUnreadable(source);
    }
    if (!S_ISREG(status.st_mode))
    {
        return false;
    }
    ReadDescriptor(file.Number(), false, source, password);
    RemoveNewline(password);
    CheckPassword(password, source);
    return true;
}

void ReadPassword(const std::string& passwordFile, Secret& password)
{
    std::string source;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread exists yet
    char* const variable = getenv(kPasswordVariable);
    if (!passwordFile.empty())
    {
        if (variable != nullptr)
        {
            ForgetVariable(variable);  // not used, and a command must not inherit it
        }
        source = NameOf(passwordFile);
        ReadFile(passwordFile, source, password);
    }
    else if (variable != nullptr)
    {
        source = kPasswordVariable;
        TakeVariable(variable, source, password);
    }
    else
    {
        source = "the terminal";
        Prompt(source, password);
    }
    RemoveNewline(password);
    CheckPassword(password, source);
}

}  // namespace corpdir_tool
