// The content of a version file, read by the rule of the service.
#ifndef CORPDIR_CLIENT_VERSION_FILE_H
#define CORPDIR_CLIENT_VERSION_FILE_H

#include <optional>
#include <string>

namespace client
{

// A version is the first line, at most 30 bytes of it, up to a zero byte; nothing is trimmed. It is
// valid with at least 5 bytes.
struct VersionFile
{
    std::string bytes;                   // the whole file
    std::optional<std::string> version;  // nothing: not valid
    std::string problem;                 // why it is not valid; may quote it byte for byte
    std::string warning;  // a valid version that is not what its writer meant; empty: none
    int error = 0;        // errno when the file could not be read
};

VersionFile ParseVersion(std::string bytes);

// Reads a file of at most 1 MiB. One that cannot be read, or is larger, is not valid.
VersionFile ReadVersionFile(const std::string& path);

}  // namespace client

#endif
