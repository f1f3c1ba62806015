#include "commands/version_file.h"

#include <errno.h>

#include <fstream>

#include "text.h"

namespace corpdir_tool
{

namespace
{

constexpr std::size_t kMinVersion = 5;
constexpr std::size_t kMaxVersion = 30;

}  // namespace

VersionFile ReadVersionFile(const std::string& path)
{
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file)
    {
        return {std::nullopt, "cannot be opened: " + SystemMessage(errno)};
    }
    char line[kMaxVersion + 1] = "";
    file.getline(line, sizeof line);
    const std::string version = line;
    if (version.size() < kMinVersion)
    {
        return {std::nullopt, "its first line '" + Printable(version) + "' is shorter than " +
                                  std::to_string(kMinVersion) + " bytes"};
    }
    return {version, ""};
}

}  // namespace corpdir_tool
