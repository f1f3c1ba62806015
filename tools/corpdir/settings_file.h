// The file of --config.
#ifndef CORPDIR_TOOL_SETTINGS_FILE_H
#define CORPDIR_TOOL_SETTINGS_FILE_H

#include <CLI/CLI.hpp>
#include <istream>
#include <string>
#include <vector>

namespace corpdir_tool
{

// One "option = value" line.
struct Setting
{
    std::string section;  // "watch"; empty: before the first section
    std::string name;     // of the option, without "--"
    std::string value;
    std::size_t line = 0;
};

// Reads lines of "option = value", "[section]", and comments behind a "#". A value in quotes, " or
// ', is taken as it stands up to the same quote; one without them ends at the line's end or at a
// "#" behind a blank, and has no quotes in it. Throws Failure with the line's number for anything
// else and for a setting that stands twice in a section.
std::vector<Setting> ReadSettings(std::istream& input);

// One file serves all commands. Settings before the first section hold for each command that has
// the option; those of a section, for that command, and go before. What the command line gives goes
// before both. An option that no command has is an error: it would be a protection that is believed
// in.
void AddSettingsFile(CLI::App& program);

}  // namespace corpdir_tool

#endif
