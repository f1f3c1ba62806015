// The bounded queue between the client's threads and the log's.
#ifndef CORPDIR_LOG_RECORD_QUEUE_H
#define CORPDIR_LOG_RECORD_QUEUE_H

#include "base/mutex.h"
#include "record.h"

#include <cstddef>
#include <cstdint>

namespace corpdir_log
{
// How the log's thread waits for records.
enum class Rest
{
    kNone,
    kShort,  // a moment, since more is likely to come: nobody pays for waking it
    kLong    // until a record comes
};

// What the log's thread takes at a time.
struct Batch
{
    RecordList records;
    std::uint64_t dropped;  // records that are missing before the first of these
};

// Holds at most kCapacity bytes, or one record that is larger; records that come when it is full
// push out the oldest. Thread-safe, under a mutex that is held for a few instructions, or for as
// many as the records are that one larger record pushes out; none is freed meanwhile.
class RecordQueue
{
public:
    static constexpr std::size_t kCapacity = 8U << 20;

    // A closed queue drops what is pushed, and does not count it.
    void Open();
    void Close();

    // Null counts as a dropped record. Wakes the log's thread if it rests for long, and from a
    // short rest for an error or when the queue is half full.
    void Push(RecordPtr record);

    // Ends a rest at once, also one that has yet to begin.
    void Wake();

    // Everything that is there, after a rest if there is nothing.
    Batch Take(Rest rest);

private:
    enum class Reader
    {
        kBusy,
        kShortRest,
        kLongRest
    };

    void MakeRoom(std::size_t bytes, RecordList* dropped) CORPDIR_REQUIRES(m_mutex);
    bool NeedsWaking() const CORPDIR_REQUIRES(m_mutex);
    void AwaitRecords(Rest rest) CORPDIR_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    base::CondVar m_wake;
    RecordList m_records CORPDIR_GUARDED_BY(m_mutex);
    std::size_t m_bytes CORPDIR_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_dropped CORPDIR_GUARDED_BY(m_mutex) = 0;
    bool m_isOpen CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_isUrgent CORPDIR_GUARDED_BY(m_mutex) = false;  // no rest until the next Take
    Reader m_reader CORPDIR_GUARDED_BY(m_mutex) = Reader::kBusy;
};

}  // namespace corpdir_log

#endif
