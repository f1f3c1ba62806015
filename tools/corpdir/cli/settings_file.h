// The file of --config, or the system's settings file.
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
    std::string value;    // as on the command line
    std::size_t line = 0;
};

// What a command takes from the file.
struct UsedSettings
{
    std::string path{};                  // for messages; empty when no file is used
    std::vector<std::string> names{};    // of the options that were set, without "--"
    std::vector<std::string> notices{};  // about what is not used, and why
};

// Reads TOML 1.0 (toml.io): strings, integers and booleans, in sections that are not nested.
// Returns them in the order of the lines. Throws ExitError with the line number for anything else.
std::vector<Setting> ReadSettings(std::istream& input);

// An empty value comes from an unset variable in a script; it is not a request for the default.
CLI::Validator NotEmpty();

// The file of --config, otherwise the default file if it exists and --no-config is not given.
//
// One file serves all commands. Settings before the first section apply to each command that has
// the option. A section applies to its command and overrides them; the command line overrides both.
// An option that no command has is an error: a misspelt protection must not be ignored. A setting
// that an option of the command line rules out is left out.
//
// The parser's own settings files are not used: its versions differ in when they read a default
// file, and in how an option then shows whether it was given.
class SettingsFile
{
public:
    // Adds --config and --no-config.
    SettingsFile(CLI::App& program, std::string defaultPath);
    SettingsFile(const SettingsFile&) = delete;
    SettingsFile& operator=(const SettingsFile&) = delete;

    // Sets the options of the command that the command line leaves out. Called after the command
    // line has been parsed. A mistake in the file is a notice for `ciphers`, otherwise it throws
    // ExitError.
    UsedSettings Apply(CLI::App& command) const;

private:
    UsedSettings ApplyTo(CLI::App& command, const std::string& path,
                         const std::vector<Setting>& settings) const;

    const CLI::App& m_program;
    const std::string m_defaultPath;
    std::string m_path;  // of --config; empty when it is not given
    bool m_none = false;
};

}  // namespace corpdir_tool

#endif
