// Escaping, so that a record is one line of valid UTF-8 whatever its arguments hold.
#ifndef CORPDIR_LOG_ESCAPE_H
#define CORPDIR_LOG_ESCAPE_H

#include <cstddef>
#include <string_view>

namespace corpdir_log
{
enum class Blanks
{
    kKeep,   // in the text, the last column
    kEscape  // in the columns before it, which a reader splits at blanks
};

// A line feed becomes \n and a backslash \\; each byte of a control character (the C1 set
// included), of a line or paragraph separator, of a character that is invisible or changes the
// direction of what follows, and of anything that is not UTF-8 becomes \x and two hexadecimal
// digits. Different texts never give the same bytes.

// Bytes that WriteEscaped writes for the text.
std::size_t EscapedSize(std::string_view text, Blanks blanks);

// Writes the escaped text without a terminator and returns its end.
char* WriteEscaped(std::string_view text, Blanks blanks, char* out);

}  // namespace corpdir_log

#endif
