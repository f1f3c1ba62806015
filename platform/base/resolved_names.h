// The texts that a thread converted to addresses. The OS layer notes them; the FTP layer, which
// gets the address only, asks how a server was listed.
#ifndef CORPDIR_BASE_RESOLVED_NAMES_H
#define CORPDIR_BASE_RESOLVED_NAMES_H

#include <netinet/in.h>

#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace base
{
// IPv4 or IPv6, distinguished by the length; an IPv4 address mapped into IPv6 counts as IPv4.
inline std::string AddressKey(int family, const void* bytes)
{
    constexpr char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, '\xff', '\xff'};
    const char* const begin = static_cast<const char*>(bytes);
    if (family == AF_INET6 && memcmp(begin, kMapped, sizeof kMapped) != 0)
    {
        return {begin, 16};
    }
    return {family == AF_INET6 ? begin + sizeof kMapped : begin, 4};
}

// The conversions of the calling thread since it last forgot them. Not shared.
class ResolvedNames
{
public:
    static ResolvedNames& OfThisThread()
    {
        thread_local ResolvedNames t_names;
        return t_names;
    }

    // Notes that the text was converted to the address. When memory runs out, or very many were
    // noted, it is left out: the address alone counts then.
    void Note(int family, const void* bytes, const char* text) noexcept
    {
        constexpr size_t kMost = 64;
        try
        {
            if (m_notes.size() < kMost)
            {
                m_notes.push_back({AddressKey(family, bytes), text});
            }
        }
        catch (const std::bad_alloc&)
        {
            // As above.
        }
    }

    // The first text that was converted to the address; empty: none was.
    std::string TextFor(int family, const void* bytes) const
    {
        const std::string key = AddressKey(family, bytes);
        for (const Conversion& note : m_notes)
        {
            if (note.key == key)
            {
                return note.text;
            }
        }
        return {};
    }

    void Forget() noexcept
    {
        m_notes.clear();
    }

private:
    struct Conversion
    {
        std::string key;
        std::string text;
    };
    std::vector<Conversion> m_notes;
};

}  // namespace base

#endif
