// Helpers for texts in messages. Stateless; any thread.
#ifndef CORPDIR_TOOL_TEXT_H
#define CORPDIR_TOOL_TEXT_H

#include <string>
#include <string_view>

namespace corpdir_tool
{

// The text with invalid UTF-8 and invisible characters ("base/printable.h") as \xNN.
std::string Printable(std::string_view text);

// The text without blanks at both ends.
std::string Trimmed(const std::string& text, const char* blanks = " \t");

// The word, printable, as a POSIX shell reads it.
std::string ShellWord(const std::string& word);

// The system's message for an errno value.
std::string SystemMessage(int error);

}  // namespace corpdir_tool

#endif
