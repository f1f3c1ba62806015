// Files of the log for this user only, and the one that is rotated by size.
#ifndef CORPDIR_LOG_LOG_FILE_H
#define CORPDIR_LOG_LOG_FILE_H

#include "base/descriptor.h"

#include <cstddef>
#include <exception>
#include <string>
#include <string_view>

namespace corpdir_log
{
// Makes the file with mode 0600 if it is missing and opens it, closed on exec, for reading and for
// writing at its end. Not open, and errno set, when that fails or the name is a symbolic link.
// Never has the number of a standard stream, even if that is free: what the client or a library
// prints would end up in the file.
base::Descriptor OpenPrivate(const std::string& path);

// True when the path names the open file.
bool IsAt(const base::Descriptor& file, const std::string& path);

// The error number of an exception that the log's functions throw.
int ErrorOf(const std::exception& error);

// FILE.log, and FILE.1.log (the newest) to FILE.n.log, mode 0600. The descriptor that was checked
// is the one that is written. A missing directory is not created. Symbolic links in the file's
// place, devices and other users' files are refused, a second hard link to our own file is
// accepted. A line that a full disk cut is ended before the next one. The buffer is no stream of
// the C library, so the child of a fork does not write it. Throws std::system_error or
// std::bad_alloc; after that the object must not be used again. One thread only.
class LogFile
{
public:
    // Throws when the file cannot be opened for appending.
    LogFile(const std::string& path, std::size_t maxSize, std::size_t maxCount);
    ~LogFile();  // writes what is buffered, if it can

    // False when the path no longer names the open file: it was removed or moved away.
    bool IsInPlace() const;

    // True when the file has no name left anywhere, so its contents are lost when it is closed.
    bool IsRemoved() const;

    // Appends a line. True when the file was full and the line is the first of an empty one.
    bool Write(std::string_view line);

    // Why the last rotation could not rename the file, which was truncated instead; 0: it could.
    int RotationError() const
    {
        return m_rotationError;
    }

    // Hands what was written to the system.
    void Flush();

private:
    void Open();
    bool Rotate();
    bool RenameAll();
    std::string NumberedPath(std::size_t number) const;

    const std::string m_path;
    const std::size_t m_maxSize;
    const std::size_t m_maxCount;
    base::Descriptor m_file;
    std::size_t m_size = 0;  // with what is buffered
    std::string m_buffer;
    int m_rotationError = 0;
};

}  // namespace corpdir_log

#endif
