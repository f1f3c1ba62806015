// The file of --config.
#ifndef CORPDIR_TOOL_SETTINGS_FILE_H
#define CORPDIR_TOOL_SETTINGS_FILE_H

#include <CLI/CLI.hpp>

namespace corpdir_tool
{

// One file serves all commands: "option = value" lines, the options' names without "--". Those at
// the top hold for each command that has the option; those in a section, as "[watch]", for that
// command, and go before. What the command line gives goes before both. An option that no command
// has is an error: it would be a protection that is believed in.
void AddSettingsFile(CLI::App& program);

}  // namespace corpdir_tool

#endif
