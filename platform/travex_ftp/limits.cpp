#include "limits.h"

#include <algorithm>
#include <cstdlib>

namespace travex_ftp
{
namespace
{
// Each takes four descriptors.
constexpr uint64_t kMostConnections = 4096;

// secure_getenv: a set-user-id program does not let its caller loosen a limit.
void read(const char* name, uint64_t& value)
{
    const char* text = secure_getenv(name);
    if (text == nullptr || *text < '0' || *text > '9')
    {
        return;
    }
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text, &end, 10);
    if (*end == '\0' && number > 0 && number <= 1ull << 62)
    {
        value = number;
    }
}

void read(const char* name, milliseconds& value)
{
    // libcurl takes no reply limit beyond 24.8 days, and counts the milliseconds of a connection in
    // 32 bits. Twice this fits too.
    constexpr uint64_t kLongest = 1000ull * 3600 * 24 * 20;
    uint64_t number = static_cast<uint64_t>(value.count());
    read(name, number);
    value = milliseconds(std::min(number, kLongest));
}

}  // namespace

Limits Limits::fromEnvironment()
{
    Limits limits;
    read("CORPDIR_FTP_CONNECT_MS", limits.connect);
    read("CORPDIR_FTP_HANDSHAKE_MS", limits.handshake);
    read("CORPDIR_FTP_RESPONSE_MS", limits.response);
    read("CORPDIR_FTP_STALL_MS", limits.stall);
    read("CORPDIR_FTP_STALL_BYTES", limits.stallBytes);
    read("CORPDIR_FTP_CONFIRM_MS", limits.confirm);
    read("CORPDIR_FTP_TRANSFER_MS", limits.transfer);
    read("CORPDIR_FTP_IDLE_MS", limits.idle);
    read("CORPDIR_FTP_OBSERVE_MS", limits.observe);
    read("CORPDIR_FTP_FILE_BYTES", limits.fileBytes);
    read("CORPDIR_FTP_REPLY_BYTES", limits.replyBytes);
    read("CORPDIR_FTP_REPLY_LINES", limits.replyLines);
    read("CORPDIR_FTP_CONNECTIONS", limits.connections);
    limits.connections = std::min(limits.connections, kMostConnections);
    return limits;
}

}  // namespace travex_ftp
