// The local file of a download.
#ifndef TRAVEX_FTP_DOWNLOAD_FILE_H
#define TRAVEX_FTP_DOWNLOAD_FILE_H

#include <sys/stat.h>

#include <memory>
#include <string>

#include "base/descriptor.h"
#include "failure.h"
#include "limits.h"

namespace travex_ftp
{
// True for names that only this layer creates: such a file may be removed as an orphan.
bool IsTemporaryName(const char* name);

// A temporary file in the target's directory, which replaces the target when it is complete. It is
// locked (flock) while in use. An unlocked one is an orphan of a killed process, and the next
// download into the directory removes it. Not thread-safe.
class DownloadFile
{
public:
    DownloadFile() = default;
    ~DownloadFile();
    DownloadFile(const DownloadFile&) = delete;
    DownloadFile& operator=(const DownloadFile&) = delete;

    // Creates the temporary file. Fails early if the directory is missing or not writable, or the
    // target is neither a regular file nor a symbolic link. Removes orphans. Throws std::bad_alloc.
    bool Open(const std::string& directory, const std::string& name, Failure& failure);

    // The buffer for the next bytes, up to `size` of them; null when memory runs out.
    char* FreeSpace(size_t& size, Failure& failure);

    // Bytes were put there. Written in large chunks; the system is asked early to write them to the
    // disk, so that the flush at the end is short.
    bool Arrived(size_t length, Failure& failure);

    // Writes the rest and flushes to the disk. Sets the permissions of the file that is replaced,
    // and its owner and group where permitted.
    bool Complete(Failure& failure);

    // Renames the complete file to the target; a symbolic link is replaced, not followed. The
    // object can be used again.
    bool MoveIntoPlace(Failure& failure);

    // Removes the temporary file, if there is one.
    void Discard();

private:
    enum class LockResult
    {
        kLocked,
        kLost,    // another process has locked or removed it
        kFailed,  // see errno
    };

    bool CreateTemporary(Failure& failure);
    bool MakeTemporary(Failure& failure);
    LockResult LockTemporary();
    void RemoveTemporary();
    void RemoveOrphans();
    bool WriteBuffer(Failure& failure);
    bool CopyPermissions(Failure& failure);
    bool FailLocal(Failure& failure, const char* step, const char* reason = nullptr);
    void Close();

    std::string m_directory;
    std::string m_name;
    struct stat m_replaced = {};  // the regular file to be replaced; zero: none
    base::Descriptor m_directoryFd;
    base::Descriptor m_fd;
    char m_temporary[64] = "";  // name in the directory, empty: no file to remove
    std::unique_ptr<char[]> m_buffer;
    size_t m_used = 0;
    off_t m_flushing = 0;   // bytes that the system was asked to write to the disk
    off_t m_unflushed = 0;  // bytes written since
};

}  // namespace travex_ftp

#endif
