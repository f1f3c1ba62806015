// The client's own files in an output folder: what the service downloads lies there until it is
// committed.
#ifndef CORPDIR_CLIENT_STAGING_H
#define CORPDIR_CLIENT_STAGING_H

#include <sys/types.h>

#include <atomic>
#include <string>

#include "base/descriptor.h"

namespace client
{

// A lock (flock) of a file, until the object is destroyed. A file system without locks counts as
// locked: the caller goes on unprotected, and other processes take nothing for orphaned there.
enum class LockResult
{
    kLocked,
    kUnsupported,
    kHeld,    // by another process
    kFailed,  // see errno
};
LockResult TryLock(int descriptor) noexcept;

// Names of one run in one folder: ".corpdir-", 16 random hexadecimal digits, and what the file is.
//
// A transfer gives its file the permissions of the one that it replaces. So empty files that only
// this user can read lie there first: the local files may be private too.
//
// The run holds a lock on its lock file. What belongs to a lock file that nobody holds, or to none,
// was left by a process that is gone, and the next run in the folder removes it. Neither age nor
// process number decide.
class Staging
{
public:
    enum class File
    {
        kVersion,    // the service's version file; each check replaces it
        kDirectory,  // the service's directory file
        kNew,        // a version or state file on its way to its place
        kLock,
    };

    // Creates the lock file in the folder, whose path ends with "/", and removes what other runs
    // left there. Throws std::system_error when the folder cannot be written.
    explicit Staging(std::string folder);
    ~Staging();
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    const std::string& Folder() const
    {
        return m_folder;
    }
    std::string Name(File file) const;
    std::string Path(File file) const;

    // Moves a complete directory file to a new name, which no transfer writes, and returns it.
    // Empty with errno when that fails. Any thread.
    std::string PutDirectoryAside();

    // True for a name that this or the FTP layer may give to a file of its own, and remove.
    static bool IsReserved(const std::string& name);

    // Permissions of a new file, as the process's umask leaves them.
    mode_t NewFileMode() const
    {
        return m_newFileMode;
    }

    // Removes this run's files. Any thread.
    void Remove() const noexcept;

private:
    bool MakeLockFile();
    void MakePrivate(File file) const noexcept;

    const std::string m_folder;
    std::string m_id;  // of this run
    base::Descriptor m_lock;
    mode_t m_newFileMode = 0600;
    std::atomic<unsigned int> m_received{0};
};

}  // namespace client

#endif
