// A password in memory: one fixed buffer that is never copied by growing and is wiped at the end.
#ifndef CORPDIR_TOOL_SECRET_H
#define CORPDIR_TOOL_SECRET_H

#include <string.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace corpdir_tool
{

// Not thread-safe: belongs to the main thread.
class Secret
{
public:
    // More than any password may have, so that an over-long one can be told with its length.
    static constexpr std::size_t CAPACITY = 4096;

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
        if (m_length == CAPACITY)
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
    std::array<char, CAPACITY> m_bytes{};
    std::size_t m_length = 0;
};

}  // namespace corpdir_tool

#endif
