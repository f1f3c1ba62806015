#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace corpdir_log
{
namespace
{
constexpr std::size_t kBufferSize = 64U << 10;

// 0, or the error number of what is wrong with the file as a log file.
int MakePrivate(int descriptor, const struct stat& status)
{
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

// 0, or the error number. A line that a full disk cut short would run into the next record.
int EndCutLine(int descriptor, off_t size)
{
    char last = '\n';
    if (size > 0 && pread(descriptor, &last, 1, size - 1) != 1)
    {
        return EIO;
    }
    return last == '\n' || write(descriptor, "\n", 1) == 1 ? 0 : errno;
}

// 0, or the error number. EAGAIN cannot happen: O_NONBLOCK has no effect on a regular file.
int WriteAll(int descriptor, std::string_view text)
{
    while (!text.empty())
    {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR)
        {
            return errno;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace

// O_NONBLOCK: opening a pipe in the file's place must not hang.
base::Descriptor OpenPrivate(const std::string& path)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    base::Descriptor file(open(path.c_str(), kFlags, 0600));
    if (!file.IsOpen() || file.Number() > STDERR_FILENO)
    {
        return file;
    }
    return base::Descriptor(fcntl(file.Number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool IsAt(const base::Descriptor& file, const std::string& path)
{
    struct stat held = {};
    struct stat found = {};
    return file.IsOpen() && fstat(file.Number(), &held) == 0 && stat(path.c_str(), &found) == 0 &&
           held.st_dev == found.st_dev && held.st_ino == found.st_ino;
}

// Memory ran out, unless the system gave another reason.
int ErrorOf(const std::exception& error)
{
    const auto* const failure = dynamic_cast<const std::system_error*>(&error);
    return failure == nullptr ? ENOMEM : failure->code().value();
}

LogFile::LogFile(const std::string& path, std::size_t maxSize, std::size_t maxCount)
    : m_path(path), m_maxSize(maxSize), m_maxCount(maxCount)
{
    m_buffer.reserve(kBufferSize);
    Open();
}

LogFile::~LogFile()
{
    (void)WriteAll(m_file.Number(), m_buffer);  // no caller is left for an error
}

void LogFile::Open()
{
    base::Descriptor file = OpenPrivate(m_path);
    struct stat status = {};
    int error = file.IsOpen() && fstat(file.Number(), &status) == 0 ? 0 : errno;
    error = error == 0 ? MakePrivate(file.Number(), status) : error;
    error = error == 0 ? EndCutLine(file.Number(), status.st_size) : error;
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category());
    }
    m_file = std::move(file);
    m_size = static_cast<std::size_t>(status.st_size);
}

bool LogFile::IsInPlace() const
{
    return IsAt(m_file, m_path);
}

bool LogFile::IsRemoved() const
{
    struct stat status = {};
    return fstat(m_file.Number(), &status) == 0 && status.st_nlink == 0;
}

bool LogFile::Write(std::string_view line)
{
    const bool hasRotated = m_size != 0 && m_size + line.size() > m_maxSize && Rotate();
    m_buffer += line;
    m_size += line.size();
    if (m_buffer.size() >= kBufferSize)
    {
        Flush();
    }
    return hasRotated;
}

void LogFile::Flush()
{
    const int error = WriteAll(m_file.Number(), m_buffer);
    m_buffer.clear();
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category());
    }
}

// False when the file is not to be rotated: someone else has truncated it, or it is not in its
// place, and another file has its name and must not be renamed.
bool LogFile::Rotate()
{
    Flush();
    struct stat status = {};
    m_size = fstat(m_file.Number(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
    if (m_size == 0 || !IsInPlace())
    {
        return false;
    }
    const int error = RenameAll() ? 0 : errno;
    if (error == ENOENT)
    {
        return false;  // it was removed at this very moment
    }
    m_rotationError = error;
    if (error == 0)
    {
        Open();
    }
    else if (ftruncate(m_file.Number(), 0) == 0)
    {
        m_size = 0;
    }
    else
    {
        throw std::system_error(errno, std::generic_category());
    }
    return true;
}

// False, and errno set, when the newest file keeps its name. An older one that does is overwritten:
// the oldest would have gone anyway.
bool LogFile::RenameAll()
{
    for (std::size_t number = m_maxCount; number > 1; --number)
    {
        (void)rename(NumberedPath(number - 1).c_str(), NumberedPath(number).c_str());
    }
    return rename(m_path.c_str(), NumberedPath(1).c_str()) == 0;
}

// FILE.log becomes FILE.3.log.
std::string LogFile::NumberedPath(std::size_t number) const
{
    const std::size_t dot = m_path.rfind('.');
    return m_path.substr(0, dot) + '.' + std::to_string(number) + m_path.substr(dot);
}

}  // namespace corpdir_log
