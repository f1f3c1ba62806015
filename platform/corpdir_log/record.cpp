#include "record.h"

#include "base/printable.h"
#include "corpdir_log.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <new>

namespace corpdir_log
{
namespace
{
constexpr std::size_t kStackText = 1024;  // longer texts are formatted on the heap
// No text can end like this: its own backslashes are escaped.
constexpr std::string_view kCutMark = " \\[cut: memory ran out]";

thread_local unsigned int t_threadNumber = 0;  // 0: not known yet

// The number that ps and gdb show. Asking the system costs more than the rest of a record's
// columns.
unsigned int ThreadNumber()
{
    if (t_threadNumber == 0)
    {
        t_threadNumber = static_cast<unsigned int>(gettid());
    }
    return t_threadNumber;
}

std::string_view LevelWord(unsigned int level)
{
    constexpr std::array<std::string_view, 3> kWords{"error", "notice", "info"};
    return kWords[std::min<std::size_t>(level, kWords.size() - 1)];
}

// A column that is empty would shift the ones after it.
std::string_view Column(const char* text)
{
    return text == nullptr || *text == '\0' ? std::string_view("-") : std::string_view(text);
}

void AppendNumber(unsigned int number, std::string* out)
{
    std::array<char, 10> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    out->append(digits.data(), result.ptr);
}

// False when memory ran out.
bool TryResize(std::string* text, std::size_t size)
{
    try
    {
        text->resize(size);
        return true;
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
}

// What printf makes of a format and its arguments.
struct FormattedText
{
    std::array<char, kStackText> stack;  // the beginning in any case
    std::string heap;
    std::string_view text;  // in one of the two
    bool isCut = false;

    void Cut()
    {
        text = {stack.data(), std::min(text.size(), kStackText - 1)};
        heap = {};
        isCut = true;
    }
};

void FormatOnHeap(FormattedText* out, std::size_t length, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

void FormatOnHeap(FormattedText* out, std::size_t length, const char* format, va_list arguments)
{
    out->text = {out->stack.data(), kStackText - 1};
    if (!TryResize(&out->heap, length))
    {
        out->isCut = true;
        return;
    }
    // An argument may have grown or shrunk since it was measured.
    const int written = vsnprintf(out->heap.data(), length + 1, format, arguments);
    if (written >= 0)
    {
        out->text = {out->heap.data(), std::min(length, static_cast<std::size_t>(written))};
    }
}

// Most texts fit the stack, and only longer ones are formatted a second time.
void Format(FormattedText* out, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

void Format(FormattedText* out, const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not follow the callers'
    const int length = vsnprintf(out->stack.data(), out->stack.size(), format, arguments);
    if (length < 0)
    {
        // An invalid wide text, or more than 2 GiB: the format is better than nothing.
        (void)snprintf(out->stack.data(), out->stack.size(), "Cannot be formatted: %s", format);
        out->text = out->stack.data();
    }
    else if (static_cast<std::size_t>(length) < out->stack.size())
    {
        out->text = {out->stack.data(), static_cast<std::size_t>(length)};
    }
    else
    {
        FormatOnHeap(out, static_cast<std::size_t>(length), format, again);
    }
    va_end(again);
}

std::string Assemble(const Place& place, unsigned int level, const FormattedText& text)
{
    constexpr std::size_t kOtherColumns = 96;  // a guess, for one allocation
    std::string line;
    line.reserve(kOtherColumns + text.text.size());
    line += LevelWord(level);
    line += ' ';
    AppendNumber(ThreadNumber(), &line);
    line += ' ';
    AppendEscaped(Column(place.module), Blanks::kEscape, &line);
    line += ' ';
    AppendEscaped(Column(place.function), Blanks::kEscape, &line);
    line += ' ';
    AppendEscaped(Column(place.file), Blanks::kEscape, &line);
    line += ':';
    AppendNumber(place.line, &line);
    line += ' ';
    AppendEscaped(text.text, Blanks::kKeep, &line);
    line += text.isCut ? kCutMark : std::string_view();
    return line;
}

// How many bytes at the front of the text are written as they are.
std::size_t PlainLength(std::string_view text, Blanks blanks)
{
    std::size_t length = 0;
    while (length < text.size() && text[length] != '\\' &&
           (text[length] != ' ' || blanks == Blanks::kKeep))
    {
        const std::size_t character = base::PrintableLength(text.substr(length));
        if (character == 0)
        {
            break;
        }
        length += character;
    }
    return length;
}

void AppendEscapedByte(char byte, std::string* out)
{
    if (byte == '\n' || byte == '\\')
    {
        *out += byte == '\n' ? "\\n" : "\\\\";
        return;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    const auto number = static_cast<unsigned char>(byte);
    *out += "\\x";
    *out += kDigits[number >> 4];
    *out += kDigits[number & 0x0F];
}

}  // namespace

Record MakeRecord(const Place& place, unsigned int level, const char* format, va_list arguments)
{
    const auto now = std::chrono::system_clock::now();
    FormattedText text;
    Format(&text, format == nullptr ? "(null)" : format, arguments);
    try
    {
        return {now, level, Assemble(place, level, text)};
    }
    catch (const std::bad_alloc&)
    {
        text.Cut();
        return {now, level, Assemble(place, level, text)};
    }
}

Record MakeOwnRecord(const Place& place, unsigned int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record record = MakeRecord(place, level, format, arguments);
    va_end(arguments);
    return record;
}

void ForgetThreadNumber()
{
    t_threadNumber = 0;
}

void AppendEscaped(std::string_view text, Blanks blanks, std::string* out)
{
    for (;;)
    {
        const std::size_t plain = PlainLength(text, blanks);
        out->append(text.substr(0, plain));
        if (plain == text.size())
        {
            return;
        }
        AppendEscapedByte(text[plain], out);
        text.remove_prefix(plain + 1);
    }
}

}  // namespace corpdir_log
