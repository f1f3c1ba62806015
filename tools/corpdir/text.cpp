#include "text.h"

#include <system_error>

namespace corpdir_tool
{

bool IsControlByte(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7f;
}

std::string Printable(std::string_view text)
{
    static const char digits[] = "0123456789abcdef";
    std::string printable;
    for (const char byte : text)
    {
        if (!IsControlByte(byte))
        {
            printable += byte;
            continue;
        }
        const auto value = static_cast<unsigned char>(byte);
        printable += "\\x";
        printable += digits[value >> 4];
        printable += digits[value & 0x0f];
    }
    return printable;
}

std::string SystemMessage(int error)
{
    return std::generic_category().message(error);
}

}  // namespace corpdir_tool
