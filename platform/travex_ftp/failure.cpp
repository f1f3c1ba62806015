#include "failure.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/printable.h"
#include "replies.h"

namespace travex_ftp
{
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
    for (size_t left = strlen(text); left != 0;)
    {
        const size_t length = base::PrintableLength({text, left});
        if (length == 0)
        {
            *text = '?';
        }
        const size_t step = length == 0 ? 1 : length;
        text += step;
        left -= step;
    }
}

}  // namespace travex_ftp
