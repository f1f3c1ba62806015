// Sources of the password. Not an argument: every user of the machine can see arguments.
#ifndef CORPDIR_TOOL_PASSWORD_H
#define CORPDIR_TOOL_PASSWORD_H

#include <string>

#include "secret.h"

namespace corpdir_tool
{

using client::Secret;

// Name of the environment variable that may hold the password.
extern const char* const kPasswordVariable;

// Bytes that fit into the FTP layer's record.
constexpr std::size_t kMaxPasswordLength = 127;

// Fills `password` from passwordFile ("-": standard input), otherwise from the environment
// variable, otherwise from a prompt on the terminal without echo. Removes the variable from the
// environment. One newline at the end is removed. Main thread, before any other exists: it changes
// the environment and, during the prompt, the signal handlers. Throws ExitError: no source,
// unreadable, empty, too long, or with a control byte.
void ReadPassword(const std::string& passwordFile, Secret& password);

// Fills `password` from a file that was read before. False when it is not a regular file: a FIFO
// gives its password once, and is not waited for. Throws ExitError as above. Any thread.
bool ReadPasswordAgain(const std::string& passwordFile, Secret& password);

}  // namespace corpdir_tool

#endif
