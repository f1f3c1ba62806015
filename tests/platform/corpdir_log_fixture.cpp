#include "corpdir_log_fixture.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace log_test
{
tag_CORPDIR_LOGINFO Info(const std::string& directory, unsigned int level, unsigned int maxSize,
                         unsigned int maxCount)
{
    tag_CORPDIR_LOGINFO info = {};
    directory.copy(info.szLogDir, sizeof info.szLogDir);
    info.ulLogLevel = level;
    info.ulMaxFileSize = maxSize;
    info.ulMaxFileCount = maxCount;
    return info;
}

unsigned int Open(tag_CORPDIR_LOGINFO info)
{
    return CorpDir_OpenLog(&info);
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

std::string AfterColumns(const std::string& line, int columns)
{
    std::size_t start = 0;
    for (; columns > 0; --columns)
    {
        const std::size_t blank = line.find(' ', start);
        if (blank == std::string::npos)
        {
            return "too few columns: " + line;
        }
        start = blank + 1;
    }
    return line.substr(start);
}

std::vector<std::string> TextsIn(const std::string& path, int columns)
{
    std::vector<std::string> texts;
    for (const std::string& line : SplitLines(support::ReadFile(path)))
    {
        texts.push_back(AfterColumns(line, columns));
    }
    return texts;
}

bool Contains(const std::string& path, const std::string& text)
{
    std::ifstream file(path, std::ios::binary);  // a rotation may rename it at any moment
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    return content.find(text) != std::string::npos;
}

Child::Child(const std::function<void()>& body)
{
    fflush(nullptr);  // else both write what is buffered
    m_id = fork();
    if (m_id == 0)
    {
        body();
        std::exit(0);
    }
}

Child::~Child()
{
    if (m_id != -1)
    {
        kill(m_id, SIGKILL);
        (void)waitpid(m_id, nullptr, 0);
    }
}

int Child::Wait()
{
    int status = 0;
    const bool hasEnded = support::WaitUntil(
        [&] { return waitpid(m_id, &status, WNOHANG) == m_id; }, std::chrono::seconds(30));
    if (!hasEnded)
    {
        return -1;
    }
    m_id = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Stall::Begin()
{
    isHit = false;
    isOn = true;
}

void Stall::Pass()
{
    if (!isOn)
    {
        return;
    }
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    while (isOn && std::string_view(name) == "corpdir-log")
    {
        isHit = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

CaughtStandardError::CaughtStandardError() : m_saved(dup(STDERR_FILENO))
{
    const int file =
        open(m_directory.File("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(file, STDERR_FILENO);
    close(file);
}

CaughtStandardError::~CaughtStandardError()
{
    dup2(m_saved, STDERR_FILENO);
    close(m_saved);
}

std::string CaughtStandardError::Text() const
{
    return support::ReadFile(m_directory.File("stderr"));
}

StuckStandardError::StuckStandardError() : m_saved(dup(STDERR_FILENO))
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("pipe2");
    }
    m_read = ends[0];
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
}

StuckStandardError::~StuckStandardError()
{
    Restore();
    close(m_read);
}

void StuckStandardError::Fill()
{
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    fcntl(STDERR_FILENO, F_SETFL, flags | O_NONBLOCK);
    while (write(STDERR_FILENO, "#", 1) == 1)
    {
    }
    fcntl(STDERR_FILENO, F_SETFL, flags);
}

std::string StuckStandardError::ReadDuring(const std::function<void()>& action)
{
    std::string text;
    std::thread reader(
        [&]
        {
            std::array<char, 65536> buffer;
            for (ssize_t size = 0; (size = read(m_read, buffer.data(), buffer.size())) > 0;)
            {
                text.append(buffer.data(), static_cast<std::size_t>(size));
            }
        });
    action();
    Restore();  // closes the pipe's last end for writing
    reader.join();
    return text;
}

void StuckStandardError::Restore()
{
    if (m_saved != -1)
    {
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        m_saved = -1;
    }
}

std::vector<std::string> LogTest::ClosedTexts(int columns)
{
    CorpDir_CloseLog();
    return TextsIn(File(), columns);
}

}  // namespace log_test
