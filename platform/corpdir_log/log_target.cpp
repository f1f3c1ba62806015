#include "log_target.h"

#include "console_sink.h"
#include "corpdir_log.h"
#include "escape.h"
#include "line_formatter.h"

#include <fcntl.h>
#include <spdlog/details/log_msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <new>
#include <system_error>

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

// Level and name are constants: the record's text holds all columns but the time.
void LogRecord(spdlog::sinks::sink* sink, const Record& record)
{
    const std::string_view text = record.Text();
    sink->log(
        {record.time, spdlog::source_loc{}, {}, spdlog::level::info, {text.data(), text.size()}});
}

}  // namespace

LogTarget::LogTarget(const LogSettings& settings, const LogTarget* previous)
    : m_maxSize(settings.maxSize),
      m_maxCount(settings.maxCount),
      m_directory(AbsoluteDirectory(settings.directory))
{
    if (IsStandardError())
    {
        m_console = std::make_unique<ConsoleSink>();
        m_console->set_formatter(std::make_unique<LineFormatter>());
        m_sink = m_console.get();
        return;
    }
    if (previous != nullptr)
    {
        m_name = previous->m_name;
    }
    OpenFile();
}

// Asked before the sink is made: a rename that fails costs it the file's contents. With the rights
// that renaming would have, which are not those of access() in a set-user-id program.
bool LogTarget::CanRotate() const
{
    return faccessat(AT_FDCWD, m_directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

void LogTarget::OpenFile()
{
    if (m_name == nullptr || !m_name->IsFor(m_directory))
    {
        m_name = std::make_shared<NameLock>(m_directory);
    }
    m_isRotated = CanRotate();
    m_file = std::make_unique<LogFile>(m_directory + '/' + m_name->FileName(), m_maxSize,
                                       m_isRotated ? m_maxCount : 0);
    m_file->Sink().set_formatter(std::make_unique<LineFormatter>());
    m_sink = &m_file->Sink();
    m_nextPlaceCheck = common::Clock::now() + kPlaceCheckInterval;
    if (!m_isRotated)
    {
        TellOnce(&m_isRotationTold,
                 "cannot be rotated, it begins anew when it is full: the directory is read-only");
    }
}

void LogTarget::Write(const Record& record) noexcept
{
    if (m_sink == nullptr && !TryReopen())
    {
        ++m_lost;
        return;
    }
    try
    {
        ++m_unflushed;
        LogRecord(m_sink, record);
    }
    catch (const std::exception& error)
    {
        BeginOutage(error.what());
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
        m_sink->flush();
        m_unflushed = 0;
    }
    catch (const std::exception& error)
    {
        BeginOutage(error.what());
    }
}

void LogTarget::CheckPlace() noexcept
{
    if (m_file == nullptr || common::Clock::now() < m_nextPlaceCheck)
    {
        return;
    }
    m_nextPlaceCheck = common::Clock::now() + kPlaceCheckInterval;
    if (!m_file->IsInPlace() || CanRotate() != m_isRotated)
    {
        Flush();  // a file that was only moved away gets its last lines
        m_sink = nullptr;
        m_file.reset();
        (void)TryReopen();
    }
}

// False when the file cannot be written yet.
bool LogTarget::TryReopen() noexcept
{
    if (common::Clock::now() < m_nextAttempt)
    {
        return false;
    }
    try
    {
        OpenFile();
        WriteLossNotice();
        return true;
    }
    catch (const std::exception& error)
    {
        BeginOutage(error.what());
        return false;
    }
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
    LogRecord(m_sink, *notice);
    m_sink->flush();
    m_lost = 0;
}

// What was written since the last flush may or may not have reached the file.
void LogTarget::BeginOutage(const char* reason) noexcept
{
    m_lost += m_unflushed;
    m_unflushed = 0;
    m_sink = m_console.get();
    m_nextAttempt = common::Clock::now() + kRetryInterval;
    try
    {
        m_reason = reason;
        TellOnce(&m_isOutageTold, "cannot be written, records are lost until it can: " + m_reason);
    }
    catch (const std::bad_alloc&)
    {
        // Out of memory for a sentence; the outage is handled all the same.
    }
    m_file.reset();
}

void LogTarget::TellOnce(bool* isTold, const std::string& trouble) const
{
    if (*isTold || IsStandardError())
    {
        return;
    }
    *isTold = true;
    const std::string text = "corpdir: the log in " + m_directory + ' ' + trouble;
    std::string line(EscapedSize(text, Blanks::kKeep), '\0');
    WriteEscaped(text, Blanks::kKeep, line.data());
    line += '\n';
    (void)!write(STDERR_FILENO, line.data(), line.size());  // the last resort: no other place
}

}  // namespace corpdir_log
