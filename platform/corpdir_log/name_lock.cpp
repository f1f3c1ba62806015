#include "name_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace corpdir_log
{
namespace
{
constexpr unsigned int kNames = 100;  // processes with a short name in one directory

// The descriptor that holds a lock, for the fork handler. -1: none.
std::atomic<int> g_lockDescriptor{-1};

std::string LockPath(const std::string& directory)
{
    return directory + "/.corpdir.lock";
}

std::string NumberedName(unsigned int number)
{
    return number == 1 ? "corpdir.log" : "corpdir-" + std::to_string(number) + ".log";
}

}  // namespace

NameLock::NameLock(const std::string& directory)
    : m_fileName("corpdir-" + std::to_string(getpid()) + ".log")
{
    const std::string path = LockPath(directory);
    m_descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    for (unsigned int number = 1; m_descriptor != -1 && number <= kNames; ++number)
    {
        if (TakeName(number))
        {
            m_fileName = NumberedName(number);
            g_lockDescriptor.store(m_descriptor);
            return;
        }
    }
}

NameLock::~NameLock()
{
    if (m_descriptor != -1)
    {
        int mine = m_descriptor;
        g_lockDescriptor.compare_exchange_strong(mine, -1);
        close(m_descriptor);
    }
}

// A lock of the open file description: unlike one of the process it ends with this descriptor
// alone, whatever else of the client opens and closes the file.
bool NameLock::TakeName(unsigned int number)
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = number;
    range.l_len = 1;
    return fcntl(m_descriptor, F_OFD_SETLK, &range) == 0;
}

bool NameLock::IsFor(const std::string& directory) const
{
    struct stat held = {};
    struct stat found = {};
    return m_descriptor != -1 && fstat(m_descriptor, &held) == 0 &&
           stat(LockPath(directory).c_str(), &found) == 0 && held.st_dev == found.st_dev &&
           held.st_ino == found.st_ino;
}

void NameLock::ReleaseInForkedChild()
{
    const int descriptor = g_lockDescriptor.exchange(-1);
    if (descriptor != -1)
    {
        close(descriptor);
    }
}

}  // namespace corpdir_log
