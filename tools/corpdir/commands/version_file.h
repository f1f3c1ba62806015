// The version file on disk, read by the rule of the service, so that the program knows at once
// whether a directory file will follow.
#ifndef CORPDIR_TOOL_VERSION_FILE_H
#define CORPDIR_TOOL_VERSION_FILE_H

#include <optional>
#include <string>

namespace corpdir_tool
{

// What a version file holds: its version, or in words why it is none.
struct VersionFile
{
    std::optional<std::string> version;
    std::string problem;
};

// The version is the first line, at most 30 bytes of it, up to a zero byte, nothing trimmed; it is
// valid from 5 bytes on.
VersionFile ReadVersionFile(const std::string& path);

}  // namespace corpdir_tool

#endif
