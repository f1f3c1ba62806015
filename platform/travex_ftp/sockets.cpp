#include "sockets.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace travex_ftp
{
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
        open_[made] = false;  // the place of one that libcurl has closed, maybe
    }
    catch (const std::bad_alloc&)
    {
        (void)::close(made);
        errno = ENOMEM;
        return -1;
    }
    return made;
}

void Sockets::connected(int socket)
{
    const common::Hold hold(guard_);
    const auto found = open_.find(socket);
    if (found == open_.end())
    {
        return;
    }
    found->second = true;
    if (shutDown_)
    {
        (void)shutdown(socket, SHUT_RDWR);
    }
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
    for (const auto& [socket, isConnected] : open_)
    {
        if (isConnected)
        {
            (void)shutdown(socket, SHUT_RDWR);
        }
    }
}

}  // namespace travex_ftp
