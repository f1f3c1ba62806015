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
bool isTemporaryName(const char* name);

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
    bool open(const std::string& directory, const std::string& name, Failure& failure);

    // Collects large pieces before it writes, and has the system begin to bring them to the disk,
    // so that little is left to wait for at the end.
    bool write(const char* data, size_t length, Failure& failure);

    // Writes out and flushes to the disk, with the permissions of the file that is to be replaced,
    // and its owner and group where that is permitted.
    bool complete(Failure& failure);

    // Renames over the target what is complete: a symbolic link is replaced itself. Afterwards the
    // object is as new.
    bool publish(Failure& failure);

    // Removes the temporary file, if there is one.
    void discard();

private:
    enum class Claim
    {
        Ours,
        Lost,    // another process has got hold of it
        Failed,  // errno says why
    };

    bool createTemporary(Failure& failure);
    bool makeTemporary(Failure& failure);
    Claim lockTemporary();
    void removeTemporary();
    void removeOrphans();
    bool flushPiece(Failure& failure);
    bool takePermissions(Failure& failure);
    bool localFailure(Failure& failure, const char* step);
    bool localFailure(Failure& failure, const char* step, const char* reason);
    void close();

    std::string directory_;
    std::string name_;
    struct stat replaced_ = {};  // the file that the target is or was, zero: none
    int directoryFd_ = -1;
    int fd_ = -1;
    char temporary_[64] = "";  // name in the directory, empty: no file to remove
    std::unique_ptr<char[]> piece_;
    size_t used_ = 0;
    off_t begun_ = 0;    // bytes that were told to go to the disk
    off_t unbegun_ = 0;  // bytes written since
};

}  // namespace travex_ftp

#endif
