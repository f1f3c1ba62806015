// spdlog's rotating file sink, with what it lacks.
#ifndef CORPDIR_LOG_LOG_FILE_H
#define CORPDIR_LOG_LOG_FILE_H

#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace corpdir_log
{
// A size-rotated log file: FILE.log, and FILE.1.log (the newest) to FILE.n.log. What is added to
// the sink: mode 0600 from the first moment; a directory that is missing is not made; symbolic
// links, devices and other users' files are refused; the file is closed on exec; and a line that
// was cut by a full disk is ended before the next one. After an exception the sink may hold no
// open file and must not be used again: destroy the object. One thread only.
class LogFile
{
public:
    // Throws std::system_error or spdlog::spdlog_ex when the file cannot be opened for appending.
    LogFile(const std::string& path, std::size_t maxSize, std::size_t maxCount);
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    spdlog::sinks::sink& Sink()
    {
        return *m_sink;
    }

    // False when the path no longer names the open file: it was removed or moved away.
    bool IsInPlace() const;

    // To be called in the child of a fork: what the parent has buffered is the parent's to write.
    static void DropBufferInForkedChild();

private:
    void AfterOpen(std::FILE* stream);

    std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    std::vector<char> m_buffer;  // before the sink: it outlives the sink's stream
    std::optional<spdlog::sinks::rotating_file_sink_st> m_sink;
};

}  // namespace corpdir_log

#endif
