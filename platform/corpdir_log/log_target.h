// Where records go while the log is open, and what happens when they cannot go there.
#ifndef CORPDIR_LOG_LOG_TARGET_H
#define CORPDIR_LOG_LOG_TARGET_H

#include "base/mutex.h"
#include "log_file.h"
#include "name_lock.h"
#include "record.h"

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
// line after that says how many are missing at most, since of those written last some may have
// reached the file. Where the file cannot be renamed it begins anew when it is full; that is told
// once on standard error, and what it held is not counted. One thread only, the log's.
class LogTarget
{
public:
    // `previous`, the target in use or null, has been settled; in the same directory its file name
    // is kept. What it has lost and not told is told here. Throws std::system_error or
    // std::bad_alloc.
    LogTarget(const LogSettings& settings, const LogTarget* previous);
    ~LogTarget() = default;
    LogTarget(const LogTarget&) = delete;
    LogTarget& operator=(const LogTarget&) = delete;

    // `count`: the records that are missing if this one is lost; a notice stands for others.
    void Write(const Record& record, std::uint64_t count = 1) noexcept;

    // Counts records that nobody could write.
    void AddLost(std::uint64_t count, const char* reason) noexcept;

    // Hands what was written to the system.
    void Flush() noexcept;

    // To be called before a row of writes: notices, once in a second at most, that the file was
    // removed or moved away, and opens it anew. What was written to a removed file since it was
    // last seen in its place is lost.
    void CheckPlace() noexcept;

    // To be called before the target is replaced or destroyed: flushes, and tries once more to say
    // how many records are missing.
    void Settle() noexcept;

private:
    bool IsStandardError() const
    {
        return m_directory.empty();
    }
    void OpenFile();
    bool IsReady() noexcept;
    void WriteLossNotice();
    void NoteRotation(std::uint64_t count);
    void LeaveRemovedFile() noexcept;
    void BeginOutage(const char* reason) noexcept;
    void TellOnce(bool* isTold, const std::string& trouble) const;

    const std::size_t m_maxSize;
    const std::size_t m_maxCount;
    std::string m_directory;  // absolute: the client may change its working directory
    std::shared_ptr<NameLock> m_name;
    std::unique_ptr<LogFile> m_file;  // null: standard error, or an outage
    std::unique_ptr<Sink> m_console;  // null: a file
    Sink* m_sink = nullptr;           // one of the two; null during an outage

    std::uint64_t m_unflushed = 0;  // records since the last flush, which a failure may lose
    std::uint64_t m_unchecked = 0;  // records since the file was last in its place, those included
    std::uint64_t m_lost = 0;       // records that are missing and not told yet
    std::string m_reason;           // of the last loss
    bool m_isOutageTold = false;
    bool m_isRotationTold = false;
    base::Clock::time_point m_nextAttempt;
    base::Clock::time_point m_nextPlaceCheck;
};

}  // namespace corpdir_log

#endif
