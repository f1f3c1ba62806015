// Reads the version file by the rule of the service, so that the program knows whether the service
// goes on to the directory file.
#ifndef CORPDIR_TOOL_VERSION_FILE_H
#define CORPDIR_TOOL_VERSION_FILE_H

#include <optional>
#include <string>

namespace corpdir_tool
{

// The version, or why the file is not valid.
struct VersionFile
{
    std::optional<std::string> version;
    std::string problem;
};

// The version is the first line, at most 30 bytes, up to a zero byte; nothing is trimmed. It is
// valid with at least 5 bytes.
VersionFile ReadVersionFile(const std::string& path);

}  // namespace corpdir_tool

#endif
