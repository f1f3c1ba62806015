// The file being written.
#ifndef TRAVEX_FTP_DOWNLOAD_FILE_H
#define TRAVEX_FTP_DOWNLOAD_FILE_H

#include <sys/stat.h>

#include <memory>
#include <string>

#include "failure.h"
#include "limits.h"

namespace travex_ftp
{
// A name that only this layer gives: a file of this name may be removed as an orphan.
bool IsTemporaryName(const char* name);

// A temporary file beside the target, which it replaces once it is complete. It is locked (flock)
// while in use: what no one holds is left over from a process that was killed, and is removed by
// the next download into that directory. Not thread-safe.
class DownloadFile
{
public:
    DownloadFile() = default;
    ~DownloadFile();
    DownloadFile(const DownloadFile&) = delete;
    DownloadFile& operator=(const DownloadFile&) = delete;

    // Finds out early what will not work: a directory that is missing or cannot be written, a
    // target that is neither a file nor a symbolic link. Removes orphans of ours. Throws
    // std::bad_alloc.
    bool Open(const std::string& directory, const std::string& name, Failure& failure);

    // Where to put the next bytes, up to `size` of them; null when memory runs out.
    char* Room(size_t& size, Failure& failure);

    // They have arrived there. Large pieces are collected before they are written, and the system
    // is told early to bring them to the disk, so that little is left to wait for at the end.
    bool Arrived(size_t length, Failure& failure);

    // Writes out and flushes to the disk, with the permissions of the file that is to be replaced,
    // and its owner and group where that is permitted.
    bool Complete(Failure& failure);

    // Renames over the target what is complete: a symbolic link is replaced itself. Afterwards the
    // object is as new.
    bool Publish(Failure& failure);

    // Removes the temporary file, if there is one.
    void Discard();

private:
    enum class Claim
    {
        Ours,
        Lost,    // another process has got hold of it
        Failed,  // errno says why
    };

    bool CreateTemporary(Failure& failure);
    bool MakeTemporary(Failure& failure);
    Claim LockTemporary();
    void RemoveTemporary();
    void RemoveOrphans();
    bool FlushPiece(Failure& failure);
    bool TakePermissions(Failure& failure);
    bool LocalFailure(Failure& failure, const char* step);
    bool LocalFailure(Failure& failure, const char* step, const char* reason);
    void Close();

    std::string m_directory;
    std::string m_name;
    struct stat m_replaced = {};  // the file that the target is or was, zero: none
    int m_directoryFd = -1;
    int m_fd = -1;
    char m_temporary[64] = "";  // name in the directory, empty: no file to remove
    std::unique_ptr<char[]> m_piece;
    size_t m_used = 0;
    off_t m_begun = 0;    // bytes that were told to go to the disk
    off_t m_unbegun = 0;  // bytes written since
};

}  // namespace travex_ftp

#endif
