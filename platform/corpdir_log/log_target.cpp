#include "log_target.h"

#include "console_sink.h"
#include "corpdir_log.h"
#include "escape.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

namespace corpdir_log
{
namespace
{
constexpr std::chrono::seconds kRetryInterval{1};
constexpr std::chrono::seconds kPlaceCheckInterval{1};

// An empty one stays empty: it means standard error.
std::string AbsoluteDirectory(const char* directory)
{
    if (*directory == '\0')
    {
        return {};
    }
    char resolved[PATH_MAX];
    struct stat status = {};
    if (realpath(directory, resolved) == nullptr || stat(resolved, &status) != 0)
    {
        throw std::system_error(errno, std::generic_category(), directory);
    }
    if (!S_ISDIR(status.st_mode))
    {
        throw std::system_error(ENOTDIR, std::generic_category(), directory);
    }
    return resolved;
}

}  // namespace

LogTarget::LogTarget(const LogSettings& settings, const LogTarget* previous)
    : m_maxSize(settings.maxSize),
      m_maxCount(settings.maxCount),
      m_directory(AbsoluteDirectory(settings.directory))
{
    if (previous != nullptr)
    {
        m_name = previous->m_name;
        m_lost = previous->m_lost;
        m_reason = previous->m_reason;
    }
    if (!IsStandardError())
    {
        OpenFile();
        return;
    }
    m_console = std::make_unique<ConsoleSink>();
    m_sink = m_console.get();
}

void LogTarget::OpenFile()
{
    if (m_name == nullptr || !m_name->IsFor(m_directory))
    {
        m_name = std::make_shared<NameLock>(m_directory);
    }
    m_file =
        std::make_unique<LogFile>(m_directory + '/' + m_name->FileName(), m_maxSize, m_maxCount);
    m_sink = m_file.get();
    m_unchecked = 0;
    m_nextPlaceCheck = base::Clock::now() + kPlaceCheckInterval;
}

void LogTarget::Write(const Record& record, std::uint64_t count) noexcept
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
        m_sink->Write(record);
        NoteRotation(count);
    }
    catch (const std::exception& error)
    {
        BeginOutage(error.what());
    }
}

// Before a rotation the full file was in its place and flushed.
void LogTarget::NoteRotation(std::uint64_t count)
{
    if (m_file == nullptr || !m_file->TakeHasRotated())
    {
        return;
    }
    m_unflushed = count;
    m_unchecked = count;
    if (m_file->RotationError() != 0)
    {
        TellOnce(&m_isRotationTold, "cannot be rotated, it begins anew when it is full: " +
                                        std::generic_category().message(m_file->RotationError()));
    }
}

void LogTarget::AddLost(std::uint64_t count, const char* reason) noexcept
{
    m_lost += count;
    try
    {
        m_reason = reason;
    }
    catch (const std::bad_alloc&)
    {
        // The number matters more.
    }
}

void LogTarget::Flush() noexcept
{
    if (m_sink == nullptr || m_unflushed == 0)
    {
        return;
    }
    try
    {
        m_sink->Flush();
        m_unflushed = 0;
    }
    catch (const std::exception& error)
    {
        BeginOutage(error.what());
    }
}

void LogTarget::CheckPlace() noexcept
{
    if (m_file == nullptr || (base::Clock::now() < m_nextPlaceCheck && !m_file->IsRotationDue()))
    {
        return;
    }
    m_nextPlaceCheck = base::Clock::now() + kPlaceCheckInterval;
    if (m_file->IsInPlace())
    {
        m_unchecked = m_unflushed;
        return;
    }
    Flush();  // a file that was only moved away gets its last lines
    LeaveRemovedFile();
    m_file.reset();
    m_sink = nullptr;
    (void)IsReady();
}

void LogTarget::Settle() noexcept
{
    Flush();
    LeaveRemovedFile();
    if (m_lost != 0)
    {
        m_nextAttempt = {};
        (void)IsReady();
    }
}

void LogTarget::LeaveRemovedFile() noexcept
{
    if (m_file != nullptr && m_file->IsRemoved())
    {
        if (m_unchecked != 0)
        {
            AddLost(std::exchange(m_unchecked, 0), "the file that held them was removed");
        }
        m_sink = nullptr;
        m_file.reset();
    }
}

// Opens the file if need be, and writes what has to be said first. False when there is nothing to
// write to yet.
bool LogTarget::IsReady() noexcept
{
    if (m_sink == nullptr && base::Clock::now() < m_nextAttempt)
    {
        return false;
    }
    try
    {
        if (m_sink == nullptr)
        {
            OpenFile();
        }
        WriteLossNotice();
    }
    catch (const std::exception& error)
    {
        BeginOutage(error.what());
    }
    return m_sink != nullptr;
}

// Flushed at once: on a disk that is still full only that tells.
void LogTarget::WriteLossNotice()
{
    if (m_lost == 0)
    {
        return;
    }
    const RecordPtr notice =
        MakeOwnRecord({"corpdir_log", __func__, __FILE__, __LINE__}, CORPDIR_LOG_ERROR,
                      "Up to %llu records are missing here: %s",
                      static_cast<unsigned long long>(m_lost), m_reason.c_str());
    if (notice == nullptr)
    {
        throw std::bad_alloc();
    }
    m_sink->Write(*notice);
    m_sink->Flush();
    NoteRotation(0);
    m_unflushed = 0;
    m_unchecked += std::exchange(m_lost, 0);
}

// What was written since the last flush may or may not have reached the file. A file that is
// removed besides takes along what did.
void LogTarget::BeginOutage(const char* reason) noexcept
{
    const bool isRemoved = m_file != nullptr && m_file->IsRemoved();
    m_lost += isRemoved ? m_unchecked : m_unflushed;
    m_unflushed = 0;
    m_unchecked = 0;
    m_file.reset();
    m_sink = m_console.get();
    m_nextAttempt = base::Clock::now() + kRetryInterval;
    try
    {
        m_reason = reason;
        TellOnce(&m_isOutageTold, "cannot be written, records are lost until it can: " + m_reason);
    }
    catch (const std::bad_alloc&)
    {
        // Out of memory for a sentence; the outage is handled all the same.
    }
}

// A standard error without room is not waited for, and told later: with poll's word a pipe takes a
// line of PIPE_BUF bytes without blocking, if nobody else fills it at this moment.
void LogTarget::TellOnce(bool* isTold, const std::string& trouble) const
{
    pollfd console = {STDERR_FILENO, POLLOUT, 0};
    if (*isTold || IsStandardError() || poll(&console, 1, 0) != 1 ||
        (console.revents & POLLOUT) == 0)
    {
        return;
    }
    *isTold = true;
    const std::string text = "corpdir: the log in " + m_directory + ' ' + trouble;
    std::string line(EscapedSize(text, Blanks::kKeep), '\0');
    WriteEscaped(text, Blanks::kKeep, line.data());
    line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
    line += '\n';
    (void)!write(STDERR_FILENO, line.data(), line.size());  // the last resort: no other place
}

}  // namespace corpdir_log
