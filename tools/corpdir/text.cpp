#include "text.h"

#include <algorithm>
#include <system_error>

#include "base/printable.h"

namespace corpdir_tool
{

std::string Printable(std::string_view text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string printable;
    while (!text.empty())
    {
        const std::size_t length = base::PrintableLength(text);
        printable += text.substr(0, length);
        if (length == 0)
        {
            const auto value = static_cast<unsigned char>(text.front());
            printable += "\\x";
            printable += kDigits[value >> 4];
            printable += kDigits[value & 0x0f];
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return printable;
}

std::string Trimmed(const std::string& text, const char* blanks)
{
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string ShellWord(const std::string& word)
{
    const char* const plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:=,@%+";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
    {
        return word;
    }
    std::string quoted;
    for (const char letter : Printable(word))
    {
        quoted += letter == '\'' ? "'\"'\"'" : std::string(1, letter);
    }
    return "'" + quoted + "'";
}

std::string SystemMessage(int error)
{
    return std::generic_category().message(error);
}

}  // namespace corpdir_tool
