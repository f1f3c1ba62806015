// One record between the thread that writes it and the log's thread.
#ifndef CORPDIR_LOG_RECORD_H
#define CORPDIR_LOG_RECORD_H

#include <chrono>
#include <cstdarg>
#include <string>
#include <string_view>

namespace corpdir_log
{
// To be called before the first of the other functions, so that the child of a fork may call them,
// too. Throws std::bad_alloc.
void WatchForks();

// A line without its first column, the time. The columns in the text are escaped, so that the
// record holds no pointer of its caller.
struct Record
{
    std::chrono::system_clock::time_point time;
    unsigned int level;
    std::string text;
};

// Where a record was written in the source; the file's folders are not shown. Null texts count as
// empty.
struct Place
{
    const char* module;
    const char* function;
    const char* file;
    unsigned int line;
};

// Makes a record with the current time, process and thread. When memory is short the text is cut,
// and says so; throws std::bad_alloc when there is no memory for that either. Any thread; nothing
// is locked.
Record MakeRecord(const Place& place, unsigned int level, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// The same for the layer's own records.
Record MakeOwnRecord(const Place& place, unsigned int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Appends the record's line: "2025-03-01T09:30:00.125+01:00 TEXT" and a line feed. ISO 8601, local
// time. Throws std::bad_alloc. Any thread.
void AppendLine(const Record& record, std::string* lines);

enum class Blanks
{
    kKeep,   // in the text, the last column
    kEscape  // in the columns before it, which a reader splits at blanks
};

// Appends the text as one line of valid UTF-8. A line feed becomes \n and a backslash \\; each byte
// of a control character (the C1 set included), of a line or paragraph separator, of a character
// that is invisible or changes the direction of what follows, and of anything that is not UTF-8
// becomes \x and two hexadecimal digits. Different texts never give the same bytes.
void AppendEscaped(std::string_view text, Blanks blanks, std::string* out);

}  // namespace corpdir_log

#endif
