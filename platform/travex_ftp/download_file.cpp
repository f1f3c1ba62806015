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
// Hidden; not derived from the target's name, which may have the maximum length.
constexpr char kPrefix[] = ".travex_ftp-";
constexpr char kSuffix[] = ".part";
constexpr size_t kDigits = 16;

// Another download that searches for orphans locks a new file for a moment only. This many in a row
// mean a program that locks everything.
constexpr int kTries = 100;

constexpr mode_t kPermissions = 0777;

bool RandomName(char (&name)[64])
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

// Does not wait, which would delay a stop. On a network file system a signal may interrupt it.
bool Lock(int fd)
{
    int result = 0;
    do
    {
        result = flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// Opens an orphan, which may be read-only, like the target it was to replace. Some network file
// systems need a descriptor open for writing for an exclusive lock.
int OpenOrphan(int directory, const char* name)
{
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int fd = openat(directory, name, O_RDWR | kFlags);
    return fd >= 0 ? fd : openat(directory, name, O_RDONLY | kFlags);
}

// True for a file of this user; for root of any user, since root changes the owner before the
// rename.
bool MayRemove(const struct stat& status)
{
    return S_ISREG(status.st_mode) && (status.st_uid == geteuid() || geteuid() == 0);
}

// Removes a temporary file that is not locked.
void RemoveIfOrphan(int directory, const char* name)
{
    const base::Descriptor fd(OpenOrphan(directory, name));
    struct stat status = {};
    if (fd.IsOpen() && fstat(fd.Number(), &status) == 0 && MayRemove(status) && Lock(fd.Number()))
    {
        // Fails harmlessly if its owner has renamed it meanwhile.
        (void)unlinkat(directory, name, 0);
    }
}

}  // namespace

// Checks the whole name, so that no file of a user is mistaken for an orphan.
bool IsTemporaryName(const char* name)
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
    Discard();
}

bool DownloadFile::Open(const std::string& directory, const std::string& name, Failure& failure)
{
    m_directory = directory;
    m_name = name;
    m_directoryFd = base::Descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_directoryFd.IsOpen())
    {
        return FailLocal(failure, "cannot open the directory of");
    }
    struct stat target = {};
    const bool exists =
        fstatat(m_directoryFd.Number(), name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && S_ISDIR(target.st_mode))
    {
        errno = EISDIR;
        return FailLocal(failure, "cannot replace");
    }
    if (exists && !S_ISREG(target.st_mode) && !S_ISLNK(target.st_mode))
    {
        return FailLocal(failure, "cannot replace", "not a regular file");
    }
    m_replaced = {};
    if (exists && S_ISREG(target.st_mode))
    {
        m_replaced = target;
    }
    RemoveOrphans();
    return CreateTemporary(failure);
}

bool DownloadFile::CreateTemporary(Failure& failure)
{
    for (int tries = 0; tries != kTries; ++tries)
    {
        if (!MakeTemporary(failure))
        {
            return false;
        }
        const LockResult result = LockTemporary();
        if (result != LockResult::kLost)
        {
            return result == LockResult::kLocked || FailLocal(failure, "cannot lock");
        }
        RemoveTemporary();
    }
    return FailLocal(failure, "cannot lock", "other processes lock every temporary file");
}

