#include "descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace corpdir_log
{
Descriptor::~Descriptor()
{
    if (IsOpen())
    {
        const int before = errno;
        close(m_number);
        errno = before;
    }
}

// O_NONBLOCK: opening a pipe in the file's place must not hang.
Descriptor OpenPrivate(const std::string& path)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    Descriptor file(open(path.c_str(), kFlags, 0600));
    if (!file.IsOpen() || file.Number() > STDERR_FILENO)
    {
        return file;
    }
    return Descriptor(fcntl(file.Number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

}  // namespace corpdir_log
