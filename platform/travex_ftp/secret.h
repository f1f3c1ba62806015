// The password in memory.
#ifndef TRAVEX_FTP_SECRET_H
#define TRAVEX_FTP_SECRET_H

#include <cstddef>

namespace travex_ftp
{
// Stored XORed with random bytes, so that a memory dump does not show it in clear while a handle
// waits for its next transfer. Wiped on destruction, never copied. Thread-safe: immutable.
class Secret
{
public:
    static constexpr size_t kCapacity = 128;  // terminator included

    // Keeps at most 127 bytes. Throws std::system_error when the system has no random bytes.
    explicit Secret(const char* text);
    ~Secret();
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    bool operator==(const Secret& other) const;

private:
    friend class RevealedSecret;

    unsigned char m_masked[kCapacity];
    unsigned char m_mask[kCapacity];
};

// The password in clear; wiped at the end of the scope.
class RevealedSecret
{
public:
    explicit RevealedSecret(const Secret& secret);
    ~RevealedSecret();
    RevealedSecret(const RevealedSecret&) = delete;
    RevealedSecret& operator=(const RevealedSecret&) = delete;

    const char* Text() const
    {
        return m_text;
    }

private:
    char m_text[Secret::kCapacity];
};

}  // namespace travex_ftp

#endif