bool DownloadFile::MakeTemporary(Failure& failure)
{
    // A replacement gets its target's permissions at the end. Until then it is private, as the
    // target may be.
    const mode_t mode = m_replaced.st_mode != 0 ? 0600 : 0666;
    do
    {
        if (!RandomName(m_temporary))
        {
            m_temporary[0] = '\0';
            return FailLocal(failure, "cannot create");
        }
        m_fd = base::Descriptor(openat(m_directoryFd.Number(), m_temporary,
                                       O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    } while (!m_fd.IsOpen() && errno == EEXIST);
    if (!m_fd.IsOpen())
    {
        m_temporary[0] = '\0';
        return FailLocal(failure, "cannot create");
    }
    return true;
}

DownloadFile::LockResult DownloadFile::LockTemporary()
{
    if (!Lock(m_fd.Number()))
    {
        switch (errno)
        {
            case EWOULDBLOCK:
                return LockResult::kLost;
            // The file system does not support locks, so no process removes orphans there.
            case ENOLCK:
            case EOPNOTSUPP:
            case ENOSYS:
            case EINVAL:
                return LockResult::kLocked;
            default:
                return LockResult::kFailed;
        }
    }
    struct stat status = {};
    if (fstat(m_fd.Number(), &status) != 0)
    {
        return LockResult::kFailed;
    }
    // Another download may have removed it as an orphan between its creation and its lock.
    return status.st_nlink != 0 ? LockResult::kLocked : LockResult::kLost;
}

void DownloadFile::RemoveOrphans()
{
    DIR* const entries = opendir(m_directory.c_str());
    if (entries == nullptr)
    {
        return;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this thread alone uses the stream.
    while (const dirent* entry = readdir(entries))
    {
        if (IsTemporaryName(entry->d_name))
        {
            RemoveIfOrphan(m_directoryFd.Number(), entry->d_name);
        }
    }
    (void)closedir(entries);
}

char* DownloadFile::FreeSpace(size_t& size, Failure& failure)
{
    if (m_buffer == nullptr)
    {
        m_buffer.reset(new (std::nothrow) char[kFileBufferSize]);
        if (m_buffer == nullptr)
        {
            (void)FailSystem(failure, "file buffer");
            return nullptr;
        }
    }
    size = kFileBufferSize - m_used;
    return m_buffer.get() + m_used;
}

bool DownloadFile::Arrived(size_t length, Failure& failure)
{
    m_used += length;
    return m_used != kFileBufferSize || WriteBuffer(failure);
}

// A write may be short, as when the disk is nearly full.
bool DownloadFile::WriteBuffer(Failure& failure)
{
    for (size_t written = 0; written != m_used;)
    {
        const ssize_t count = ::write(m_fd.Number(), m_buffer.get() + written, m_used - written);
        if (count < 0 && errno != EINTR)
        {
            return FailLocal(failure, "cannot write");
        }
        written += count < 0 ? 0 : static_cast<size_t>(count);
    }
    m_unflushed += static_cast<off_t>(m_used);
    m_used = 0;
    if (m_unflushed >= kWriteBehind)
    {
        // Only a hint: the flush at the end reports errors.
        (void)sync_file_range(m_fd.Number(), m_flushing, m_unflushed, SYNC_FILE_RANGE_WRITE);
        m_flushing += m_unflushed;
        m_unflushed = 0;
    }
    return true;
}

// Sets the permissions and owner of the target as it is now, or as it was at the start if it has
// vanished since.
bool DownloadFile::CopyPermissions(Failure& failure)
{
    struct stat target = {};
    if (fstatat(m_directoryFd.Number(), m_name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(target.st_mode))
    {
        m_replaced = target;
    }
    if (m_replaced.st_mode == 0)
    {
        return true;
    }
    // Users who could read the old file shall be able to read the new one. Only root may change the
    // owner; a user may change the group.
    const bool given = fchown(m_fd.Number(), m_replaced.st_uid, m_replaced.st_gid) == 0 ||
                       fchown(m_fd.Number(), static_cast<uid_t>(-1), m_replaced.st_gid) == 0;
    (void)given;  // on failure the file keeps our user and group
    // Without set-user-id and set-group-id: the content comes from a server.
    return fchmod(m_fd.Number(), m_replaced.st_mode & kPermissions) == 0 ||
           FailLocal(failure, "cannot set the permissions of");
}

bool DownloadFile::Complete(Failure& failure)
{
    if (!WriteBuffer(failure) || !CopyPermissions(failure))
    {
        return false;
    }
    if (fsync(m_fd.Number()) != 0)
    {
        return FailLocal(failure, "cannot flush");
    }
    return true;
}

bool DownloadFile::MoveIntoPlace(Failure& failure)
{
    if (renameat(m_directoryFd.Number(), m_temporary, m_directoryFd.Number(), m_name.c_str()) != 0)
    {
        return FailLocal(failure, "cannot replace");
    }
    m_temporary[0] = '\0';
    // A failure is ignored: the file is in place, and some file systems cannot flush directories.
    (void)fsync(m_directoryFd.Number());
    Close();
    return true;
}

void DownloadFile::Discard()
{
    RemoveTemporary();
    Close();
}

void DownloadFile::RemoveTemporary()
{
    if (m_temporary[0] != '\0')
    {
        // Removed before it is unlocked, so that no other download sees an orphan.
        (void)unlinkat(m_directoryFd.Number(), m_temporary, 0);
        m_temporary[0] = '\0';
    }
    m_fd = base::Descriptor();
}

// Frees the buffer too: the object lives as long as its handle.
void DownloadFile::Close()
{
    m_fd = base::Descriptor();
    m_directoryFd = base::Descriptor();
    m_buffer.reset();
    m_used = 0;
    m_flushing = m_unflushed = 0;
}

// A null reason: that of errno.
bool DownloadFile::FailLocal(Failure& failure, const char* step, const char* reason)
{
    const char* const why = reason != nullptr ? reason : SystemError(errno);
    SetStep(failure, TRAVEX_FTP_STEP_LOCAL_FILE);
    const char* const slash = m_directory.back() == '/' ? "" : "/";
    return Fail(failure, TRAVEX_FTP_ERR_LOCAL_FILE, "%s %s%s%s: %s", step, m_directory.c_str(),
                slash, m_name.c_str(), why);
}

}  // namespace travex_ftp
