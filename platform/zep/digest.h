// Digests of files.
#ifndef ZEP_DIGEST_H
#define ZEP_DIGEST_H

#include <cstdint>

namespace zep
{
// SHA-256 (FIPS 180-4) and size of the file open at this descriptor, from its start to its end; the
// file offset is neither used nor changed. False with errno, and both results undefined, on a read
// error, with ENOMEM when memory runs out, and with ESHUTDOWN when the process is ending. Any
// thread; waits for the disk.
[[nodiscard]] bool Sha256OfFile(int descriptor, unsigned char (&digest)[32],
                                std::uint64_t& size) noexcept;

}  // namespace zep

#endif
