// Where records go while the log is open, and what happens when they cannot go there.
#ifndef CORPDIR_LOG_LOG_TARGET_H
#define CORPDIR_LOG_LOG_TARGET_H

#include "base/mutex.h"
#include "log_file.h"
#include "name_lock.h"
#include "record.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace corpdir_log
{
// The settings that a client asked for, defaults filled in.
struct LogSettings
{
    std::string directory;  // empty: standard error
    unsigned int level;     // 0 to 2
    std::size_t maxSize;    // of a file, in bytes
    std::size_t maxCount;   // of rotated files
};

// Standard error, or files in a directory. Writing never fails. When the file cannot be written,
// this is reported once on standard error, records are lost, and the file is opened again after a
// second; the first line after that says how many are missing at most, since of those written last
// some may have reached the file. Where the file cannot be renamed it is truncated when full; this
// is reported once on standard error, and what it held is not counted. One thread only, the log's.
class LogTarget
{
public:
    // `previous`, the target in use or null, has been settled; in the same directory its file name
    // is kept. A loss that it has not reported is reported here. Throws std::system_error or
    // std::bad_alloc.
    LogTarget(const LogSettings& settings, const LogTarget* previous);

    // Writes a notice about records that the queue dropped, if there are any, then the records, and
    // hands all to the system. A file that was removed or moved away is opened again first; what
    // was written to a removed one since it was last seen in its place is lost.
    void Write(const std::list<Record>& records, std::uint64_t dropped) noexcept;

    // To be called before the target is replaced or destroyed: tries once more to say how many
    // records are missing.
    void Settle() noexcept;

private:
    bool IsStandardError() const
    {
        return m_directory.empty();
    }
    void OpenFile();
    bool IsReady() noexcept;
    void LeaveLostFile() noexcept;
    void WriteDropNotice(std::uint64_t dropped) noexcept;
    void WriteLossNotice();
    void WriteRecord(const Record& record, std::uint64_t count) noexcept;
    void WriteLine(const Record& record, std::uint64_t count);
    void Flush();
    void BeginOutage(int error) noexcept;
    void ReportOnce(bool* isReported, const char* trouble, int error) const noexcept;
    std::string LossReason() const;

    const std::size_t m_maxSize;
    const std::size_t m_maxCount;
    const std::string m_directory;  // absolute: the client may change its working directory
    const bool m_isConsoleOpen;
    std::shared_ptr<NameLock> m_name;
    std::shared_ptr<const std::string> m_path;  // the file's; the directory's without a name
    std::unique_ptr<LogFile> m_file;            // null: standard error, or an outage
    std::string m_line;

    std::uint64_t m_unflushed = 0;  // records since the last flush, which a failure may lose
    std::uint64_t m_unchecked = 0;  // records since the file was last in its place, those included
    std::uint64_t m_lost = 0;       // records that are missing and not reported yet
    int m_lossError = 0;            // of the last loss; 0: the file was removed
    std::shared_ptr<const std::string> m_lossPath;  // of the file that could not be written
    bool m_isOutageReported = false;
    bool m_isRotationReported = false;
    base::Clock::time_point m_nextAttempt;
};

}  // namespace corpdir_log

#endif
