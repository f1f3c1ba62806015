// A password in memory.
#ifndef TRAVEX_FTP_SECRET_H
#define TRAVEX_FTP_SECRET_H

#include <cstddef>

namespace travex_ftp
{
// Stands in memory beneath a mask of random bytes of its own, so that a copy of the memory does not
// show it as it is while a handle waits for its next transfer. Wiped when it goes, never copied.
// Immutable: any thread.
class Secret
{
public:
    static constexpr size_t kCapacity = 128;  // terminator included

    // Takes 127 bytes at most. Throws std::system_error when the system has no random bytes.
    explicit Secret(const char* text);
    ~Secret();
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    bool operator==(const Secret& other) const;

private:
    friend class Clear;

    unsigned char m_masked[kCapacity];
    unsigned char m_mask[kCapacity];
};

// It in clear, for a scope.
class Clear
{
public:
    explicit Clear(const Secret& secret);
    ~Clear();
    Clear(const Clear&) = delete;
    Clear& operator=(const Clear&) = delete;

    const char* Text() const
    {
        return m_text;
    }

private:
    char m_text[Secret::kCapacity];
};

}  // namespace travex_ftp

#endif
