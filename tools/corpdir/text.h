// Helpers for texts in messages. Stateless; any thread.
#ifndef CORPDIR_TOOL_TEXT_H
#define CORPDIR_TOOL_TEXT_H

#include <string>
#include <string_view>

namespace corpdir_tool
{

// True for a byte below 0x20 and for 0x7f, which can end a line or control a terminal and must not
// be in an FTP command.
bool IsControlByte(char byte);

// The text with invalid UTF-8 and invisible characters ("base/printable.h") as \xNN.
std::string Printable(std::string_view text);

// The text without blanks at both ends.
std::string Trimmed(const std::string& text, const char* blanks = " \t");

// The system's message for an errno value.
std::string SystemMessage(int error);

}  // namespace corpdir_tool

#endif
