// Errors in words.
#ifndef TRAVEX_FTP_FAILURE_H
#define TRAVEX_FTP_FAILURE_H

#include <cstddef>

#include "travex_ftp.h"

namespace travex_ftp
{
// A code, a step and a sentence in a record of fixed size, so that no failure can fail for lack of
// memory. ulRet 0: nothing has failed, and ulStep is the step that is under way.
using Failure = tagTRAVEX_FTP_S_ERR_INFO;

struct Reply;

inline bool Failed(const Failure& failure)
{
    return failure.ulRet != TRAVEX_FTP_OK;
}

// A step begins, if nothing has failed yet.
inline void SetStep(Failure& failure, unsigned int step)
{
    failure.ulStep = Failed(failure) ? failure.ulStep : step;
}

// Sets a failure of the step under way, unless one is set already: the first one is the cause.
// Returns false.
bool Fail(Failure& failure, unsigned int code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The server's reply is the cause: "what: 550 No such file".
bool FailByReply(Failure& failure, unsigned int code, const char* what, const Reply& reply);

// Memory or another resource of the system ran out.
bool FailSystem(Failure& failure, const char* what);

// The system's words for an errno value; a static text.
const char* SystemError(int number);

// Makes a text of unknown origin printable in place: control characters, also those of eight bits,
// and bytes that are not UTF-8 become '?'.
void MakePrintable(char* text);

// A secret of fewer bytes cannot be masked: it would be found by chance in innocent words, and its
// replacement would give it away.
constexpr size_t kShortestMasked = 4;

}  // namespace travex_ftp

#endif
