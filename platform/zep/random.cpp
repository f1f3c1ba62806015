// Random bytes from the operating system, through the crypto library's generator.
#include "crypto_session.h"
#include "zep.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>

namespace
{
constexpr unsigned int kLargestRequest = 1U << 30;  // the library counts in int

}  // namespace

unsigned int ZEP_CPYPT_RealRandom(unsigned char* buffer, unsigned int len)
{
    if (buffer == nullptr)
    {
        return len == 0 ? ZEP_OK : ZEP_ERR_PARAM;
    }
    const zep::CryptoSession session;
    unsigned int done = 0;
    while (done < len)
    {
        const unsigned int part = std::min(len - done, kLargestRequest);
        // The private generator: these bytes become keys, and it shares no state with the one whose
        // output goes over the network.
        if (!session.IsOpen() || RAND_priv_bytes(buffer + done, static_cast<int>(part)) != 1)
        {
            OPENSSL_cleanse(buffer, len);  // half a key must not pass for a whole one
            return ZEP_ERR_RANDOM;
        }
        done += part;
    }
    return ZEP_OK;
}
