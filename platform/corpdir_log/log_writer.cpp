#include "log_writer.h"

#include "corpdir_log.h"

#include <exception>
#include <utility>

namespace corpdir_log
{
namespace
{
std::atomic<std::chrono::milliseconds> g_patience{std::chrono::seconds(5)};

// Waking a thread takes longer than queuing a record. So the log's thread lets records
// gather for this long, unless an error is among them, or more than this many bytes.
constexpr std::chrono::milliseconds kGather{100};
constexpr std::size_t kManyBytes = 256U << 10;

std::size_t MemorySize(const Record& record)
{
    return sizeof record + record.text.size();
}

}  // namespace

void LogWriter::Write(const Place& place, unsigned int level, const char* format,
                      va_list arguments) noexcept
{
    try
    {
        // Allocated and freed without the mutex: an operator new of the client may write records.
        std::list<Record> record;
        record.push_back(MakeRecord(place, level, format, arguments));
        std::list<Record> dropped;
        const base::MutexLock lock(m_mutex);
        Push(&record, &dropped);
    }
    catch (const std::exception&)  // memory ran out
    {
        const base::MutexLock lock(m_mutex);
        m_dropped += m_level == kClosed ? 0 : 1;
    }
}

// Moves the one record to the end of the queue, and those that it pushes out to `dropped`.
void LogWriter::Push(std::list<Record>* record, std::list<Record>* dropped)
{
    if (m_level == kClosed)
    {
        return;
    }
    const std::size_t bytes = MemorySize(record->front());
    while (m_bytes + bytes > kCapacity && !m_records.empty())
    {
        m_bytes -= MemorySize(m_records.front());
        dropped->splice(dropped->end(), m_records, m_records.begin());
        ++m_dropped;
    }
    const bool isFirst = m_records.empty();
    const bool isUrgent =
        record->front().level == CORPDIR_LOG_ERROR || m_bytes + bytes > kManyBytes;
    m_records.splice(m_records.end(), *record);
    m_bytes += bytes;
    if (isFirst || (isUrgent && !m_isUrgent))
    {
        m_wake.NotifyAll();
    }
    m_isUrgent |= isUrgent;
}

int LogWriter::Open(const LogSettings& settings)
{
    const auto deadline = base::Clock::now() + g_patience.load();
    const auto opening = std::make_shared<Opening>(Opening{settings});
    const base::MutexLock lock(m_mutex);
    while (m_opening != nullptr && m_answered.WaitUntil(m_mutex, deadline))
    {
    }
    if (m_opening != nullptr)
    {
        return ETIMEDOUT;
    }
    if (m_isClosedForEver)
    {
        return ESHUTDOWN;
    }
    StartThread();
    m_opening = opening;
    m_wake.NotifyAll();
    while (m_opening == opening && m_answered.WaitUntil(m_mutex, deadline))
    {
    }
    if (m_opening == opening)
    {
        m_opening.reset();
        m_answered.NotifyAll();
        return ETIMEDOUT;
    }
    JoinEndedThread();
    return opening->error;
}

void LogWriter::Close()
{
    CloseBy(base::Clock::now() + g_patience.load());
}

void LogWriter::CloseBy(base::Clock::time_point deadline)
{
    const base::MutexLock lock(m_mutex);
    m_level = kClosed;
    if (m_isRunning)
    {
        m_isCloseAsked = true;
        m_wake.NotifyAll();
        while (m_isCloseAsked && m_answered.WaitUntil(m_mutex, deadline))
        {
        }
    }
    JoinEndedThread();
}

void LogWriter::CloseForEver(base::Clock::time_point deadline)
{
    {
        const base::MutexLock lock(m_mutex);
        m_isClosedForEver = true;
        m_opening.reset();
        m_answered.NotifyAll();
    }
    CloseBy(deadline);
}

std::chrono::milliseconds LogWriter::SetPatience(std::chrono::milliseconds patience)
{
    return g_patience.exchange(patience);
}

void LogWriter::StartThread()
{
    JoinEndedThread();
    if (!m_isRunning)
    {
        m_thread = base::Thread("corpdir-log", [this] { Run(); });
        m_isRunning = true;
    }
}

// The thread says that it has ended in its last section under the mutex, and owns no file by then:
// so this waits for no disk, only for the thread to return.
void LogWriter::JoinEndedThread()
{
    if (!m_isRunning && m_thread.Joinable())
    {
        m_thread.Join();
    }
}

// --- The log's thread

void LogWriter::Run()
{
    for (bool isOver = false; !isOver;)
    {
        std::list<Record> records;
        std::uint64_t dropped = 0;
        bool isClose = false;
        std::shared_ptr<Opening> opening;
        {
            const base::MutexLock lock(m_mutex);
            AwaitWork();
            records.swap(m_records);
            m_bytes = 0;
            m_isUrgent = false;
            dropped = std::exchange(m_dropped, 0);
            isClose = m_isCloseAsked;
            opening = m_opening;
        }
        if (m_target != nullptr)
        {
            m_target->Write(records, dropped);
        }
        records.clear();  // the memory, before a disk may be waited for
        if (isClose && m_target != nullptr)
        {
            m_target->Settle();
            m_target.reset();  // before the answer: the client may remove the directory then
        }
        if (!isClose && opening != nullptr)  // a close that came with it is executed first
        {
            OpenTarget(opening);
        }
        isOver = FinishRound(isClose);
    }
}

// Waits for a record or a command, and for more records unless it is urgent.
void LogWriter::AwaitWork()
{
    while (m_records.empty() && !HasCommand())
    {
        m_wake.Wait(m_mutex);
    }
    const auto deadline = base::Clock::now() + kGather;
    while (!m_isUrgent && !HasCommand() && m_wake.WaitUntil(m_mutex, deadline))
    {
    }
}

void LogWriter::OpenTarget(const std::shared_ptr<Opening>& opening)
{
    if (m_target != nullptr)
    {
        m_target->Settle();
    }
    int error = 0;
    std::unique_ptr<LogTarget> target;  // the one that is not used is destroyed without the mutex
    try
    {
        target = std::make_unique<LogTarget>(opening->settings, m_target.get());
    }
    catch (const std::exception& failure)
    {
        error = ErrorOf(failure);
    }
    const base::MutexLock lock(m_mutex);
    if (m_opening != opening)
    {
        return;  // its caller has given up
    }
    opening->error = error;
    if (target != nullptr)
    {
        m_target.swap(target);
        // A close that is asked for meanwhile has refused records already.
        m_level = m_isCloseAsked ? kClosed : static_cast<int>(opening->settings.level);
    }
    m_opening.reset();
    m_answered.NotifyAll();
}

// Answers a close. True, in the thread's last section under the mutex, when it is to end: the log
// is closed, and there is no command.
bool LogWriter::FinishRound(bool isClosed)
{
    const base::MutexLock lock(m_mutex);
    m_isCloseAsked = m_isCloseAsked && !isClosed;
    m_isRunning = m_target != nullptr || HasCommand();
    m_answered.NotifyAll();
    return !m_isRunning;
}

}  // namespace corpdir_log
