#include "name_lock.h"

#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <system_error>

namespace corpdir_log
{
namespace
{
constexpr unsigned int kNames = 100;  // processes with a short name in one directory

// The descriptors that hold locks, for the fork handler; 0: no lock, since none has that number.
// Two: while the log is opened in another directory, its old and its new name are both taken.
std::array<std::atomic<int>, 2> g_lockDescriptors;

// The name that this process had last: number, and hash of the lock file's path. Atomic for the
// fork handler.
std::atomic<unsigned int> g_lastNumber{0};
std::atomic<std::size_t> g_lastPath{0};

void Replace(int before, int after)
{
    for (std::atomic<int>& place : g_lockDescriptors)
    {
        int expected = before;
        if (place.compare_exchange_strong(expected, after))
        {
            return;
        }
    }
}

// In a file of another user, that user could hold every lock.
bool IsOurs(const base::Descriptor& file)
{
    struct stat status = {};
    return file.IsOpen() && fstat(file.Number(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == geteuid();
}

}  // namespace

NameLock::NameLock(const std::string& directory)
{
    const std::string user = std::to_string(geteuid());
    if (!TakeNameIn(directory, ".corpdir.lock", "corpdir") &&
        !TakeNameIn(directory, ".corpdir-" + user + ".lock", "corpdir-u" + user))
    {
        m_fileName = "corpdir-p" + std::to_string(getpid()) + ".log";
    }
}

NameLock::~NameLock()
{
    if (m_file.IsOpen())
    {
        Replace(m_file.Number(), 0);
    }
}

// False when the file cannot be used, or all its names are taken.
bool NameLock::TakeNameIn(const std::string& directory, const std::string& lockName,
                          const std::string& prefix)
{
    const std::string path = directory + '/' + lockName;
    m_file = OpenPrivate(path);
    if (!m_file.IsOpen() && (errno == ENOENT || errno == EMFILE || errno == ENFILE))
    {
        // The directory is missing, or descriptors ran out: no other name would help.
        throw std::system_error(errno, std::generic_category());
    }
    if (!IsOurs(m_file))
    {
        m_file = base::Descriptor();
        return false;
    }
    // First the last one: an application that starts the service again stays in one file.
    const std::size_t hash = std::hash<std::string>()(path);
    const unsigned int last = g_lastPath == hash ? g_lastNumber.load() : 0;
    for (unsigned int at = 0; at <= kNames; ++at)
    {
        const unsigned int number = at == 0 ? last : at;
        if (number != 0 && TakeNumber(number))
        {
            g_lastNumber = number;
            g_lastPath = hash;
            m_lockName = lockName;
            m_fileName = prefix + (number == 1 ? "" : '-' + std::to_string(number)) + ".log";
            Replace(0, m_file.Number());
            return true;
        }
    }
    m_file = base::Descriptor();
    return false;
}

// A lock of the open file description. A lock of the process would end as soon as any other
// descriptor of the file is closed.
bool NameLock::TakeNumber(unsigned int number) const
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = number;
    range.l_len = 1;
    return fcntl(m_file.Number(), F_OFD_SETLK, &range) == 0;
}

bool NameLock::IsFor(const std::string& directory) const
{
    return IsAt(m_file, directory + '/' + m_lockName);
}

void NameLock::ReleaseInForkedChild()
{
    g_lastNumber = 0;
    for (std::atomic<int>& place : g_lockDescriptors)
    {
        const int descriptor = place.exchange(0);
        if (descriptor != 0)
        {
            close(descriptor);
        }
    }
}

}  // namespace corpdir_log
