// Durations of options: "90", "90s", "5m", "2h", "1d".
#ifndef CORPDIR_TOOL_DURATION_H
#define CORPDIR_TOOL_DURATION_H

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace corpdir_tool
{

// The seconds of a duration; nothing for any other text, or for more than a century.
std::optional<unsigned int> SecondsOf(const std::string& text);

// The shortest text of a duration: "2m" for 120.
std::string DurationText(unsigned int seconds);

// Replaces a duration by its seconds, and refuses one that is not within these limits.
CLI::Validator Duration(unsigned int least, unsigned int most);

}  // namespace corpdir_tool

#endif
