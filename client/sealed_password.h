// A password that is kept sealed, for requests to come.
#ifndef CORPDIR_CLIENT_SEALED_PASSWORD_H
#define CORPDIR_CLIENT_SEALED_PASSWORD_H

#include <array>
#include <string_view>
#include <vector>

#include "secret.h"

namespace client
{

// Encrypted with a random key, so that no search of the process's memory and no core dump shows the
// password as it is. Constant after its construction.
class SealedPassword
{
public:
    // Throws std::runtime_error when the security layer fails, std::bad_alloc.
    explicit SealedPassword(std::string_view password);
    ~SealedPassword();
    SealedPassword(const SealedPassword&) = delete;
    SealedPassword& operator=(const SealedPassword&) = delete;

    // Appends the password to an empty secret. Throws std::runtime_error.
    void Open(Secret& password) const;

private:
    std::array<unsigned char, 32> m_key{};
    std::array<unsigned char, 16> m_vector{};  // of the first block
    std::vector<unsigned char> m_sealed;
};

}  // namespace client

#endif
