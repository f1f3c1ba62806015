// The block cipher: AES-256-CBC with PKCS#7 padding.
//
// The crypto library's decryption writes up to a block more than the plain text is long, and what
// it has written stays when the padding turns out to be wrong. In CBC each block depends on the
// cipher block before it only, so the last block is decrypted first, into a buffer of our own: it
// alone holds the padding. Once that is known to be good, the plain text's exact length is known,
// and the blocks before it are decrypted straight into place without padding.
#include "crypto_session.h"
#include "ranges.h"
#include "zep.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

namespace
{
constexpr unsigned int kAes256Cbc = 0;
constexpr unsigned int kBlock = 16;
constexpr unsigned int kKey = 32;
constexpr unsigned int kPiece = 1U << 30;  // the library counts in int; a multiple of the block

enum class Direction
{
    kDecrypt = 0,
    kEncrypt = 1
};

enum class Padding
{
    kNone = 0,
    kPkcs7 = 1
};

struct ContextDeleter
{
    void operator()(EVP_CIPHER_CTX* context) const
    {
        EVP_CIPHER_CTX_free(context);  // wipes the key schedule
    }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter>;

// The arguments of one call, checked for null and length.
struct Job
{
    const unsigned char* key;
    const unsigned char* iv;
    const unsigned char* in;
    unsigned int inLen;
    unsigned char* out;
    unsigned int capacity;
};

bool Start(EVP_CIPHER_CTX* context, Direction direction, Padding padding, const unsigned char* key,
           const unsigned char* iv)
{
    return EVP_CipherInit_ex2(context, EVP_aes_256_cbc(), key, iv, static_cast<int>(direction),
                              nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(context, static_cast<int>(padding)) == 1;
}

// All but the end of the text. Writes whole blocks only, each at the offset that it was read from,
// so that out may be in.
bool Update(EVP_CIPHER_CTX* context, unsigned char* out, const unsigned char* in, unsigned int len)
{
    for (unsigned int done = 0; done < len;)
    {
        const unsigned int part = std::min(len - done, kPiece);
        int written = 0;
        if (EVP_CipherUpdate(context, out + done, &written, in + done, static_cast<int>(part)) != 1)
        {
            return false;
        }
        done += part;
    }
    return true;
}

unsigned int CheckArguments(unsigned int alg, unsigned int keyLen, unsigned int ivLen,
                            const Job& job)
{
    if (alg != kAes256Cbc)
    {
        return ZEP_ERR_ALGORITHM;
    }
    if (job.key == nullptr || keyLen != kKey || job.iv == nullptr || ivLen != kBlock ||
        job.out == nullptr || (job.in == nullptr && job.inLen != 0))
    {
        return ZEP_ERR_PARAM;
    }
    return ZEP_OK;
}

bool IsOverlapRefused(const Job& job, unsigned int outBytes)
{
    return job.in != job.out && zep::RangesOverlap(job.in, job.inLen, job.out, outBytes);
}

unsigned int Encrypt(const Job& job, unsigned int* outLen)
{
    const std::uint64_t need = (std::uint64_t{job.inLen} / kBlock + 1) * kBlock;
    if (need > job.capacity)
    {
        return ZEP_ERR_CAPACITY;
    }
    const auto size = static_cast<unsigned int>(need);
    if (IsOverlapRefused(job, size))
    {
        return ZEP_ERR_OVERLAP;
    }
    const zep::CryptoSession session;
    const Context context(session.IsOpen() ? EVP_CIPHER_CTX_new() : nullptr);
    int tail = 0;
    if (context == nullptr ||
        !Start(context.get(), Direction::kEncrypt, Padding::kPkcs7, job.key, job.iv))
    {
        return ZEP_ERR_CIPHER;
    }
    if (!Update(context.get(), job.out, job.in, job.inLen) ||
        EVP_CipherFinal_ex(context.get(), job.out + size - kBlock, &tail) != 1)
    {
        OPENSSL_cleanse(job.out, size);
        return ZEP_ERR_CIPHER;
    }
    *outLen = size;
    return ZEP_OK;
}

// The plain bytes of the last block, at most 15, wiped at the end.
struct LastBlock
{
    unsigned char bytes[2 * kBlock];  // the library may write a block more than it returns
    unsigned int size = 0;

    LastBlock() = default;
    LastBlock(const LastBlock&) = delete;
    LastBlock& operator=(const LastBlock&) = delete;
    ~LastBlock()
    {
        OPENSSL_cleanse(bytes, sizeof bytes);
    }
};

// False when the padding is wrong, which the library finds out in constant time.
bool DecryptLastBlock(EVP_CIPHER_CTX* context, const Job& job, LastBlock* last)
{
    const unsigned char* const end = job.in + job.inLen;
    const unsigned char* const before = job.inLen == kBlock ? job.iv : end - kBlock - kBlock;
    int written = 0;
    int tail = 0;
    if (!Start(context, Direction::kDecrypt, Padding::kPkcs7, job.key, before) ||
        EVP_CipherUpdate(context, last->bytes, &written, end - kBlock, kBlock) != 1 ||
        EVP_CipherFinal_ex(context, last->bytes + written, &tail) != 1)
    {
        return false;
    }
    last->size = static_cast<unsigned int>(written + tail);
    return true;
}

unsigned int Decrypt(const Job& job, unsigned int* outLen)
{
    if (job.inLen == 0 || job.inLen % kBlock != 0)
    {
        return ZEP_ERR_PARAM;
    }
    if (IsOverlapRefused(job, std::min(job.inLen, job.capacity)))
    {
        return ZEP_ERR_OVERLAP;
    }
    const zep::CryptoSession session;
    const Context context(session.IsOpen() ? EVP_CIPHER_CTX_new() : nullptr);
    LastBlock last;
    if (context == nullptr || !DecryptLastBlock(context.get(), job, &last))
    {
        return ZEP_ERR_CIPHER;
    }
    const unsigned int lead = job.inLen - kBlock;
    const unsigned int plain = lead + last.size;
    if (plain > job.capacity)
    {
        return ZEP_ERR_CAPACITY;
    }
    if (!Start(context.get(), Direction::kDecrypt, Padding::kNone, job.key, job.iv) ||
        !Update(context.get(), job.out, job.in, lead))
    {
        OPENSSL_cleanse(job.out, lead);
        return ZEP_ERR_CIPHER;
    }
    memcpy(job.out + lead, last.bytes, last.size);
    *outLen = plain;
    return ZEP_OK;
}

}  // namespace

unsigned int ZEP_CRYPT_GetblockSize(unsigned int alg)
{
    return alg == kAes256Cbc ? kBlock : 0;
}

unsigned int ZEP_CPYPT_Encrypt(unsigned int alg, const unsigned char* key, unsigned int keyLen,
                               const unsigned char* iv, unsigned int ivLen, const unsigned char* in,
                               unsigned int inLen, unsigned char* out, unsigned int* outLen)
{
    if (outLen == nullptr)
    {
        return ZEP_ERR_PARAM;
    }
    const Job job{key, iv, in, inLen, out, *outLen};
    *outLen = 0;
    const unsigned int checked = CheckArguments(alg, keyLen, ivLen, job);
    return checked == ZEP_OK ? Encrypt(job, outLen) : checked;
}

unsigned int ZEP_CPYPT_Decrypt(unsigned int alg, const unsigned char* key, unsigned int keyLen,
                               const unsigned char* iv, unsigned int ivLen, const unsigned char* in,
                               unsigned int inLen, unsigned char* out, unsigned int* outLen)
{
    if (outLen == nullptr)
    {
        return ZEP_ERR_PARAM;
    }
    const Job job{key, iv, in, inLen, out, *outLen};
    *outLen = 0;
    const unsigned int checked = CheckArguments(alg, keyLen, ivLen, job);
    return checked == ZEP_OK ? Decrypt(job, outLen) : checked;
}

int ZEP_Socket_Get_AF_INET6()
{
    return AF_INET6;
}
