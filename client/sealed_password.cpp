#include "sealed_password.h"

#include <string.h>

#include <stdexcept>

#include "zep.h"

namespace client
{

namespace
{

constexpr unsigned int kAes256Cbc = 0;

template <typename Container>
unsigned int Size(const Container& container)
{
    return static_cast<unsigned int>(container.size());
}

void Check(unsigned int code)
{
    if (code != 0)
    {
        throw std::runtime_error("the password could not be sealed or opened (code " +
                                 std::to_string(code) + ")");
    }
}

}  // namespace

SealedPassword::SealedPassword(std::string_view password)
    : m_sealed(password.size() + ZEP_CRYPT_GetblockSize(kAes256Cbc))
{
    Check(ZEP_CPYPT_RealRandom(m_key.data(), Size(m_key)));
    Check(ZEP_CPYPT_RealRandom(m_vector.data(), Size(m_vector)));
    unsigned int length = Size(m_sealed);
    Check(ZEP_CPYPT_Encrypt(kAes256Cbc, m_key.data(), Size(m_key), m_vector.data(), Size(m_vector),
                            reinterpret_cast<const unsigned char*>(password.data()), Size(password),
                            m_sealed.data(), &length));
    m_sealed.resize(length);
}

SealedPassword::~SealedPassword()
{
    explicit_bzero(m_key.data(), m_key.size());
}

void SealedPassword::Open(Secret& password) const
{
    Wiped<std::array<unsigned char, Secret::kCapacity + 16>> opened;
    unsigned int length = Size(opened.record);
    Check(ZEP_CPYPT_Decrypt(kAes256Cbc, m_key.data(), Size(m_key), m_vector.data(), Size(m_vector),
                            m_sealed.data(), Size(m_sealed), opened.record.data(), &length));
    for (unsigned int i = 0; i < length; ++i)
    {
        (void)password.Append(static_cast<char>(opened.record[i]));
    }
}

}  // namespace client
