#include "escape.h"

#include "base/printable.h"

#include <algorithm>

namespace corpdir_log
{
namespace
{
// How many bytes at the front of the text are written as they are.
std::size_t PlainLength(std::string_view text, Blanks blanks)
{
    std::size_t length = 0;
    while (length < text.size() && text[length] != '\\' &&
           (text[length] != ' ' || blanks == Blanks::kKeep))
    {
        const std::size_t character = base::PrintableLength(text.substr(length));
        if (character == 0)
        {
            break;
        }
        length += character;
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
