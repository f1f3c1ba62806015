#include "log_target.h"

#include "corpdir_log.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

namespace corpdir_log
{
namespace
{
constexpr std::chrono::seconds kRetryInterval{1};

// An empty one stays empty: it means standard error.
std::string AbsoluteDirectory(const std::string& directory)
{
    char resolved[PATH_MAX] = "";
    if (!directory.empty() && realpath(directory.c_str(), resolved) == nullptr)
    {
        throw std::system_error(errno, std::generic_category());
    }
    return resolved;
}

// The client may have made standard error non-blocking.
bool AwaitRoom()
{
    pollfd console = {STDERR_FILENO, POLLOUT, 0};
    return errno == EAGAIN && poll(&console, 1, -1) == 1;
}

// Bypasses the C library's stream: a standard error that is not read would block the log's thread
// with the stream locked, and the process, which flushes its streams, could not end. A line that
// cannot be written is dropped, since there is no place to report it.
void WriteToStandardError(std::string_view line)
{
    while (!line.empty())
    {
        const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
        if (written < 0 && !AwaitRoom())
        {
            return;
        }
        line.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

}  // namespace

LogTarget::LogTarget(const LogSettings& settings, const LogTarget* previous)
    : m_maxSize(settings.maxSize),
      m_maxCount(settings.maxCount),
      m_directory(AbsoluteDirectory(settings.directory)),
      m_isConsoleOpen(fcntl(STDERR_FILENO, F_GETFD) != -1),
      m_path(std::make_shared<const std::string>(m_directory))
{
    if (previous != nullptr)
    {
        m_name = previous->m_name;
        m_lost = previous->m_lost;
        m_lossError = previous->m_lossError;
        m_lossPath = previous->m_lossPath;
    }
    if (!IsStandardError())
    {
        OpenFile();
    }
}

void LogTarget::OpenFile()
{
    if (m_name == nullptr || !m_name->IsFor(m_directory))
    {
        m_name.reset();  // also when no name is found
        m_name = std::make_shared<NameLock>(m_directory);
    }
    m_path = std::make_shared<const std::string>(m_directory + '/' + m_name->FileName());
    m_file = std::make_unique<LogFile>(*m_path, m_maxSize, m_maxCount);
    m_unchecked = 0;
}

void LogTarget::Write(const std::list<Record>& records, std::uint64_t dropped) noexcept
{
    LeaveLostFile();
    if (dropped != 0)
    {
        WriteDropNotice(dropped);
    }
    for (const Record& record : records)
    {
        WriteRecord(record, 1);
    }
    try
    {
        Flush();
    }
    catch (const std::exception& error)
    {
        BeginOutage(ErrorOf(error));
    }
}

void LogTarget::Settle() noexcept
{
    LeaveLostFile();
    if (m_lost != 0)
    {
        m_nextAttempt = {};
        (void)IsReady();
    }
}

// Everything was flushed before: a file that was only moved away has its last lines.
void LogTarget::LeaveLostFile() noexcept
{
    if (m_file == nullptr)
    {
        return;
    }
    if (m_file->IsInPlace())
    {
        m_unchecked = 0;
        return;
    }
    if (m_file->IsRemoved() && m_unchecked != 0)
    {
        m_lost += std::exchange(m_unchecked, 0);
        m_lossError = 0;
    }
    m_file.reset();
}

// An error, so that it is written at every level. It is lost like the records it is about.
void LogTarget::WriteDropNotice(std::uint64_t dropped) noexcept
{
    try
    {
        WriteRecord(
            MakeOwnRecord(
                {"corpdir_log", __func__, __FILE__, __LINE__}, CORPDIR_LOG_ERROR,
                "%llu records are missing here: they came faster than they could be written",
                static_cast<unsigned long long>(dropped)),
            dropped);
    }
    catch (const std::bad_alloc&)
    {
        m_lost += dropped;
        m_lossError = ENOMEM;
        m_lossPath = m_path;
    }
}

// `count`: the records that are missing if this one is lost.
void LogTarget::WriteRecord(const Record& record, std::uint64_t count) noexcept
{
    if (!IsReady())
    {
        m_lost += count;
        return;
    }
    m_unflushed += count;
    m_unchecked += count;
    try
    {
        WriteLine(record, count);
    }
    catch (const std::exception& error)
    {
        BeginOutage(ErrorOf(error));
    }
}

void LogTarget::WriteLine(const Record& record, std::uint64_t count)
{
    m_line.clear();
    AppendLine(record, &m_line);
    if (IsStandardError())
    {
        // A number that was closed at the opening may be a file of the client's by now.
        WriteToStandardError(m_isConsoleOpen ? m_line : std::string_view());
    }
    else if (m_file->Write(m_line))
    {
        // Before the rotation the full file was in its place and flushed.
        m_unflushed = count;
        m_unchecked = count;
        if (m_file->RotationError() != 0)
        {
            ReportOnce(&m_isRotationReported, "cannot be rotated, it is truncated when full",
                       m_file->RotationError());
        }
    }
}

void LogTarget::Flush()
{
    if (m_file != nullptr)
    {
        m_file->Flush();
    }
    m_unflushed = 0;
}

// Opens the file if need be, and reports losses first. False when records cannot be written yet.
bool LogTarget::IsReady() noexcept
{
    const bool isClosed = !IsStandardError() && m_file == nullptr;
    if (isClosed && base::Clock::now() < m_nextAttempt)
    {
        return false;
    }
    try
    {
        if (isClosed)
        {
            OpenFile();
        }
        if (m_lost != 0)
        {
            WriteLossNotice();
        }
        return true;
    }
    catch (const std::exception& error)
    {
        BeginOutage(ErrorOf(error));
        return false;
    }
}

// With the path: the records may be missing in the log of another directory.
std::string LogTarget::LossReason() const
{
    return m_lossError == 0 ? "the file that held them was removed"
                            : *m_lossPath + ": " + std::generic_category().message(m_lossError);
}

// Flushed at once: a disk that is still full fails then, not at the writing.
void LogTarget::WriteLossNotice()
{
    WriteLine(MakeOwnRecord({"corpdir_log", __func__, __FILE__, __LINE__}, CORPDIR_LOG_ERROR,
                            "Up to %llu records are missing here: %s",
                            static_cast<unsigned long long>(m_lost), LossReason().c_str()),
              0);
    Flush();
    m_unchecked += std::exchange(m_lost, 0);
}

// Records since the last flush may or may not have reached the file. All records in a removed file
// are lost.
void LogTarget::BeginOutage(int error) noexcept
{
    const bool isRemoved = m_file != nullptr && m_file->IsRemoved();
    m_lost += isRemoved ? m_unchecked : m_unflushed;
    m_lossError = error;
    m_lossPath = m_path;
    m_unflushed = 0;
    m_unchecked = 0;
    m_file.reset();
    m_nextAttempt = base::Clock::now() + kRetryInterval;
    ReportOnce(&m_isOutageReported, "cannot be written, records are lost until it can", error);
}

// A standard error without room is not waited for; the report is then made later. Where poll finds
// room, a pipe takes a line of PIPE_BUF bytes without blocking, unless others fill it at this
// moment.
void LogTarget::ReportOnce(bool* isReported, const char* trouble, int error) const noexcept
try
{
    pollfd console = {STDERR_FILENO, POLLOUT, 0};
    // A number that was closed at the opening may be a file of the client's by now.
    if (*isReported || IsStandardError() || !m_isConsoleOpen || poll(&console, 1, 0) != 1 ||
        (console.revents & POLLOUT) == 0)
    {
        return;
    }
    std::string line;
    AppendEscaped("corpdir: the log in " + m_directory + ' ' + trouble + ": " + *m_path + ": " +
                      std::generic_category().message(error),
                  Blanks::kKeep, &line);
    line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
    line += '\n';
    *isReported = true;
    (void)!write(STDERR_FILENO, line.data(), line.size());  // there is no other place to report to
}
catch (const std::bad_alloc&)
{
    // It is reported the next time.
}

}  // namespace corpdir_log
