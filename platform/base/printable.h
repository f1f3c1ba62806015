// Characters of an untrusted text: which may be sent, and which may be shown unchanged.
#ifndef CORPDIR_BASE_PRINTABLE_H
#define CORPDIR_BASE_PRINTABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace base
{
// True for a byte that can end a line or control a terminal, and must not be in an FTP command.
inline bool IsControlByte(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7F;
}

// True for a character beyond ASCII that a terminal or a viewer does not show, but obeys or drops.
inline bool IsUnseen(uint32_t character)
{
    struct Range
    {
        uint32_t first;
        uint32_t last;
    };
    constexpr Range kRanges[] = {
        {0x0080, 0x009F},    // controls
        {0x00AD, 0x00AD},    // soft hyphen
        {0x061C, 0x061C},    // a mark of direction
        {0x180E, 0x180E},    // vowel separator
        {0x200B, 0x200F},    // zero width: space, joiners, marks of direction
        {0x2028, 0x202E},    // separators, embeddings and overrides of the direction
        {0x2060, 0x2064},    // word joiner, invisible operators
        {0x2066, 0x206F},    // isolates, obsolete controls
        {0xFEFF, 0xFEFF},    // byte order mark
        {0xFFF9, 0xFFFB},    // annotations
        {0xE0000, 0xE007F},  // tags
    };
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [character](const Range& range)
                       { return character >= range.first && character <= range.last; });
}

// Bytes of the UTF-8 character (RFC 3629) at the front of the text; 0 when the text has no such
// character there, or an unseen one.
inline size_t PrintableLength(std::string_view text)
{
    const unsigned char lead = text.empty() ? 0 : static_cast<unsigned char>(text.front());
    if (lead >= 0x20 && lead < 0x7F)
    {
        return 1;
    }
    const size_t length = (lead & 0xE0) == 0xC0   ? 2
                          : (lead & 0xF0) == 0xE0 ? 3
                          : (lead & 0xF8) == 0xF0 ? 4
                                                  : 0;
    if (length == 0 || length > text.size())
    {
        return 0;
    }
    uint32_t character = lead & (0xFFU >> (length + 1));
    for (size_t i = 1; i != length; ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80)
        {
            return 0;
        }
        character = character << 6 | (byte & 0x3FU);
    }
    constexpr uint32_t kSmallest[] = {0x80, 0x800, 0x10000};  // by length: longer forms are invalid
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool valid = character >= kSmallest[length - 2] && character <= 0x10FFFF && !surrogate;
    return valid && !IsUnseen(character) ? length : 0;
}

}  // namespace base

#endif
