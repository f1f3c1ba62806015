// A password in memory: one fixed buffer, which never grows by copying and is wiped at the end.
#ifndef CORPDIR_CLIENT_SECRET_H
#define CORPDIR_CLIENT_SECRET_H

#include <string.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace client
{

// Not thread-safe: belongs to one thread.
class Secret
{
public:
    // More than a password may have, so that the message on a longer one can give its length.
    static constexpr std::size_t kCapacity = 4096;

    Secret() = default;
    ~Secret()
    {
        Wipe();
    }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    // False, and nothing appended, when the byte does not fit.
    [[nodiscard]] bool Append(char byte)
    {
        if (m_length == kCapacity)
        {
            return false;
        }
        m_bytes[m_length++] = byte;
        return true;
    }

    void RemoveLast()
    {
        m_bytes[--m_length] = '\0';
    }

    std::string_view View() const
    {
        return {m_bytes.data(), m_length};
    }

    void Wipe()
    {
        explicit_bzero(m_bytes.data(), m_bytes.size());
        m_length = 0;
    }

private:
    std::array<char, kCapacity> m_bytes{};
    std::size_t m_length = 0;
};

// A zeroed record that will hold a password; wiped at the end.
template <typename Record>
struct Wiped
{
    Wiped() = default;
    ~Wiped()
    {
        explicit_bzero(&record, sizeof record);
    }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;

    Record record = {};
};

}  // namespace client

#endif
