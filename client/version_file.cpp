#include "version_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "base/descriptor.h"

namespace client
{

namespace
{

constexpr std::size_t kMinVersion = 5;
constexpr std::size_t kMaxVersion = 30;
constexpr std::size_t kMaxFile = 1U << 20U;

bool IsUtf16(const std::string& bytes)
{
    return bytes.compare(0, 2, "\xFF\xFE") == 0 || bytes.compare(0, 2, "\xFE\xFF") == 0 ||
           (bytes.size() > 1 && (bytes[0] == '\0') != (bytes[1] == '\0'));
}

// All that is unusual, in one text.
std::string WarningOn(const std::string& line, const std::string& version)
{
    std::string warning;
    const auto add = [&warning](const std::string& text)
    { warning += (warning.empty() ? "" : "; ") + text; };
    if (version.compare(0, 3, "\xEF\xBB\xBF") == 0)
    {
        add("the version begins with a UTF-8 byte-order mark, which is compared too");
    }
    if (version.size() < line.size())
    {
        add("the version line has " + std::to_string(line.size()) + " bytes; only the first " +
            std::to_string(version.size()) + " are compared");
    }
    if (!version.empty() && version.back() == '\r')
    {
        add("the version ends with a carriage return, which is compared too");
    }
    else if (version.find('\r') != std::string::npos)
    {
        add("the version contains a carriage return, which is compared too");
    }
    return warning;
}

}  // namespace

VersionFile ParseVersion(std::string bytes)
{
    VersionFile file;
    file.bytes = std::move(bytes);
    const std::string line = file.bytes.substr(0, file.bytes.find('\n'));
    const std::string taken = line.substr(0, kMaxVersion);
    const std::string version = taken.substr(0, taken.find('\0'));
    if (version.size() >= kMinVersion)
    {
        file.version = version;
        file.warning = WarningOn(line, version);
    }
    else if (IsUtf16(file.bytes))
    {
        file.problem = "it is UTF-16 text; store it as ASCII or UTF-8";
    }
    else if (version.empty())
    {
        file.problem = file.bytes.empty() ? "it is empty" : "its first line is empty";
    }
    else
    {
        file.problem = "its first line '" + version + "' is shorter than " +
                       std::to_string(kMinVersion) + " bytes";
    }
    return file;
}

VersionFile ReadVersionFile(const std::string& path)
{
    VersionFile refused;
    const auto fail = [&refused](const std::string& what)
    {
        refused.error = errno;
        refused.problem = what + ": " + std::generic_category().message(refused.error);
        return refused;
    };
    const base::Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen())
    {
        return fail("cannot be opened");
    }
    std::string bytes;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(file.Number(), buffer, sizeof buffer)) > 0 && bytes.size() <= kMaxFile)
    {
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    if (count < 0)
    {
        return fail("cannot be read");
    }
    if (bytes.size() > kMaxFile)
    {
        refused.problem = "it is larger than 1 MiB";
        return refused;
    }
    return ParseVersion(std::move(bytes));
}

}  // namespace client
