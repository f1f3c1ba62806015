#include "text.h"

#include <algorithm>
#include <system_error>

namespace corpdir_tool
{

namespace
{

// What a lead byte of UTF-8 (RFC 3629) announces: bytes in all, and the smallest number that needs
// them. None: 0.
struct Sequence
{
    std::size_t length = 0;
    char32_t smallest = 0;
    char32_t bits = 0;  // of the lead byte
};

Sequence SequenceOf(unsigned char lead)
{
    if (lead < 0x80)
    {
        return {1, 0, lead};
    }
    if ((lead & 0xe0) == 0xc0)
    {
        return {2, 0x80, static_cast<char32_t>(lead & 0x1f)};
    }
    if ((lead & 0xf0) == 0xe0)
    {
        return {3, 0x800, static_cast<char32_t>(lead & 0x0f)};
    }
    if ((lead & 0xf8) == 0xf0)
    {
        return {4, 0x10000, static_cast<char32_t>(lead & 0x07)};
    }
    return {};
}

bool SteersATerminal(char32_t character)
{
    return character < 0x20 || (character >= 0x7f && character < 0xa0) ||  // control characters
           character == 0x200e || character == 0x200f ||
           character == 0x61c ||                            // marks of direction
           (character >= 0x2028 && character <= 0x202e) ||  // ends of line, and directions
           (character >= 0x2066 && character <= 0x2069);    // directions
}

// Bytes of the first character when it may be shown as it is, else 0.
std::size_t LengthOfHarmless(std::string_view text)
{
    const Sequence sequence = SequenceOf(static_cast<unsigned char>(text.front()));
    if (sequence.length == 0 || sequence.length > text.size())
    {
        return 0;
    }
    char32_t character = sequence.bits;
    for (std::size_t i = 1; i != sequence.length; ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80)
        {
            return 0;
        }
        character = (character << 6) | (byte & 0x3fU);
    }
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    const bool valid = character >= sequence.smallest && character <= 0x10ffff && !surrogate;
    return valid && !SteersATerminal(character) ? sequence.length : 0;
}

}  // namespace

bool IsControlByte(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7f;
}

std::string Printable(std::string_view text)
{
    static const char digits[] = "0123456789abcdef";
    std::string printable;
    while (!text.empty())
    {
        const std::size_t length = LengthOfHarmless(text);
        printable += text.substr(0, length);
        if (length == 0)
        {
            const auto value = static_cast<unsigned char>(text.front());
            printable += "\\x";
            printable += digits[value >> 4];
            printable += digits[value & 0x0f];
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return printable;
}

std::string SystemMessage(int error)
{
    return std::generic_category().message(error);
}

}  // namespace corpdir_tool
