// The commands and options of the program, with their help.
#ifndef CORPDIR_TOOL_COMMAND_LINE_H
#define CORPDIR_TOOL_COMMAND_LINE_H

#include <functional>
#include <string>

#include "cli/options.h"

namespace corpdir_tool
{

// Runs one command; returns its exit status.
using Runner = std::function<int(const Options& options)>;

struct Commands
{
    Runner fetch;
    Runner watch;
    Runner check;
    Runner status;
    Runner ciphers;
};

// Reads the command line and the settings file, and runs the command. Help, version, mistakes and
// notices are printed here. defaultSettings: the settings file without --config. Returns the exit
// status.
int RunCommandLine(int argc, char** argv, const Commands& commands, std::string (*versionText)(),
                   const std::string& defaultSettings);

}  // namespace corpdir_tool

#endif
