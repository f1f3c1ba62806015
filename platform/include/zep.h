/// @file
/// Security layer: random source, block cipher, bounded memory and string helpers.
///
/// Everything here may be called on any thread; nothing keeps state, blocks or throws. The result
/// is 0 for success, else a code of tagZEP_RESULT. Once the process has begun to end, random bytes
/// and ciphers fail with their codes, because the crypto library shuts itself down.
#ifndef ZEP_H
#define ZEP_H

#include <stddef.h>

/// Result codes.
enum tagZEP_RESULT
{
    ZEP_OK = 0,             ///< success
    ZEP_ERR_PARAM = 1,      ///< a null pointer where data is required, or a wrong length
    ZEP_ERR_ALGORITHM = 2,  ///< unknown algorithm id
    ZEP_ERR_CAPACITY = 3,   ///< the destination is too small
    ZEP_ERR_CIPHER = 4,  ///< the crypto library failed; for a decryption: wrong key or bad padding
    ZEP_ERR_RANDOM = 5,  ///< the random source failed
    ZEP_ERR_OVERLAP = 6  ///< source and destination overlap
};

extern "C"
{
    /// Fills buffer with len cryptographic random bytes, or fails and zeroes it; there is no weaker
    /// fallback.
    unsigned int ZEP_CPYPT_RealRandom(unsigned char* buffer, unsigned int len);

    /// Block size in bytes: 16 for algorithm 0, 0 for an unknown one.
    unsigned int ZEP_CRYPT_GetblockSize(unsigned int alg);

    /// Encrypts. Algorithm 0 is AES-256-CBC (NIST SP 800-38A) with PKCS#7 padding (RFC 5652, 6.3):
    /// key 32 bytes, IV 16 bytes. *outLen is the capacity of out on entry and the bytes written on
    /// return, 0 after a failure. n bytes encrypt into (n / 16 + 1) * 16; a decryption writes the
    /// plain bytes only and needs room for them alone. Nothing is written past the capacity. in and
    /// out may be the same buffer; other overlaps are refused. When the padding is wrong, out is
    /// left unchanged: no plain byte is written.
    unsigned int ZEP_CPYPT_Encrypt(unsigned int alg, const unsigned char* key, unsigned int keyLen,
                                   const unsigned char* iv, unsigned int ivLen,
                                   const unsigned char* in, unsigned int inLen, unsigned char* out,
                                   unsigned int* outLen);

    /// Decrypts. The arguments are those of ZEP_CPYPT_Encrypt.
    unsigned int ZEP_CPYPT_Decrypt(unsigned int alg, const unsigned char* key, unsigned int keyLen,
                                   const unsigned char* iv, unsigned int ivLen,
                                   const unsigned char* in, unsigned int inLen, unsigned char* out,
                                   unsigned int* outLen);

    /// The IPv6 address family of the platform's sockets.
    int ZEP_Socket_Get_AF_INET6();

    /// Copies count bytes into a destination of destMax bytes. Refused, with the destination
    /// unchanged: null pointers (a count of 0 too), count > destMax or PTRDIFF_MAX, overlap.
    int zep_memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

    /// Sets count bytes to c. Refused, with the destination unchanged: null, count > destMax or
    /// PTRDIFF_MAX. Never optimised away, so it is fit for wiping secrets.
    int zep_memset_s(void* dest, size_t destMax, int c, size_t count);

    /// Copies at most count bytes of a text, up to its NUL, and terminates. The text and its
    /// terminator must fit destMax bytes and not overlap, and count be at most PTRDIFF_MAX, else
    /// nothing is copied and dest becomes the empty text. Reads at most destMax bytes of src.
    int zep_strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

}  // extern "C"

#endif
