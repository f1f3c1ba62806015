// The file of --config.
#ifndef CORPDIR_TOOL_SETTINGS_FILE_H
#define CORPDIR_TOOL_SETTINGS_FILE_H

#include <CLI/CLI.hpp>
#include <istream>
#include <string>
#include <vector>

namespace corpdir_tool
{

struct Setting
{
    std::string section;  // "watch"; empty: before the first section
    std::string name;     // of the option, without "--"
    std::string value;    // numbers and truth values as they would stand on the command line
    std::size_t line = 0;
};

// Reads TOML (toml.io, 1.0): texts, whole numbers, true and false, in sections that are not nested;
// in the order of the lines. Throws ExitError with the line's number for anything else.
std::vector<Setting> ReadSettings(std::istream& input);

// One file serves all commands. Settings before the first section hold for each command that has
// the option; those of a section, for that command, and go before. What the command line gives goes
// before both. An option that no command has is an error: it would be a protection that is believed
// in.
void AddSettingsFile(CLI::App& program);

}  // namespace corpdir_tool

#endif
