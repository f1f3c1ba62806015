// A port of 127.0.0.1 that never answers: its queue of connections is full.
#ifndef CORPDIR_TESTS_SILENT_ADDRESS_H
#define CORPDIR_TESTS_SILENT_ADDRESS_H

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support
{
class SilentAddress
{
public:
    SilentAddress()
    {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_address;
        EXPECT_EQ(0, bind(m_listener.Get(), Generic(), length));
        EXPECT_EQ(0, listen(m_listener.Get(), 0));
        EXPECT_EQ(0, getsockname(m_listener.Get(), Generic(), &length));
        for (const Socket& filler : m_fillers)
        {
            (void)connect(filler.Get(), Generic(), length);
        }
    }

    unsigned int Port() const
    {
        return ntohs(m_address.sin_port);
    }

private:
    class Socket
    {
    public:
        Socket() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
        Socket(const Socket&) = delete;
        Socket& operator=(const Socket&) = delete;
        ~Socket()
        {
            (void)close(m_socket);
        }
        int Get() const
        {
            return m_socket;
        }

    private:
        int m_socket;
    };

    sockaddr* Generic()
    {
        return reinterpret_cast<sockaddr*>(&m_address);
    }

    sockaddr_in m_address{};
    Socket m_listener;
    Socket m_fillers[4];
};

}  // namespace support

#endif
