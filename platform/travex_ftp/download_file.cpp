#include "download_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace travex_ftp
{
namespace
{
// Hidden, and not derived from the target, whose name may be as long as a name can be.
constexpr char kPrefix[] = ".travex_ftp-";
constexpr char kSuffix[] = ".part";
constexpr size_t kDigits = 16;

// Sweepers hold a new file for a moment; who holds so many of them in a row is none.
constexpr int kTries = 100;

constexpr mode_t kPermissions = 0777;

bool randomName(char (&name)[64])
{
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
    {
        return false;
    }
    (void)snprintf(name, sizeof name, "%s%016llx%s", kPrefix,
                   static_cast<unsigned long long>(number), kSuffix);
    return true;
}

// Never waits: one thread serves all transfers. On a network's file system a signal may end it.
bool lock(int fd)
{
    int result = 0;
    do
    {
        result = flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// Orphans have the permissions that their target had. Some network file systems lock exclusively
// only what is open for writing.
int openOrphan(int directory, const char* name)
{
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int fd = openat(directory, name, O_RDWR | kFlags);
    return fd >= 0 ? fd : openat(directory, name, O_RDONLY | kFlags);
}

// A file of this user; of any for root, who gives files away before they are in place.
bool mayRemove(const struct stat& status)
{
    return S_ISREG(status.st_mode) && (status.st_uid == geteuid() || geteuid() == 0);
}

// Removes a temporary file that nobody holds.
void removeIfOrphan(int directory, const char* name)
{
    const int fd = openOrphan(directory, name);
    if (fd < 0)
    {
        return;
    }
    struct stat status = {};
    if (fstat(fd, &status) == 0 && mayRemove(status) && lock(fd))
    {
        // Its owner may have renamed it since: then the name is gone, and this fails harmlessly.
        (void)unlinkat(directory, name, 0);
    }
    (void)::close(fd);
}

}  // namespace

// Names are told by their whole form: no file that a user named is ever taken for an orphan.
bool isTemporaryName(const char* name)
{
    if (strlen(name) != sizeof kPrefix - 1 + kDigits + sizeof kSuffix - 1 ||
        strncmp(name, kPrefix, sizeof kPrefix - 1) != 0)
    {
        return false;
    }
    const char* const digits = name + sizeof kPrefix - 1;
    return strspn(digits, "0123456789abcdef") == kDigits && strcmp(digits + kDigits, kSuffix) == 0;
}

DownloadFile::~DownloadFile()
{
    discard();
}

bool DownloadFile::open(const std::string& directory, const std::string& name, Failure& failure)
{
    directory_ = directory;
    name_ = name;
    directoryFd_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd_ < 0)
    {
        return localFailure(failure, "cannot open the directory of");
    }
    struct stat target = {};
    const bool exists = fstatat(directoryFd_, name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && S_ISDIR(target.st_mode))
    {
        errno = EISDIR;
        return localFailure(failure, "cannot replace");
    }
    if (exists && !S_ISREG(target.st_mode) && !S_ISLNK(target.st_mode))
    {
        return localFailure(failure, "cannot replace", "it is not a regular file");
    }
    replaced_ = {};
    if (exists && S_ISREG(target.st_mode))
    {
        replaced_ = target;
    }
    removeOrphans();
    return createTemporary(failure);
}

bool DownloadFile::createTemporary(Failure& failure)
{
    for (int tries = 0; tries != kTries; ++tries)
    {
        if (!makeTemporary(failure))
        {
            return false;
        }
        const Claim claim = lockTemporary();
        if (claim != Claim::Lost)
        {
            return claim == Claim::Ours || localFailure(failure, "cannot lock");
        }
        removeTemporary();
    }
    return localFailure(failure, "cannot lock", "others lock every temporary file");
}

bool DownloadFile::makeTemporary(Failure& failure)
{
    // A replacement gets the permissions of the replaced file at the end; until then nobody else
    // may read it, as nobody else may read a private target.
    const mode_t mode = replaced_.st_mode != 0 ? 0600 : 0666;
    do
    {
        if (!randomName(temporary_))
        {
            temporary_[0] = '\0';
            return localFailure(failure, "cannot create");
        }
        fd_ = openat(directoryFd_, temporary_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (fd_ < 0 && errno == EEXIST);
    if (fd_ < 0)
    {
        temporary_[0] = '\0';
        return localFailure(failure, "cannot create");
    }
    return true;
}

DownloadFile::Claim DownloadFile::lockTemporary()
{
    if (!lock(fd_))
    {
        switch (errno)
        {
            case EWOULDBLOCK:
                return Claim::Lost;
            // The file system knows no locks: then nobody sweeps there either.
            case ENOLCK:
            case EOPNOTSUPP:
            case ENOSYS:
            case EINVAL:
                return Claim::Ours;
            default:
                return Claim::Failed;
        }
    }
    struct stat status = {};
    if (fstat(fd_, &status) != 0)
    {
        return Claim::Failed;
    }
    // A sweeper may have had it between its creation and its lock, and removed it.
    return status.st_nlink != 0 ? Claim::Ours : Claim::Lost;
}

void DownloadFile::removeOrphans()
{
    // A stream of its own: closing it closes the descriptor.
    const int fd = openat(directoryFd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const entries = fd < 0 ? nullptr : fdopendir(fd);
    if (entries == nullptr)
    {
        if (fd >= 0)
        {
            (void)::close(fd);
        }
        return;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this thread's own.
    while (const dirent* entry = readdir(entries))
    {
        if (isTemporaryName(entry->d_name))
        {
            removeIfOrphan(directoryFd_, entry->d_name);
        }
    }
    (void)closedir(entries);
}

bool DownloadFile::write(const char* data, size_t length, Failure& failure)
{
    if (piece_ == nullptr)
    {
        piece_.reset(new (std::nothrow) char[kFilePiece]);
        if (piece_ == nullptr)
        {
            return failSystem(failure, "file buffer");
        }
    }
    while (length != 0)
    {
        const size_t taken = std::min(length, kFilePiece - used_);
        memcpy(piece_.get() + used_, data, taken);
        used_ += taken;
        data += taken;
        length -= taken;
        if (used_ == kFilePiece && !flushPiece(failure))
        {
            return false;
        }
    }
    return true;
}

// A write may take less than it was given, as when the disk is nearly full.
bool DownloadFile::flushPiece(Failure& failure)
{
    for (size_t written = 0; written != used_;)
    {
        const ssize_t count = ::write(fd_, piece_.get() + written, used_ - written);
        if (count < 0 && errno != EINTR)
        {
            return localFailure(failure, "cannot write");
        }
        written += count < 0 ? 0 : static_cast<size_t>(count);
    }
    unbegun_ += static_cast<off_t>(used_);
    used_ = 0;
    if (unbegun_ >= kWriteBehind)
    {
        // A hint: whether it all gets to the disk is what the flush at the end finds out.
        (void)sync_file_range(fd_, begun_, unbegun_, SYNC_FILE_RANGE_WRITE);
        begun_ += unbegun_;
        unbegun_ = 0;
    }
    return true;
}

// Of the target as it is now; if it has gone since the start, as it was then.
bool DownloadFile::takePermissions(Failure& failure)
{
    struct stat target = {};
    if (fstatat(directoryFd_, name_.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(target.st_mode))
    {
        replaced_ = target;
    }
    if (replaced_.st_mode == 0)
    {
        return true;
    }
    // Whoever could read the old file can read the new one, if we may see to it. A user may give
    // away no file, but may change its group.
    const bool given = fchown(fd_, replaced_.st_uid, replaced_.st_gid) == 0 ||
                       fchown(fd_, static_cast<uid_t>(-1), replaced_.st_gid) == 0;
    (void)given;  // else it is ours, as a new one would be
    // What a server sent runs with nobody's rights but its caller's.
    return fchmod(fd_, replaced_.st_mode & kPermissions) == 0 ||
           localFailure(failure, "cannot set the permissions of");
}

bool DownloadFile::complete(Failure& failure)
{
    if (!flushPiece(failure) || !takePermissions(failure))
    {
        return false;
    }
    if (fsync(fd_) != 0)
    {
        return localFailure(failure, "cannot flush");
    }
    return true;
}

bool DownloadFile::publish(Failure& failure)
{
    if (renameat(directoryFd_, temporary_, directoryFd_, name_.c_str()) != 0)
    {
        return localFailure(failure, "cannot replace");
    }
    temporary_[0] = '\0';
    // The file is complete and in place whatever comes of this; some file systems cannot do it.
    (void)fsync(directoryFd_);
    close();
    return true;
}

void DownloadFile::discard()
{
    removeTemporary();
    close();
}

void DownloadFile::removeTemporary()
{
    if (temporary_[0] != '\0')
    {
        // Before it is unlocked, so that no sweeper sees it without its owner.
        (void)unlinkat(directoryFd_, temporary_, 0);
        temporary_[0] = '\0';
    }
    if (fd_ >= 0)
    {
        (void)::close(fd_);
        fd_ = -1;
    }
}

// Frees the buffer as well: an object lives on while its transfer waits to be told of.
void DownloadFile::close()
{
    for (int* fd : {&fd_, &directoryFd_})
    {
        if (*fd >= 0)
        {
            (void)::close(*fd);
            *fd = -1;
        }
    }
    piece_.reset();
    used_ = 0;
    begun_ = unbegun_ = 0;
}

bool DownloadFile::localFailure(Failure& failure, const char* step)
{
    return localFailure(failure, step, systemError(errno));
}

bool DownloadFile::localFailure(Failure& failure, const char* step, const char* reason)
{
    return fail(failure, TRAVEX_FTP_ERR_LOCAL_FILE, "%s %s/%s: %s", step, directory_.c_str(),
                name_.c_str(), reason);
}

}  // namespace travex_ftp
