#include "suites.h"

#include <cstddef>
#include <iterator>

namespace client
{

namespace
{

// The modern ones, then the service's.
constexpr int kSuites[] = {
    0x03001302,  // TLS_AES_256_GCM_SHA384
    0x03001303,  // TLS_CHACHA20_POLY1305_SHA256
    0x03001301,  // TLS_AES_128_GCM_SHA256
    0x0300C02C,  // TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384
    0x0300C030,  // TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384
    0x0300CCA9,  // TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256
    0x0300CCA8,  // TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256
    0x0300C02B,  // TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256
    0x0300C02F,  // TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256
    0x03000035,  // TLS_RSA_WITH_AES_256_CBC_SHA
    0x0300003C,  // TLS_RSA_WITH_AES_128_CBC_SHA256
    0x0300003D,  // TLS_RSA_WITH_AES_256_CBC_SHA256
};
constexpr std::ptrdiff_t kServiceSuites = 3;

}  // namespace

std::vector<int> SuitesOf(SuiteSet set)
{
    const int* const service = std::end(kSuites) - kServiceSuites;
    return {set == SuiteSet::kService ? service : std::begin(kSuites),
            set == SuiteSet::kModern ? service : std::end(kSuites)};
}

}  // namespace client
