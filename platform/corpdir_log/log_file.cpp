#include "log_file.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>

namespace corpdir_log
{
namespace
{
constexpr std::size_t kBufferSize = 64U << 10;

// The stream that may hold bytes of ours, for the fork handler.
std::atomic<std::FILE*> g_stream{nullptr};

class Descriptor
{
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor()
    {
        if (m_number != -1)
        {
            close(m_number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Number() const
    {
        return m_number;
    }

private:
    int m_number;
};

[[noreturn]] void Refuse(int error, const std::string& path)
{
    throw std::system_error(error, std::generic_category(), path);
}

// 0, or the error number of what is wrong with the file as a log file.
int MakePrivate(int descriptor)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0)
    {
        return errno;
    }
    if (!S_ISREG(status.st_mode))
    {
        return EINVAL;
    }
    if (status.st_uid != geteuid())
    {
        return EACCES;  // its owner could read the log, and change its mode
    }
    const bool isPrivate = (status.st_mode & 07777) == 0600;
    return isPrivate || fchmod(descriptor, 0600) == 0 ? 0 : errno;
}

// 0, or the error number. A line that a full disk cut short would swallow the next record.
int EndCutLine(int descriptor)
{
    const off_t size = lseek(descriptor, 0, SEEK_END);
    char last = '\n';
    if (size > 0 && pread(descriptor, &last, 1, size - 1) != 1)
    {
        return EIO;
    }
    return last == '\n' || write(descriptor, "\n", 1) == 1 ? 0 : errno;
}

// The sink opens files by name with the mode that the umask leaves; so the file is made here first.
// O_NONBLOCK: opening a pipe in the file's place must not hang.
void PrepareFile(const std::string& path)
{
    const Descriptor file(open(
        path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    int error = file.Number() == -1 ? errno : MakePrivate(file.Number());
    if (error == 0)
    {
        error = EndCutLine(file.Number());
    }
    if (error != 0)
    {
        Refuse(error, path);
    }
}

}  // namespace

LogFile::LogFile(const std::string& path, std::size_t maxSize, std::size_t maxCount)
    : m_path(path), m_buffer(kBufferSize)
{
    spdlog::file_event_handlers handlers;
    handlers.before_open = [](const std::string& name) { PrepareFile(name); };
    handlers.after_open = [this](const std::string&, std::FILE* stream) { AfterOpen(stream); };
    handlers.before_close = [](const std::string&, std::FILE* stream)
    { g_stream.compare_exchange_strong(stream, nullptr); };
    m_sink.emplace(path, maxSize, maxCount, false, handlers);
}

void LogFile::AfterOpen(std::FILE* stream)
{
    (void)setvbuf(stream, m_buffer.data(), _IOFBF, m_buffer.size());  // else a smaller one is used
    (void)fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
    struct stat status = {};
    (void)fstat(fileno(stream), &status);  // zeros on failure: then the file is opened anew
    m_device = status.st_dev;
    m_inode = status.st_ino;
    g_stream.store(stream);
}

bool LogFile::IsInPlace() const
{
    struct stat status = {};
    return stat(m_path.c_str(), &status) == 0 && status.st_dev == m_device &&
           status.st_ino == m_inode;
}

void LogFile::DropBufferInForkedChild()
{
    std::FILE* const stream = g_stream.exchange(nullptr);
    if (stream != nullptr)
    {
        __fpurge(stream);
    }
}

}  // namespace corpdir_log
