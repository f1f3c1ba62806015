#include "sockets.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace travex_ftp
{
// Under the lock as a whole, so that shutDownAll() misses none that is just being made.
int Sockets::open(int family, int type, int protocol)
{
    const common::Hold hold(guard_);
    if (shutDown_)
    {
        errno = ESHUTDOWN;
        return -1;
    }
    const int made = socket(family, type | SOCK_CLOEXEC, protocol);
    if (made < 0)
    {
        return -1;
    }
    try
    {
        open_.insert(made);
    }
    catch (const std::bad_alloc&)
    {
        (void)::close(made);
        errno = ENOMEM;
        return -1;
    }
    return made;
}

int Sockets::close(int socket)
{
    const common::Hold hold(guard_);
    open_.erase(socket);
    return ::close(socket);
}

void Sockets::shutDownAll()
{
    const common::Hold hold(guard_);
    shutDown_ = true;
    for (const int socket : open_)
    {
        (void)shutdown(socket, SHUT_RDWR);
    }
}

}  // namespace travex_ftp
