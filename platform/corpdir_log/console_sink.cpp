#include "console_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace corpdir_log
{
namespace
{
// The client may have made standard error non-blocking.
bool AwaitRoom()
{
    pollfd console = {STDERR_FILENO, POLLOUT, 0};
    return errno == EAGAIN && poll(&console, 1, -1) == 1;
}

}  // namespace

ConsoleSink::ConsoleSink() : m_isOpen(fcntl(STDERR_FILENO, F_GETFD) != -1) {}

void ConsoleSink::Write(const Record& record)
{
    if (!m_isOpen)
    {
        return;
    }
    m_line.clear();
    m_formatter.Append(record.time, record.Text(), m_line);
    for (std::string_view rest(m_line); !rest.empty();)
    {
        const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
        if (written < 0 && !AwaitRoom())
        {
            return;
        }
        rest.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

}  // namespace corpdir_log
