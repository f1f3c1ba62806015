// Opens the log's files for this user only, and compares them with their paths.
#ifndef CORPDIR_LOG_PRIVATE_FILE_H
#define CORPDIR_LOG_PRIVATE_FILE_H

#include "base/descriptor.h"

#include <string>

namespace corpdir_log
{
// Makes the file with mode 0600 if it is missing and opens it, closed on exec, for reading and for
// writing at its end. Not open, and errno set, when that fails or the name is a symbolic link.
// Never has the number of a standard stream, even if that is free: what the client or a library
// prints would end up in the file.
base::Descriptor OpenPrivate(const std::string& path);

// True when the path names the open file.
bool IsAt(const base::Descriptor& file, const std::string& path);

}  // namespace corpdir_log

#endif
