#include "escape.h"

#include <algorithm>
#include <cstring>

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

// Valid characters that a terminal or a viewer obeys instead of showing them: U+0080..U+009F (C1
// controls), U+2028..U+202E (separators, embeddings and overrides of the direction) and
// U+2066..U+2069 (isolates).
bool IsObeyed(std::string_view sequence)
{
    const unsigned char second = ByteAt(sequence, 1);
    const unsigned char third = ByteAt(sequence, 2);
    switch (ByteAt(sequence, 0))
    {
        case 0xC2:
            return second <= 0x9F;
        case 0xE2:
            return (second == 0x80 && IsBetween(third, 0xA8, 0xAE)) ||
                   (second == 0x81 && IsBetween(third, 0xA6, 0xA9));
        default:
            return false;
    }
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
        if (sequence == 0 || IsObeyed(text.substr(length, sequence)))
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
