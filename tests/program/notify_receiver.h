// The service manager of the unit tests.
#ifndef CORPDIR_TESTS_NOTIFY_RECEIVER_H
#define CORPDIR_TESTS_NOTIFY_RECEIVER_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

#include "base/descriptor.h"

namespace corpdir_tool
{

// The receiving end of reports to the service manager, and the environment that names it: a path,
// or with "@" in front a name in the abstract namespace.
class NotifyReceiver
{
public:
    explicit NotifyReceiver(const std::string& name)
        : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        std::size_t length = offsetof(sockaddr_un, sun_path) + name.size();
        if (name[0] == '@')
        {
            address.sun_path[0] = '\0';
        }
        else
        {
            ++length;
        }
        EXPECT_EQ(bind(m_socket.Number(), reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(length)),
                  0)
            << std::strerror(errno);
        EXPECT_EQ(setenv("NOTIFY_SOCKET", name.c_str(), 1), 0);
    }

    // The next datagram; a datagram of a local socket arrives within the send.
    std::optional<std::string> Next() const
    {
        char bytes[4096];
        const ssize_t got = recv(m_socket.Number(), bytes, sizeof bytes, 0);
        return got < 0 ? std::nullopt
                       : std::optional(std::string(bytes, static_cast<std::size_t>(got)));
    }

private:
    base::Descriptor m_socket;
};

}  // namespace corpdir_tool

#endif
