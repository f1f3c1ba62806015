#include "escape.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace corpdir_log
{
namespace
{
unsigned char ByteAt(std::string_view text, std::size_t index)
{
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
}

bool IsBetween(unsigned char byte, unsigned char low, unsigned char high)
{
    return byte >= low && byte <= high;
}

bool IsPlainAscii(unsigned char byte, Blanks blanks)
{
    return IsBetween(byte, 0x21, 0x7E) ? byte != '\\' : byte == ' ' && blanks == Blanks::kKeep;
}

// The range of a sequence's second byte, which depends on the first: overlong forms, surrogates
// and what lies above U+10FFFF are not UTF-8 (RFC 3629, section 4).
bool IsSecondByte(unsigned char first, unsigned char second)
{
    switch (first)
    {
        case 0xE0:
            return IsBetween(second, 0xA0, 0xBF);
        case 0xED:
            return IsBetween(second, 0x80, 0x9F);
        case 0xF0:
            return IsBetween(second, 0x90, 0xBF);
        case 0xF4:
            return IsBetween(second, 0x80, 0x8F);
        default:
            return IsBetween(second, 0x80, 0xBF);
    }
}

// Length of the multi-byte sequence at the front of the text, 0 when there is no valid one.
std::size_t SequenceLength(std::string_view text)
{
    const unsigned char first = ByteAt(text, 0);
    const std::size_t length = IsBetween(first, 0xC2, 0xDF)   ? 2
                               : IsBetween(first, 0xE0, 0xEF) ? 3
                               : IsBetween(first, 0xF0, 0xF4) ? 4
                                                              : 0;
    if (length == 0 || !IsSecondByte(first, ByteAt(text, 1)))
    {
        return 0;
    }
    for (std::size_t index = 2; index < length; ++index)
    {
        if (!IsBetween(ByteAt(text, index), 0x80, 0xBF))
        {
            return 0;
        }
    }
    return length;
}

// Of a valid sequence.
std::uint32_t CodePoint(std::string_view sequence)
{
    std::uint32_t code = ByteAt(sequence, 0) & (0xFFU >> (sequence.size() + 1));
    for (std::size_t index = 1; index < sequence.size(); ++index)
    {
        code = code << 6 | (ByteAt(sequence, index) & 0x3FU);
    }
    return code;
}

// Valid characters that a terminal or a viewer obeys, or swallows, instead of showing them.
bool IsUnseen(std::string_view sequence)
{
    struct Range
    {
        std::uint32_t first;
        std::uint32_t last;
    };
    constexpr Range kRanges[] = {
        {0x0080, 0x009F},    // C1 controls
        {0x061C, 0x061C},    // a mark of direction
        {0x200B, 0x200F},    // of no width: space, joiners, marks of direction
        {0x2028, 0x202E},    // separators, embeddings and overrides of the direction
        {0x2060, 0x2060},    // word joiner
        {0x2066, 0x2069},    // isolates
        {0xFEFF, 0xFEFF},    // byte order mark
        {0xE0000, 0xE007F},  // tags
    };
    const std::uint32_t code = CodePoint(sequence);
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [code](const Range& range)
                       { return code >= range.first && code <= range.last; });
}

// How many bytes at the front of the text are written as they are.
std::size_t PlainLength(std::string_view text, Blanks blanks)
{
    std::size_t length = 0;
    while (length < text.size())
    {
        if (IsPlainAscii(ByteAt(text, length), blanks))
        {
            ++length;
            continue;
        }
        const std::size_t sequence = SequenceLength(text.substr(length));
        if (sequence == 0 || IsUnseen(text.substr(length, sequence)))
        {
            break;
        }
        length += sequence;
    }
    return length;
}

bool HasShortEscape(char byte)
{
    return byte == '\n' || byte == '\\';
}

char* WriteEscapedByte(char byte, char* out)
{
    constexpr char kDigits[] = "0123456789abcdef";
    *out++ = '\\';
    if (HasShortEscape(byte))
    {
        *out++ = byte == '\n' ? 'n' : '\\';
        return out;
    }
    const auto number = static_cast<unsigned char>(byte);
    *out++ = 'x';
    *out++ = kDigits[number >> 4];
    *out++ = kDigits[number & 0x0F];
    return out;
}

}  // namespace

std::size_t EscapedSize(std::string_view text, Blanks blanks)
{
    std::size_t size = 0;
    for (;;)
    {
        const std::size_t plain = PlainLength(text, blanks);
        size += plain;
        if (plain == text.size())
        {
            return size;
        }
        size += HasShortEscape(text[plain]) ? 2 : 4;
        text.remove_prefix(plain + 1);
    }
}

char* WriteEscaped(std::string_view text, Blanks blanks, char* out)
{
    for (;;)
    {
        const std::size_t plain = PlainLength(text, blanks);
        out = std::copy_n(text.data(), plain, out);
        if (plain == text.size())
        {
            return out;
        }
        out = WriteEscapedByte(text[plain], out);
        text.remove_prefix(plain + 1);
    }
}

}  // namespace corpdir_log
