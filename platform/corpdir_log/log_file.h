// A size-rotated log file as a sink.
#ifndef CORPDIR_LOG_LOG_FILE_H
#define CORPDIR_LOG_LOG_FILE_H

#include "descriptor.h"
#include "line_formatter.h"
#include "sink.h"

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>

namespace corpdir_log
{
// FILE.log, and FILE.1.log (the newest) to FILE.n.log, mode 0600. The descriptor that was checked
// is the one that is written; a missing directory is not made; symbolic
// links in the file's place, devices and other users' files are refused, a second hard link to a
// file of ours is not; and a line that was cut by a full disk is ended before the next one. What is
// buffered stands in no stream of the C library's, so a child of fork does not write it. Throws
// std::system_error; after that the object must not be used again. One thread only.
class LogFile final : public Sink
{
public:
    // Throws when the file cannot be opened for appending.
    LogFile(const std::string& path, std::size_t maxSize, std::size_t maxCount);
    ~LogFile() override;  // writes out what is buffered, if it can

    // False when the path no longer names the open file: it was removed or moved away.
    bool IsInPlace() const;

    // True when the file has no name left anywhere, so that what it holds ends with this object.
    bool IsRemoved() const;

    // True when the file is full but not in its place: it grows on until it is opened anew.
    bool IsRotationDue() const
    {
        return m_isRotationDue;
    }

    // Whether it has begun anew since the last call.
    bool TakeHasRotated()
    {
        return std::exchange(m_hasRotated, false);
    }

    // Why the last rotation could not rename the file, which was emptied instead; 0: it could.
    int RotationError() const
    {
        return m_rotationError;
    }

    void Write(const Record& record) override;
    void Flush() override;

private:
    void Open();
    void Rotate();
    bool RenameAll();
    std::string NumberedPath(std::size_t number) const;

    const std::string m_path;
    const std::size_t m_maxSize;
    const std::size_t m_maxCount;
    Descriptor m_file;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    std::size_t m_size = 0;  // with what is buffered
    LineFormatter m_formatter;
    std::string m_buffer;
    bool m_isRotationDue = false;
    bool m_hasRotated = false;
    int m_rotationError = 0;
};

}  // namespace corpdir_log

#endif
