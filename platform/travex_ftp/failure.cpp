#include "failure.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "replies.h"

namespace travex_ftp
{
namespace
{
using Byte = unsigned char;

// Length of the printable UTF-8 character at `at`, 0 if there is none.
size_t PrintableLength(const char* at)
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

bool Fail(Failure& failure, unsigned int code, const char* format, ...)
{
    if (Failed(failure))
    {
        return false;
    }
    failure.ulRet = code;
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(failure.acReason, sizeof failure.acReason, format, arguments);
    va_end(arguments);
    MakePrintable(failure.acReason);
    return false;
}

bool FailByReply(Failure& failure, unsigned int code, const char* what, const Reply& reply)
{
    failure.ulReply = Failed(failure) ? failure.ulReply : reply.code;
    return Fail(failure, code, "%s: %u %s", what, reply.code, reply.text);
}

bool FailSystem(Failure& failure, const char* what)
{
    SetStep(failure, TRAVEX_FTP_STEP_NONE);
    return Fail(failure, TRAVEX_FTP_ERR_SYSTEM, "out of memory: %s", what);
}

const char* SystemError(int number)
{
    const char* text = strerrordesc_np(number);
    return text != nullptr ? text : "unknown error";
}

void MakePrintable(char* text)
{
    while (*text != '\0')
    {
        const size_t length = PrintableLength(text);
        if (length == 0)
        {
            *text = '?';
        }
        text += length == 0 ? 1 : length;
    }
}

}  // namespace travex_ftp
