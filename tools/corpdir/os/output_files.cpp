#include "os/output_files.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "exit_error.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

// Names of the FTP layer's temporary files, in the directory of the file that they replace.
const char kTemporaryPrefix[] = ".travex_ftp-";
const char kTemporarySuffix[] = ".part";

bool IsTemporaryPath(const char* path)
{
    const char* const slash = strrchr(path, '/');
    const std::size_t length = strlen(path);
    const std::size_t suffix = sizeof kTemporarySuffix - 1;
    return slash != nullptr && length > suffix &&
           strncmp(slash + 1, kTemporaryPrefix, sizeof kTemporaryPrefix - 1) == 0 &&
           strcmp(path + length - suffix, kTemporarySuffix) == 0;
}

}  // namespace

void CheckWritableDirectory(const std::string& option, const std::string& directory)
{
    const std::string what = option + " '" + directory + "'";
    struct stat state = {};
    if (stat(directory.c_str(), &state) != 0)
    {
        const char* const advice = errno == ENOENT ? "; create it first" : "";
        throw ExitError(kExitLocalFile, what + ": " + SystemMessage(errno) + advice);
    }
    if (!S_ISDIR(state.st_mode))
    {
        throw ExitError(kExitLocalFile, what + " is not a directory");
    }
    // Also detects a read-only file system; other errors show when a file is created.
    if (access(directory.c_str(), W_OK | X_OK) != 0)
    {
        throw ExitError(kExitLocalFile, what + " cannot be written: " + SystemMessage(errno));
    }
}

void CheckReplaceable(const std::string& path)
{
    struct stat state = {};
    if (lstat(path.c_str(), &state) == 0 && S_ISDIR(state.st_mode))
    {
        throw ExitError(kExitLocalFile,
                        "'" + path + "' is a directory; choose another file name or remove it");
    }
}

// Only open files are removed: others in the same directory belong to other processes.
void RemoveTemporaryFiles() noexcept
{
    // The limit may be in the millions, but a download has few files open, with low numbers.
    const long descriptors = sysconf(_SC_OPEN_MAX);
    for (long descriptor = 0; descriptor < descriptors && descriptor < 4096; ++descriptor)
    {
        char link[64];
        char path[PATH_MAX];
        (void)std::snprintf(link, sizeof link, "/proc/self/fd/%ld", descriptor);
        const ssize_t length = readlink(link, path, sizeof path - 1);
        if (length <= 0)
        {
            continue;
        }
        path[length] = '\0';
        if (IsTemporaryPath(path))
        {
            (void)unlink(path);  // a file that was renamed into place no longer has this name
        }
    }
}

}  // namespace corpdir_tool
