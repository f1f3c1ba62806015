#include "private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corpdir_log
{
// O_NONBLOCK: opening a pipe in the file's place must not hang.
base::Descriptor OpenPrivate(const std::string& path)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    base::Descriptor file(open(path.c_str(), kFlags, 0600));
    if (!file.IsOpen() || file.Number() > STDERR_FILENO)
    {
        return file;
    }
    return base::Descriptor(fcntl(file.Number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

bool IsAt(const base::Descriptor& file, const std::string& path)
{
    struct stat held = {};
    struct stat found = {};
    return file.IsOpen() && fstat(file.Number(), &held) == 0 && stat(path.c_str(), &found) == 0 &&
           held.st_dev == found.st_dev && held.st_ino == found.st_ino;
}

}  // namespace corpdir_log
