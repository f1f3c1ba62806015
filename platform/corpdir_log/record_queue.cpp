#include "record_queue.h"

#include "corpdir_log.h"

#include <utility>

namespace corpdir_log
{
namespace
{
// Waking a thread costs its waker more than writing the record did, so in a stream of records the
// log's thread looks by itself this often.
constexpr std::chrono::milliseconds kShortRest{2};

}  // namespace

void RecordQueue::Open()
{
    const base::MutexLock lock(m_mutex);
    m_isOpen = true;
}

void RecordQueue::Close()
{
    const base::MutexLock lock(m_mutex);
    m_isOpen = false;
}

void RecordQueue::Push(RecordPtr record)
{
    RecordList dropped;  // freed without the mutex
    bool wake = false;
    {
        const base::MutexLock lock(m_mutex);
        if (!m_isOpen)
        {
            return;
        }
        if (record == nullptr)
        {
            ++m_dropped;
            return;
        }
        const std::size_t bytes = record->MemorySize();
        MakeRoom(bytes, &dropped);
        m_bytes += bytes;
        m_isUrgent |= record->level == CORPDIR_LOG_ERROR || m_bytes > kCapacity / 2;
        m_records.PushBack(std::move(record));
        wake = NeedsWaking();
        m_reader = wake ? Reader::kBusy : m_reader;
    }
    if (wake)
    {
        m_wake.NotifyAll();
    }
}

void RecordQueue::Wake()
{
    {
        const base::MutexLock lock(m_mutex);
        m_isUrgent = true;
        m_reader = Reader::kBusy;
    }
    m_wake.NotifyAll();
}

Batch RecordQueue::Take(Rest rest)
{
    const base::MutexLock lock(m_mutex);
    AwaitRecords(rest);
    m_isUrgent = false;
    m_bytes = 0;
    return {std::move(m_records), std::exchange(m_dropped, 0)};
}

void RecordQueue::MakeRoom(std::size_t bytes, RecordList* dropped)
{
    while (m_bytes + bytes > kCapacity && !m_records.IsEmpty())
    {
        RecordPtr oldest = m_records.PopFront();
        m_bytes -= oldest->MemorySize();
        dropped->PushBack(std::move(oldest));
        ++m_dropped;
    }
}

bool RecordQueue::NeedsWaking() const
{
    return m_reader == Reader::kLongRest || (m_reader == Reader::kShortRest && m_isUrgent);
}

// A short rest is slept through while records come in; a long one ends with the first of them.
void RecordQueue::AwaitRecords(Rest rest)
{
    if (rest == Rest::kNone || m_isUrgent || (rest == Rest::kLong && !m_records.IsEmpty()))
    {
        return;
    }
    const base::Clock::time_point deadline = base::Clock::now() + kShortRest;
    m_reader = rest == Rest::kShort ? Reader::kShortRest : Reader::kLongRest;
    while (m_reader != Reader::kBusy)
    {
        if (rest == Rest::kLong)
        {
            m_wake.Wait(m_mutex);
        }
        else if (!m_wake.WaitUntil(m_mutex, deadline))
        {
            m_reader = Reader::kBusy;
        }
    }
}

}  // namespace corpdir_log
