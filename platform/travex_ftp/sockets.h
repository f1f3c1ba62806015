// The open sockets of the transfer thread, for those who want to end what it is doing.
#ifndef TRAVEX_FTP_SOCKETS_H
#define TRAVEX_FTP_SOCKETS_H

#include <unordered_map>

#include "common/guard.h"

namespace travex_ftp
{
// libcurl makes some steps in blocking calls: the TLS handshake of an explicit control channel, the
// wait for the 226, QUIT. Shutting the sockets down from another thread ends them at once.
// Thread-safe: a connected socket is closed under the lock, so that its number is never another
// one's. libcurl 7.88 closes by itself, without a word, what has not connected yet.
class Sockets
{
public:
    // Makes a socket. -1 and errno when that fails, and after shutDownAll().
    int open(int family, int type, int protocol) CORPDIR_EXCLUDES(guard_);

    // From here on it is closed by close() alone, and shut down with the others.
    void connected(int socket) CORPDIR_EXCLUDES(guard_);

    // Returns close()'s result.
    int close(int socket) CORPDIR_EXCLUDES(guard_);

    // Makes every pending and every later read or write on connected sockets fail.
    void shutDownAll() CORPDIR_EXCLUDES(guard_);

private:
    common::Guard guard_;
    bool shutDown_ CORPDIR_GUARDED_BY(guard_) = false;
    std::unordered_map<int, bool> open_ CORPDIR_GUARDED_BY(guard_);  // whether they have connected
};

}  // namespace travex_ftp

#endif
