// Small helpers for texts in messages. Stateless, any thread.
#ifndef CORPDIR_TOOL_TEXT_H
#define CORPDIR_TOOL_TEXT_H

#include <string>
#include <string_view>

namespace corpdir_tool
{

// True for a byte below 0x20 or 0x7f: ends a line or steers a terminal, and has no place in an FTP
// command.
bool IsControlByte(char byte);

// The text with each byte of what is not UTF-8, or not to be seen ("base/printable.h"), as \xNN.
std::string Printable(std::string_view text);

// The system's words for an errno value.
std::string SystemMessage(int error);

}  // namespace corpdir_tool

#endif
