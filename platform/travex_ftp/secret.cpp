#include "secret.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace travex_ftp
{
Secret::Secret(const char* text)
{
    if (getentropy(mask_, sizeof mask_) != 0)
    {
        throw std::system_error(errno, std::generic_category());
    }
    const size_t length = strnlen(text, kCapacity - 1);
    for (size_t i = 0; i != kCapacity; ++i)
    {
        const char byte = i < length ? text[i] : '\0';
        masked_[i] = static_cast<unsigned char>(static_cast<unsigned char>(byte) ^ mask_[i]);
    }
}

Secret::~Secret()
{
    explicit_bzero(masked_, sizeof masked_);
    explicit_bzero(mask_, sizeof mask_);
}

bool Secret::operator==(const Secret& other) const
{
    unsigned int difference = 0;
    for (size_t i = 0; i != kCapacity; ++i)
    {
        difference |=
            static_cast<unsigned int>(masked_[i] ^ mask_[i] ^ other.masked_[i] ^ other.mask_[i]);
    }
    return difference == 0;
}

Clear::Clear(const Secret& secret)
{
    for (size_t i = 0; i != sizeof text_; ++i)
    {
        text_[i] = static_cast<char>(secret.masked_[i] ^ secret.mask_[i]);
    }
}

Clear::~Clear()
{
    explicit_bzero(text_, sizeof text_);
}

}  // namespace travex_ftp
