// Failures: code, step, reply number and reason.
#ifndef TRAVEX_FTP_FAILURE_H
#define TRAVEX_FTP_FAILURE_H

#include "travex_ftp.h"

namespace travex_ftp
{
// A record of fixed size: setting a failure needs no memory. ulRet 0: nothing has failed, and
// ulStep is the current step.
using Failure = tagTRAVEX_FTP_S_ERR_INFO;

struct Reply;

inline bool Failed(const Failure& failure)
{
    return failure.ulRet != TRAVEX_FTP_OK;
}

// A step begins. Ignored after a failure.
inline void SetStep(Failure& failure, unsigned int step)
{
    failure.ulStep = Failed(failure) ? failure.ulStep : step;
}

// Sets a failure of the current step unless one is set already: the first failure is the cause.
// Returns false.
bool Fail(Failure& failure, unsigned int code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// A failure caused by a reply, with its number and text: "RETR refused: 550 No such file".
bool FailByReply(Failure& failure, unsigned int code, const char* what, const Reply& reply);

// A resource of the system ran out, usually memory.
bool FailSystem(Failure& failure, const char* what);

// Text of an errno value; static.
const char* SystemError(int number);

// Makes a text of unknown origin printable in place: control characters, C1 included, and bytes
// that are not UTF-8 become '?'.
void MakePrintable(char* text);

}  // namespace travex_ftp

#endif
