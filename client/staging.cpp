#include "staging.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <system_error>
#include <utility>

namespace client
{

namespace
{

using File = Staging::File;

constexpr char kPrefix[] = ".corpdir-";
constexpr std::size_t kPrefixLength = sizeof kPrefix - 1;
constexpr std::size_t kDigits = 16;

const char* Ending(File file)
{
    switch (file)
    {
        case File::kVersion:
            return ".version";
        case File::kDirectory:
            return ".directory";
        case File::kNew:
            return ".new";
        default:
            return ".lock";
    }
}

std::string NameOf(const std::string& id, File file)
{
    return kPrefix + id + Ending(file);
}

std::string RandomId()
{
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
    {
        throw std::system_error(errno, std::generic_category(), "no random numbers");
    }
    char digits[kDigits + 1];
    (void)std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(number));
    return digits;
}

// The run to which a file belongs; empty for a file of somebody else.
std::string IdOf(const std::string& name)
{
    const bool ours = name.size() > kPrefixLength + kDigits + 1 &&
                      name.compare(0, kPrefixLength, kPrefix) == 0 &&
                      name[kPrefixLength + kDigits] == '.';
    std::string id = ours ? name.substr(kPrefixLength, kDigits) : "";
    return id.find_first_not_of("0123456789abcdef") == std::string::npos ? id : "";
}

// The files of runs in a folder, by run.
std::map<std::string, std::set<std::string>> FilesIn(const std::string& folder)
{
    std::map<std::string, std::set<std::string>> files;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), &closedir);
    // A folder may be writable and not readable: nothing is removed then.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this thread alone uses the stream.
    while (const dirent* entry = entries == nullptr ? nullptr : readdir(entries.get()))
    {
        const std::string id = IdOf(entry->d_name);
        if (!id.empty())
        {
            files[id].insert(entry->d_name);
        }
    }
    return files;
}

// The lock file goes last: while it exists, it shows whether its owner lives.
void RemoveFiles(const std::string& folder, const std::string& id,
                 const std::set<std::string>& names)
{
    const std::string lock = NameOf(id, File::kLock);
    for (const std::string& name : names)
    {
        if (name != lock)
        {
            (void)unlink((folder + name).c_str());
        }
    }
    (void)unlink((folder + lock).c_str());
}

// True when no process holds the lock file any more, or there is none: it outlives the others.
// `lock` keeps a new owner away until the files are removed.
bool IsOrphaned(const std::string& folder, const std::string& id, base::Descriptor& lock)
{
    const std::string path = folder + NameOf(id, File::kLock);
    lock = base::Descriptor(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return lock.IsOpen() ? TryLock(lock.Number()) == LockResult::kLocked : errno == ENOENT;
}

}  // namespace

LockResult TryLock(int descriptor) noexcept
{
    int result = 0;
    do
    {
        result = flock(descriptor, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result == 0)
    {
        return LockResult::kLocked;
    }
    switch (errno)
    {
        case EWOULDBLOCK:
            return LockResult::kHeld;
        case ENOLCK:
        case EOPNOTSUPP:
        case ENOSYS:
        case EINVAL:
        case EBADF:  // NFS locks only files that are open for writing
            return LockResult::kUnsupported;
        default:
            return LockResult::kFailed;
    }
}

Staging::Staging(std::string folder) : m_folder(std::move(folder))
{
    while (!MakeLockFile())
    {
    }
    MakePrivate(File::kVersion);
    MakePrivate(File::kDirectory);
    for (const auto& [id, names] : FilesIn(m_folder))
    {
        base::Descriptor lock;
        if (id != m_id && IsOrphaned(m_folder, id, lock))
        {
            RemoveFiles(m_folder, id, names);
        }
    }
}

Staging::~Staging()
{
    Remove();
}

std::string Staging::Name(File file) const
{
    return NameOf(m_id, file);
}

std::string Staging::Path(File file) const
{
    return m_folder + Name(file);
}

bool Staging::IsReserved(const std::string& name)
{
    constexpr char kTransferPrefix[] = ".travex_ftp-";
    return name.rfind(kPrefix, 0) == 0 || name.rfind(kTransferPrefix, 0) == 0;
}

std::string Staging::PutDirectoryAside()
{
    char number[16];
    (void)std::snprintf(number, sizeof number, "%08x", m_received++);
    std::string path = m_folder + kPrefix + m_id + ".received-" + number;
    if (std::rename(Path(File::kDirectory).c_str(), path.c_str()) != 0)
    {
        return {};
    }
    MakePrivate(File::kDirectory);
    return path;
}

// Without it the next file is readable while it is received; the transfer itself reports errors.
void Staging::MakePrivate(File file) const noexcept
{
    const base::Descriptor made(
        open(Path(file).c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
}

void Staging::Remove() const noexcept
{
    try
    {
        RemoveFiles(m_folder, m_id, FilesIn(m_folder)[m_id]);
    }
    catch (const std::bad_alloc&)
    {
        // The next run removes them.
    }
}

// False when another run took the new file for an orphan, between its creation and its lock.
bool Staging::MakeLockFile()
{
    m_id = RandomId();
    m_lock = base::Descriptor(
        open(Path(File::kLock).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!m_lock.IsOpen())
    {
        if (errno == EEXIST)
        {
            return false;
        }
        throw std::system_error(errno, std::generic_category(),
                                "cannot create a file in '" + m_folder + "'");
    }
    struct stat state = {};
    switch (TryLock(m_lock.Number()))
    {
        case LockResult::kHeld:
            return false;
        case LockResult::kFailed:
            throw std::system_error(errno, std::generic_category(),
                                    "cannot lock a file in '" + m_folder + "'");
        default:
            break;
    }
    if (fstat(m_lock.Number(), &state) != 0 || state.st_nlink == 0)
    {
        return false;
    }
    m_newFileMode = state.st_mode & 0777;
    return true;
}

}  // namespace client
