#include "record.h"

#include "base/mutex.h"
#include "base/printable.h"
#include "corpdir_log.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

namespace corpdir_log
{
namespace
{
constexpr std::size_t kStackText = 1024;  // longer texts are formatted again on the heap
// No text can end like this: its own backslashes are escaped.
constexpr std::string_view kCutMark = " \\[cut: memory ran out]";

// The column of process and thread; empty: not known yet.
thread_local char t_numbers[32] = "";

// The numbers that ps and gdb show. Asking the system costs more than the rest of a record's
// columns.
const char* Numbers()
{
    if (t_numbers[0] == '\0')
    {
        (void)snprintf(t_numbers, sizeof t_numbers, "%d/%d", static_cast<int>(getpid()),
                       static_cast<int>(gettid()));
    }
    return t_numbers;
}

const char* WithoutFolders(const char* file)
{
    const char* const slash = file == nullptr ? nullptr : strrchr(file, '/');
    return slash == nullptr ? file : slash + 1;
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

// The text that printf makes of a format and its arguments. An argument may have grown or shrunk
// since the text was measured.
__attribute__((format(printf, 2, 0))) std::string FormatOnHeap(std::size_t length,
                                                               const char* format,
                                                               va_list arguments)
{
    std::string text(length, '\0');
    const int written = vsnprintf(text.data(), length + 1, format, arguments);
    text.resize(std::min(length, static_cast<std::size_t>(std::max(written, 0))));
    return text;
}

std::string Assemble(const Place& place, unsigned int level, std::string_view text,
                     std::string_view mark)
{
    constexpr std::size_t kOtherColumns = 96;  // a guess, for one allocation
    std::string line;
    line.reserve(kOtherColumns + text.size());
    line += LevelWord(level);
    line += ' ';
    line += Numbers();
    line += ' ';
    AppendEscaped(Column(place.module), Blanks::kEscape, &line);
    line += ' ';
    AppendEscaped(Column(place.function), Blanks::kEscape, &line);
    line += ' ';
    AppendEscaped(Column(WithoutFolders(place.file)), Blanks::kEscape, &line);
    line += ':';
    line += std::to_string(place.line);
    line += ' ';
    AppendEscaped(text, Blanks::kKeep, &line);
    line += mark;
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

// The C library locks its time zone and does not unlock it in the child of a fork. As long as this
// is held around both, a fork never meets it locked by this layer.
base::Mutex g_zone;

void BeforeFork() CORPDIR_ANNOTATE(no_thread_safety_analysis)
{
    g_zone.Lock();
}

void AfterForkInParent() CORPDIR_ANNOTATE(no_thread_safety_analysis)
{
    g_zone.Unlock();
}

void AfterForkInChild() CORPDIR_ANNOTATE(no_thread_safety_analysis)
{
    g_zone.Unlock();
    t_numbers[0] = '\0';
}

std::tm LocalTime(std::time_t second)
{
    const base::MutexLock lock(g_zone);
    std::tm local = {};
    (void)localtime_r(&second, &local);  // no clock shows a time that has no date
    return local;
}

// The first column; many records share a second. Each thread has its own, so that the child of a
// fork never finds it half written.
struct TimeColumn
{
    std::time_t second = -1;
    char text[80] = "";
};
thread_local TimeColumn t_time;

constexpr std::size_t kMilliseconds = 20;  // their place in the column

void SetTime(std::time_t second)
{
    const std::tm local = LocalTime(second);
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    (void)snprintf(t_time.text, sizeof t_time.text,
                   "%04d-%02d-%02dT%02d:%02d:%02d.000%c%02ld:%02ld ", local.tm_year + 1900,
                   local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                   local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
    t_time.second = second;
}

}  // namespace

void WatchForks()
{
    // When it throws, the next call tries again.
    [[maybe_unused]] static const bool s_isWatching =
        pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild) == 0
            ? true
            : throw std::bad_alloc();
}

Record MakeRecord(const Place& place, unsigned int level, const char* format, va_list arguments)
{
    Record record{std::chrono::system_clock::now(), level, {}};
    format = format == nullptr ? "(null)" : format;
    char stack[kStackText];
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not follow the callers'
    const int length = vsnprintf(stack, sizeof stack, format, arguments);
    auto size = static_cast<std::size_t>(std::max(length, 0));
    if (length < 0)
    {
        // An invalid wide text, or more than 2 GiB: the format is better than nothing.
        (void)snprintf(stack, sizeof stack, "Cannot be formatted: %s", format);
        size = strlen(stack);
    }
    try
    {
        std::string heap;
        std::string_view text(stack, std::min(size, sizeof stack - 1));
        if (size >= sizeof stack)
        {
            text = heap = FormatOnHeap(size, format, again);
        }
        record.text = Assemble(place, level, text, {});
    }
    catch (const std::bad_alloc&)
    {
        // The text stays empty and is made again below.
    }
    va_end(again);
    if (record.text.empty())
    {
        record.text = Assemble(place, level, stack, kCutMark);
    }
    return record;
}

Record MakeOwnRecord(const Place& place, unsigned int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Record record = MakeRecord(place, level, format, arguments);
    va_end(arguments);
    return record;
}

void AppendLine(const Record& record, std::string* lines)
{
    const auto since =
        std::chrono::floor<std::chrono::milliseconds>(record.time.time_since_epoch());
    const auto second = std::chrono::floor<std::chrono::seconds>(since);
    if (second.count() != t_time.second)
    {
        SetTime(second.count());
    }
    const auto rest = static_cast<unsigned int>((since - second).count());
    t_time.text[kMilliseconds] = static_cast<char>('0' + rest / 100);
    t_time.text[kMilliseconds + 1] = static_cast<char>('0' + rest / 10 % 10);
    t_time.text[kMilliseconds + 2] = static_cast<char>('0' + rest % 10);
    lines->append(t_time.text).append(record.text).append("\n");
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
