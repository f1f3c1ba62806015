#include "os/service_manager.h"

#include <stdlib.h>
#include <time.h>

#include <cstddef>
#include <cstdint>

#include "text.h"

namespace corpdir_tool
{

namespace
{

constexpr char kVariable[] = "NOTIFY_SOCKET";

std::string TakeVariable()
{
    const char* const value = getenv(kVariable);  // NOLINT(concurrency-mt-unsafe): the only thread
    std::string path = value == nullptr ? "" : value;
    (void)unsetenv(kVariable);  // NOLINT(concurrency-mt-unsafe): fails for an invalid name only
    return path;
}

std::uint64_t MonotonicMicroseconds()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // fails for an unknown clock only
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

ServiceManager::ServiceManager()
{
    const std::string path = TakeVariable();
    const bool isAbstract = path.rfind('@', 0) == 0;
    const bool isPath = path.rfind('/', 0) == 0;
    // A path needs its terminating zero as well.
    if ((!isAbstract && !isPath) || path.size() >= sizeof m_address.sun_path)
    {
        return;
    }
    m_address.sun_family = AF_UNIX;
    (void)path.copy(m_address.sun_path, path.size());
    if (isAbstract)
    {
        m_address.sun_path[0] = '\0';
    }
    m_addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() +
                                             (isAbstract ? 0 : 1));
    m_socket = base::Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void ServiceManager::Ready() const
{
    Send("READY=1");
}

void ServiceManager::Status(std::string_view text) const
{
    Send("STATUS=" + Printable(text));
}

void ServiceManager::Reloading() const
{
    Send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(MonotonicMicroseconds()));
}

void ServiceManager::Stopping() const
{
    Send("STOPPING=1");
}

void ServiceManager::Send(const std::string& state) const
{
    if (m_socket.IsOpen())
    {
        // The watch works without a service manager, so a datagram that is not taken is no failure.
        (void)sendto(m_socket.Number(), state.data(), state.size(), MSG_NOSIGNAL,
                     reinterpret_cast<const sockaddr*>(&m_address), m_addressLength);
    }
}

}  // namespace corpdir_tool
