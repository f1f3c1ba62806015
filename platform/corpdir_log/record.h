// One record between the thread that writes it and the log's thread.
#ifndef CORPDIR_LOG_RECORD_H
#define CORPDIR_LOG_RECORD_H

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace corpdir_log
{
// The head of one block of memory; the text follows it. Everything of the line but the time stands
// in the text, escaped, so that the record keeps no pointer of its writer's.
struct Record
{
    Record* next;  // in the list that holds the record
    std::chrono::system_clock::time_point time;
    std::size_t size;  // of the text, in bytes
    unsigned int level;

    std::string_view Text() const
    {
        return {reinterpret_cast<const char*>(this + 1), size};
    }
    std::size_t MemorySize() const
    {
        return sizeof(Record) + size;
    }
};

struct RecordDeleter
{
    void operator()(Record* record) const
    {
        std::free(record);
    }
};
using RecordPtr = std::unique_ptr<Record, RecordDeleter>;

// Where a record was written in the source. Null texts count as empty.
struct Place
{
    const char* module;
    const char* function;
    const char* file;
    unsigned int line;
};

// A record of this moment and thread. When memory is short the text is cut, and says so; null when
// there is none at all. Any thread; nothing is locked.
RecordPtr MakeRecord(const Place& place, unsigned int level, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// The same for the layer's own records.
RecordPtr MakeOwnRecord(const Place& place, unsigned int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// To be called in the child of a fork, whose one thread has a new number.
void ForgetThreadNumber();

// Records in the order in which they came, owned. Not thread-safe.
class RecordList
{
public:
    RecordList() = default;
    RecordList(RecordList&& other) noexcept;
    RecordList& operator=(RecordList&&) = delete;
    ~RecordList();

    void PushBack(RecordPtr record);
    RecordPtr PopFront();  // null when empty

    bool IsEmpty() const
    {
        return m_first == nullptr;
    }

private:
    Record* m_first = nullptr;
    Record* m_last = nullptr;
};

}  // namespace corpdir_log

#endif
