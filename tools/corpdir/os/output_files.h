// Checks and cleanup of the files that a download writes.
#ifndef CORPDIR_TOOL_OUTPUT_FILES_H
#define CORPDIR_TOOL_OUTPUT_FILES_H

#include <string>

namespace corpdir_tool
{

// Throws ExitError, naming option and directory, unless files can be created in it.
void CheckWritableDirectory(const std::string& option, const std::string& directory);

// Throws ExitError when the path is a directory, which a file cannot replace.
void CheckReplaceable(const std::string& path);

// Removes the temporary files that this process has open for a download. For a process that exits
// without stopping the download. Any thread; allocates no memory.
void RemoveTemporaryFiles() noexcept;

}  // namespace corpdir_tool

#endif
