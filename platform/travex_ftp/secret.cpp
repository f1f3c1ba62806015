#include "secret.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace travex_ftp
{
Secret::Secret(const char* text)
{
    if (getentropy(m_mask, sizeof m_mask) != 0)
    {
        throw std::system_error(errno, std::generic_category());
    }
    const size_t length = strnlen(text, kCapacity - 1);
    for (size_t i = 0; i != kCapacity; ++i)
    {
        const char byte = i < length ? text[i] : '\0';
        m_masked[i] = static_cast<unsigned char>(static_cast<unsigned char>(byte) ^ m_mask[i]);
    }
}

Secret::~Secret()
{
    explicit_bzero(m_masked, sizeof m_masked);
    explicit_bzero(m_mask, sizeof m_mask);
}

bool Secret::operator==(const Secret& other) const
{
    unsigned int difference = 0;
    for (size_t i = 0; i != kCapacity; ++i)
    {
        difference |= static_cast<unsigned int>(m_masked[i] ^ m_mask[i] ^ other.m_masked[i] ^
                                                other.m_mask[i]);
    }
    return difference == 0;
}

RevealedSecret::RevealedSecret(const Secret& secret)
{
    for (size_t i = 0; i != sizeof m_text; ++i)
    {
        m_text[i] = static_cast<char>(secret.m_masked[i] ^ secret.m_mask[i]);
    }
}

RevealedSecret::~RevealedSecret()
{
    explicit_bzero(m_text, sizeof m_text);
}

}  // namespace travex_ftp
