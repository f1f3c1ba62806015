#include "record.h"

#include "corpdir_log.h"
#include "escape.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <new>
#include <utility>

namespace corpdir_log
{
namespace
{
constexpr std::size_t kStackText = 1024;  // longer texts are formatted on the heap
// No text can end like this: its own backslashes are escaped.
constexpr std::string_view kCutMark = " \\[cut: memory ran out]";

thread_local unsigned int t_threadNumber = 0;  // 0: not asked for yet

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

struct FreeDeleter
{
    void operator()(char* memory) const
    {
        std::free(memory);
    }
};

// What printf makes of a format and its arguments. Most texts fit the stack, and only longer ones
// are formatted a second time.
class FormattedText
{
public:
    FormattedText(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)))
    {
        va_list again;
        va_copy(again, arguments);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not follow the callers'
        const int length = vsnprintf(m_stack.data(), m_stack.size(), format, arguments);
        if (length < 0)
        {
            // An invalid wide text, or more than 2 GiB: the format says more than nothing.
            (void)snprintf(m_stack.data(), m_stack.size(), "Cannot be formatted: %s", format);
            m_text = m_stack.data();
        }
        else if (static_cast<std::size_t>(length) < m_stack.size())
        {
            m_text = {m_stack.data(), static_cast<std::size_t>(length)};
        }
        else
        {
            FormatOnHeap(static_cast<std::size_t>(length), format, again);
        }
        va_end(again);
    }

    std::string_view Text() const
    {
        return m_text;
    }
    bool IsCut() const
    {
        return m_isCut;
    }
    void Cut()
    {
        m_text = m_text.substr(0, kStackText - 1);
        m_isCut = true;
    }

private:
    void FormatOnHeap(std::size_t length, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)))
    {
        m_text = {m_stack.data(), kStackText - 1};
        m_heap.reset(static_cast<char*>(std::malloc(length + 1)));
        if (m_heap == nullptr)
        {
            m_isCut = true;
            return;
        }
        // An argument may have grown or shrunk since it was measured.
        const int written = vsnprintf(m_heap.get(), length + 1, format, arguments);
        if (written >= 0)
        {
            m_text = {m_heap.get(), std::min(length, static_cast<std::size_t>(written))};
        }
    }

    std::array<char, kStackText> m_stack;
    std::unique_ptr<char, FreeDeleter> m_heap;
    std::string_view m_text;
    bool m_isCut = false;
};

// The columns between time and text.
struct Columns
{
    std::string_view level;
    std::string_view module;
    std::string_view function;
    std::string_view file;
    std::array<char, 10> thread;
    std::size_t threadSize;
    std::array<char, 10> line;
    std::size_t lineSize;
};

std::size_t WriteNumber(unsigned int number, std::array<char, 10>* digits)
{
    const auto result = std::to_chars(digits->data(), digits->data() + digits->size(), number);
    return static_cast<std::size_t>(result.ptr - digits->data());
}

Columns MakeColumns(const Place& place, unsigned int level)
{
    Columns columns;
    columns.level = LevelWord(level);
    columns.module = Column(place.module);
    columns.function = Column(place.function);
    columns.file = Column(place.file);
    columns.threadSize = WriteNumber(ThreadNumber(), &columns.thread);
    columns.lineSize = WriteNumber(place.line, &columns.line);
    return columns;
}

std::size_t SizeOf(const Columns& columns)
{
    constexpr std::size_t kSeparators = 6;
    return columns.level.size() + columns.threadSize +
           EscapedSize(columns.module, Blanks::kEscape) +
           EscapedSize(columns.function, Blanks::kEscape) +
           EscapedSize(columns.file, Blanks::kEscape) + columns.lineSize + kSeparators;
}

char* Write(const Columns& columns, char* out)
{
    out = std::copy(columns.level.begin(), columns.level.end(), out);
    *out++ = ' ';
    out = std::copy_n(columns.thread.data(), columns.threadSize, out);
    *out++ = ' ';
    out = WriteEscaped(columns.module, Blanks::kEscape, out);
    *out++ = ' ';
    out = WriteEscaped(columns.function, Blanks::kEscape, out);
    *out++ = ' ';
    out = WriteEscaped(columns.file, Blanks::kEscape, out);
    *out++ = ':';
    out = std::copy_n(columns.line.data(), columns.lineSize, out);
    *out++ = ' ';
    return out;
}

// One allocation: measured first, then written.
RecordPtr Assemble(const Columns& columns, unsigned int level, const FormattedText& text)
{
    const std::string_view mark = text.IsCut() ? kCutMark : std::string_view();
    const std::size_t size =
        SizeOf(columns) + EscapedSize(text.Text(), Blanks::kKeep) + mark.size();
    void* const memory = std::malloc(sizeof(Record) + size);
    if (memory == nullptr)
    {
        return nullptr;
    }
    RecordPtr record(new (memory) Record{nullptr, std::chrono::system_clock::now(), size, level});
    char* out = Write(columns, reinterpret_cast<char*>(record.get() + 1));
    out = WriteEscaped(text.Text(), Blanks::kKeep, out);
    std::copy(mark.begin(), mark.end(), out);
    return record;
}

}  // namespace

RecordPtr MakeRecord(const Place& place, unsigned int level, const char* format, va_list arguments)
{
    FormattedText text(format == nullptr ? "(null)" : format, arguments);
    const Columns columns = MakeColumns(place, level);
    RecordPtr record = Assemble(columns, level, text);
    if (record == nullptr)
    {
        text.Cut();
        record = Assemble(columns, level, text);
    }
    return record;
}

RecordPtr MakeOwnRecord(const Place& place, unsigned int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    RecordPtr record = MakeRecord(place, level, format, arguments);
    va_end(arguments);
    return record;
}

void ForgetThreadNumber()
{
    t_threadNumber = 0;
}

RecordList::RecordList(RecordList&& other) noexcept
    : m_first(std::exchange(other.m_first, nullptr)), m_last(std::exchange(other.m_last, nullptr))
{
}

RecordList::~RecordList()
{
    while (PopFront() != nullptr)
    {
    }
}

void RecordList::PushBack(RecordPtr record)
{
    record->next = nullptr;
    (m_first == nullptr ? m_first : m_last->next) = record.get();
    m_last = record.release();
}

RecordPtr RecordList::PopFront()
{
    RecordPtr record(m_first);
    if (record != nullptr)
    {
        m_first = record->next;
    }
    return record;
}

}  // namespace corpdir_log
