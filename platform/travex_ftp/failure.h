// Errors in words.
#ifndef TRAVEX_FTP_FAILURE_H
#define TRAVEX_FTP_FAILURE_H

#include <cstddef>

#include "travex_ftp.h"

namespace travex_ftp
{
// A code and a sentence in a record of fixed size, so that no failure can fail for lack of memory.
// ulRet 0: nothing has failed.
using Failure = tagTRAVEX_FTP_S_ERR_INFO;

inline bool failed(const Failure& failure)
{
    return failure.ulRet != TRAVEX_FTP_OK;
}

// Sets a failure, unless one is set already: the first one is the cause. Returns false.
bool fail(Failure& failure, unsigned int code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// fail() for lack of memory or another resource of the system.
bool failSystem(Failure& failure, const char* what);

// Puts "prefix: " before the sentence.
void prefix(Failure& failure, const char* text);

// The system's words for an errno value; a static text.
const char* systemError(int number);

// Makes a text of unknown origin printable in place: control characters, also those of eight bits,
// and bytes that are not UTF-8 become '?'.
void makePrintable(char* text);

// A secret of fewer bytes cannot be masked: it would be found by chance in innocent words, and its
// replacement would give it away.
constexpr size_t kShortestMasked = 4;

// Replaces every `secret` in a text by asterisks, unless it is too short for it.
void mask(char* text, const char* secret);

}  // namespace travex_ftp

#endif
