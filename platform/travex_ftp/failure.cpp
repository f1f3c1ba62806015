#include "failure.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace travex_ftp
{
namespace
{
using Byte = unsigned char;

// Length of the printable UTF-8 character at `at`, 0 if there is none.
size_t printableLength(const char* at)
{
    const Byte first = static_cast<Byte>(at[0]);
    if (first < 0x80)
    {
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    }
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    // 0x80 to 0xbf cannot begin a character; 0xc0, 0xc1 and 0xf5 on cannot occur at all.
    if (first < 0xc2 || first > 0xf4)
    {
        return 0;
    }
    for (size_t i = 1; i < length; ++i)
    {
        if ((static_cast<Byte>(at[i]) & 0xc0) != 0x80)
        {
            return 0;
        }
    }
    const Byte second = static_cast<Byte>(at[1]);
    const bool control = first == 0xc2 && second < 0xa0;  // U+0080 to U+009F
    const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool beyond = (first == 0xed && second > 0x9f) || (first == 0xf4 && second > 0x8f);
    return control || overlong || beyond ? 0 : length;
}

}  // namespace

bool fail(Failure& failure, unsigned int code, const char* format, ...)
{
    if (failed(failure))
    {
        return false;
    }
    failure.ulRet = code;
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(failure.acReason, sizeof failure.acReason, format, arguments);
    va_end(arguments);
    makePrintable(failure.acReason);
    return false;
}

bool failSystem(Failure& failure, const char* what)
{
    return fail(failure, TRAVEX_FTP_ERR_SYSTEM, "out of memory: %s", what);
}

void prefix(Failure& failure, const char* text)
{
    Failure whole{};
    (void)fail(whole, failure.ulRet, "%s: ", text);
    const size_t used = strlen(whole.acReason);
    const size_t room = sizeof whole.acReason - 1 - used;
    memcpy(whole.acReason + used, failure.acReason, strnlen(failure.acReason, room));
    makePrintable(whole.acReason + used);  // the end may have cut a character in two
    failure = whole;
}

const char* systemError(int number)
{
    const char* text = strerrordesc_np(number);
    return text != nullptr ? text : "unknown error";
}

void makePrintable(char* text)
{
    while (*text != '\0')
    {
        const size_t length = printableLength(text);
        if (length == 0)
        {
            *text = '?';
        }
        text += length == 0 ? 1 : length;
    }
}

void mask(char* text, const char* secret)
{
    const size_t length = strlen(secret);
    if (length < kShortestMasked)
    {
        return;
    }
    for (char* found = strstr(text, secret); found != nullptr;
         found = strstr(found + length, secret))
    {
        memset(found, '*', length);
    }
}

}  // namespace travex_ftp
