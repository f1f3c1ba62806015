// The file of --config, or the system's settings file.
#ifndef CORPDIR_TOOL_SETTINGS_FILE_H
#define CORPDIR_TOOL_SETTINGS_FILE_H

#include <CLI/CLI.hpp>
#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace corpdir_tool
{

struct Setting
{
    std::string section;  // "watch"; empty: before the first section
    std::string name;     // of the option, without "--"
    std::string value;    // as on the command line
    std::size_t line = 0;
};

// What the program took from the file.
struct UsedSettings
{
    std::string path;
    std::vector<std::string> names;    // of the settings that the command uses, without "--"
    std::vector<std::string> notices;  // settings that are not used, and why
};

// Reads TOML 1.0 (toml.io): strings, integers and booleans, in sections that are not nested.
// Returns them in the order of the lines. Throws ExitError with the line number for anything else.
std::vector<Setting> ReadSettings(std::istream& input);

// An empty value comes from an unset variable in a script; it is not a request for the default.
CLI::Validator NotEmpty();

// Adds --config and --no-config. Without either, the file of defaultPath is read when it exists.
//
// One file serves all commands. Settings before the first section apply to each command that has
// the option. A section applies to its command and overrides them; the command line overrides both.
// An option that no command has is an error: a misspelt protection must not be ignored. A setting
// that an option of the command line rules out is left out. Help and version do not need the file,
// and for `ciphers` a mistake in it is a notice. use: called before the command runs.
void AddSettingsFile(CLI::App& program, const std::string& defaultPath,
                     std::function<void(const UsedSettings& used)> use);

}  // namespace corpdir_tool

#endif
