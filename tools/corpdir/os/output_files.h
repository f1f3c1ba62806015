// The local files that a download writes.
#ifndef CORPDIR_TOOL_OUTPUT_FILES_H
#define CORPDIR_TOOL_OUTPUT_FILES_H

#include <string>

namespace corpdir_tool
{

// Throws ExitError, naming option and directory, unless files can be made in it.
void CheckWritableDirectory(const std::string& option, const std::string& directory);

// Throws ExitError when the path is something that a file cannot replace, such as a directory.
void CheckReplaceable(const std::string& path);

// Removes the temporary files that this process has open for a download, and no others. For a
// process that is about to leave without stopping the download: any thread, takes no memory from
// the heap, never throws.
void RemoveTemporaryFiles() noexcept;

}  // namespace corpdir_tool

#endif
