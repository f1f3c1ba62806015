// Reports the state of `watch` to systemd by the protocol of sd_notify(3), without its library.
#ifndef CORPDIR_TOOL_SERVICE_MANAGER_H
#define CORPDIR_TOOL_SERVICE_MANAGER_H

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <string_view>

#include "base/descriptor.h"

namespace corpdir_tool
{

// Each report is one datagram and never blocks. Without a service manager, and when it takes no
// datagram, nothing happens. Any thread: nothing changes after the constructor.
class ServiceManager
{
public:
    // Takes NOTIFY_SOCKET out of the environment, so that commands do not inherit it. Make it
    // before any other thread exists.
    ServiceManager();

    // The service runs, or runs again after Reloading().
    void Ready() const;

    // One line for `systemctl status`; control characters are escaped.
    void Status(std::string_view text) const;

    // Settings are read again; Ready() or Stopping() must follow.
    void Reloading() const;

    void Stopping() const;

private:
    void Send(const std::string& state) const;

    sockaddr_un m_address = {};
    socklen_t m_addressLength = 0;
    base::Descriptor m_socket;  // none: no service manager
};

}  // namespace corpdir_tool

#endif
