// Where records go while the log is open, and what happens when they cannot go there.
#ifndef CORPDIR_LOG_LOG_TARGET_H
#define CORPDIR_LOG_LOG_TARGET_H

#include "common/guard.h"
#include "log_file.h"
#include "name_lock.h"
#include "record.h"

#include <spdlog/sinks/sink.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace corpdir_log
{
// What a client asked for, defaults filled in.
struct LogSettings
{
    char directory[256];   // empty: standard error
    unsigned int level;    // 0 to 2
    std::size_t maxSize;   // of a file, in bytes
    std::size_t maxCount;  // of rotated files
};

// Standard error, or files in a directory. Writing never fails: when the file cannot be written,
// standard error is told once, records are lost, and the file is tried anew every second; the first
// line after that says how many are missing. Where files cannot be renamed the one file begins
// anew when it is full. One thread only, the log's.
class LogTarget
{
public:
    // `previous`, the target in use or null, has been flushed; in the same directory its file name
    // is kept. Throws std::system_error, spdlog::spdlog_ex or std::bad_alloc.
    LogTarget(const LogSettings& settings, const LogTarget* previous);
    ~LogTarget() = default;  // flushes
    LogTarget(const LogTarget&) = delete;
    LogTarget& operator=(const LogTarget&) = delete;

    void Write(const Record& record) noexcept;

    // Hands what was written to the system.
    void Flush() noexcept;

    // To be called before a row of writes: notices, once in a second at most, that the file was
    // removed or moved away, or that the directory's permissions changed, and opens the file anew.
    void CheckPlace() noexcept;

private:
    bool IsStandardError() const
    {
        return m_directory.empty();
    }
    bool CanRotate() const;
    void OpenFile();
    bool TryReopen() noexcept;
    void WriteLossNotice();
    void BeginOutage(const char* reason) noexcept;
    void TellOnce(bool* isTold, const std::string& trouble) const;

    const std::size_t m_maxSize;
    const std::size_t m_maxCount;
    std::string m_directory;  // absolute: the client may change its working directory
    std::shared_ptr<NameLock> m_name;
    bool m_isRotated = true;                         // false: the directory is read-only
    std::unique_ptr<LogFile> m_file;                 // null: standard error, or an outage
    std::unique_ptr<spdlog::sinks::sink> m_console;  // null: a file
    spdlog::sinks::sink* m_sink = nullptr;           // one of the two; null during an outage

    std::uint64_t m_unflushed = 0;  // records since the last flush, which a failure may lose
    std::uint64_t m_lost = 0;       // records since the outage began
    std::string m_reason;           // of the outage
    bool m_isOutageTold = false;
    bool m_isRotationTold = false;
    common::Clock::time_point m_nextAttempt;
    common::Clock::time_point m_nextPlaceCheck;
};

}  // namespace corpdir_log

#endif
