#include "digest.h"

#include "crypto_session.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace zep
{
namespace
{
constexpr std::size_t kChunk = 64U << 10;  // on the stack

// SHA-256 in pieces. Each use of the crypto library has a session of its own: the end of the
// process does not wait for a whole file, nor for the disk.
class Sha256
{
public:
    Sha256() = default;
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    // When the process is ending, the context stays allocated: the library may be gone.
    ~Sha256()
    {
        const CryptoSession session;
        if (session.IsOpen())
        {
            EVP_MD_CTX_free(m_context);
        }
    }

    // This and the next two return false with errno.
    bool Begin()
    {
        const CryptoSession session;
        m_context = session.IsOpen() ? EVP_MD_CTX_new() : nullptr;
        return Check(session, m_context != nullptr &&
                                  EVP_DigestInit_ex2(m_context, EVP_sha256(), nullptr) == 1);
    }

    bool Add(const unsigned char* bytes, std::size_t length)
    {
        const CryptoSession session;
        return Check(session, session.IsOpen() && EVP_DigestUpdate(m_context, bytes, length) == 1);
    }

    bool End(unsigned char (&digest)[32])
    {
        const CryptoSession session;
        return Check(session,
                     session.IsOpen() && EVP_DigestFinal_ex(m_context, digest, nullptr) == 1);
    }

private:
    static bool Check(const CryptoSession& session, bool done)
    {
        if (!done)
        {
            errno = session.IsOpen() ? ENOMEM : ESHUTDOWN;
        }
        return done;
    }

    EVP_MD_CTX* m_context = nullptr;
};

// pread that goes on after a signal.
ssize_t ReadAt(int descriptor, unsigned char (&chunk)[kChunk], std::uint64_t offset)
{
    ssize_t count = 0;
    do
    {
        count = pread(descriptor, chunk, kChunk, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    return count;
}

}  // namespace

bool Sha256OfFile(int descriptor, unsigned char (&digest)[32], std::uint64_t& size) noexcept
{
    Sha256 sha256;
    if (!sha256.Begin())
    {
        return false;
    }
    unsigned char chunk[kChunk];
    ssize_t count = 0;
    size = 0;
    while ((count = ReadAt(descriptor, chunk, size)) > 0)
    {
        if (!sha256.Add(chunk, static_cast<std::size_t>(count)))
        {
            return false;
        }
        size += static_cast<std::uint64_t>(count);
    }
    return count == 0 && sha256.End(digest);
}

}  // namespace zep
