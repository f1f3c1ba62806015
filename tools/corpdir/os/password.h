// Where the password comes from. Never from an argument: those are seen by every user of a system.
#ifndef CORPDIR_TOOL_PASSWORD_H
#define CORPDIR_TOOL_PASSWORD_H

#include <string>

#include "os/secret.h"

namespace corpdir_tool
{

// Name of the environment variable that may hold the password.
extern const char* const kPasswordVariable;

// Bytes that fit into the FTP layer's record.
constexpr std::size_t kMaxPasswordLength = 127;

// Fills `password` from passwordFile ("-": standard input); when that is empty from the environment
// variable, which is removed from the environment; else from a prompt on the terminal, without
// echo. One newline at the end is not part of it. Main thread, before any other exists: it changes
// the environment and, while it prompts, the signal handlers.
// Throws ExitError: no source, unreadable, empty, too long, or with a control byte.
void ReadPassword(const std::string& passwordFile, Secret& password);

}  // namespace corpdir_tool

#endif
